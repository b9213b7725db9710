#pragma once

// Keyboard layouts compiled from XKB's rules (evdev, pc105) without an X server.

#include <memory>

#include "host/input/KeyboardLayout.hpp"

namespace kelvaron::test {

// The first layout of keymap `name` ("us", "de"); nothing without xkb-data.
inline std::unique_ptr<host::KeyboardLayout> layoutOf(const char* name) {
  xkb_context* context = xkb_context_new(XKB_CONTEXT_NO_FLAGS);
  const xkb_rule_names names{"evdev", "pc105", name, "", ""};
  xkb_keymap* keymap = xkb_keymap_new_from_names(context, &names, XKB_KEYMAP_COMPILE_NO_FLAGS);
  xkb_context_unref(context);
  auto layout = keymap ? std::make_unique<host::KeyboardLayout>(keymap, 0) : nullptr;
  xkb_keymap_unref(keymap);  // no keymap: does nothing
  return layout;
}

}  // namespace kelvaron::test
