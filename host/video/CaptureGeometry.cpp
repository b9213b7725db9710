#include "host/video/CaptureGeometry.hpp"

#include <algorithm>
#include <cmath>

namespace kelvaron::host {

namespace {

// NaN counts as 0, so that a bad viewport from the network still yields a usable rectangle.
float finiteOrZero(float value) { return std::isnan(value) ? 0.0f : value; }

float normalizedSide(float origin, float side) {
  side = std::max(finiteOrZero(side), kMinNormalizedSide);
  side = std::min(side, 1.0f - origin);
  return std::max(side, kMinNormalizedSide);
}

// Rounded to nearest, within the output limits, and even, as encoders want.
std::uint32_t outputSide(double value) {
  if (std::isnan(value)) value = 0;
  const double clamped = std::clamp(std::round(value), double(kMinOutputSide),
                                    double(kMaxOutputSide));
  return std::uint32_t(clamped) & ~1u;
}

}  // namespace

NormalizedRect normalizedRect(const NormalizedRect& rect) {
  NormalizedRect result;
  result.x = std::clamp(finiteOrZero(rect.x), 0.0f, 1.0f);
  result.y = std::clamp(finiteOrZero(rect.y), 0.0f, 1.0f);
  result.width = normalizedSide(result.x, rect.width);
  result.height = normalizedSide(result.y, rect.height);
  return result;
}

Viewport defaultViewport(const DisplayInfo& display, const ClientCapabilities& client) {
  const double displayWidth = std::max(display.pixelWidth, 1u);
  const double displayHeight = std::max(display.pixelHeight, 1u);
  const double clientWidth = std::max(client.screenPixelWidth, 1u);
  const double clientHeight = std::max(client.screenPixelHeight, 1u);
  const double scale =
      std::min({clientWidth / displayWidth, clientHeight / displayHeight, 1.0});
  return Viewport{.displayID = display.id,
                  .sourceRect = {0, 0, 1, 1},
                  .outputWidth = outputSide(displayWidth * scale),
                  .outputHeight = outputSide(displayHeight * scale)};
}

SourceGeometry sourceGeometry(const DisplayInfo& display, const Viewport& viewport,
                              const CaptureScope& scope) {
  const NormalizedRect n = normalizedRect(viewport.sourceRect);
  const PixelSize asked{outputSide(viewport.outputWidth), outputSide(viewport.outputHeight)};
  const Rect* base = nullptr;
  if (const auto* app = std::get_if<scope::app>(&scope)) base = &app->base;
  if (const auto* region = std::get_if<scope::region>(&scope)) base = &region->base;

  if (!base) {
    const Rect source{n.x * display.frame.width, n.y * display.frame.height,
                      n.width * display.frame.width, n.height * display.frame.height};
    return {source, asked};
  }
  const Rect source{base->x + base->width * n.x, base->y + base->height * n.y,
                    base->width * n.width, base->height * n.height};
  if (!(source.width > 0 && source.height > 0 && viewport.outputWidth != 0 &&
        viewport.outputHeight != 0)) {
    return {source, asked};
  }
  // Never render more pixels than the display has.
  const double backing = display.pixelWidth / std::max(double(display.frame.width), 1.0);
  const double fit = std::min(viewport.outputWidth / source.width,
                              viewport.outputHeight / source.height);
  const double scale = backing > 1 ? std::min(backing, fit) : std::min(1.0, fit);
  return {source, {outputSide(source.width * scale), outputSide(source.height * scale)}};
}

}  // namespace kelvaron::host
