// A menu item's shortcut as key events, on real layouts compiled by libxkbcommon from the
// system's XKB data and read as the host reads the layout in force.

#include "host/session/ShortcutKeys.hpp"

#include <gtest/gtest.h>

#include <cstdio>
#include <map>
#include <memory>

#include "host/desktop/MenuSource.hpp"
#include "host/input/KeyboardLayout.hpp"
#include "tests/support/XkbLayouts.hpp"

namespace kelvaron::host {
namespace {

using test::layoutOf;

// Each event as its usage, "+" down or "-" up, and the injector's flags: "E0+2".
std::string written(const std::optional<std::vector<KeyEvent>>& events) {
  if (!events) return "none";
  std::string text;
  for (const KeyEvent& e : *events) {
    char one[16];
    std::snprintf(one, sizeof one, "%s%X%c%X", text.empty() ? "" : " ", e.usage.rawValue,
                  e.isDown ? '+' : '-', e.modifiers.rawValue);
    text += one;
  }
  return text;
}

TEST(ShortcutKeys, TypesTheKeyOnTheLayoutInForceBetweenItsModifiers) {
  constexpr std::uint8_t ctrl = kMenuControl, opt = kMenuOption, shift = kMenuShift,
                         cmd = kMenuCommand;
  struct Case {
    const char* layout;  // none: no layout at all
    std::string key;
    std::uint8_t modifiers;
    const char* events;
  };
  const Case cases[] = {
      // German has Z where US has Y, and @ on the third level of Q.
      {"de", "z", ctrl, "E0+2 1C+2 1C-2 E0-0"},
      {"de", "y", ctrl, "E0+2 1D+2 1D-2 E0-0"},
      {"de", "@", ctrl, "E0+2 E2+6 14+6 14-6 E2-2 E0-0"},
      {"us", "z", ctrl, "E0+2 1D+2 1D-2 E0-0"},
      {"us", "Z", ctrl, "E0+2 1D+2 1D-2 E0-0"},  // lower case first
      {"us", "+", cmd, "E1+1 E3+9 2E+9 2E-9 E3-1 E1-0"},
      {"us", "a", ctrl | opt | shift | cmd, "E0+2 E2+6 E1+7 E3+F 4+F 4-F E3-7 E1-6 E2-2 E0-0"},
      {"us", "é", ctrl, "none"},  // no key of the layout types it
      // Keys without a character, whatever the layout.
      {nullptr, "\r", cmd, "E3+8 28+8 28-8 E3-0"},
      {nullptr, "\x7F", 0, "2A+0 2A-0"},
      {nullptr, "\uF704", 0, "3A+0 3A-0"},  // F1
      {nullptr, "\uF70F", 0, "45+0 45-0"},  // F12
      {nullptr, "\uF72D", 0, "4E+0 4E-0"},  // page down
      {nullptr, "\uF702", shift, "E1+1 50+1 50-1 E1-0"},
      {nullptr, "a", ctrl, "none"},
      // Not one character.
      {"us", "ab", ctrl, "none"},
      {"us", "", ctrl, "none"},
      {"us", "e\u0301", ctrl, "none"},
      {"us", "\xC3", ctrl, "none"},
  };
  std::map<std::string, LayoutStrokes> layouts;
  for (const Case& c : cases) {
    KeyLayoutLookup lookup;
    if (c.layout) {
      if (!layouts.contains(c.layout)) {
        const auto layout = layoutOf(c.layout);
        if (!layout) GTEST_SKIP() << "no XKB data for the layout " << c.layout << " (xkb-data)";
        layouts[c.layout] = strokesByUsage(*layout);
      }
      lookup = [&strokes = layouts[c.layout]](char32_t character) -> std::optional<LayoutStroke> {
        const auto found = strokes.find(character);
        if (found == strokes.end()) return std::nullopt;
        return found->second;
      };
    }
    EXPECT_EQ(written(shortcutKeys(c.key, c.modifiers, lookup)), c.events)
        << (c.layout ? c.layout : "no layout") << " " << c.key;
  }
}

}  // namespace
}  // namespace kelvaron::host
