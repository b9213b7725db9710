#include "host/session/ShortcutKeys.hpp"

#include <locale.h>
#include <wctype.h>

#include <array>
#include <utility>

#include "host/desktop/MenuSource.hpp"

namespace kelvaron::host {

namespace {

// The keys that type no character, by the characters a menu gives them (the Mac's, for the
// arrows, the function keys and the keys above them).
constexpr std::array<std::pair<char32_t, std::uint16_t>, 16> kSpecialKeys = {{
    {U'\r', 0x28},
    {U'\n', 0x28},
    {U'\x1B', 0x29},
    {U'\b', 0x2A},
    {U'\x7F', 0x2A},
    {U'\t', 0x2B},
    {U' ', 0x2C},
    {U'\uF700', 0x52},  // up
    {U'\uF701', 0x51},  // down
    {U'\uF702', 0x50},  // left
    {U'\uF703', 0x4F},  // right
    {U'\uF728', 0x4C},  // forward delete
    {U'\uF729', 0x4A},  // home
    {U'\uF72B', 0x4D},  // end
    {U'\uF72C', 0x4B},  // page up
    {U'\uF72D', 0x4E},  // page down
}};
constexpr char32_t kF1 = U'\uF704', kF12 = U'\uF70F';
constexpr std::uint16_t kF1Usage = 0x3A;

std::optional<HIDUsage> specialKey(char32_t c) {
  if (c >= kF1 && c <= kF12) return HIDUsage{std::uint16_t(kF1Usage + (c - kF1))};
  for (const auto& [character, usage] : kSpecialKeys) {
    if (character == c) return HIDUsage{usage};
  }
  return std::nullopt;
}

// The text's one code point; nothing for none, more, or malformed UTF-8.
std::optional<char32_t> soleCodePoint(std::string_view text) {
  if (text.empty()) return std::nullopt;
  const auto lead = static_cast<unsigned char>(text[0]);
  const std::size_t length = lead < 0x80           ? 1
                             : (lead >> 5) == 0x6  ? 2
                             : (lead >> 4) == 0xE  ? 3
                             : (lead >> 3) == 0x1E ? 4
                                                   : 0;
  if (length == 0 || text.size() != length) return std::nullopt;
  char32_t c = length == 1 ? lead : lead & (0x7F >> length);
  for (std::size_t i = 1; i < length; ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if ((byte & 0xC0) != 0x80) return std::nullopt;
    c = (c << 6) | (byte & 0x3F);
  }
  constexpr char32_t smallest[] = {0, 0, 0x80, 0x800, 0x10000};
  if (c < smallest[length] || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) return std::nullopt;
  return c;
}

// Lower case by Unicode's rules whatever the process's locale ("C" knows ASCII only).
char32_t lowercase(char32_t c) {
  static const locale_t unicode = newlocale(LC_CTYPE_MASK, "C.UTF-8", locale_t{});
  if (!unicode) return c < 0x80 ? char32_t(towlower(wint_t(c))) : c;
  return char32_t(towlower_l(wint_t(c), unicode));
}

// The injector's flags (XTestInjector reads them so), and the modifier keys in the order they
// are pressed.
struct Modifier {
  std::uint8_t menuBit;
  std::uint16_t usage;
  std::uint8_t flag;
};
constexpr std::array<Modifier, 4> kModifiers = {{
    {kMenuControl, 0xE0, 0x02},
    {kMenuOption, 0xE2, 0x04},
    {kMenuShift, 0xE1, 0x01},
    {kMenuCommand, 0xE3, 0x08},
}};

}  // namespace

std::optional<std::vector<KeyEvent>> shortcutKeys(std::string_view key, std::uint8_t modifiers,
                                                  const KeyLayoutLookup& layout) {
  const std::optional<char32_t> c = soleCodePoint(key);
  if (!c) return std::nullopt;
  std::optional<HIDUsage> usage = specialKey(*c);
  if (!usage && layout) {
    std::optional<LayoutStroke> stroke = layout(lowercase(*c));
    if (!stroke) stroke = layout(*c);
    if (!stroke) return std::nullopt;
    usage = stroke->usage;
    if (stroke->shift) modifiers |= kMenuShift;
    if (stroke->option) modifiers |= kMenuOption;
  }
  if (!usage) return std::nullopt;

  std::vector<const Modifier*> held;
  for (const Modifier& m : kModifiers) {
    if (modifiers & m.menuBit) held.push_back(&m);
  }
  std::vector<KeyEvent> events;
  std::uint8_t flags = 0;
  for (const Modifier* m : held) {
    flags |= m->flag;
    events.push_back({{m->usage}, true, {flags}});
  }
  events.push_back({*usage, true, {flags}});
  events.push_back({*usage, false, {flags}});
  for (auto m = held.rbegin(); m != held.rend(); ++m) {
    flags &= std::uint8_t(~(*m)->flag);
    events.push_back({{(*m)->usage}, false, {flags}});
  }
  return events;
}

}  // namespace kelvaron::host
