#include "kit/transport/InterfaceTable.hpp"

#include <gtest/gtest.h>
#include <linux/if.h>
#include <linux/if_arp.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cstring>
#include <string>
#include <vector>

#include "kit/wire/Bytes.hpp"

namespace kelvaron {
namespace {

constexpr unsigned kUp = IFF_UP | IFF_RUNNING;

template <class T>
void append(Data& bytes, const T& value) {
  bytes = concat({bytes, {reinterpret_cast<const std::uint8_t*>(&value), sizeof value}});
}

void pad(Data& bytes, std::size_t alignment) {
  bytes.resize((bytes.size() + alignment - 1) / alignment * alignment);
}

void attribute(Data& body, unsigned short type, const Data& payload) {
  append(body, rtattr{static_cast<unsigned short>(RTA_LENGTH(payload.size())), type});
  body = concat({body, payload});
  pad(body, RTA_ALIGNTO);
}

// One netlink message, padded as the kernel pads it.
Data message(std::uint16_t type, const Data& body) {
  Data bytes;
  append(bytes, nlmsghdr{static_cast<std::uint32_t>(NLMSG_LENGTH(body.size())), type, 0, 0, 0});
  bytes = concat({bytes, body});
  pad(bytes, NLMSG_ALIGNTO);
  return bytes;
}

Data link(std::uint16_t type, int index, unsigned flags, const std::string& name,
          unsigned short hardware = ARPHRD_ETHER, unsigned char family = AF_UNSPEC) {
  Data body;
  append(body, ifinfomsg{family, 0, hardware, index, flags, 0});
  Data text(name.begin(), name.end());
  text.push_back(0);
  attribute(body, IFLA_IFNAME, text);
  return message(type, body);
}

Data address(std::uint16_t type, int index, const Data& bytes) {
  Data body;
  const auto family = static_cast<unsigned char>(bytes.size() == 4 ? AF_INET : AF_INET6);
  append(body, ifaddrmsg{family, 24, 0, 0, static_cast<std::uint32_t>(index)});
  attribute(body, IFA_ADDRESS, bytes);
  return message(type, body);
}

Data done() { return message(NLMSG_DONE, Data(4)); }

Data datagram(std::initializer_list<Data> messages) {
  Data bytes;
  for (const auto& m : messages) bytes = concat({bytes, m});
  return bytes;
}

const Data kIPv4 = {192, 168, 1, 20};
const Data kIPv6 = {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
const NetworkPath kOffline{false, {}};

InterfaceTable makeTable() {
  return InterfaceTable([](const std::string& name) { return name.starts_with("wl"); });
}

TEST(InterfaceTable, AnInterfaceIsAvailableWhenUpWithACarrierAndAnAddress) {
  auto table = makeTable();
  table.apply(link(RTM_NEWLINK, 2, IFF_UP, "eth0"));
  table.apply(address(RTM_NEWADDR, 2, kIPv4));
  EXPECT_EQ(table.path(), kOffline);  // no carrier
  table.apply(link(RTM_NEWLINK, 2, IFF_UP | IFF_LOWER_UP, "eth0"));
  EXPECT_EQ(table.path(), (NetworkPath{true, {{"eth0", "wiredEthernet"}}}));
  table.apply(link(RTM_NEWLINK, 3, kUp, "eth1"));
  EXPECT_EQ(table.path().interfaces.size(), 1u);  // eth1 has no address
}

TEST(InterfaceTable, NamesTheKindOfEachInterfaceAndNeverListsLoopback) {
  auto table = makeTable();
  table.apply(
      datagram({link(RTM_NEWLINK, 1, kUp | IFF_LOOPBACK, "lo", ARPHRD_LOOPBACK),
                link(RTM_NEWLINK, 4, kUp, "wlp2s0"), link(RTM_NEWLINK, 5, kUp, "tun0", ARPHRD_NONE),
                link(RTM_NEWLINK, 2, kUp, "enp3s0")}));
  for (int index : {1, 2, 4, 5}) table.apply(address(RTM_NEWADDR, index, kIPv6));
  EXPECT_EQ(
      table.path(),
      (NetworkPath{true, {{"enp3s0", "wiredEthernet"}, {"tun0", "other"}, {"wlp2s0", "wifi"}}}));
}

TEST(InterfaceTable, AnInterfaceGoesWithItsLastAddressOrItsLink) {
  auto table = makeTable();
  table.apply(datagram({link(RTM_NEWLINK, 2, kUp, "eth0"), address(RTM_NEWADDR, 2, kIPv4),
                        address(RTM_NEWADDR, 2, kIPv6)}));
  table.apply(address(RTM_DELADDR, 2, kIPv4));
  EXPECT_TRUE(table.path().satisfied);
  table.apply(address(RTM_DELADDR, 2, kIPv6));
  EXPECT_EQ(table.path(), kOffline);

  table.apply(address(RTM_NEWADDR, 2, kIPv4));
  table.apply(link(RTM_DELLINK, 2, kUp, "eth0"));
  EXPECT_EQ(table.path(), kOffline);
  table.apply(link(RTM_NEWLINK, 2, kUp, "eth0"));
  EXPECT_EQ(table.path(), kOffline);  // its addresses went with it
}

TEST(InterfaceTable, ABridgePortReportIsNotAboutTheLink) {
  auto table = makeTable();
  table.apply(datagram({link(RTM_NEWLINK, 2, kUp, "eth0"), address(RTM_NEWADDR, 2, kIPv4)}));
  table.apply(link(RTM_DELLINK, 2, kUp, "eth0", ARPHRD_ETHER, AF_BRIDGE));
  EXPECT_TRUE(table.path().satisfied);
}

TEST(InterfaceTable, AMalformedMessageIsSkippedAndTheRestOfItsDatagramCounts) {
  auto table = makeTable();
  const Data shortLink = message(RTM_NEWLINK, Data(4));  // less than its fixed header
  Data badAttribute;
  append(badAttribute, ifinfomsg{AF_UNSPEC, 0, ARPHRD_ETHER, 3, kUp, 0});
  append(badAttribute, rtattr{200, IFLA_IFNAME});  // longer than the message
  Data unterminated;
  append(unterminated, ifinfomsg{AF_UNSPEC, 0, ARPHRD_ETHER, 2, kUp, 0});
  attribute(unterminated, IFLA_IFNAME, Data{'e', 't', 'h', '0'});
  table.apply(datagram({shortLink, message(RTM_NEWLINK, badAttribute),
                        message(RTM_NEWLINK, unterminated), address(RTM_NEWADDR, 2, {1, 2, 3}),
                        address(RTM_NEWADDR, 3, kIPv4), address(RTM_NEWADDR, 2, kIPv4)}));
  // Link 3 was never told, and the address of the wrong length is dropped.
  EXPECT_EQ(table.path(), (NetworkPath{true, {{"eth0", "wiredEthernet"}}}));
}

TEST(InterfaceTable, ADumpEndsWithItsDoneOrAnErrorAndAnOverlongMessageEndsItsDatagram) {
  auto table = makeTable();
  Data overlong = link(RTM_NEWLINK, 2, kUp, "eth0");
  overlong[0] = 0xff;  // nlmsg_len, little-endian
  EXPECT_FALSE(table.apply(datagram({overlong, done()})));
  EXPECT_EQ(table.path(), kOffline);
  EXPECT_FALSE(table.apply(link(RTM_NEWLINK, 2, kUp, "eth0")));
  EXPECT_TRUE(table.apply(datagram({address(RTM_NEWADDR, 2, kIPv4), done()})));
  EXPECT_TRUE(table.apply(message(NLMSG_ERROR, Data(sizeof(nlmsgerr)))));
  EXPECT_TRUE(table.path().satisfied);
  table.clear();
  EXPECT_EQ(table.path(), kOffline);
}

}  // namespace
}  // namespace kelvaron
