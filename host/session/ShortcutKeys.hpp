#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "host/input/LayoutStroke.hpp"
#include "kit/wire/WireTypes.hpp"

namespace kelvaron::host {

// The key events that type a menu item's shortcut: `key`, one character as a MenuNode keeps it,
// held with `modifiers` in MenuNode's bits, on the keyboard layout `layout` tells of. The
// modifiers go down first (control, option, shift, command), then the key goes down and up, then
// the modifiers come up in reverse; each event carries the injector's flags of the modifiers held
// with it. Nothing when `key` is not one character, or when neither the keys without a character
// nor the layout have it.
std::optional<std::vector<KeyEvent>> shortcutKeys(std::string_view key, std::uint8_t modifiers,
                                                  const KeyLayoutLookup& layout);

}  // namespace kelvaron::host
