// The rectangles of focus mode: the surface around a window (and its popup), the size of a fit.

#include "host/session/FocusGeometry.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <tuple>
#include <vector>

namespace kelvaron::host {
namespace {

testing::AssertionResult near(const Rect& got, const Rect& expected) {
  const double a[] = {got.x, got.y, got.width, got.height};
  const double b[] = {expected.x, expected.y, expected.width, expected.height};
  for (int i = 0; i < 4; ++i) {
    if (std::abs(a[i] - b[i]) > 1e-6) {
      return testing::AssertionFailure()
             << "x, y, width, height [" << i << "] is " << a[i] << " instead of " << b[i];
    }
  }
  return testing::AssertionSuccess();
}

TEST(FocusGeometry, SurfaceIsTheWindowWithAMarginCutToItsDisplay) {
  // The second display, to the right of a first one 1920 wide.
  const DisplayInfo display{.id = 2, .frame = {1920, 0, 1440, 900}};
  const std::vector<std::tuple<Rect, Rect, const char*>> cases = {
      {{2020, 100, 400, 300}, {92, 92, 416, 316}, "inside"},
      {{3200, 700, 400, 300}, {1272, 692, 168, 208}, "over the bottom right corner"},
      {{0, 0, 500, 500}, {0, 0, 1440, 900}, "on another display: all of this one"},
      {{1800, 100, 112.5, 100}, {0, 0, 1440, 900}, "half a point of it reaches in: all"},
  };
  for (const auto& [window, expected, what] : cases) {
    EXPECT_TRUE(near(surfaceBase(display, window), expected)) << what;
  }

  // With a popup, the surface holds both unless they cover more than 0.8 of the display.
  const DisplayInfo square{.id = 1, .frame = {0, 0, 1000, 1000}};
  const Rect window{8, 8, 400, 984};
  EXPECT_TRUE(near(surfaceWithPopup(square, window, {400, 100, 392, 200}), {0, 0, 800, 1000}))
      << "exactly 0.8";
  EXPECT_TRUE(near(surfaceWithPopup(square, window, {400, 100, 393, 200}), {0, 0, 416, 1000}))
      << "a point more";
}

TEST(FocusGeometry, FitTakesTheClientsShapeAtTheDisplaysScaleWithinTheVisibleFrame) {
  // A display of two pixels per point, with a panel 25 points high at the top.
  const DisplayInfo retina{
      .id = 1, .pixelWidth = 2880, .pixelHeight = 1800, .frame = {0, 0, 1440, 900}};
  const DisplayInfo plain{
      .id = 2, .pixelWidth = 1440, .pixelHeight = 900, .frame = {0, 0, 1440, 900}};
  const Rect visible{0, 25, 1440, 875};
  const Rect window{100, 100, 600, 400};
  const Rect far{1000, 700, 600, 400};
  struct Case {
    const char* what;
    DisplayInfo display;
    Rect window, visible;
    PixelSize output;
    Rect expected;
  };
  const std::vector<Case> cases = {
      {"a phone in landscape", retina, window, visible, {2532, 1170}, {100, 100, 1266, 585}},
      {"moved in to stay visible", retina, far, visible, {2532, 1170}, {174, 315, 1266, 585}},
      {"shrunk to the visible frame",
       retina,
       window,
       {0, 25, 1440, 400},
       {2532, 1170},
       {100, 25, 400 * 2532.0 / 1170, 400}},
      {"one point per pixel", plain, window, visible, {800, 600}, {100, 100, 800, 600}},
      // 2000 by 100 points, shrunk to 1440 by 72: then at least 240 high, in shape.
      {"very wide", retina, window, visible, {4000, 200}, {0, 100, 4800, 240}},
      // 100 by 2000, shrunk to 43.75 by 875: then at least 320 wide, its top left on screen.
      {"very tall", retina, window, visible, {200, 4000}, {100, 25, 320, 6400}},
      {"no client size", retina, far, visible, {0, 0}, {1000, 660, 320, 240}},
  };
  for (const auto& c : cases) {
    EXPECT_TRUE(near(fitFrame(c.window, c.visible, c.display, c.output), c.expected)) << c.what;
  }
}

}  // namespace
}  // namespace kelvaron::host
