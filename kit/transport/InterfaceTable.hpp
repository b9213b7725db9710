#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <span>
#include <string>
#include <tuple>

#include "kit/transport/NetworkPath.hpp"

namespace kelvaron {

// The machine's interfaces and addresses as the kernel tells them over rtnetlink (link and address
// messages, from a dump or as notifications), and the network path they make. A message that is
// cut short or malformed is skipped; the rest of its datagram still counts.
class InterfaceTable {
 public:
  // Whether an Ethernet-framed interface of that name is in fact a wireless one.
  using WirelessCheck = std::function<bool(const std::string& name)>;

  explicit InterfaceTable(WirelessCheck isWireless) : isWireless_(std::move(isWireless)) {}

  // Applies every message of one datagram. True when the datagram ends the answer to a request: a
  // dump's end, or an error in its place.
  bool apply(std::span<const std::uint8_t> datagram);

  // Forgets everything, before a fresh dump.
  void clear();

  // The interfaces that are up, running, not loopback, and have an address, sorted by name.
  NetworkPath path() const;

 private:
  struct Link {
    std::string name;
    unsigned flags = 0;
    std::string type;
  };
  // An address of an interface is known by its family, prefix length and bytes (IPv4 in the
  // first four).
  using Address = std::tuple<std::uint8_t, std::uint8_t, std::array<std::uint8_t, 16>>;

  void applyLink(std::uint16_t messageType, std::span<const std::uint8_t> body);
  void applyAddress(std::uint16_t messageType, std::span<const std::uint8_t> body);
  std::string typeOf(unsigned short hardwareType, const std::string& name) const;
  bool isAvailable(int index, const Link& link) const;

  WirelessCheck isWireless_;
  std::map<int, Link> links_;
  std::map<int, std::set<Address>> addresses_;  // by interface index, none empty
};

}  // namespace kelvaron
