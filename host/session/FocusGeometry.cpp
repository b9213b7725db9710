#include "host/session/FocusGeometry.hpp"

#include <algorithm>

namespace kelvaron::host {

namespace {

// A fitted window is never smaller than this, whatever the client's shape.
constexpr double kMinFitWidth = 320, kMinFitHeight = 240;
// What covers more of the display than this shows the window too small to be worth it.
constexpr double kMaxPopupSurfaceShare = 0.8;

}  // namespace

Rect surfaceBase(const DisplayInfo& display, const Rect& rect) {
  const double width = display.frame.width, height = display.frame.height;
  const double left = std::max(rect.x - display.frame.x - kSurfaceMargin, 0.0);
  const double top = std::max(rect.y - display.frame.y - kSurfaceMargin, 0.0);
  const double right = std::min(rect.x - display.frame.x + rect.width + kSurfaceMargin, width);
  const double bottom = std::min(rect.y - display.frame.y + rect.height + kSurfaceMargin, height);
  if (right - left < 1 || bottom - top < 1) return {0, 0, width, height};
  return {left, top, right - left, bottom - top};
}

Rect surfaceWithPopup(const DisplayInfo& display, const Rect& window, const Rect& popup) {
  const Rect both = surfaceBase(display, unite(window, popup));
  const double displayArea = double(display.frame.width) * display.frame.height;
  if (both.width * both.height <= kMaxPopupSurfaceShare * displayArea) return both;
  return surfaceBase(display, window);
}

Rect fitFrame(const Rect& window, const Rect& visible, const DisplayInfo& display,
              PixelSize output) {
  double width = kMinFitWidth, height = kMinFitHeight;
  if (output.width != 0 && output.height != 0) {
    const double aspect = double(output.width) / output.height;
    // Pixels per point of the display (2 on a HiDPI screen). A display that reports fewer than
    // half a pixel per point, or none at all, counts as half, so the size stays finite and sane.
    const double scale =
        std::max(0.5, display.pixelWidth / std::max(1.0, double(display.frame.width)));
    const double width0 = output.width / scale, height0 = width0 / aspect;
    const double factor = std::min({visible.width / width0, visible.height / height0, 1.0});
    width = width0 * factor, height = height0 * factor;
    if (width < kMinFitWidth) width = kMinFitWidth, height = kMinFitWidth / aspect;
    if (height < kMinFitHeight) height = kMinFitHeight, width = aspect * kMinFitHeight;
  }

  // Where the window is if it fits there, moved in if it must, its top left always on screen.
  double x = window.x, y = window.y;
  if (x + width > visible.x + visible.width) x = visible.x + visible.width - width;
  if (y + height > visible.y + visible.height) y = visible.y + visible.height - height;
  x = std::max(x, visible.x), y = std::max(y, visible.y);
  return {x, y, width, height};
}

Rect unite(const Rect& a, const Rect& b) {
  const double left = std::min(a.x, b.x), top = std::min(a.y, b.y);
  const double right = std::max(a.x + a.width, b.x + b.width);
  const double bottom = std::max(a.y + a.height, b.y + b.height);
  return {left, top, right - left, bottom - top};
}

}  // namespace kelvaron::host
