#include "kit/transport/InterfaceTable.hpp"

#include <gtest/gtest.h>
#include <linux/if.h>
#include <linux/if_arp.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <string>
#include <vector>

#include "kit/wire/Bytes.hpp"

namespace kelvaron {
namespace {

constexpr unsigned kUp = IFF_UP | IFF_RUNNING;

template <class T>
Data bytesOf(const T& value) {
  const auto* begin = reinterpret_cast<const std::uint8_t*>(&value);
  return Data(begin, begin + sizeof value);
}

// One netlink message, and one attribute, padded as the kernel pads them.
Data message(std::uint16_t type, const Data& body) {
  const nlmsghdr header{static_cast<std::uint32_t>(NLMSG_LENGTH(body.size())), type, 0, 0, 0};
  Data bytes = concat({bytesOf(header), body});
  bytes.resize(NLMSG_ALIGN(bytes.size()));
  return bytes;
}
Data attribute(unsigned short type, const Data& payload) {
  Data bytes = concat(
      {bytesOf(rtattr{static_cast<unsigned short>(RTA_LENGTH(payload.size())), type}), payload});
  bytes.resize(RTA_ALIGN(bytes.size()));
  return bytes;
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

const Data kIPv4 = {192, 168, 1, 20};
const Data kIPv6 = {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
const NetworkPath kOffline{false, {}};

InterfaceTable makeTable() {
  return InterfaceTable([](const std::string& name) { return name.starts_with("wl"); });
}

TEST(InterfaceTable, AnInterfaceIsListedWhileUpWithACarrierAndAnAddress) {
  auto table = makeTable();
  table.apply(link(RTM_NEWLINK, 2, IFF_UP, "eth0"));
  table.apply(address(RTM_NEWADDR, 2, kIPv4));
  EXPECT_EQ(table.path(), kOffline);  // no carrier
  table.apply(link(RTM_NEWLINK, 2, IFF_UP | IFF_LOWER_UP, "eth0"));
  EXPECT_EQ(table.path(), (NetworkPath{true, {{"eth0", "wiredEthernet"}}}));
  table.apply(link(RTM_NEWLINK, 3, kUp, "eth1"));
  EXPECT_EQ(table.path().interfaces.size(), 1u);  // eth1 has no address

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

TEST(InterfaceTable, NamesTheKindOfEachInterfaceAndNeverListsLoopback) {
  auto table = makeTable();
  table.apply(
      concat({link(RTM_NEWLINK, 1, kUp | IFF_LOOPBACK, "lo", ARPHRD_LOOPBACK),
              link(RTM_NEWLINK, 4, kUp, "wlp2s0"), link(RTM_NEWLINK, 5, kUp, "tun0", ARPHRD_NONE),
              link(RTM_NEWLINK, 2, kUp, "enp3s0")}));
  for (int index : {1, 2, 4, 5}) table.apply(address(RTM_NEWADDR, index, kIPv6));
  EXPECT_EQ(
      table.path(),
      (NetworkPath{true, {{"enp3s0", "wiredEthernet"}, {"tun0", "other"}, {"wlp2s0", "wifi"}}}));
}

TEST(InterfaceTable, AMalformedMessageIsSkippedAndTheRestOfItsDatagramCounts) {
  auto table = makeTable();
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

TEST(InterfaceTable, ADumpEndsWithItsDoneOrAnErrorAndAnOverlongMessageEndsItsDatagram) {
  auto table = makeTable();
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

}  // namespace
}  // namespace kelvaron
