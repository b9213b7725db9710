#include "host/desktop/TextFocus.hpp"

#include <algorithm>
#include <array>
#include <cctype>

namespace kelvaron::host {

namespace {

// Desktop-file IDs and executables' names of the common terminal emulators, compared ignoring
// case (Alacritty's entry is "Alacritty", its executable "alacritty").
constexpr std::array kTerminals = {
    std::string_view{"debian-xterm"},
    std::string_view{"debian-uxterm"},
    std::string_view{"xterm"},
    std::string_view{"uxterm"},
    std::string_view{"org.gnome.Terminal"},
    std::string_view{"gnome-terminal-server"},
    std::string_view{"org.gnome.Console"},
    std::string_view{"kgx"},
    std::string_view{"org.gnome.Ptyxis"},
    std::string_view{"org.kde.konsole"},
    std::string_view{"konsole"},
    std::string_view{"org.kde.yakuake"},
    std::string_view{"xfce4-terminal"},
    std::string_view{"terminator"},
    std::string_view{"com.gexperts.Tilix"},
    std::string_view{"tilix"},
    std::string_view{"Alacritty"},
    std::string_view{"kitty"},
    std::string_view{"org.wezfurlong.wezterm"},
    std::string_view{"wezterm-gui"},
    std::string_view{"com.mitchellh.ghostty"},
    std::string_view{"ghostty"},
    std::string_view{"foot"},
    std::string_view{"footclient"},
    std::string_view{"lxterminal"},
    std::string_view{"mate-terminal"},
    std::string_view{"qterminal"},
    std::string_view{"terminology"},
    std::string_view{"rxvt-unicode"},
    std::string_view{"urxvt"},
    std::string_view{"st"},
    std::string_view{"sakura"},
    std::string_view{"guake"},
    std::string_view{"tilda"},
    std::string_view{"io.elementary.terminal"},
    std::string_view{"com.raggesilver.BlackBox"},
    std::string_view{"cool-retro-term"},
    std::string_view{"deepin-terminal"},
};

bool sameIgnoringCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) ==
                  std::tolower(static_cast<unsigned char>(y));
         });
}

bool isSearch(const TextFocusElement& element) {
  const auto attribute = [&](const char* name) {
    const auto found = element.attributes.find(name);
    return found == element.attributes.end() ? std::string_view{} : std::string_view{found->second};
  };
  // Browsers: the ARIA role, or <input type=search>.
  if (attribute("xml-roles").find("searchbox") != std::string_view::npos) return true;
  if (attribute("text-input-type") == "search") return true;
  return std::any_of(element.iconNames.begin(), element.iconNames.end(), [](const auto& name) {
    return name == "edit-find-symbolic" || name == "edit-find";
  });
}

}  // namespace

bool isTerminalApp(std::string_view bundleID) {
  return std::any_of(kTerminals.begin(), kTerminals.end(),
                     [&](std::string_view name) { return sameIgnoringCase(name, bundleID); });
}

TextFocus classifyTextFocus(std::string bundleID, std::optional<TextFocusElement> element) {
  const auto text = [&](TextFocusKind kind) {
    return TextFocus{true, bundleID, kind, element ? element->frame : std::nullopt};
  };
  if (isTerminalApp(bundleID)) return text(TextFocusKind::terminal);
  if (!element) return {false, bundleID, TextFocusKind::none, std::nullopt};
  const TextFocusElement& e = *element;
  const bool entryLike = e.role == AccessibleRole::text || e.role == AccessibleRole::entry;
  if (e.role == AccessibleRole::passwordText) return text(TextFocusKind::secure);
  if (e.role == AccessibleRole::terminal) return text(TextFocusKind::terminal);
  if (e.editable) {
    if (entryLike && isSearch(e)) return text(TextFocusKind::search);
    if ((entryLike && !e.multiLine) || e.role == AccessibleRole::spinButton ||
        e.role == AccessibleRole::comboBox) {
      return text(TextFocusKind::field);
    }
    if (entryLike || e.role == AccessibleRole::documentText) return text(TextFocusKind::area);
    return text(TextFocusKind::web);
  }
  return {false, bundleID, TextFocusKind::none, std::nullopt};
}

}  // namespace kelvaron::host
