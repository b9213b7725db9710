// Menu titles and shortcuts in the spellings of GTK, Qt and dbusmenu.

#include "host/desktop/MenuShortcuts.hpp"

#include <gtest/gtest.h>

#include <sstream>

#include "host/desktop/MenuSource.hpp"

namespace kelvaron::host {
namespace {

TEST(MenuShortcuts, EachSpellingGivesTheKeyAndModifiersOrNothing) {
  constexpr std::uint8_t ctrl = kMenuControl, alt = kMenuOption, shift = kMenuShift,
                         cmd = kMenuCommand;
  enum Kind { gtk, accessible, dbusmenu };
  struct Case {
    Kind kind;
    std::string text;   // for dbusmenu, names joined with spaces
    std::string title;  // the item's, for a Qt mnemonic
    MenuShortcut expected;
  };
  const std::vector<Case> cases = {
      {gtk, "<Primary>n", "", {"n", ctrl}},
      {gtk, "<Control><Shift>N", "", {"n", ctrl | shift}},
      {gtk, "<Alt>Left", "", {"\xEF\x9C\x82", alt}},   // U+F702
      {gtk, "<Super>F12", "", {"\xEF\x9C\x8F", cmd}},  // U+F70F
      {gtk, "<Primary>plus", "", {"+", ctrl}},
      {gtk, "Delete", "", {"\xEF\x9C\xA8", 0}},  // U+F728
      {gtk, "<Primary>Page_Down", "", {"\xEF\x9C\xAD", ctrl}},
      {gtk, "<Primary>Return", "", {"\r", ctrl}},
      {gtk, "<Primary>XF86Calculator", "", {}},
      {gtk, "<Primary", "", {}},
      {gtk, "", "", {}},
      {accessible, "n;<Alt>f:n;<Primary>n", "New", {"n", ctrl}},
      {accessible, "a;<Alt>e:a;", "About", {}},
      {accessible, "<Alt>f;<Alt>f;", "File", {}},
      {accessible, "Ctrl+Shift+N", "New", {"n", ctrl | shift}},
      {accessible, "Ctrl++", "Zoom In", {"+", ctrl}},
      {accessible, "Alt+A", "About", {}},  // the mnemonic
      {accessible, "Alt+X", "About", {"x", alt}},
      {accessible, "Meta+Esc", "", {"\x1B", cmd}},
      {accessible, "Hyperactive+N", "", {}},
      {dbusmenu, "Control n", "", {"n", ctrl}},
      {dbusmenu, "Control Alt Delete", "", {"\xEF\x9C\xA8", ctrl | alt}},
      {dbusmenu, "Super space", "", {" ", cmd}},
      {dbusmenu, "Control F13", "", {}},
  };
  for (const Case& c : cases) {
    MenuShortcut shortcut;
    if (c.kind == gtk) shortcut = gtkAccelerator(c.text);
    if (c.kind == accessible) shortcut = accessibleKeyBinding(c.text, c.title);
    if (c.kind == dbusmenu) {
      std::vector<std::string> names;
      std::istringstream words(c.text);
      for (std::string word; words >> word;) names.push_back(word);
      shortcut = dbusmenuShortcut({names});
    }
    EXPECT_EQ(shortcut, c.expected) << c.text;
  }
  EXPECT_EQ(dbusmenuShortcut({}), MenuShortcut{});
}

TEST(MenuShortcuts, MnemonicMarkersLeaveTitlesAndLongTitlesAreCutBetweenCharacters) {
  EXPECT_EQ(withoutMnemonics("_Save __As…"), "Save _As…");
  EXPECT_EQ(withoutMnemonics("Trailing_"), "Trailing");
  EXPECT_EQ(withoutMnemonics("&Open", '&'), "Open");
  // Cut before the "é" that would straddle the bound.
  const std::string longTitle = std::string(kMaxMenuTitleBytes - 1, 'a') + "\xC3\xA9";
  EXPECT_EQ(withoutMnemonics(longTitle), std::string(kMaxMenuTitleBytes - 1, 'a'));
}

}  // namespace
}  // namespace kelvaron::host
