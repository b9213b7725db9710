#pragma once

#include <cstdint>
#include <optional>

#include "host/video/CaptureGeometry.hpp"
#include "kit/wire/WireTypes.hpp"

// The rectangles of focus mode: what part of a display the stream shows, and the size a window is
// fitted to. Pure.
namespace kelvaron::host {

// How far around a window the picture reaches, for its shadow and edges.
inline constexpr double kSurfaceMargin = 8;

// `rect` (global) as a part of `display` (display-local points), grown by the margin and cut to
// the display; the whole display when that leaves less than a point either way.
Rect surfaceBase(const DisplayInfo& display, const Rect& rect);

// The surface for a window with a popup on the same display: both, unless that covers more than
// 0.8 of the display, when the window's alone.
Rect surfaceWithPopup(const DisplayInfo& display, const Rect& window, const Rect& popup);

// The frame a window is fitted to for a client screen of `output` pixels: the client's shape at
// the display's scale, shrunk to fit `visible`, at least 320 by 240 points; placed where the
// window is if it can, moved in if it must, its top left on screen.
Rect fitFrame(const Rect& window, const Rect& visible, const DisplayInfo& display,
              PixelSize output);

// The union of two rectangles.
Rect unite(const Rect& a, const Rect& b);

}  // namespace kelvaron::host
