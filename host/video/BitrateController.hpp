#pragma once

#include <cstdint>
#include <limits>
#include <optional>

#include "kit/wire/WireTypes.hpp"

namespace kelvaron::host {

// Turns the client's feedback into a target bit rate: a drop or high jitter cuts the rate by 30%
// at once (at most twice a second); two clean seconds raise it by 10%.
struct BitrateController {
  static constexpr std::int64_t kMinimum = 4000000;
  static constexpr std::int64_t kMaximum = 40000000;

  std::int64_t bitrate = 16000000;
  float jitterThresholdMs = 30.0f;
  double cleanInterval = 2.0;     // seconds
  double decreaseCooldown = 0.5;  // seconds
  std::optional<double> cleanSince;
  double lastDecrease = -std::numeric_limits<double>::infinity();

  // `now` in seconds on a monotonic clock. The new rate, or nothing if it did not change.
  std::optional<std::int64_t> update(const Feedback& feedback, double now);

 private:
  std::optional<std::int64_t> scaleBy(double factor);
};

}  // namespace kelvaron::host
