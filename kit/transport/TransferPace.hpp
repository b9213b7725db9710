#pragma once

#include <cstddef>

namespace kelvaron {

// How fast a host takes files while it streams video, so that the files never take the picture's
// share of the processor: a token bucket refilled at `bytesPerSecond` that holds at most `burst`
// bytes, full at the start. Times are seconds on one monotonic clock.
class TransferPace {
 public:
  TransferPace(double bytesPerSecond, double burst);

  // Up to `wanted` bytes that may be taken at `now`; what it grants is spent.
  std::size_t grant(std::size_t wanted, double now);

 private:
  double rate_, burst_, tokens_;
  double last_ = 0;
  bool started_ = false;
};

}  // namespace kelvaron
