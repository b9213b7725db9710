// What the keymaps of real layouts type, compiled by libxkbcommon from the system's XKB data.

#include "host/input/KeyboardLayout.hpp"

#include <gtest/gtest.h>

#include <memory>

namespace kelvaron::host {
namespace {

std::unique_ptr<KeyboardLayout> layoutOf(const char* name) {
  xkb_context* context = xkb_context_new(XKB_CONTEXT_NO_FLAGS);
  const xkb_rule_names names{"evdev", "pc105", name, "", ""};
  xkb_keymap* keymap = xkb_keymap_new_from_names(context, &names, XKB_KEYMAP_COMPILE_NO_FLAGS);
  xkb_context_unref(context);
  if (!keymap) return nullptr;
  auto layout = std::make_unique<KeyboardLayout>(keymap, 0);
  xkb_keymap_unref(keymap);
  return layout;
}

#define LAYOUT_OR_SKIP(var, name)  \
  const auto var = layoutOf(name); \
  if (!var) GTEST_SKIP() << "no XKB data for the layout " name " (xkb-data)";

TEST(KeyboardLayout, FindsEachCharacterOnItsSimplestKeyStroke) {
  LAYOUT_OR_SKIP(us, "us");
  const auto key = [&](const char* name) { return *us->keycode(name); };
  EXPECT_EQ(us->keystroke(U'a'), (LayoutKeystroke{key("AC01"), false, false}));
  EXPECT_EQ(us->keystroke(U'A'), (LayoutKeystroke{key("AC01"), true, false}));
  EXPECT_EQ(us->keystroke(U'@'), (LayoutKeystroke{key("AE02"), true, false}));
  EXPECT_EQ(us->keystroke(U'1'), (LayoutKeystroke{key("AE01"), false, false}));  // not the keypad's
  EXPECT_EQ(us->keystroke(U' '), (LayoutKeystroke{key("SPCE"), false, false}));
  EXPECT_EQ(us->keystroke(U'\n'), (LayoutKeystroke{key("RTRN"), false, false}));
  EXPECT_EQ(us->keystroke(U'\t'), (LayoutKeystroke{key("TAB"), false, false}));
  EXPECT_EQ(us->keystroke(U'\x7f'), std::nullopt);
  EXPECT_EQ(us->keystroke(U'\x1b'), std::nullopt);
  EXPECT_EQ(us->keystroke(U'é'), std::nullopt);
  EXPECT_TRUE(us->shiftKey());
  EXPECT_NE(us->modifierMask(XKB_MOD_NAME_SHIFT), 0u);
  EXPECT_FALSE(us->spareKeycodes().empty());
  for (const std::uint32_t spare : us->spareKeycodes()) {
    EXPECT_NE(spare, key("AC01"));
  }
}

TEST(KeyboardLayout, GermanAndFrenchKeysAndTheirThirdLevel) {
  LAYOUT_OR_SKIP(de, "de");
  LAYOUT_OR_SKIP(fr, "fr");
  // German: y and z swapped, @ and € on the third level, ß on its own key.
  EXPECT_EQ(de->keystroke(U'z'), (LayoutKeystroke{*de->keycode("AD06"), false, false}));
  EXPECT_EQ(de->keystroke(U'@'), (LayoutKeystroke{*de->keycode("AD01"), false, true}));
  EXPECT_EQ(de->keystroke(U'€'), (LayoutKeystroke{*de->keycode("AD03"), false, true}));
  EXPECT_EQ(de->keystroke(U'ß'), (LayoutKeystroke{*de->keycode("AE11"), false, false}));
  EXPECT_TRUE(de->optionKey());
  EXPECT_NE(de->levelThreeMask(), 0u);
  // French: digits need shift, é is unshifted, a and q swapped.
  EXPECT_EQ(fr->keystroke(U'1'), (LayoutKeystroke{*fr->keycode("AE01"), true, false}));
  EXPECT_EQ(fr->keystroke(U'é'), (LayoutKeystroke{*fr->keycode("AE02"), false, false}));
  EXPECT_EQ(fr->keystroke(U'a'), (LayoutKeystroke{*fr->keycode("AD01"), false, false}));
}

}  // namespace
}  // namespace kelvaron::host
