#include "host/video/CaptureGeometry.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace kelvaron::host {
namespace {

DisplayInfo display(std::uint32_t width, std::uint32_t height) {
  return {7, "screen", true, width, height, {0, 0, float(width), float(height)}};
}

ClientCapabilities client(std::uint32_t width, std::uint32_t height) {
  return {{CodecProfile::hevcMain}, width, height, 2, "iPad", false};
}

TEST(CaptureGeometry, DefaultViewportFitsTheClientWithoutScalingUp) {
  const Viewport phone = defaultViewport(display(2560, 1600), client(1179, 2556));
  EXPECT_EQ(phone.displayID, 7u);
  EXPECT_EQ(phone.sourceRect, (NormalizedRect{0, 0, 1, 1}));
  EXPECT_EQ(phone.outputWidth, 1178u);  // 1179, made even
  EXPECT_EQ(phone.outputHeight, 736u);  // 736.875 rounds to 737, made even

  const Viewport small = defaultViewport(display(1280, 720), client(2048, 1536));
  EXPECT_EQ(small.outputWidth, 1280u);
  EXPECT_EQ(small.outputHeight, 720u);

  const Viewport empty = defaultViewport(display(0, 0), client(0, 0));
  EXPECT_EQ(empty.outputWidth, 2u);
  EXPECT_EQ(empty.outputHeight, 2u);
}

TEST(CaptureGeometry, NormalisesRectanglesFromTheNetwork) {
  const NormalizedRect edge = normalizedRect({0.9995f, 0, 0.5f, 1});
  EXPECT_FLOAT_EQ(edge.width, 0.001f);  // the minimal side, sticking out
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float inf = std::numeric_limits<float>::infinity();
  const NormalizedRect bad = normalizedRect({nan, -3, nan, inf});
  EXPECT_EQ(bad.x, 0);
  EXPECT_EQ(bad.y, 0);
  EXPECT_FLOAT_EQ(bad.width, 0.001f);
  EXPECT_FLOAT_EQ(bad.height, 1.0f);
}

TEST(CaptureGeometry, SourceOfADisplayAndOfARegion) {
  const DisplayInfo screen = display(1920, 1080);
  const auto whole = sourceGeometry(screen, {7, {0.5f, 0.5f, 0.5f, 0.5f}, 1, 9000}, scope::display{});
  EXPECT_EQ(whole.source, (Rect{960, 540, 960, 540}));
  EXPECT_EQ(whole.output, (PixelSize{2, 8192}));
  EXPECT_EQ(sourceGeometry(screen, {7, {0, 0, 1, 1}, 1001, 0}, scope::display{}).output,
            (PixelSize{1000, 2}));

  // A region renders at most at the display's own density.
  const scope::region region{{100, 200, 400, 300}};
  const auto zoomed = sourceGeometry(screen, {7, {0, 0, 0.5f, 0.5f}, 1600, 1200}, region);
  EXPECT_EQ(zoomed.source, (Rect{100, 200, 200, 150}));
  EXPECT_EQ(zoomed.output, (PixelSize{200, 150}));
  const auto shrunk = sourceGeometry(screen, {7, {0, 0, 1, 1}, 200, 200}, region);
  EXPECT_EQ(shrunk.output, (PixelSize{200, 150}));
}

}  // namespace
}  // namespace kelvaron::host
