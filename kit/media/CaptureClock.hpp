#pragma once

#include <time.h>

#include <cstdint>

namespace kelvaron {

// The clock of capture times and encode latency: monotonic, and never slewed by NTP.
inline std::uint64_t monotonicRawNs() {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC_RAW, &now);
  return std::uint64_t(now.tv_sec) * 1000000000u + std::uint64_t(now.tv_nsec);
}

}  // namespace kelvaron
