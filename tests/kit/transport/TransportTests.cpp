// The transport's units fed by hand: the host's TXT record, the in-flight budget, the path change
// detector, a stream's send queue, the netlink interface table, and the host's certificate.

#include <gmock/gmock.h>
#include <linux/if.h>
#include <linux/if_arp.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <fstream>
#include <string>
#include <vector>

#include "kit/crypto/AuthCrypto.hpp"
#include "kit/crypto/DER.hpp"
#include "kit/transport/HostTXTRecord.hpp"
#include "kit/transport/InFlightBudget.hpp"
#include "kit/transport/InterfaceTable.hpp"
#include "kit/transport/PathChangeDetector.hpp"
#include "kit/transport/SelfSignedIdentity.hpp"
#include "kit/transport/StreamSendQueue.hpp"
#include "tests/support/ChildProcess.hpp"
#include "tests/support/TempDirectory.hpp"

namespace kelvaron {
namespace {

using namespace test;

const UUID kHostID = *UUID::parse("E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
const UUID kOtherID = *UUID::parse("0A1B2C3D-4E5F-6071-8293-A4B5C6D7E8F9");

// A TXT record in DNS form from its strings.
Data record(const std::vector<std::string>& strings) {
  Data bytes;
  for (const auto& text : strings)
    bytes = concat({bytes, Data{std::uint8_t(text.size())}, Data(text.begin(), text.end())});
  return bytes;
}

TEST(HostTXTRecord, CarriesTheHostIDAndReadsTheFirstIDInEitherCase) {
  EXPECT_EQ(HostTXTRecord::encode(kHostID), record({"id=E621E1F8-C36C-495A-93FC-0C247A3E6E5F"}));
  EXPECT_TRUE(HostTXTRecord::encode(std::nullopt).empty());
  const std::pair<Data, std::optional<UUID>> cases[] = {
      {{}, std::nullopt},
      {record({""}), std::nullopt},  // the empty record's one string
      {record({"", "v=2", "ID=e621e1f8-c36c-495a-93fc-0c247a3e6e5f"}), kHostID},
      {record({"idx=" + kOtherID.string(), "id=" + kHostID.string()}), kHostID},
      {record({"id=" + kOtherID.string(), "id=" + kHostID.string()}), kOtherID},
      {record({"id=not-a-uuid", "id=" + kHostID.string()}), std::nullopt},
      {record({"id", "id=" + kHostID.string()}), std::nullopt},
      {Data{40, 'i', 'd', '='}, std::nullopt},  // cut short
      {record({"id=" + kHostID.string() + " "}), std::nullopt},
  };
  for (const auto& [bytes, id] : cases) {
    EXPECT_EQ(HostTXTRecord::hostID(bytes), id) << std::string(bytes.begin(), bytes.end());
  }
}

TEST(InFlightBudget, MediaIsRefusedBeyondItsLimitsAndTransfersWaitUnlessIdle) {
  InFlightBudget budget({.maxVideoFramesInFlight = 2,
                         .maxVideoBytesInFlight = 1000,
                         .maxAudioPacketsInFlight = 1,
                         .maxTransferBytesInFlight = 500});
  // Video: by count, and by bytes before the frame, so that one large frame still goes alone.
  EXPECT_TRUE(budget.admit(StreamKind::video, 5000));
  EXPECT_FALSE(budget.admit(StreamKind::video, 1));
  budget.sent(StreamKind::video, 5000);
  EXPECT_TRUE(budget.admit(StreamKind::video, 100));
  EXPECT_TRUE(budget.admit(StreamKind::video, 100));
  EXPECT_FALSE(budget.admit(StreamKind::video, 100));  // two in flight
  budget.sent(StreamKind::video, 100);
  EXPECT_TRUE(budget.admit(StreamKind::video, 100));

  // Audio has its own count; messages are never refused.
  EXPECT_TRUE(budget.admit(StreamKind::audio, 10));
  EXPECT_FALSE(budget.admit(StreamKind::audio, 10));
  for (int i = 0; i < 100; ++i) EXPECT_TRUE(budget.admit(StreamKind::control, 1 << 20));
  budget.sent(StreamKind::control, 1 << 20);
  EXPECT_TRUE(budget.admit(StreamKind::input, 1 << 20));

  // Transfers: anything when idle, else only what fits.
  EXPECT_TRUE(budget.admit(StreamKind::transfer, 800));
  EXPECT_FALSE(budget.admit(StreamKind::transfer, 1));
  budget.sent(StreamKind::transfer, 800);
  EXPECT_TRUE(budget.admit(StreamKind::transfer, 300));
  EXPECT_TRUE(budget.admit(StreamKind::transfer, 200));
  EXPECT_FALSE(budget.admit(StreamKind::transfer, 1));
}

// A restart is called for by a kind of interface that comes or goes, or by going offline or
// coming back; not by the first path, the order, or more of a kind already there.
TEST(PathChangeDetector, OnlyAChangeOfKindsOrOfReachabilityCallsForARestart) {
  const NetworkInterface wired{"eth0", "wiredEthernet"}, secondWired{"eth1", "wiredEthernet"},
      wifi{"wlan0", "wifi"};
  const std::pair<NetworkPath, bool> steps[] = {
      {{true, {wired}}, false},       {{true, {wired, wifi}}, true},
      {{true, {wifi, wired}}, false}, {{true, {wifi, secondWired, wired}}, false},
      {{true, {wifi}}, true},         {{false, {}}, true},
      {{true, {wifi}}, true},
  };
  PathChangeDetector detector;
  for (std::size_t i = 0; i < std::size(steps); ++i) {
    EXPECT_EQ(detector.update(PathChangeDetector::signature(steps[i].first)), steps[i].second)
        << "step " << i;
  }
}

Data concatenated(const std::vector<std::span<const std::uint8_t>>& views) {
  Data out;
  for (const auto view : views) out.insert(out.end(), view.begin(), view.end());
  return out;
}

TEST(StreamSendQueue, AnItemCountsAsSentWithItsLastByteIsKeptUntilAckedAndTheEndFollowsIt) {
  StreamSendQueue queue;
  queue.push({9}, false);  // an opening: sent, but nobody's to account for
  queue.push({1, 2, 3});
  queue.push({4, 5});
  EXPECT_EQ(concatenated(queue.unsent(8)), (Data{9, 1, 2, 3, 4, 5}));
  EXPECT_EQ(queue.unsent(1).size(), 1u);

  EXPECT_THAT(queue.markSent(2), testing::IsEmpty());  // the opening and half of the first item
  EXPECT_EQ(concatenated(queue.unsent(8)), (Data{2, 3, 4, 5}));
  EXPECT_THAT(queue.markSent(4), testing::ElementsAre(3u, 2u));
  EXPECT_FALSE(queue.hasUnsent());
  EXPECT_EQ(queue.heldItems(), 3u);  // the stack may still send them again

  queue.acknowledge(0, 3);  // covers the opening, not the first item's end
  EXPECT_EQ(queue.heldItems(), 2u);
  queue.acknowledge(3, 3);
  EXPECT_EQ(queue.heldItems(), 0u);
  EXPECT_EQ(queue.ackedOffset(), 6u);

  EXPECT_FALSE(queue.finQueued());
  queue.push({6, 7});
  queue.finish();
  EXPECT_TRUE(queue.finQueued());
  EXPECT_EQ(concatenated(queue.unsent(8)), (Data{6, 7}));
  EXPECT_EQ(queue.unsentBytes(), 2u);
  EXPECT_THAT(queue.markSent(2, true), testing::ElementsAre(2u));
  EXPECT_FALSE(queue.finQueued());
  EXPECT_TRUE(queue.markSent(0).empty());
}

constexpr unsigned kUp = IFF_UP | IFF_RUNNING;
const Data kIPv4 = {192, 168, 1, 20};
const Data kIPv6 = {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
const NetworkPath kOffline{false, {}};

template <class T>
Data bytesOf(const T& value) {
  const auto* begin = reinterpret_cast<const std::uint8_t*>(&value);
  return Data(begin, begin + sizeof value);
}

// A netlink message or attribute: its header, its body, and the padding the kernel adds.
template <class Header>
Data padded(const Header& header, const Data& body) {
  Data bytes = concat({bytesOf(header), body});
  bytes.resize(NLMSG_ALIGN(bytes.size()));
  return bytes;
}
Data message(std::uint16_t type, const Data& body) {
  return padded(nlmsghdr{static_cast<std::uint32_t>(NLMSG_LENGTH(body.size())), type, 0, 0, 0},
                body);
}
Data attribute(unsigned short type, const Data& payload) {
  return padded(rtattr{static_cast<unsigned short>(RTA_LENGTH(payload.size())), type}, payload);
}

Data link(std::uint16_t type, int index, unsigned flags, const std::string& name,
          unsigned short hardware = ARPHRD_ETHER, unsigned char family = AF_UNSPEC) {
  const Data terminated(name.c_str(), name.c_str() + name.size() + 1);
  return message(type, concat({bytesOf(ifinfomsg{family, 0, hardware, index, flags, 0}),
                               attribute(IFLA_IFNAME, terminated)}));
}

Data address(std::uint16_t type, int index, const Data& bytes) {
  const auto family = static_cast<unsigned char>(bytes.size() == 4 ? AF_INET : AF_INET6);
  return message(type,
                 concat({bytesOf(ifaddrmsg{family, 24, 0, 0, static_cast<std::uint32_t>(index)}),
                         attribute(IFA_ADDRESS, bytes)}));
}

struct InterfaceTableTest : testing::Test {
  InterfaceTable table{[](const std::string& name) { return name.starts_with("wl"); }};
};

TEST_F(InterfaceTableTest, AnInterfaceIsListedWhileUpWithACarrierAndAnAddress) {
  table.apply(link(RTM_NEWLINK, 2, IFF_UP, "eth0"));
  table.apply(address(RTM_NEWADDR, 2, kIPv4));
  EXPECT_EQ(table.path(), kOffline);  // no carrier
  table.apply(link(RTM_NEWLINK, 2, IFF_UP | IFF_LOWER_UP, "eth0"));
  EXPECT_EQ(table.path(), (NetworkPath{true, {{"eth0", "wiredEthernet"}}}));

  // It goes with its last address or its link; a bridge port's report is not about the link.
  table.apply(address(RTM_NEWADDR, 2, kIPv6));
  table.apply(address(RTM_DELADDR, 2, kIPv4));
  table.apply(link(RTM_DELLINK, 2, kUp, "eth0", ARPHRD_ETHER, AF_BRIDGE));
  EXPECT_TRUE(table.path().satisfied);
  table.apply(address(RTM_DELADDR, 2, kIPv6));
  EXPECT_EQ(table.path(), kOffline);
  table.apply(address(RTM_NEWADDR, 2, kIPv4));
  table.apply(link(RTM_DELLINK, 2, kUp, "eth0"));
  EXPECT_EQ(table.path(), kOffline);
  table.apply(link(RTM_NEWLINK, 2, kUp, "eth0"));
  EXPECT_EQ(table.path(), kOffline);  // its addresses went with it
}

TEST_F(InterfaceTableTest, NamesTheKindOfEachInterfaceAndNeverListsLoopback) {
  table.apply(
      concat({link(RTM_NEWLINK, 1, kUp | IFF_LOOPBACK, "lo", ARPHRD_LOOPBACK),
              link(RTM_NEWLINK, 4, kUp, "wlp2s0"), link(RTM_NEWLINK, 5, kUp, "tun0", ARPHRD_NONE),
              link(RTM_NEWLINK, 2, kUp, "enp3s0")}));
  for (int index : {1, 2, 4, 5}) table.apply(address(RTM_NEWADDR, index, kIPv6));
  EXPECT_EQ(
      table.path(),
      (NetworkPath{true, {{"enp3s0", "wiredEthernet"}, {"tun0", "other"}, {"wlp2s0", "wifi"}}}));
}

TEST_F(InterfaceTableTest, AMalformedMessageIsSkippedAndTheRestOfItsDatagramCounts) {
  const Data shortLink = message(RTM_NEWLINK, Data(4));  // less than its fixed header
  const Data badAttribute = concat({bytesOf(ifinfomsg{AF_UNSPEC, 0, ARPHRD_ETHER, 3, kUp, 0}),
                                    bytesOf(rtattr{200, IFLA_IFNAME})});  // longer than the message
  const Data unterminated = concat({bytesOf(ifinfomsg{AF_UNSPEC, 0, ARPHRD_ETHER, 2, kUp, 0}),
                                    attribute(IFLA_IFNAME, Data{'e', 't', 'h', '0'})});
  table.apply(concat({shortLink, message(RTM_NEWLINK, badAttribute),
                      message(RTM_NEWLINK, unterminated), address(RTM_NEWADDR, 2, {1, 2, 3}),
                      address(RTM_NEWADDR, 3, kIPv4), address(RTM_NEWADDR, 2, kIPv4)}));
  // Link 3 was never told, and the address of the wrong length is dropped.
  EXPECT_EQ(table.path(), (NetworkPath{true, {{"eth0", "wiredEthernet"}}}));
}

TEST_F(InterfaceTableTest, ADumpEndsWithItsDoneOrAnErrorAndAnOverlongMessageEndsItsDatagram) {
  Data overlong = link(RTM_NEWLINK, 2, kUp, "eth0");
  overlong[0] = 0xff;  // nlmsg_len, little-endian
  EXPECT_FALSE(table.apply(concat({overlong, message(NLMSG_DONE, Data(4))})));
  EXPECT_EQ(table.path(), kOffline);
  EXPECT_FALSE(table.apply(link(RTM_NEWLINK, 2, kUp, "eth0")));
  EXPECT_TRUE(table.apply(concat({address(RTM_NEWADDR, 2, kIPv4), message(NLMSG_DONE, Data(4))})));
  EXPECT_TRUE(table.apply(message(NLMSG_ERROR, Data(sizeof(nlmsgerr)))));
  EXPECT_TRUE(table.path().satisfied);
  table.clear();
  EXPECT_EQ(table.path(), kOffline);
}

TEST(SelfSignedIdentity, TheCertificateParsesAndVerifiesInCerttool) {
  TempDirectory dir;
  const std::string longName(200, 'n');  // DER lengths in their long forms too
  const Data der = SelfSignedIdentity::temporary(longName).certificateDER();
  std::ofstream(dir / "host.der", std::ios::binary)
      .write(reinterpret_cast<const char*>(der.data()), static_cast<std::streamsize>(der.size()));
  const auto info = runCommand({"certtool", "-i", "--inder", "--infile", dir / "host.der"});
  if (info.status == 127) GTEST_SKIP() << "certtool (gnutls-bin) is not installed";
  ASSERT_TRUE(info.succeeded()) << info.output;
  EXPECT_THAT(info.output,
              testing::AllOf(testing::HasSubstr("Version: 3"), testing::HasSubstr("CN=" + longName),
                             testing::HasSubstr("ECDSA-SHA256"), testing::HasSubstr("SECP256R1")));
  std::ofstream(dir / "host.pem") << info.output;  // which ends in the certificate as PEM
  const auto chain = runCommand({"certtool", "--verify", "--load-ca-certificate", dir / "host.pem",
                                 "--infile", dir / "host.pem"});
  EXPECT_TRUE(chain.succeeded()) << chain.output;
  EXPECT_THAT(chain.output, testing::HasSubstr("Verified"));
}

TEST(SelfSignedIdentity, TheDERFollowsItsRules) {
  EXPECT_EQ(der::integer(Data{0x00, 0x00, 0x01}), (Data{0x02, 0x01, 0x01}));
  EXPECT_EQ(der::integer(Data{0x80}), (Data{0x02, 0x02, 0x00, 0x80}));
  EXPECT_EQ(der::integer(Data{0x00}), (Data{0x02, 0x01, 0x00}));
  const Data text = der::generalizedTime(std::chrono::system_clock::from_time_t(2556144000));
  EXPECT_EQ(std::string(text.begin() + 2, text.end()), "20510101000000Z");

  // The serial is positive: the INTEGER's first content byte never has its top bit set.
  for (int i = 0; i < 20; ++i) {
    const Data cert = SelfSignedIdentity::temporary("h").certificateDER();
    // Certificate SEQUENCE, TBSCertificate SEQUENCE, the version [0] (5 bytes), then the serial.
    auto header = [&](std::size_t at) -> std::size_t {
      return cert[at + 1] < 0x80 ? 2 : 2 + (cert[at + 1] & 0x7F);
    };
    const std::size_t serialTag = header(0) + header(header(0)) + 5;
    ASSERT_EQ(cert[serialTag], 0x02);
    EXPECT_EQ(cert[serialTag + 2] & 0x80, 0);
  }
}

TEST(SelfSignedIdentity, APersistentIdentitySurvivesAndHalfOfOneIsReplaced) {
  TempDirectory dir;
  const auto stores = IdentityStores::files(dir.path(), kHostIdentityTag);
  const auto load = [&] {
    return SelfSignedIdentity::loadOrCreate(stores, "studio").fingerprint();
  };
  const Data first = load();
  EXPECT_EQ(load(), first);
  EXPECT_EQ(first.size(), 32u);
  EXPECT_EQ(std::filesystem::status(dir / (std::string(kHostIdentityTag) + ".key")).permissions(),
            std::filesystem::perms(0600));

  stores.certificate->remove();  // the key stays: it is purged and a new identity made
  const Data afterLostCertificate = load();
  EXPECT_NE(afterLostCertificate, first);

  stores.key->remove();
  const Data afterLostKey = load();
  EXPECT_NE(afterLostKey, afterLostCertificate);

  // A key that does not belong to the certificate, or a key that does not parse.
  stores.key->write(P256PrivateKey::generate().rawRepresentation());
  const Data afterForeignKey = load();
  EXPECT_NE(afterForeignKey, afterLostKey);
  stores.key->write(Data{1, 2, 3});
  const Data afterGarbage = load();
  EXPECT_NE(afterGarbage, afterForeignKey);
  EXPECT_EQ(load(), afterGarbage);

  // A store that cannot be written is a keychain failure with the system's error number.
  std::ofstream(dir / "file") << "not a folder";
  EXPECT_THAT(
      [&] {
        SelfSignedIdentity::loadOrCreate(IdentityStores::files(dir / "file", "tag"), "studio");
      },
      testing::Throws<IdentityError>(
          testing::AllOf(testing::Property(&IdentityError::kind, IdentityError::Kind::keychain),
                         testing::Property(&IdentityError::status, ENOTDIR))));
}

}  // namespace
}  // namespace kelvaron
