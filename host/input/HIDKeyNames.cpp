#include "host/input/HIDKeyNames.hpp"

#include <algorithm>
#include <array>
#include <utility>

namespace kelvaron::host {

namespace {

using Row = std::pair<std::uint16_t, std::string_view>;

// The keys a Mac keyboard has, by their place on a PC keyboard. The keypad's clear key is Num
// Lock's place; the function key (0xFF03) has no X11 key and no row.
// clang-format off
constexpr std::array kRows = {
    // Letters a to z.
    Row{0x04, "AC01"}, Row{0x05, "AB05"}, Row{0x06, "AB03"}, Row{0x07, "AC03"}, Row{0x08, "AD03"},
    Row{0x09, "AC04"}, Row{0x0A, "AC05"}, Row{0x0B, "AC06"}, Row{0x0C, "AD08"}, Row{0x0D, "AC07"},
    Row{0x0E, "AC08"}, Row{0x0F, "AC09"}, Row{0x10, "AB07"}, Row{0x11, "AB06"}, Row{0x12, "AD09"},
    Row{0x13, "AD10"}, Row{0x14, "AD01"}, Row{0x15, "AD04"}, Row{0x16, "AC02"}, Row{0x17, "AD05"},
    Row{0x18, "AD07"}, Row{0x19, "AB04"}, Row{0x1A, "AD02"}, Row{0x1B, "AB02"}, Row{0x1C, "AD06"},
    Row{0x1D, "AB01"},
    // Digits 1 to 0.
    Row{0x1E, "AE01"}, Row{0x1F, "AE02"}, Row{0x20, "AE03"}, Row{0x21, "AE04"}, Row{0x22, "AE05"},
    Row{0x23, "AE06"}, Row{0x24, "AE07"}, Row{0x25, "AE08"}, Row{0x26, "AE09"}, Row{0x27, "AE10"},
    // Return, Escape, Backspace, Tab, Space.
    Row{0x28, "RTRN"}, Row{0x29, "ESC"}, Row{0x2A, "BKSP"}, Row{0x2B, "TAB"}, Row{0x2C, "SPCE"},
    // Punctuation, and the ISO key beside left shift.
    Row{0x2D, "AE11"}, Row{0x2E, "AE12"}, Row{0x2F, "AD11"}, Row{0x30, "AD12"}, Row{0x31, "BKSL"},
    Row{0x33, "AC10"}, Row{0x34, "AC11"}, Row{0x35, "TLDE"}, Row{0x36, "AB08"}, Row{0x37, "AB09"},
    Row{0x38, "AB10"}, Row{0x64, "LSGT"},
    Row{0x39, "CAPS"},
    // F1 to F20.
    Row{0x3A, "FK01"}, Row{0x3B, "FK02"}, Row{0x3C, "FK03"}, Row{0x3D, "FK04"}, Row{0x3E, "FK05"},
    Row{0x3F, "FK06"}, Row{0x40, "FK07"}, Row{0x41, "FK08"}, Row{0x42, "FK09"}, Row{0x43, "FK10"},
    Row{0x44, "FK11"}, Row{0x45, "FK12"}, Row{0x68, "FK13"}, Row{0x69, "FK14"}, Row{0x6A, "FK15"},
    Row{0x6B, "FK16"}, Row{0x6C, "FK17"}, Row{0x6D, "FK18"}, Row{0x6E, "FK19"}, Row{0x6F, "FK20"},
    // Home, Page Up, Forward Delete, End, Page Down; the arrows.
    Row{0x4A, "HOME"}, Row{0x4B, "PGUP"}, Row{0x4C, "DELE"}, Row{0x4D, "END"}, Row{0x4E, "PGDN"},
    Row{0x4F, "RGHT"}, Row{0x50, "LEFT"}, Row{0x51, "DOWN"}, Row{0x52, "UP"},
    // Keypad.
    Row{0x53, "NMLK"}, Row{0x54, "KPDV"}, Row{0x55, "KPMU"}, Row{0x56, "KPSU"}, Row{0x57, "KPAD"},
    Row{0x58, "KPEN"}, Row{0x59, "KP1"}, Row{0x5A, "KP2"}, Row{0x5B, "KP3"}, Row{0x5C, "KP4"},
    Row{0x5D, "KP5"}, Row{0x5E, "KP6"}, Row{0x5F, "KP7"}, Row{0x60, "KP8"}, Row{0x61, "KP9"},
    Row{0x62, "KP0"}, Row{0x63, "KPDL"}, Row{0x67, "KPEQ"},
    // Control, shift, option (Alt), command (Super); left, then right.
    Row{0xE0, "LCTL"}, Row{0xE1, "LFSH"}, Row{0xE2, "LALT"}, Row{0xE3, "LWIN"}, Row{0xE4, "RCTL"},
    Row{0xE5, "RTSH"}, Row{0xE6, "RALT"}, Row{0xE7, "RWIN"},
};
// clang-format on

constexpr auto kSortedRows = [] {
  auto rows = kRows;
  std::ranges::sort(rows, {}, &Row::first);
  return rows;
}();
static_assert(std::ranges::adjacent_find(kSortedRows, {}, &Row::first) == kSortedRows.end(),
              "a usage has two rows");

}  // namespace

std::optional<std::string_view> xkbKeyName(HIDUsage usage) {
  const auto row = std::ranges::lower_bound(kSortedRows, usage.rawValue, {}, &Row::first);
  if (row == kSortedRows.end() || row->first != usage.rawValue) return std::nullopt;
  return row->second;
}

bool isModifierUsage(HIDUsage usage) {
  const std::uint16_t u = usage.rawValue;
  return (u >= 0xE0 && u <= 0xE7) || u == 0x39 || u == 0xFF03;
}

}  // namespace kelvaron::host
