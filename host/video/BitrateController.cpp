#include "host/video/BitrateController.hpp"

#include <algorithm>

namespace kelvaron::host {

std::optional<std::int64_t> BitrateController::update(const Feedback& feedback, double now) {
  // A NaN jitter is not above the threshold.
  const bool congested = feedback.framesDropped != 0 || feedback.jitterMs > jitterThresholdMs;
  if (congested) {
    cleanSince.reset();
    if (now - lastDecrease < decreaseCooldown) return std::nullopt;
    lastDecrease = now;
    return scaleBy(0.7);
  }
  if (!cleanSince) cleanSince = now;
  if (now - *cleanSince < cleanInterval) return std::nullopt;
  cleanSince = now;  // the next raise is another clean interval away
  return scaleBy(1.1);
}

std::optional<std::int64_t> BitrateController::scaleBy(double factor) {
  const auto scaled = std::int64_t(double(bitrate) * factor);
  const std::int64_t next = std::clamp(scaled, kMinimum, kMaximum);
  if (next == bitrate) return std::nullopt;
  bitrate = next;
  return next;
}

}  // namespace kelvaron::host
