// A relay's port is open to anyone: whatever datagrams come, from whichever addresses, the relay
// answers no one more than the datagram it got, keeps no one it has not admitted, and its
// error-answer table stays bounded.

#include <cstddef>
#include <cstdint>

#include "relay/RelayServerCore.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace kelvaron;
  relay::ServerLimits limits;
  limits.errorSources = 8;
  relay::ServerCore core(
      Data(65, 4),
      [next = std::uint8_t(0)](std::size_t n) mutable {
        Data bytes(n);
        for (auto& b : bytes) b = next++;
        return bytes;
      },
      limits);
  // Each datagram: a length byte, a source byte, then that many bytes.
  double now = 0;
  for (std::size_t at = 0; at + 2 <= size;) {
    const std::size_t length = std::min<std::size_t>(data[at], size - at - 2);
    relay::Address from;
    from.ip[15] = data[at + 1];
    from.port = 1000;
    const std::span<const std::uint8_t> datagram(data + at + 2, length);
    for (const relay::Outgoing& out : core.receive(from, datagram, now, 1'700'000'000)) {
      if (out.datagram.size() > datagram.size() || !(out.to == from)) __builtin_trap();
    }
    if (core.partyCount() != 0 || core.errorSourceCount() > limits.errorSources) __builtin_trap();
    at += 2 + length;
    now += 0.01;
  }
  return 0;
}
