#pragma once

#include <cstdint>
#include <variant>

#include "kit/wire/WireTypes.hpp"

namespace kelvaron::host {

// A rectangle in points of the desktop, origin at the top left.
struct Rect {
  double x = 0, y = 0, width = 0, height = 0;
  friend bool operator==(const Rect&, const Rect&) = default;
};

// What a capture covers.
namespace scope {
struct display {
  friend bool operator==(const display&, const display&) = default;
};
// That application's windows on the display; `base` is the region of interest in points of the
// display.
struct app {
  std::int32_t pid = 0;
  Rect base;
  friend bool operator==(const app&, const app&) = default;
};
// A part of the display in points of the display.
struct region {
  Rect base;
  friend bool operator==(const region&, const region&) = default;
};
}  // namespace scope
using CaptureScope = std::variant<scope::display, scope::app, scope::region>;

// Whether a change from `a` to `b` needs a new capture filter: `app` scopes of the same process
// count as the same.
inline bool sameFilter(const CaptureScope& a, const CaptureScope& b) {
  const auto* appA = std::get_if<scope::app>(&a);
  const auto* appB = std::get_if<scope::app>(&b);
  if (appA && appB) return appA->pid == appB->pid;
  return a == b;
}

struct PixelSize {
  std::uint32_t width = 0, height = 0;
  friend bool operator==(const PixelSize&, const PixelSize&) = default;
};

// What to capture: a rectangle of the display in its own points, and the size to render it at.
struct SourceGeometry {
  Rect source;
  PixelSize output;
  friend bool operator==(const SourceGeometry&, const SourceGeometry&) = default;
};

inline constexpr std::uint32_t kMinOutputSide = 2;
inline constexpr std::uint32_t kMaxOutputSide = 8192;
inline constexpr float kMinNormalizedSide = 0.001f;

// Clamped into 0...1, each side at least the minimum; at the far edge the minimal side may stick
// out by that minimum.
NormalizedRect normalizedRect(const NormalizedRect& rect);

// The whole display at the size the client's screen can show, never scaled up.
Viewport defaultViewport(const DisplayInfo& display, const ClientCapabilities& client);

SourceGeometry sourceGeometry(const DisplayInfo& display, const Viewport& viewport,
                              const CaptureScope& scope);

}  // namespace kelvaron::host
