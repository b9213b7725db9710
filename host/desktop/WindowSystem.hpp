#pragma once

#include <asio/awaitable.hpp>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "host/video/CaptureGeometry.hpp"
#include "host/video/DisplayProviding.hpp"
#include "kit/wire/Bytes.hpp"
#include "kit/wire/WireTypes.hpp"

// The session's view of the computer's applications and windows, and its hands on them. Frames
// are in points of the desktop, origin at the main display's top left corner, as the display
// list's frames are. Every operation runs off the caller's executor.
namespace kelvaron::host {

// A running application as the window system knows it.
struct RunningAppRecord {
  std::int32_t pid = 0;
  std::string bundleID;  // the desktop-file ID ("org.gnome.Calculator"), else the executable's name
  std::string name;
  bool isRegular = true;  // has windows a person works in
  bool isFrontmost = false;
  bool isHidden = false;  // all of its windows minimised
  std::string bundlePath;      // its desktop file; empty when unknown
  std::string executablePath;  // empty when unknown
  friend bool operator==(const RunningAppRecord&, const RunningAppRecord&) = default;
};

// A window's layer: what floats above ordinary windows has a higher one.
inline constexpr int kNormalLayer = 0;
inline constexpr int kFloatingLayer = 3;  // kept above others (_NET_WM_STATE_ABOVE)
inline constexpr int kDockLayer = 20;     // docks and panels
inline constexpr int kPopupLayer = 101;   // menus, tooltips, other override-redirect windows

struct WindowRecord {
  std::uint32_t id = 0;  // the X client window
  std::int32_t pid = 0;
  std::string title;
  Rect frame;  // with the window manager's decorations
  int layer = kNormalLayer;
  bool isOnScreen = false;
  bool isMinimized = false;
  std::string ownerName;
  friend bool operator==(const WindowRecord&, const WindowRecord&) = default;
};

// A window named with enough to find it again when its id no longer serves.
struct AppWindowRef {
  std::uint32_t id = 0;
  std::string title;
  Rect frame;
  friend bool operator==(const AppWindowRef&, const AppWindowRef&) = default;
};

inline AppWindowRef refOf(const WindowRecord& window) {
  return {window.id, window.title, window.frame};
}

// Who runs, with which windows and icons.
class AppProviding {
 public:
  virtual ~AppProviding() = default;
  // A full snapshot, front-most application first.
  virtual asio::awaitable<std::vector<AppInfo>> apps() = 0;
  // One signal per debounced change of the running applications or the front-most one.
  virtual ChangeStream changes() = 0;
  // The most recently active applications, most recent first.
  virtual asio::awaitable<std::vector<std::int32_t>> recentPIDs() = 0;
  virtual ChangeStream recentChanges() = 0;
};

// Bringing windows forward and resizing them, as a person would through the window manager.
class WindowControlling {
 public:
  virtual ~WindowControlling() = default;
  virtual asio::awaitable<void> activate(std::int32_t pid) = 0;
  // Un-minimises and raises the window; false when it cannot be found.
  virtual asio::awaitable<bool> raise(std::int32_t pid, AppWindowRef window) = 0;
  // The frame the window really has afterwards; nothing when it could not be resized.
  virtual asio::awaitable<std::optional<Rect>> resize(std::int32_t pid, AppWindowRef window,
                                                      Rect frame) = 0;
  // Asks each of the process's windows to close, as their close buttons would, so that the
  // application may ask to keep unsaved work; never forces. False when it has no window a person
  // works in.
  virtual asio::awaitable<bool> closeAll(std::int32_t pid) = 0;
};

class WindowTracking {
 public:
  virtual ~WindowTracking() = default;
  virtual asio::awaitable<std::optional<WindowRecord>> window(std::uint32_t id) = 0;
  // The process's ordinary windows of a useful size, front to back.
  virtual asio::awaitable<std::vector<WindowRecord>> windows(std::int32_t pid) = 0;
  // The part of the display that windows may use (without panels and docks).
  virtual asio::awaitable<std::optional<Rect>> visibleFrame(std::uint32_t displayID) = 0;
};

// Small pictures of windows, from their own pixels whatever covers them.
class WindowThumbnailProviding {
 public:
  virtual ~WindowThumbnailProviding() = default;
  // A JPEG `width` pixels wide for each window that could be read.
  virtual asio::awaitable<std::map<std::uint32_t, Data>> thumbnails(
      std::vector<std::uint32_t> ids, int width) = 0;
};

}  // namespace kelvaron::host
