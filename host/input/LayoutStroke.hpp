#pragma once

#include <functional>
#include <optional>
#include <unordered_map>

#include "kit/wire/WireTypes.hpp"

namespace kelvaron::host {

class KeyboardLayout;

// How to type one character, named as the client names keys: the HID usage of the key's place,
// with shift and with the third level (the Mac's option) or not.
struct LayoutStroke {
  HIDUsage usage;
  bool shift = false;
  bool option = false;
  friend bool operator==(const LayoutStroke&, const LayoutStroke&) = default;
};

// The keyboard layout in force, asked one character at a time; callable from any thread.
using KeyLayoutLookup = std::function<std::optional<LayoutStroke>(char32_t)>;

// Every character `layout` types on a key that has a HID usage, on that usage; a plain table that
// any thread may read without touching XKB.
using LayoutStrokes = std::unordered_map<char32_t, LayoutStroke>;
LayoutStrokes strokesByUsage(const KeyboardLayout& layout);

}  // namespace kelvaron::host
