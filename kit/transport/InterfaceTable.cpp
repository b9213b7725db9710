#include "kit/transport/InterfaceTable.hpp"

#include <linux/if.h>
#include <linux/if_arp.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <optional>

namespace kelvaron {

namespace {

using Bytes = std::span<const std::uint8_t>;

// A header read from wherever the bytes lie: the kernel aligns its messages, outside input may not.
template <class T>
T readHeader(Bytes bytes) {
  T header;
  std::memcpy(&header, bytes.data(), sizeof header);
  return header;
}

Bytes dropFront(Bytes bytes, std::size_t count) {
  return bytes.subspan(std::min(count, bytes.size()));
}

// Calls `body(type, payload)` for each attribute of a run, as RTA_OK and RTA_NEXT walk it. False
// when the run does not end where its last attribute does: the message is then malformed.
template <class Body>
bool forEachAttribute(Bytes attributes, Body body) {
  while (attributes.size() >= sizeof(rtattr)) {
    const auto attribute = readHeader<rtattr>(attributes);
    if (attribute.rta_len < sizeof(rtattr) || attribute.rta_len > attributes.size()) return false;
    body(attribute.rta_type, attributes.subspan(RTA_LENGTH(0), attribute.rta_len - RTA_LENGTH(0)));
    attributes = dropFront(attributes, RTA_ALIGN(attribute.rta_len));
  }
  return attributes.empty();
}

// Text up to its terminating NUL or the end of the payload, whichever comes first.
std::string boundedText(Bytes payload) {
  const auto* text = reinterpret_cast<const char*>(payload.data());
  return {text, strnlen(text, payload.size())};
}

}  // namespace

bool InterfaceTable::apply(Bytes datagram) {
  bool endsRequest = false;
  while (datagram.size() >= sizeof(nlmsghdr)) {
    const auto header = readHeader<nlmsghdr>(datagram);
    if (header.nlmsg_len < NLMSG_HDRLEN || header.nlmsg_len > datagram.size()) break;
    const Bytes body = datagram.subspan(NLMSG_HDRLEN, header.nlmsg_len - NLMSG_HDRLEN);
    switch (header.nlmsg_type) {
      case NLMSG_DONE:
      case NLMSG_ERROR:
        endsRequest = true;
        break;
      case RTM_NEWLINK:
      case RTM_DELLINK:
        applyLink(header.nlmsg_type, body);
        break;
      case RTM_NEWADDR:
      case RTM_DELADDR:
        applyAddress(header.nlmsg_type, body);
        break;
      default:
        break;
    }
    datagram = dropFront(datagram, NLMSG_ALIGN(header.nlmsg_len));
  }
  return endsRequest;
}

void InterfaceTable::applyLink(std::uint16_t messageType, Bytes body) {
  if (body.size() < sizeof(ifinfomsg)) return;
  const auto info = readHeader<ifinfomsg>(body);
  // Bridge ports report themselves in the bridge family too; those messages are not the link's.
  if (info.ifi_family != AF_UNSPEC) return;
  if (messageType == RTM_DELLINK) {
    links_.erase(info.ifi_index);
    addresses_.erase(info.ifi_index);
    return;
  }
  std::optional<std::string> name;
  const bool wellFormed = forEachAttribute(dropFront(body, NLMSG_ALIGN(sizeof(ifinfomsg))),
                                           [&](auto type, Bytes payload) {
                                             if (type == IFLA_IFNAME) name = boundedText(payload);
                                           });
  if (!wellFormed) return;
  Link& link = links_[info.ifi_index];
  if (name) link.name = *name;
  link.flags = info.ifi_flags;
  link.type = typeOf(info.ifi_type, link.name);
}

void InterfaceTable::applyAddress(std::uint16_t messageType, Bytes body) {
  if (body.size() < sizeof(ifaddrmsg)) return;
  const auto info = readHeader<ifaddrmsg>(body);
  const std::size_t length = info.ifa_family == AF_INET ? 4 : info.ifa_family == AF_INET6 ? 16 : 0;
  if (length == 0) return;
  // A point-to-point address names the peer in IFA_ADDRESS; the interface's own is IFA_LOCAL.
  std::optional<Bytes> local, address;
  const bool wellFormed = forEachAttribute(dropFront(body, NLMSG_ALIGN(sizeof(ifaddrmsg))),
                                           [&](auto type, Bytes payload) {
                                             if (payload.size() != length) return;
                                             if (type == IFA_LOCAL) local = payload;
                                             if (type == IFA_ADDRESS) address = payload;
                                           });
  const auto bytes = local ? local : address;
  if (!wellFormed || !bytes) return;
  Address key{info.ifa_family, info.ifa_prefixlen, {}};
  std::copy(bytes->begin(), bytes->end(), std::get<2>(key).begin());
  const int index = static_cast<int>(info.ifa_index);
  if (messageType == RTM_NEWADDR) {
    addresses_[index].insert(key);
  } else if (const auto found = addresses_.find(index); found != addresses_.end()) {
    found->second.erase(key);
    if (found->second.empty()) addresses_.erase(found);
  }
}

std::string InterfaceTable::typeOf(unsigned short hardwareType, const std::string& name) const {
  if (hardwareType == ARPHRD_LOOPBACK) return "loopback";
  if (hardwareType != ARPHRD_ETHER) return "other";
  return isWireless_(name) ? "wifi" : "wiredEthernet";
}

bool InterfaceTable::isAvailable(int index, const Link& link) const {
  const bool up = (link.flags & IFF_UP) && (link.flags & (IFF_RUNNING | IFF_LOWER_UP));
  if (!up || (link.flags & IFF_LOOPBACK) || link.type == "loopback") return false;
  return addresses_.contains(index);
}

void InterfaceTable::clear() {
  links_.clear();
  addresses_.clear();
}

NetworkPath InterfaceTable::path() const {
  NetworkPath path;
  for (const auto& [index, link] : links_) {
    if (isAvailable(index, link)) path.interfaces.push_back({link.name, link.type});
  }
  std::sort(path.interfaces.begin(), path.interfaces.end(),
            [](const auto& a, const auto& b) { return a.name < b.name; });
  path.satisfied = !path.interfaces.empty();
  return path;
}

}  // namespace kelvaron
