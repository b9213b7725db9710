#pragma once

#include <optional>
#include <string_view>

#include "kit/wire/WireTypes.hpp"

namespace kelvaron::host {

// The physical key of a USB HID keyboard usage, as XKB names it ("AC01" for the key labelled A on
// a US keyboard). Names, not key codes: they hold whatever key codes the X server uses.
std::optional<std::string_view> xkbKeyName(HIDUsage usage);

// The keys that change modifiers rather than type: the eight of 0xE0 to 0xE7, caps lock, and the
// function key (0xFF03), which X11 has no key for.
bool isModifierUsage(HIDUsage usage);

}  // namespace kelvaron::host
