#include "host/desktop/FocusFollowing.hpp"

#include <algorithm>
#include <array>
#include <string_view>

namespace kelvaron::host {

namespace {

// The kernel keeps a process's name (/proc/PID/comm) to 15 bytes: names compare on their first
// 15, so that a full name and the kernel's cut of it both match.
constexpr std::size_t kCommLength = 15;

constexpr std::array kTransientOwners = {
    std::string_view{"polkit-gnome-authentication-agent-1"},
    std::string_view{"polkit-kde-authentication-agent-1"},
    std::string_view{"lxpolkit"},
    std::string_view{"gcr-prompter"},
    std::string_view{"pinentry-gtk-2"},
    std::string_view{"pinentry-gnome3"},
    std::string_view{"pinentry-qt"},
    std::string_view{"ssh-askpass"},
    std::string_view{"x11-ssh-askpass"},
    std::string_view{"ksshaskpass"},
};

constexpr std::array kIgnoredOwners = {
    std::string_view{"openbox"},     std::string_view{"xfwm4"},
    std::string_view{"mutter"},      std::string_view{"gnome-shell"},
    std::string_view{"kwin_x11"},    std::string_view{"marco"},
    std::string_view{"metacity"},    std::string_view{"plasmashell"},
    std::string_view{"xfce4-panel"}, std::string_view{"lxpanel"},
    std::string_view{"tint2"},       std::string_view{"polybar"},
    std::string_view{"xfdesktop"},   std::string_view{"conky"},
    std::string_view{"tovu-host"},
};

template <std::size_t count>
bool namedIn(const std::array<std::string_view, count>& names, std::string_view processName) {
  const auto comm = processName.substr(0, kCommLength);
  return std::any_of(names.begin(), names.end(),
                     [&](std::string_view name) { return name.substr(0, kCommLength) == comm; });
}

constexpr std::string_view kNormalWindowType = "_NET_WM_WINDOW_TYPE_NORMAL";

// What sits this close around the streamed window is already in the picture.
constexpr double kInsideMargin = 8;
constexpr double kMinTransientWidth = 60, kMinTransientHeight = 40;

bool inside(const Rect& rect, const Rect& around, double margin) {
  return rect.x >= around.x - margin && rect.y >= around.y - margin &&
         rect.x + rect.width <= around.x + around.width + margin &&
         rect.y + rect.height <= around.y + around.height + margin;
}

bool intersectsADisplay(const Rect& rect, const std::vector<DisplayInfo>& displays) {
  return std::any_of(displays.begin(), displays.end(), [&](const DisplayInfo& display) {
    const DisplayFrame& frame = display.frame;
    const double width = std::min(rect.x + rect.width, double(frame.x) + frame.width) -
                         std::max(rect.x, double(frame.x));
    const double height = std::min(rect.y + rect.height, double(frame.y) + frame.height) -
                          std::max(rect.y, double(frame.y));
    return width > 0 && height > 0;
  });
}

}  // namespace

std::optional<FollowKey> keyOf(const FollowTarget& target) {
  if (const auto* window = std::get_if<follow::window>(&target)) {
    return FollowKey{FollowKey::Kind::window, window->target.pid, window->target.windowID};
  }
  if (const auto* popup = std::get_if<follow::popup>(&target)) {
    return FollowKey{FollowKey::Kind::popup, popup->target.pid, popup->target.windowID};
  }
  return std::nullopt;
}

bool isTransientOwner(const std::string& processName) {
  return namedIn(kTransientOwners, processName);
}

bool isIgnoredOwner(const std::string& processName) { return namedIn(kIgnoredOwners, processName); }

WindowKind kindOfFocused(const std::string& processName, const std::string& windowType, bool modal,
                         bool resizable) {
  // A window without a type is NORMAL: the X11 side names a typeless transient one a DIALOG.
  const bool normal = windowType.empty() || windowType == kNormalWindowType;
  if (isTransientOwner(processName) || !normal || modal || !resizable) {
    return WindowKind::transient;
  }
  return WindowKind::standard;
}

FollowTarget classify(const FocusObservation& observation, const FocusedWindow& focus,
                      std::int32_t ownPID, const std::vector<DisplayInfo>& displays) {
  const auto& focused = observation.focused;
  const bool focusedElsewhere =
      focused && focused->pid != ownPID && focused->windowID != focus.windowID;

  if (focusedElsewhere && focused->kind == WindowKind::transient &&
      focused->frame.width >= kMinTransientWidth && focused->frame.height >= kMinTransientHeight) {
    // A sheet or dialog of the streamed window's process that stays within it shows whatever the
    // displays; anything else must be where a display can show it.
    const bool withinStreamed =
        focused->pid == focus.pid && inside(focused->frame, focus.frame, kInsideMargin);
    if (withinStreamed || intersectsADisplay(focused->frame, displays)) {
      return follow::popup{*focused};
    }
  }

  // The observer leaves this process's windows out already; the check keeps that a rule here.
  for (const auto& overlay : observation.overlays) {
    if (overlay.pid != ownPID) return follow::popup{overlay};
  }

  if (focusedElsewhere && focused->kind == WindowKind::standard && focused->windowID) {
    return follow::window{*focused};
  }
  return follow::none{};
}

std::optional<FollowKey> FocusDebouncer::offer(const std::optional<FollowKey>& key, double now) {
  if (!key) {
    reset();
    return std::nullopt;
  }
  if (committed == key) {
    pending.reset();
    return committed;
  }
  if (!pending || pending->key != *key) pending = Pending{*key, now};
  if (delay <= now - pending->since) {
    committed = key;
    pending.reset();
  }
  return committed;
}

void FocusBackStack::push(BackEntry entry) {
  remove(entry.windowID);
  entries.push_back(std::move(entry));
  if (entries.size() > capacity) {
    entries.erase(entries.begin(), entries.end() - std::ptrdiff_t(capacity));
  }
}

void FocusBackStack::remove(std::uint32_t windowID) {
  std::erase_if(entries, [&](const BackEntry& entry) { return entry.windowID == windowID; });
}

std::optional<BackEntry> FocusBackStack::pop() {
  if (entries.empty()) return std::nullopt;
  BackEntry entry = std::move(entries.back());
  entries.pop_back();
  return entry;
}

}  // namespace kelvaron::host
