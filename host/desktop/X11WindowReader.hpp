#pragma once

#include <xcb/xcb.h>
#include <xcb/xcb_ewmh.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "host/desktop/AppIdentity.hpp"
#include "host/desktop/WindowSystem.hpp"
#include "host/x11/RandrMonitors.hpp"
#include "host/x11/X11WindowOwners.hpp"

namespace kelvaron::host {

// What WM_NORMAL_HINTS say of a window's size; 0 where they say nothing.
struct SizeHints {
  int minWidth = 0, minHeight = 0, maxWidth = 0, maxHeight = 0;
  int widthStep = 0, heightStep = 0, baseWidth = 0, baseHeight = 0;
  // A person cannot change the size of a window whose least and greatest sizes are the same.
  bool resizable() const {
    return !(maxWidth > 0 && maxHeight > 0 && minWidth == maxWidth && minHeight == maxHeight);
  }
  // The nearest size the hints allow.
  std::pair<int, int> clamp(int width, int height) const;
};

// A managed client or an override-redirect top-level, as the server has it now. `record.frame` is
// in points of the desktop; `client` in the root's pixels.
struct X11Window {
  WindowRecord record;  // but for `ownerName`, which is the process's
  std::string type;     // the name of its EWMH type; empty for none
  bool modal = false;
  bool transientFor = false;  // has WM_TRANSIENT_FOR
  bool overrideRedirect = false;
  SizeHints hints;
  Rect client;  // the client window inside its border, in the root's pixels
  std::uint32_t left = 0, right = 0, top = 0, bottom = 0;  // _NET_FRAME_EXTENTS
  WindowClassHints classHints;
};

// The desktop as a whole: its managed clients, the active one and the displays.
struct X11Desktop {
  std::vector<xcb_window_t> clients;  // front to back
  xcb_window_t active = XCB_NONE;
  std::optional<std::uint32_t> currentDesktop;
  std::vector<DisplayInfo> displays;
  double originX = 0, originY = 0;  // the main display's top left corner in the root
};

// Reads windows and the desktop through EWMH and ICCCM properties on a connection its owner keeps;
// every read is bounded in size, and the questions of one read go out together before any answer
// is read. Not thread-safe: one user of the connection at a time.
class X11WindowReader {
 public:
  // Interns the atoms it needs (a round trip). Throws std::runtime_error when the server does not
  // answer.
  X11WindowReader(xcb_connection_t* connection, const xcb_screen_t& screen, int screenNumber);
  ~X11WindowReader();
  X11WindowReader(const X11WindowReader&) = delete;
  X11WindowReader& operator=(const X11WindowReader&) = delete;

  xcb_ewmh_connection_t& ewmh() { return ewmh_; }
  int screenNumber() const { return screenNumber_; }
  X11WindowOwners& owners() { return owners_; }

  // The displays too when `withDisplays` (another round trip).
  X11Desktop desktop(bool withDisplays = true);
  // Those of `windows` that still exist and have an owner, in that order; desktop windows are
  // left out.
  std::vector<X11Window> read(const X11Desktop& desktop, const std::vector<xcb_window_t>& windows);
  // The managed clients and the mapped override-redirect windows on the root, front to back.
  std::vector<xcb_window_t> stackedTopLevels(const X11Desktop& desktop);
  // The current desktop's work area (_NET_WORKAREA) in points of the desktop.
  std::optional<Rect> workArea(const X11Desktop& desktop);
  // The PNG of the window's _NET_WM_ICON, at most 1 MiB read; nothing without one.
  std::optional<Data> icon(xcb_window_t window);
  // Where the client area of `window` is now, in the root's pixels; nothing when it is gone.
  std::optional<Rect> clientArea(xcb_window_t window);

 private:
  struct Cookies;
  struct TypeRule {
    xcb_atom_t atom;
    const char* name;
    int layer;
  };
  // False when the window is gone or is the desktop.
  bool fill(const X11Desktop& desktop, Cookies& asked, X11Window& window);

  xcb_connection_t* const c_;
  const xcb_window_t root_;
  const int screenNumber_;
  xcb_ewmh_connection_t ewmh_{};
  X11WindowOwners owners_;
  MonitorNames monitorNames_;
  bool hasMonitors_ = false;
  xcb_atom_t gtkApplicationID_ = XCB_ATOM_NONE;
  std::vector<TypeRule> typeRules_;
};

}  // namespace kelvaron::host
