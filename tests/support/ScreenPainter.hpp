#pragma once

// Another client of a test's X server: draws on its root window and sets its RANDR monitors, as
// applications and a user's tools would. Every call returns once the server has done it.

#include <sys/uio.h>
#include <xcb/randr.h>
#include <xcb/xcb.h>
#include <xcb/xcbext.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "host/video/CaptureSource.hpp"

namespace kelvaron::test {

class ScreenPainter {
 public:
  explicit ScreenPainter(const std::string& displayName)
      : c_(xcb_connect(displayName.c_str(), nullptr)) {
    root_ = xcb_setup_roots_iterator(xcb_get_setup(c_)).data->root;
    gc_ = xcb_generate_id(c_);
    xcb_create_gc(c_, gc_, root_, 0, nullptr);
  }
  ~ScreenPainter() { xcb_disconnect(c_); }
  ScreenPainter(const ScreenPainter&) = delete;
  ScreenPainter& operator=(const ScreenPainter&) = delete;

  void fill(std::uint32_t rgb, std::int16_t x, std::int16_t y, std::uint16_t width,
            std::uint16_t height) {
    xcb_change_gc(c_, gc_, XCB_GC_FOREGROUND, &rgb);
    const xcb_rectangle_t rect{x, y, width, height};
    xcb_poly_fill_rectangle(c_, root_, gc_, 1, &rect);
    sync();
  }

  // Moves what a rectangle shows to another place, as a terminal scrolls.
  void copy(std::int16_t x, std::int16_t y, std::uint16_t width, std::uint16_t height,
            std::int16_t toX, std::int16_t toY) {
    xcb_copy_area(c_, root_, root_, gc_, x, y, toX, toY, width, height);
    sync();
  }

  // Puts a 32-bit BGRX picture at the top left of the screen.
  void show(const host::PixelBuffer& picture) {
    const int rowsPerRequest =
        std::max(1, int((xcb_get_maximum_request_length(c_) * 4 - 64) / picture.stride));
    for (int y = 0; y < picture.height; y += rowsPerRequest) {
      const int rows = std::min(rowsPerRequest, picture.height - y);
      xcb_put_image(c_, XCB_IMAGE_FORMAT_Z_PIXMAP, root_, gc_, std::uint16_t(picture.width),
                    std::uint16_t(rows), 0, std::int16_t(y), 0, 24,
                    std::uint32_t(rows * picture.stride),
                    &picture.bytes[std::size_t(y) * std::size_t(picture.stride)]);
    }
    sync();
  }

  // Moves the pointer, as a local user's mouse would.
  void warpPointer(std::int16_t x, std::int16_t y) {
    xcb_warp_pointer(c_, XCB_NONE, root_, 0, 0, 0, 0, x, y);
    sync();
  }

  // A RANDR monitor without outputs, as a user may define one for a part of a screen.
  bool setMonitor(const std::string& name, std::int16_t x, std::int16_t y, std::uint16_t width,
                  std::uint16_t height, bool primary) {
    // Not automatic, without outputs, 4 pixels to the millimetre.
    const std::uint32_t mm[] = {width / 4u, height / 4u};
    xcb_randr_monitor_info_t monitor{atom(name), primary, 0, 0, x, y, width, height, mm[0], mm[1]};
    // Sent by hand: Debian's libxcb-randr 1.15 sends its SetMonitor request with a wrong length.
    xcb_randr_set_monitor_request_t request{.window = root_};
    iovec parts[4] = {{}, {}, {&request, sizeof request}, {&monitor, sizeof monitor}};
    xcb_protocol_request_t shape{2, &xcb_randr_id, XCB_RANDR_SET_MONITOR, 1};
    return succeeded({xcb_send_request(c_, XCB_REQUEST_CHECKED, &parts[2], &shape)});
  }
  bool deleteMonitor(const std::string& name) {
    return succeeded(xcb_randr_delete_monitor_checked(c_, root_, atom(name)));
  }

 private:
  void sync() { std::free(xcb_get_input_focus_reply(c_, xcb_get_input_focus(c_), nullptr)); }

  xcb_atom_t atom(const std::string& name) {
    auto* reply = xcb_intern_atom_reply(
        c_, xcb_intern_atom(c_, 0, std::uint16_t(name.size()), name.c_str()), nullptr);
    const xcb_atom_t value = reply ? reply->atom : xcb_atom_t(XCB_ATOM_NONE);
    std::free(reply);
    return value;
  }
  bool succeeded(xcb_void_cookie_t cookie) {
    auto* error = xcb_request_check(c_, cookie);
    std::free(error);
    return error == nullptr;
  }

  xcb_connection_t* c_;
  xcb_window_t root_ = 0;
  xcb_gcontext_t gc_ = 0;
};

}  // namespace kelvaron::test
