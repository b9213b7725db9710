#pragma once

#include <xcb/xcb.h>

#include <asio/posix/stream_descriptor.hpp>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>

#include "kit/async/Task.hpp"

namespace kelvaron::host {

// One connection to an X server, whose events are read on a strand of its own. That strand is
// made on the executor handed to `open`, so when that executor is itself a strand, events are
// handled in step with it. xcb is thread-safe, but whoever shares this connection's state does its
// xcb work on `executor()` too, and after a request whose reply it reads calls
// `dispatchQueuedEvents()`: xcb keeps the events that arrived while it waited for the reply, and
// the descriptor will not become readable again for them.
class X11Connection : public std::enable_shared_from_this<X11Connection> {
 public:
  // Events and X errors (response_type 0) alike; the event is freed once the handler returns.
  using EventHandler = std::function<void(const xcb_generic_event_t&)>;
  using ClosedHandler = std::function<void(std::string reason)>;

  // Connects to `displayName` (empty: $DISPLAY). Throws std::runtime_error with a text for a
  // person when the server cannot be reached.
  static std::shared_ptr<X11Connection> open(const Executor& executor,
                                             const std::string& displayName);

  ~X11Connection();
  X11Connection(const X11Connection&) = delete;
  X11Connection& operator=(const X11Connection&) = delete;

  xcb_connection_t* get() const { return connection_; }
  // The default screen of the display name.
  const xcb_screen_t& screen() const { return *screen_; }
  xcb_window_t root() const { return screen_->root; }
  // The strand on which events are handled.
  const Executor& executor() const { return strand_; }

  // Starts reading events, from any thread: each goes to `onEvent` on the strand; when the
  // connection breaks, `onClosed` is told once why, and reading ends. Call it once.
  void startEvents(EventHandler onEvent, ClosedHandler onClosed);
  // Hands the events that xcb queued while a reply was read to the handler, and reports a broken
  // connection. Call on the strand, after requests with replies.
  void dispatchQueuedEvents();
  // True once the connection has failed; thread-safe.
  bool broken() const { return xcb_connection_has_error(connection_) != 0; }
  // Stops reading events and forgets the handlers; idempotent. Call on the strand.
  void stop();

 private:
  X11Connection(Executor strand, xcb_connection_t* connection, const xcb_screen_t* screen);
  void waitForEvents();
  void drainEvents();
  void reportClosed(std::string reason);

  const Executor strand_;
  xcb_connection_t* const connection_;
  const xcb_screen_t* const screen_;           // inside the connection's setup data
  asio::posix::stream_descriptor descriptor_;  // xcb's own descriptor, released before the end
  EventHandler onEvent_;
  ClosedHandler onClosed_;
  bool started_ = false;
  bool stopped_ = false;
  bool draining_ = false;
};

// A bare xcb connection and its default screen, for a user that reads its replies itself and
// watches no events.
struct DisplayLink {
  xcb_connection_t* connection = nullptr;  // the caller's to xcb_disconnect
  const xcb_screen_t* screen = nullptr;    // inside the connection's setup data
};
// Connects to `displayName` (empty: $DISPLAY). Throws std::runtime_error with a text for a person
// when the server cannot be reached.
DisplayLink connectToDisplay(const std::string& displayName);

// An xcb reply or error, which the C library's free releases.
struct FreeXcbReply {
  void operator()(void* reply) const { std::free(reply); }
};
template <class T>
using XcbReply = std::unique_ptr<T, FreeXcbReply>;

// Whether the server hands out the root's pixels as 32-bit little-endian B, G, R, X words (24 or
// 32 bits of colour), the one layout the readers of the screen take.
bool hasBGRXPixels(const X11Connection& connection);

// The text for a person of an xcb connection error code.
std::string describeX11Error(int code);

}  // namespace kelvaron::host
