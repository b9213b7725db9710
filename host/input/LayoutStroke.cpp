#include "host/input/LayoutStroke.hpp"

#include "host/input/HIDKeyNames.hpp"
#include "host/input/KeyboardLayout.hpp"

namespace kelvaron::host {

namespace {

// Past the last usage of the table of key names (the right command key).
constexpr std::uint16_t kUsageEnd = 0xE8;

}  // namespace

LayoutStrokes strokesByUsage(const KeyboardLayout& layout) {
  // The table of key names read backwards; through the names, so that the keymap's aliases count.
  std::unordered_map<std::uint32_t, HIDUsage> usageOfKeycode;
  for (std::uint16_t u = 0; u < kUsageEnd; ++u) {
    const auto name = xkbKeyName({u});
    if (!name) continue;
    if (const auto keycode = layout.keycode(*name))
      usageOfKeycode.try_emplace(*keycode, HIDUsage{u});
  }
  LayoutStrokes strokes;
  for (const auto& [character, stroke] : layout.strokes()) {
    const auto usage = usageOfKeycode.find(stroke.keycode);
    if (usage == usageOfKeycode.end()) continue;
    strokes.emplace(character, LayoutStroke{usage->second, stroke.shift, stroke.option});
  }
  return strokes;
}

}  // namespace kelvaron::host
