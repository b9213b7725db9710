#pragma once

#include <chrono>

namespace kelvaron {

// Seconds on the monotonic clock, for intervals and for the times that state machines compare.
inline double uptimeSeconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

}  // namespace kelvaron
