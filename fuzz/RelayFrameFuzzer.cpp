// Datagrams from anyone on the network to a relay, or from a relay: a datagram either decodes to
// a frame that encodes back to the same bytes, or is refused, and an error frame's code is known
// or none.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>

#include "kit/relay/RelayFrame.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::span<const std::uint8_t> datagram(data, size);
  try {
    const kelvaron::RelayFrame frame = kelvaron::decodeRelayFrame(datagram);
    const kelvaron::Data again = kelvaron::encode(frame);
    if (!std::equal(again.begin(), again.end(), datagram.begin(), datagram.end())) {
      __builtin_trap();
    }
    if (const auto code = kelvaron::errorCode(frame);
        code && frame.payload[0] != std::uint8_t(*code)) {
      __builtin_trap();
    }
  } catch (const kelvaron::RelayFrameError&) {
  }
  return 0;
}
