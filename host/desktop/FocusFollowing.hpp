#pragma once

#include <asio/awaitable.hpp>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "host/desktop/WindowSystem.hpp"

// Following the computer's focus while a session streams one window: what the platform observes,
// how it is classified, the debouncer and the back stack. All of it pure but the observer.
namespace kelvaron::host {

enum class WindowKind { standard, transient };

struct ObservedWindow {
  std::int32_t pid = 0;
  std::optional<std::uint32_t> windowID;
  std::string title;
  std::string appName;
  Rect frame;
  WindowKind kind = WindowKind::standard;
  friend bool operator==(const ObservedWindow&, const ObservedWindow&) = default;
};

struct FocusObservation {
  std::optional<ObservedWindow> focused;
  std::vector<ObservedWindow> overlays;  // front to back
};

// The window a session streams, as the observer needs it.
struct FocusedWindow {
  std::int32_t pid = 0;
  std::uint32_t windowID = 0;
  Rect frame;
};

namespace follow {
struct window {
  ObservedWindow target;
};
struct popup {
  ObservedWindow target;
};
struct none {};
}  // namespace follow
using FollowTarget = std::variant<follow::window, follow::popup, follow::none>;

// What stands for a target in the debouncer.
struct FollowKey {
  enum class Kind { window, popup };
  Kind kind = Kind::window;
  std::int32_t pid = 0;
  std::optional<std::uint32_t> windowID;
  friend bool operator==(const FollowKey&, const FollowKey&) = default;
};
std::optional<FollowKey> keyOf(const FollowTarget& target);

// Processes whose windows are always transient (authentication prompts), and count as overlays
// whatever their layer.
bool isTransientOwner(const std::string& processName);
// Processes whose windows are never overlays: the window manager, panels, docks, the desktop,
// this host.
bool isIgnoredOwner(const std::string& processName);
// A focused window is transient unless it is an ordinary (EWMH NORMAL, not modal) window that can
// be resized and its process is no transient owner: what cannot be resized is no work surface.
WindowKind kindOfFocused(const std::string& processName, const std::string& windowType, bool modal,
                         bool resizable);

// The first of: a transient focused window of another window than the streamed one, big enough
// and on a display (or inside the streamed window); the first overlay; a standard focused window
// other than the streamed one; none. `ownPID`'s windows are never targets.
FollowTarget classify(const FocusObservation& observation, const FocusedWindow& focus,
                      std::int32_t ownPID, const std::vector<DisplayInfo>& displays);

// A target must hold for `delay` before it is committed; losing one is never delayed.
struct FocusDebouncer {
  double delay = 0.3;  // seconds
  std::optional<FollowKey> committed;
  struct Pending {
    FollowKey key;
    double since = 0;  // uptime in seconds
  };
  std::optional<Pending> pending;

  // The committed key after this sample.
  std::optional<FollowKey> offer(const std::optional<FollowKey>& key, double now);
  void reset() { committed.reset(), pending.reset(); }
};

struct BackEntry {
  std::int32_t pid = 0;
  std::uint32_t windowID = 0;
  std::string title;
  std::string appName;
  friend bool operator==(const BackEntry&, const BackEntry&) = default;
};

// The windows followed away from, newest last, at most `capacity`.
struct FocusBackStack {
  std::vector<BackEntry> entries;
  std::size_t capacity = 4;

  void push(BackEntry entry);
  void remove(std::uint32_t windowID);
  std::optional<BackEntry> pop();
  bool empty() const { return entries.empty(); }
  void clear() { entries.clear(); }
};

// What the computer shows in front now: its focused window and the popups over the streamed one.
class FocusObserving {
 public:
  virtual ~FocusObserving() = default;
  virtual asio::awaitable<FocusObservation> observe(FocusedWindow focus,
                                                    std::vector<DisplayInfo> displays) = 0;
};

}  // namespace kelvaron::host
