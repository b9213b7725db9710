// Arbitrary bytes into the interface table as rtnetlink datagrams. Input: byte 0 sets the size of
// each datagram ((its value + 1) * 4 bytes); the rest is cut into datagrams of that size, applied
// in order, so that state carries from one to the next as it does from the kernel.
//
// Beyond "no crash, no leak", the path must keep its promises whatever came in: interfaces sorted
// by name, of a known kind, never loopback, and satisfied exactly when there is one.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <string>

#include "kit/transport/InterfaceTable.hpp"

namespace {

bool isKnownKind(const std::string& type) {
  return type == "wifi" || type == "wiredEthernet" || type == "other";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  if (size == 0) return 0;
  kelvaron::InterfaceTable table([](const std::string& name) { return name.starts_with("w"); });
  const std::size_t piece = (static_cast<std::size_t>(bytes[0]) + 1) * 4;
  std::span<const std::uint8_t> input(bytes + 1, size - 1);
  while (!input.empty()) {
    const std::size_t length = std::min(piece, input.size());
    table.apply(input.first(length));
    input = input.subspan(length);
  }
  const auto path = table.path();
  const auto& interfaces = path.interfaces;
  const bool sorted = std::is_sorted(interfaces.begin(), interfaces.end(),
                                     [](const auto& a, const auto& b) { return a.name < b.name; });
  const bool kinds = std::all_of(interfaces.begin(), interfaces.end(),
                                 [](const auto& interface) { return isKnownKind(interface.type); });
  if (!sorted || !kinds || path.satisfied == interfaces.empty()) std::abort();
  return 0;
}
