#pragma once

#include <array>
#include <cstddef>

#include "kit/transport/QUICConfiguration.hpp"

namespace kelvaron {

// How much of each stream's sends may be handed to the QUIC stack and not yet have gone into a
// packet. Video and audio are refused beyond their counts, so that a slow path drops frames rather
// than let them age in a queue; the limits look at what is in flight before a frame, so one frame
// larger than the byte limit still goes when nothing else is in flight. A transfer is admitted when
// nothing of it is in flight, or when it fits. Messages are never refused and never counted.
// Pure bookkeeping: its owner's lock guards it.
class InFlightBudget {
 public:
  explicit InFlightBudget(const QUICConfiguration& limits) : limits_(limits) {}

  // Whether `size` more bytes of `kind` may go now; if so they are counted.
  bool admit(StreamKind kind, std::size_t size);
  // `size` bytes of one item of `kind` went into a packet.
  void sent(StreamKind kind, std::size_t size);

 private:
  struct Count {
    int items = 0;
    std::size_t bytes = 0;
  };
  Count& countOf(StreamKind kind) { return counts_[static_cast<std::size_t>(kind)]; }

  const QUICConfiguration limits_;
  std::array<Count, kStreamKindCount> counts_{};
};

}  // namespace kelvaron
