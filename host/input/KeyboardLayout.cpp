#include "host/input/KeyboardLayout.hpp"

#include <xkbcommon/xkbcommon-keysyms.h>

#include <algorithm>
#include <memory>

namespace kelvaron::host {

namespace {

struct StateDeleter {
  void operator()(xkb_state* state) const { xkb_state_unref(state); }
};
using StatePtr = std::unique_ptr<xkb_state, StateDeleter>;

bool isControl(char32_t c) { return c < 32 || c == 127 || (c >= 0x80 && c < 0xA0); }

// The X protocol's key codes are one byte; a keymap compiled from names has higher ones.
constexpr xkb_keycode_t kLastX11Keycode = 255;

}  // namespace

KeyboardLayout::KeyboardLayout(xkb_keymap* keymap, xkb_layout_index_t layout)
    : keymap_(xkb_keymap_ref(keymap)) {
  shiftKey_ = keyTyping(XKB_KEY_Shift_L, layout);
  optionKey_ = keyTyping(XKB_KEY_ISO_Level3_Shift, layout);
  const xkb_mod_mask_t shift = modifiersOf(shiftKey_), option = modifiersOf(optionKey_);
  levelThreeMask_ = option;

  struct Level {
    bool shift, option;
  };
  for (const bool keypad : {false, true}) {
    for (const Level level :
         {Level{false, false}, Level{true, false}, Level{false, true}, Level{true, true}}) {
      if ((level.shift && !shift) || (level.option && !option)) continue;
      const StatePtr state(xkb_state_new(keymap_));
      if (!state) continue;
      xkb_state_update_mask(state.get(), (level.shift ? shift : 0) | (level.option ? option : 0), 0,
                            0, 0, 0, layout);
      for (xkb_keycode_t key = xkb_keymap_min_keycode(keymap_); key <= lastKeycode(); ++key) {
        if (isKeypadKey(key) != keypad) continue;
        const char32_t c = xkb_state_key_get_utf32(state.get(), key);
        if (c == 0 || isControl(c)) continue;
        strokes_.try_emplace(c, LayoutKeystroke{key, level.shift, level.option});
      }
    }
  }
  for (const auto& [c, name] :
       {std::pair<char32_t, std::string_view>{U' ', "SPCE"}, {U'\n', "RTRN"}, {U'\t', "TAB"}}) {
    if (const auto key = keycode(name))
      strokes_.try_emplace(c, LayoutKeystroke{*key, false, false});
  }
  for (xkb_keycode_t key = xkb_keymap_min_keycode(keymap_); key <= lastKeycode(); ++key) {
    if (xkb_keymap_num_layouts_for_key(keymap_, key) == 0) spare_.push_back(key);
  }
}

KeyboardLayout::~KeyboardLayout() { xkb_keymap_unref(keymap_); }

xkb_keycode_t KeyboardLayout::lastKeycode() const {
  return std::min(xkb_keymap_max_keycode(keymap_), kLastX11Keycode);
}

std::optional<LayoutKeystroke> KeyboardLayout::keystroke(char32_t character) const {
  const auto found = strokes_.find(character);
  if (found == strokes_.end()) return std::nullopt;
  return found->second;
}

std::optional<std::uint32_t> KeyboardLayout::keycode(std::string_view keyName) const {
  const std::string name(keyName);
  const xkb_keycode_t key = xkb_keymap_key_by_name(keymap_, name.c_str());
  if (key == XKB_KEYCODE_INVALID) return std::nullopt;
  return key;
}

xkb_mod_mask_t KeyboardLayout::modifierMask(const char* name) const {
  const xkb_mod_index_t index = xkb_keymap_mod_get_index(keymap_, name);
  return index == XKB_MOD_INVALID ? 0 : xkb_mod_mask_t{1} << index;
}

// XKB names the keypad's keys KP0, KPAD, KPEN and so on.
bool KeyboardLayout::isKeypadKey(xkb_keycode_t key) const {
  const char* name = xkb_keymap_key_get_name(keymap_, key);
  return name && std::string_view(name).starts_with("KP");
}

// The first key whose first level is `symbol`.
std::optional<std::uint32_t> KeyboardLayout::keyTyping(xkb_keysym_t symbol,
                                                       xkb_layout_index_t layout) const {
  for (xkb_keycode_t key = xkb_keymap_min_keycode(keymap_); key <= lastKeycode(); ++key) {
    const xkb_keysym_t* symbols = nullptr;
    const int count = xkb_keymap_key_get_syms_by_level(keymap_, key, layout, 0, &symbols);
    if (count == 1 && symbols[0] == symbol) return key;
  }
  return std::nullopt;
}

// The modifiers that holding `key` down sets, as the keymap says.
xkb_mod_mask_t KeyboardLayout::modifiersOf(std::optional<std::uint32_t> key) const {
  if (!key) return 0;
  const StatePtr state(xkb_state_new(keymap_));
  if (!state) return 0;
  xkb_state_update_key(state.get(), *key, XKB_KEY_DOWN);
  return xkb_state_serialize_mods(state.get(), XKB_STATE_MODS_DEPRESSED);
}

}  // namespace kelvaron::host
