// The pure logic of input: the pointer's belief, the display clamp, scrolling, the key table.

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "host/input/HIDKeyNames.hpp"
#include "host/input/HostScroll.hpp"
#include "host/input/PointerTracker.hpp"

namespace kelvaron::host {
namespace {

TEST(PointerTracker, TrustsItsOwnRecentMovesAndResyncsOnAnyOtherReading) {
  PointerTracker tracker;
  EXPECT_FALSE(tracker.observe(std::nullopt, 0));
  EXPECT_FALSE(tracker.observe(Point{10, 10}, 0));  // the first reading is no resync
  EXPECT_EQ(tracker.position(), (Point{10, 10}));

  // The server lags behind a run of moves: readings near any of the last half second are old news.
  for (int i = 1; i <= 10; ++i) tracker.record({10.0 + 10 * i, 10}, 1.0 + 0.01 * i);
  EXPECT_FALSE(tracker.observe(Point{31.5, 11.5}, 1.2));  // 1.5 on each axis still counts as near
  EXPECT_EQ(tracker.position(), (Point{110, 10}));
  // A reading near a move older than half a second is somebody else's doing.
  EXPECT_TRUE(tracker.observe(Point{20, 10}, 1.7));
  EXPECT_EQ(tracker.position(), (Point{20, 10}));
  // A local user moved the mouse far away.
  EXPECT_TRUE(tracker.observe(Point{300, 200}, 1.8));
  EXPECT_FALSE(tracker.observe(Point{301.5, 198.5}, 1.9));
  EXPECT_EQ(tracker.position(), (Point{300, 200}));
}

TEST(PointerTracker, ClampsToTheNearestPixelOfTheNearestDisplay) {
  // A main display and one to its right with a gap between them, and one with no area.
  const std::vector<DisplayFrame> displays = {
      {0, 0, 1920, 1080}, {2000, 0, 1280, 720}, {5000, 0, 0, 0}};
  EXPECT_EQ(clampToDisplays({100.5, 200}, displays), (Point{100.5, 200}));
  EXPECT_EQ(clampToDisplays({4000, 100}, displays), (Point{3279, 100}));    // past the right edge
  EXPECT_EQ(clampToDisplays({1950, 100}, displays), (Point{1919, 100}));    // nearer the main
  EXPECT_EQ(clampToDisplays({1959.5, 100}, displays), (Point{1919, 100}));  // a tie: the earlier
  EXPECT_EQ(clampToDisplays({1960, 100}, displays), (Point{2000, 100}));
  EXPECT_EQ(clampToDisplays({2500, 900}, displays), (Point{2500, 719}));
  EXPECT_EQ(clampToDisplays({-50, -50}, displays), (Point{0, 0}));
  EXPECT_EQ(clampToDisplays({-50, -50}, {}), (Point{-50, -50}));
  EXPECT_EQ(clampToDisplays({-50, -50}, {{0, 0, 0, 10}}), (Point{-50, -50}));
}

TEST(HostScroll, CarriesFractionsAndClicksWithinAGestureAndDropsTheExcess) {
  HostScroll::Remainder remainder;
  EXPECT_EQ(HostScroll::toPixels(0.3f, 0.3f, remainder), (HostScroll::Pixels{0, 0}));
  EXPECT_EQ(HostScroll::toPixels(0.3f, 0.3f, remainder), (HostScroll::Pixels{1, 1}));
  EXPECT_NEAR(remainder.y, 0.2f, 1e-6);
  EXPECT_EQ(HostScroll::toPixels(0, -20000, remainder), (HostScroll::Pixels{0, -30000}));
  EXPECT_NEAR(remainder.y, -0.8f, 1e-3);  // only the fraction is kept; the excess is dropped
  EXPECT_EQ(HostScroll::toPixels(0, std::numeric_limits<float>::max(), remainder),
            (HostScroll::Pixels{0, 30000}));
  EXPECT_EQ(HostScroll::toPixels(NAN, 1, remainder), std::nullopt);
  EXPECT_EQ(HostScroll::toPixels(0, INFINITY, remainder), std::nullopt);

  // Pixels become wheel clicks of 40, what is short of one waits for the next event.
  HostScroll::Remainder wheel;
  EXPECT_EQ(HostScroll::toClicks({30, -30}, wheel), (HostScroll::Pixels{0, 0}));
  EXPECT_EQ(HostScroll::toClicks({30, -60}, wheel), (HostScroll::Pixels{1, -2}));
  EXPECT_EQ(wheel.pixelsX, 20);
  EXPECT_EQ(wheel.pixelsY, -10);
}

TEST(HIDKeyNames, NamesThePhysicalKeysOfTheTable) {
  EXPECT_EQ(xkbKeyName({0x04}), "AC01");  // A
  EXPECT_EQ(xkbKeyName({0x1D}), "AB01");  // Z
  EXPECT_EQ(xkbKeyName({0x27}), "AE10");  // 0
  EXPECT_EQ(xkbKeyName({0x64}), "LSGT");  // the ISO key
  EXPECT_EQ(xkbKeyName({0x6F}), "FK20");
  EXPECT_EQ(xkbKeyName({0xE3}), "LWIN");  // command
  EXPECT_EQ(xkbKeyName({0x32}), std::nullopt);
  EXPECT_EQ(xkbKeyName({0x46}), std::nullopt);
  EXPECT_EQ(xkbKeyName({0xFF03}), std::nullopt);  // the function key has no X11 key
  for (const int u : {0xE0, 0xE7, 0x39, 0xFF03}) EXPECT_TRUE(isModifierUsage({std::uint16_t(u)}));
  EXPECT_FALSE(isModifierUsage({0x04}));
}

}  // namespace
}  // namespace kelvaron::host
