#include "kit/transport/InFlightBudget.hpp"

namespace kelvaron {

bool InFlightBudget::admit(StreamKind kind, std::size_t size) {
  Count& count = countOf(kind);
  switch (kind) {
    case StreamKind::video:
      if (count.items >= limits_.maxVideoFramesInFlight ||
          count.bytes >= limits_.maxVideoBytesInFlight) {
        return false;
      }
      break;
    case StreamKind::audio:
      if (count.items >= limits_.maxAudioPacketsInFlight || count.bytes >= kMaxAudioBytesInFlight) {
        return false;
      }
      break;
    case StreamKind::transfer:
      if (count.bytes != 0 && count.bytes + size > limits_.maxTransferBytesInFlight) return false;
      break;
    case StreamKind::control:
    case StreamKind::input:
      return true;
  }
  ++count.items;
  count.bytes += size;
  return true;
}

void InFlightBudget::sent(StreamKind kind, std::size_t size) {
  if (kind == StreamKind::control || kind == StreamKind::input) return;
  Count& count = countOf(kind);
  --count.items;
  count.bytes -= size;
}

}  // namespace kelvaron
