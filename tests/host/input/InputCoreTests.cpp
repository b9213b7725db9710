// The pure logic of input: the pointer's belief, the display clamp, scrolling, the key table;
// and what the keymaps of real layouts type, compiled by libxkbcommon from the system's XKB data.

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <memory>

#include "host/input/HIDKeyNames.hpp"
#include "host/input/HostScroll.hpp"
#include "host/input/KeyboardLayout.hpp"
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

// The ends of the table's runs, the keys X11 lacks, and those that only modify.
TEST(HIDKeyNames, NamesThePhysicalKeysOfTheTable) {
  EXPECT_EQ(xkbKeyName({0x1D}), "AB01");  // Z
  EXPECT_EQ(xkbKeyName({0x27}), "AE10");  // 0
  EXPECT_EQ(xkbKeyName({0x64}), "LSGT");  // the ISO key
  EXPECT_EQ(xkbKeyName({0x6F}), "FK20");
  EXPECT_EQ(xkbKeyName({0xE3}), "LWIN");  // command
  for (const int u : {0x32, 0x46, 0xFF03}) EXPECT_EQ(xkbKeyName({std::uint16_t(u)}), std::nullopt);
  for (const int u : {0xE0, 0xE7, 0x39, 0xFF03}) EXPECT_TRUE(isModifierUsage({std::uint16_t(u)}));
  EXPECT_FALSE(isModifierUsage({0x04}));
}

std::unique_ptr<KeyboardLayout> layoutOf(const char* name) {
  xkb_context* context = xkb_context_new(XKB_CONTEXT_NO_FLAGS);
  const xkb_rule_names names{"evdev", "pc105", name, "", ""};
  xkb_keymap* keymap = xkb_keymap_new_from_names(context, &names, XKB_KEYMAP_COMPILE_NO_FLAGS);
  xkb_context_unref(context);
  if (!keymap) return nullptr;
  auto layout = std::make_unique<KeyboardLayout>(keymap, 0);
  xkb_keymap_unref(keymap);
  return layout;
}

#define LAYOUT_OR_SKIP(var, name)  \
  const auto var = layoutOf(name); \
  if (!var) GTEST_SKIP() << "no XKB data for the layout " name " (xkb-data)";

TEST(KeyboardLayout, FindsEachCharacterOnItsSimplestKeyStroke) {
  LAYOUT_OR_SKIP(us, "us");
  const auto key = [&](const char* name) { return *us->keycode(name); };
  EXPECT_EQ(us->keystroke(U'a'), (LayoutKeystroke{key("AC01"), false, false}));
  EXPECT_EQ(us->keystroke(U'A'), (LayoutKeystroke{key("AC01"), true, false}));
  EXPECT_EQ(us->keystroke(U'@'), (LayoutKeystroke{key("AE02"), true, false}));
  EXPECT_EQ(us->keystroke(U'1'), (LayoutKeystroke{key("AE01"), false, false}));  // not the keypad's
  EXPECT_EQ(us->keystroke(U' '), (LayoutKeystroke{key("SPCE"), false, false}));
  EXPECT_EQ(us->keystroke(U'\n'), (LayoutKeystroke{key("RTRN"), false, false}));
  EXPECT_EQ(us->keystroke(U'\t'), (LayoutKeystroke{key("TAB"), false, false}));
  for (const char32_t c : {U'\x7f', U'\x1b', U'é'}) EXPECT_EQ(us->keystroke(c), std::nullopt);
  EXPECT_TRUE(us->shiftKey());
  EXPECT_NE(us->modifierMask(XKB_MOD_NAME_SHIFT), 0u);
  EXPECT_FALSE(us->spareKeycodes().empty());
  for (const std::uint32_t spare : us->spareKeycodes()) EXPECT_NE(spare, key("AC01"));
}

TEST(KeyboardLayout, GermanAndFrenchKeysAndTheirThirdLevel) {
  LAYOUT_OR_SKIP(de, "de");
  LAYOUT_OR_SKIP(fr, "fr");
  // German: y and z swapped, @ and € on the third level, ß on its own key.
  EXPECT_EQ(de->keystroke(U'z'), (LayoutKeystroke{*de->keycode("AD06"), false, false}));
  EXPECT_EQ(de->keystroke(U'@'), (LayoutKeystroke{*de->keycode("AD01"), false, true}));
  EXPECT_EQ(de->keystroke(U'€'), (LayoutKeystroke{*de->keycode("AD03"), false, true}));
  EXPECT_EQ(de->keystroke(U'ß'), (LayoutKeystroke{*de->keycode("AE11"), false, false}));
  EXPECT_TRUE(de->optionKey());
  EXPECT_NE(de->levelThreeMask(), 0u);
  // French: digits need shift, é is unshifted, a and q swapped.
  EXPECT_EQ(fr->keystroke(U'1'), (LayoutKeystroke{*fr->keycode("AE01"), true, false}));
  EXPECT_EQ(fr->keystroke(U'é'), (LayoutKeystroke{*fr->keycode("AE02"), false, false}));
  EXPECT_EQ(fr->keystroke(U'a'), (LayoutKeystroke{*fr->keycode("AD01"), false, false}));
}

}  // namespace
}  // namespace kelvaron::host
