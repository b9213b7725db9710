#pragma once

#include <cstdint>
#include <optional>

namespace kelvaron::host {

// Scrolling from the client's units to what X11 can send: pixels, as a precise device would
// report them, and from those the clicks of a wheel, which is all the core protocol knows.
namespace HostScroll {

// Fractions of a pixel, and pixels short of a click, carried to the next event of a gesture.
struct Remainder {
  float x = 0, y = 0;
  std::int32_t pixelsX = 0, pixelsY = 0;
};

struct Pixels {
  std::int32_t x = 0, y = 0;
  friend bool operator==(const Pixels&, const Pixels&) = default;
};

inline constexpr float kPixelsPerUnit = 2;
inline constexpr std::int32_t kMaxPixels = 30000;  // per event and axis; the excess is dropped
inline constexpr std::int32_t kPixelsPerClick = 40;

// Whole pixels of a scroll by (dx, dy) units; nothing for a non-finite delta.
std::optional<Pixels> toPixels(float dx, float dy, Remainder& remainder);

// Whole wheel clicks of `pixels`; positive is up (y) or left (x), as the pixels are.
Pixels toClicks(Pixels pixels, Remainder& remainder);

}  // namespace HostScroll

}  // namespace kelvaron::host
