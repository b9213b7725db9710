#include "host/x11/X11PointerProbe.hpp"

#include <xcb/xcbext.h>

#include <cstdlib>

#include "host/x11/X11Connection.hpp"

namespace kelvaron::host {

X11PointerProbe::X11PointerProbe(const std::string& displayName) {
  const DisplayLink link = connectToDisplay(displayName);
  connection_ = link.connection;
  root_ = link.screen->root;
}

X11PointerProbe::~X11PointerProbe() { xcb_disconnect(connection_); }

std::optional<X11PointerProbe::Answer> X11PointerProbe::look(std::uint64_t mark) {
  std::optional<Answer> answer;
  if (asked_) {
    void* reply = nullptr;
    xcb_generic_error_t* error = nullptr;
    // Reads what the socket holds, and never waits for more.
    if (!xcb_poll_for_reply(connection_, asked_->sequence, &reply, &error)) return std::nullopt;
    const XcbReply<xcb_generic_error_t> refused(error);
    // The server sends every client some events unasked (MappingNotify at each keymap change):
    // read with the reply, they would pile up here.
    while (xcb_generic_event_t* event = xcb_poll_for_queued_event(connection_)) std::free(event);
    const XcbReply<xcb_query_pointer_reply_t> pointer(
        static_cast<xcb_query_pointer_reply_t*>(reply));
    answer = Answer{{}, asked_->mark};
    if (pointer && pointer->same_screen)
      answer->pointer = RootPoint{pointer->root_x, pointer->root_y};
    asked_.reset();
  }
  // One question at a time: a server that stops answering is asked nothing more.
  if (!broken()) {
    asked_ = Question{xcb_query_pointer(connection_, root_).sequence, mark};
    xcb_flush(connection_);
  }
  return answer;
}

}  // namespace kelvaron::host
