#include "host/input/HostScroll.hpp"

#include <algorithm>
#include <cmath>

namespace kelvaron::host::HostScroll {

namespace {

std::int32_t wholePixels(float units, float& fraction) {
  const float v = kPixelsPerUnit * units + fraction;
  if (!std::isfinite(v)) {  // a finite delta too large to double
    fraction = 0;
    return v > 0 ? kMaxPixels : -kMaxPixels;
  }
  const float whole = std::trunc(v);
  fraction = v - whole;
  return std::int32_t(std::clamp(whole, float(-kMaxPixels), float(kMaxPixels)));
}

std::int32_t wholeClicks(std::int32_t pixels, std::int32_t& pending) {
  pending += pixels;
  const std::int32_t clicks = pending / kPixelsPerClick;  // toward zero, as the fractions are
  pending -= clicks * kPixelsPerClick;
  return clicks;
}

}  // namespace

std::optional<Pixels> toPixels(float dx, float dy, Remainder& remainder) {
  if (!std::isfinite(dx) || !std::isfinite(dy)) return std::nullopt;
  const std::int32_t y = wholePixels(dy, remainder.y);
  const std::int32_t x = wholePixels(dx, remainder.x);
  return Pixels{x, y};
}

Pixels toClicks(Pixels pixels, Remainder& remainder) {
  return {wholeClicks(pixels.x, remainder.pixelsX), wholeClicks(pixels.y, remainder.pixelsY)};
}

}  // namespace kelvaron::host::HostScroll
