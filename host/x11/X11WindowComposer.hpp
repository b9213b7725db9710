#pragma once

#include <xcb/xcb.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <unordered_map>
#include <vector>

#include "host/x11/X11WindowOwners.hpp"
#include "kit/log/Logger.hpp"

namespace kelvaron::host {

class X11SharedMemory;

// A rectangle of the root window in pixels.
struct RootRect {
  std::int32_t x = 0, y = 0, width = 0, height = 0;
  bool empty() const { return width <= 0 || height <= 0; }
  friend bool operator==(const RootRect&, const RootRect&) = default;
};

// A picture of B, G, R, X bytes (X is 0xff), rows `width * 4` bytes apart.
struct WindowPicture {
  int width = 0, height = 0;
  std::vector<std::uint8_t> bgrx;
};

// Pictures of windows made of their own pixels, whatever covers them on the screen. The root's
// children are redirected (Composite, AUTOMATIC: the server still paints the screen, and a
// compositing manager may hold the MANUAL redirection beside it), so each top-level keeps its
// contents in a pixmap of its own, which is named and read with MIT-SHM (GetImage where the server
// cannot share memory). An application's pictures hold only its windows: its frames with their
// decorations, its dialogs, and its menus and tooltips (override-redirect top-levels), composed
// bottom to top; nothing of another client ever enters them.
//
// Works on a connection it is given and does not own, in step with its other users (on their
// strand); it waits for replies in place, several requests in flight at once. A window that
// vanishes or is unmapped while it is read costs only that window in that picture. The server
// drops the redirection with the connection; the destructor undoes it sooner.
class X11WindowComposer {
 public:
  // The server lacks Composite 0.2, refuses the redirection, or hands out pixels in a layout that
  // is not 32-bit little-endian B, G, R, X.
  class Unavailable : public std::runtime_error {
   public:
    using std::runtime_error::runtime_error;
  };

  // A viewable top-level of the screen.
  struct TopLevel {
    xcb_window_t window = XCB_NONE;  // the root's child: a frame, or an override-redirect window
    xcb_window_t client = XCB_NONE;  // the application's window inside the frame; else `window`
    std::int32_t x = 0, y = 0;       // its outer corner on the root
    std::int32_t width = 0, height = 0;  // borders included: the size of its pixmap
    std::int32_t border = 0;
    std::uint8_t depth = 0;
    bool overrideRedirect = false;
  };

  // With `followChanges`, the caller hands every event of the connection to `handleEvent`, and the
  // composer keeps the pixmaps of the windows it shows between pictures and watches them for
  // changes (DAMAGE); it sets the root's event mask of this connection to SubstructureNotify.
  // Without, each read names the pixmaps it needs and frees them afterwards, and no event is asked
  // for. Throws `Unavailable`.
  X11WindowComposer(xcb_connection_t* connection, const xcb_screen_t& screen, bool followChanges);
  ~X11WindowComposer();
  X11WindowComposer(const X11WindowComposer&) = delete;
  X11WindowComposer& operator=(const X11WindowComposer&) = delete;

  // Forgets pixmaps that the window's unmapping, destruction or reparenting made stale. True when
  // the event may change what the last `composeApplication` showed: a window it showed changed,
  // one of them drew, or a window appeared that may be the application's.
  bool handleEvent(const xcb_generic_event_t& event);

  // The process's viewable top-levels, bottom to top: those whose client window the server (or,
  // for a remote client, the window's `_NET_WM_PID`) says the process made, and those whose client
  // was made by the same X connection as one of them (menus made by a toolkit often carry no
  // properties at all).
  std::vector<TopLevel> applicationWindows(std::int32_t pid);

  // Writes the part `area` of the root that the process's windows cover into `pixels` (rows
  // `stride` bytes apart, `area`'s size), black where none of them is. Returns how many windows
  // it showed.
  std::size_t composeApplication(std::int32_t pid, const RootRect& area, std::uint8_t* pixels,
                                 int stride);

  // The frame around a client window (the window itself when it has none), whole, borders and
  // decorations included; nothing when the window is gone, not viewable, or cannot be read.
  std::optional<WindowPicture> readFrameOf(xcb_window_t client);

  // Whether pixels come through shared memory (else through the socket).
  bool usesSharedMemory() const { return shm_ != nullptr; }

 private:
  struct Named {
    xcb_pixmap_t pixmap = XCB_NONE;
    std::int32_t width = 0, height = 0;
    std::uint32_t damage = 0;  // XCB_NONE when the server has no DAMAGE
  };
  struct KnownClient {
    xcb_window_t client = XCB_NONE;
    xcb_window_t parent = XCB_NONE;  // the client's parent when it was found
  };
  struct Piece;

  std::vector<TopLevel> viewableTopLevels();
  void findClients(std::vector<TopLevel>& windows);
  void searchClients(std::vector<TopLevel>& windows, const std::vector<std::size_t>& which);
  std::vector<TopLevel> ofProcess(std::vector<TopLevel> windows, std::int32_t pid);
  void followOnly(const std::vector<TopLevel>& windows);
  std::size_t compose(const std::vector<TopLevel>& windows, const RootRect& area,
                      std::uint8_t* pixels, int stride, bool keep);
  void readBatch(std::vector<Piece>& pieces, std::size_t begin, std::size_t end,
                 const RootRect& area, std::uint8_t* pixels, int stride);
  void forget(xcb_window_t window);
  void lostSharedMemory(const char* why);

  xcb_connection_t* const connection_;
  const xcb_window_t root_;
  const bool follow_;
  X11WindowOwners owners_;
  xcb_atom_t wmState_ = XCB_ATOM_NONE;
  std::uint32_t resourceMask_ = 0;
  bool hasShape_ = false;
  std::uint8_t damageNotify_ = 0;  // the response type of DAMAGE's notify event; 0 without it
  std::unique_ptr<X11SharedMemory> shm_;
  std::unordered_map<xcb_window_t, Named> named_;          // with `follow_`: the windows shown
  std::unordered_map<xcb_window_t, KnownClient> clients_;  // of the frames seen last
  Logger log_{"io.dovka.tovu.host", "windows"};
  bool warnedShape_ = false;
};

}  // namespace kelvaron::host
