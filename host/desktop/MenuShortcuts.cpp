#include "host/desktop/MenuShortcuts.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdlib>
#include <utility>

#include "host/desktop/MenuSource.hpp"

namespace kelvaron::host {

namespace {

std::string lower(std::string_view text) {
  std::string result(text);
  std::transform(result.begin(), result.end(), result.begin(),
                 [](unsigned char c) { return char(std::tolower(c)); });
  return result;
}

// The character a Mac menu gives a key, UTF-8 encoded.
std::string utf8(char32_t c) {
  std::string out;
  if (c < 0x80) {
    out += char(c);
  } else if (c < 0x800) {
    out += char(0xC0 | (c >> 6));
    out += char(0x80 | (c & 0x3F));
  } else {
    out += char(0xE0 | (c >> 12));
    out += char(0x80 | ((c >> 6) & 0x3F));
    out += char(0x80 | (c & 0x3F));
  }
  return out;
}

// Names of keys, lower case, in GTK's (X keysyms), Qt's and dbusmenu's spellings.
constexpr std::array<std::pair<std::string_view, char32_t>, 46> kNamedKeys = {{
    {"return", 0x0D},      {"enter", 0x0D},       {"kp_enter", 0x0D},   {"escape", 0x1B},
    {"esc", 0x1B},         {"backspace", 0x08},   {"tab", 0x09},        {"iso_left_tab", 0x09},
    {"space", 0x20},       {"up", 0xF700},        {"down", 0xF701},     {"left", 0xF702},
    {"right", 0xF703},     {"delete", 0xF728},    {"del", 0xF728},      {"home", 0xF729},
    {"end", 0xF72B},       {"page_up", 0xF72C},   {"pageup", 0xF72C},   {"prior", 0xF72C},
    {"pgup", 0xF72C},      {"page_down", 0xF72D}, {"pagedown", 0xF72D}, {"next", 0xF72D},
    {"pgdown", 0xF72D},    {"plus", '+'},         {"minus", '-'},       {"equal", '='},
    {"comma", ','},        {"period", '.'},       {"slash", '/'},       {"backslash", '\\'},
    {"semicolon", ';'},    {"apostrophe", '\''},  {"grave", '`'},       {"bracketleft", '['},
    {"bracketright", ']'}, {"question", '?'},     {"exclam", '!'},      {"asterisk", '*'},
    {"kp_add", '+'},       {"kp_subtract", '-'},  {"kp_multiply", '*'}, {"kp_divide", '/'},
    {"underscore", '_'},   {"numbersign", '#'},
}};

// A modifier's bit by its name in any of the spellings; 0 for a name that is no modifier.
std::uint8_t modifierBit(std::string_view name) {
  const std::string n = lower(name);
  if (n == "primary" || n == "control" || n == "ctrl" || n == "ctl") return kMenuControl;
  if (n == "shift") return kMenuShift;
  if (n == "alt" || n == "mod1" || n == "option") return kMenuOption;
  if (n == "super" || n == "meta" || n == "mod4" || n == "hyper" || n == "command") {
    return kMenuCommand;
  }
  return 0;
}

MenuShortcut withKey(std::string_view name, std::uint8_t modifiers) {
  MenuShortcut shortcut{menuKey(name), modifiers};
  if (shortcut.key.empty()) return {};
  return shortcut;
}

}  // namespace

std::string withoutMnemonics(std::string_view label, char marker) {
  std::string title;
  title.reserve(label.size());
  for (std::size_t i = 0; i < label.size(); ++i) {
    if (label[i] != marker) {
      title += label[i];
    } else if (i + 1 < label.size() && label[i + 1] == marker) {
      title += marker;
      ++i;
    }
  }
  return boundedTitle(std::move(title));
}

std::string boundedTitle(std::string title) {
  if (title.size() <= kMaxMenuTitleBytes) return title;
  std::size_t end = kMaxMenuTitleBytes;
  // Back to the first byte of a character (continuation bytes are 10xxxxxx).
  while (end > 0 && (static_cast<unsigned char>(title[end]) & 0xC0) == 0x80) --end;
  title.resize(end);
  return title;
}

std::string menuKey(std::string_view name) {
  if (name.size() == 1) {
    const unsigned char c = name.front();
    if (c < 0x20 || c >= 0x7F) return {};
    return std::string(1, char(std::tolower(c)));
  }
  const std::string n = lower(name);
  for (const auto& [known, character] : kNamedKeys) {
    if (n == known) return utf8(character);
  }
  if (n.size() >= 2 && n.size() <= 3 && n[0] == 'f' && std::isdigit((unsigned char)n[1])) {
    const int number = std::atoi(n.c_str() + 1);
    if (number >= 1 && number <= 12) return utf8(0xF704 + char32_t(number - 1));
  }
  // A key typed with a character of its own that is not ASCII ("é", "ß").
  const auto first = static_cast<unsigned char>(name.front());
  if (first >= 0xC0 && name.size() <= 4) {
    const std::size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    if (length == name.size()) return std::string(name);
  }
  return {};
}

MenuShortcut gtkAccelerator(std::string_view accelerator) {
  std::uint8_t modifiers = 0;
  while (!accelerator.empty() && accelerator.front() == '<') {
    const auto close = accelerator.find('>');
    if (close == std::string_view::npos) return {};
    modifiers |= modifierBit(accelerator.substr(1, close - 1));
    accelerator.remove_prefix(close + 1);
  }
  if (accelerator.empty()) return {};
  return withKey(accelerator, modifiers);
}

MenuShortcut accessibleKeyBinding(std::string_view binding, std::string_view title) {
  if (binding.find(';') != std::string_view::npos || binding.find('<') != std::string_view::npos) {
    // GTK: the accelerator is the third part.
    for (int part = 0; part < 2; ++part) {
      const auto semicolon = binding.find(';');
      if (semicolon == std::string_view::npos) return {};
      binding.remove_prefix(semicolon + 1);
    }
    const auto end = binding.find(';');
    return gtkAccelerator(binding.substr(0, end));
  }
  // Qt: names joined with "+", where the key itself may be "+" ("Ctrl++").
  std::uint8_t modifiers = 0;
  while (true) {
    const auto plus = binding.find('+');
    if (plus == std::string_view::npos || plus == 0) break;
    const std::uint8_t bit = modifierBit(binding.substr(0, plus));
    if (bit == 0) return {};
    modifiers |= bit;
    binding.remove_prefix(plus + 1);
  }
  if (binding.empty()) return {};
  if (modifiers == kMenuOption && binding.size() == 1 &&
      lower(title).find(lower(binding)) != std::string::npos) {
    return {};  // the mnemonic
  }
  return withKey(binding, modifiers);
}

MenuShortcut dbusmenuShortcut(const std::vector<std::vector<std::string>>& combinations) {
  if (combinations.empty() || combinations.front().empty()) return {};
  const auto& names = combinations.front();
  std::uint8_t modifiers = 0;
  for (std::size_t i = 0; i + 1 < names.size(); ++i) {
    const std::uint8_t bit = modifierBit(names[i]);
    if (bit == 0) return {};
    modifiers |= bit;
  }
  return withKey(names.back(), modifiers);
}

}  // namespace kelvaron::host
