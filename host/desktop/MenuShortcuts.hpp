#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// Menu titles and shortcuts as the toolkits publish them, in the raw tree's terms
// (host/desktop/MenuSource.hpp): mnemonic markers taken out of titles, and accelerators in the
// three spellings Linux menus use turned into a key and modifier bits.
namespace kelvaron::host {

struct MenuShortcut {
  std::string key;  // empty: no shortcut the device can show
  std::uint8_t modifiers = 0;
  friend bool operator==(const MenuShortcut&, const MenuShortcut&) = default;
};

// The longest title kept, in bytes; a longer one is cut at a character's start.
inline constexpr std::size_t kMaxMenuTitleBytes = 256;

// The title without its mnemonic markers: a single `marker` goes, a doubled one stays as one
// ("_Save __As" → "Save _As"). At most kMaxMenuTitleBytes.
std::string withoutMnemonics(std::string_view label, char marker = '_');

// `title` (UTF-8) cut to at most kMaxMenuTitleBytes, never inside a character.
std::string boundedTitle(std::string title);

// A GTK accelerator: "<Primary><Shift>n", "<Control>F5", "<Alt>Left", "Delete".
MenuShortcut gtkAccelerator(std::string_view accelerator);

// The shortcut part of a GTK accessible key binding, "n;<Alt>f:n;<Primary>n" (mnemonic, mnemonic
// path, accelerator), or a Qt one, "Ctrl+Shift+N". Qt gives the mnemonic ("Alt+A") when an item
// has no shortcut; an Alt with one letter found in the title is taken for that.
MenuShortcut accessibleKeyBinding(std::string_view binding, std::string_view title);

// A dbusmenu "shortcut" property: a list of key combinations, each a list of names
// ([["Control", "Shift", "n"]]); the first one is shown.
MenuShortcut dbusmenuShortcut(const std::vector<std::vector<std::string>>& combinations);

// A key's name (a GTK/X key name, a Qt key name or a character) as the raw tree's key; empty for
// keys it has no character for.
std::string menuKey(std::string_view name);

}  // namespace kelvaron::host
