#pragma once

#include <xkbcommon/xkbcommon.h>

#include <cstdint>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace kelvaron::host {

// How to type one character: a key, with shift and with the third-level key (AltGr, the Mac's
// option) or not.
struct LayoutKeystroke {
  std::uint32_t keycode = 0;
  bool shift = false;
  bool option = false;
  friend bool operator==(const LayoutKeystroke&, const LayoutKeystroke&) = default;
};

// What one keyboard layout of an XKB keymap types, and its keys by name. The first way found to
// type a character wins: a key off the keypad before one on it (a menu's shortcut names the main
// keys: Ctrl++ is Ctrl+Shift+= on a US keyboard, and the keypad's + is another key to
// applications), then no modifier before shift, shift before the third level, a lower key code
// before a higher one. Control characters are left out, but for space, newline (Return) and tab.
class KeyboardLayout {
 public:
  // Takes its own reference on `keymap`; `layout` is the layout (XKB group) in force.
  KeyboardLayout(xkb_keymap* keymap, xkb_layout_index_t layout);
  ~KeyboardLayout();
  KeyboardLayout(const KeyboardLayout&) = delete;
  KeyboardLayout& operator=(const KeyboardLayout&) = delete;

  std::optional<LayoutKeystroke> keystroke(char32_t character) const;
  // Every character it types, each on its simplest stroke.
  const std::unordered_map<char32_t, LayoutKeystroke>& strokes() const { return strokes_; }
  std::optional<std::uint32_t> keycode(std::string_view keyName) const;
  // The keys that press shift and the third level, if the keymap has them.
  std::optional<std::uint32_t> shiftKey() const { return shiftKey_; }
  std::optional<std::uint32_t> optionKey() const { return optionKey_; }
  // The modifiers that the third-level key sets; 0 without one.
  xkb_mod_mask_t levelThreeMask() const { return levelThreeMask_; }
  // The mask of a modifier by its XKB name (XKB_MOD_NAME_SHIFT …); 0 if the keymap lacks it.
  xkb_mod_mask_t modifierMask(const char* name) const;
  // Key codes that type nothing in any layout: free to carry a symbol for a moment.
  const std::vector<std::uint32_t>& spareKeycodes() const { return spare_; }

 private:
  xkb_keycode_t lastKeycode() const;
  bool isKeypadKey(xkb_keycode_t key) const;
  std::optional<std::uint32_t> keyTyping(xkb_keysym_t symbol, xkb_layout_index_t layout) const;
  xkb_mod_mask_t modifiersOf(std::optional<std::uint32_t> key) const;

  xkb_keymap* keymap_;
  std::optional<std::uint32_t> shiftKey_;
  std::optional<std::uint32_t> optionKey_;
  xkb_mod_mask_t levelThreeMask_ = 0;
  std::unordered_map<char32_t, LayoutKeystroke> strokes_;
  std::vector<std::uint32_t> spare_;
};

}  // namespace kelvaron::host
