#include "host/x11/X11Connection.hpp"

#include <asio/dispatch.hpp>
#include <cstdlib>
#include <stdexcept>

#include "kit/log/Logger.hpp"

namespace kelvaron::host {

namespace {

const Logger& log() {
  static const Logger log("io.dovka.tovu.host", "display");
  return log;
}

struct FreeEvent {
  void operator()(xcb_generic_event_t* event) const { std::free(event); }
};

std::string connectFailure(const std::string& displayName, int code) {
  if (displayName.empty()) return "Cannot connect to the X display: DISPLAY is not set";
  const std::string detail =
      code == XCB_CONN_ERROR ? "no X server answers there" : describeX11Error(code);
  return "Cannot connect to the X display " + displayName + ": " + detail;
}

}  // namespace

std::string describeX11Error(int code) {
  switch (code) {
    case 0:
      return "no error";
    case XCB_CONN_ERROR:
      return "the connection to the X server was lost";
    case XCB_CONN_CLOSED_EXT_NOTSUPPORTED:
      return "the X server lacks an extension that was needed";
    case XCB_CONN_CLOSED_MEM_INSUFFICIENT:
      return "out of memory";
    case XCB_CONN_CLOSED_REQ_LEN_EXCEED:
      return "a request was longer than the X server accepts";
    case XCB_CONN_CLOSED_PARSE_ERR:
      return "the display name could not be parsed";
    case XCB_CONN_CLOSED_INVALID_SCREEN:
      return "the X server has no such screen";
    case XCB_CONN_CLOSED_FDPASSING_FAILED:
      return "passing a file descriptor to the X server failed";
    default:
      return "X connection error " + std::to_string(code);
  }
}

DisplayLink connectToDisplay(const std::string& displayName) {
  const char* environment = std::getenv("DISPLAY");
  const std::string shownName = !displayName.empty() ? displayName
                                : environment        ? std::string(environment)
                                                     : std::string();
  int screenNumber = 0;
  xcb_connection_t* connection =
      xcb_connect(displayName.empty() ? nullptr : displayName.c_str(), &screenNumber);
  if (const int code = xcb_connection_has_error(connection)) {
    xcb_disconnect(connection);  // an xcb connection in error still has to be freed
    throw std::runtime_error(connectFailure(shownName, code));
  }
  auto roots = xcb_setup_roots_iterator(xcb_get_setup(connection));
  for (int i = 0; i < screenNumber && roots.rem > 0; ++i) xcb_screen_next(&roots);
  if (roots.rem <= 0) {
    xcb_disconnect(connection);
    throw std::runtime_error(connectFailure(shownName, XCB_CONN_CLOSED_INVALID_SCREEN));
  }
  return {connection, roots.data};
}

std::shared_ptr<X11Connection> X11Connection::open(const Executor& executor,
                                                   const std::string& displayName) {
  const DisplayLink link = connectToDisplay(displayName);
  return std::shared_ptr<X11Connection>(
      new X11Connection(makeStrand(executor), link.connection, link.screen));
}

X11Connection::X11Connection(Executor strand, xcb_connection_t* connection,
                             const xcb_screen_t* screen)
    : strand_(std::move(strand)), connection_(connection), screen_(screen), descriptor_(strand_) {
  try {
    descriptor_.assign(xcb_get_file_descriptor(connection_));
  } catch (...) {
    xcb_disconnect(connection_);
    throw;
  }
}

X11Connection::~X11Connection() {
  // Nothing else runs on this object now: the read loop holds it only while it runs.
  stop();
  xcb_disconnect(connection_);
}

void X11Connection::startEvents(EventHandler onEvent, ClosedHandler onClosed) {
  asio::dispatch(strand_, [weak = weak_from_this(), onEvent = std::move(onEvent),
                           onClosed = std::move(onClosed)]() mutable {
    const auto self = weak.lock();
    if (!self || self->started_ || self->stopped_) return;
    self->started_ = true;
    self->onEvent_ = std::move(onEvent);
    self->onClosed_ = std::move(onClosed);
    self->drainEvents();  // whatever came before reading started
    if (!self->stopped_) self->waitForEvents();
  });
}

void X11Connection::dispatchQueuedEvents() {
  if (started_) drainEvents();
}

void X11Connection::stop() {
  stopped_ = true;
  onEvent_ = nullptr;
  onClosed_ = nullptr;
  // xcb owns the descriptor: take it out of the reactor without closing it.
  if (descriptor_.is_open()) descriptor_.release();
}

void X11Connection::waitForEvents() {
  descriptor_.async_wait(
      asio::posix::stream_descriptor::wait_read,
      [weak = weak_from_this()](const asio::error_code& error) {
        const auto self = weak.lock();
        if (!self || self->stopped_) return;
        if (error) {
          return self->reportClosed("waiting for the X server failed: " + error.message());
        }
        self->drainEvents();
        if (!self->stopped_) self->waitForEvents();
      });
}

void X11Connection::drainEvents() {
  // A handler that asks for queued events is already inside this loop, which will reach them.
  if (draining_ || stopped_) return;
  draining_ = true;
  const EventHandler handler = onEvent_;  // a copy, so that stop() from inside it is safe
  while (!stopped_) {
    std::unique_ptr<xcb_generic_event_t, FreeEvent> event(xcb_poll_for_event(connection_));
    if (!event) break;
    try {
      if (handler) handler(*event);
    } catch (const std::exception& error) {
      log().error("handling an X event failed: %s", error.what());
    }
  }
  draining_ = false;
  if (const int code = xcb_connection_has_error(connection_); code != 0 && !stopped_) {
    reportClosed(describeX11Error(code));
  }
}

void X11Connection::reportClosed(std::string reason) {
  const ClosedHandler handler = std::move(onClosed_);
  stop();
  if (handler) handler(std::move(reason));
}

bool hasBGRXPixels(const X11Connection& connection) {
  const xcb_setup_t* setup = xcb_get_setup(connection.get());
  const std::uint8_t depth = connection.screen().root_depth;
  bool thirtyTwoBits = false;
  for (auto it = xcb_setup_pixmap_formats_iterator(setup); it.rem > 0; xcb_format_next(&it)) {
    if (it.data->depth == depth) thirtyTwoBits = it.data->bits_per_pixel == 32;
  }
  return (depth == 24 || depth == 32) && thirtyTwoBits &&
         setup->image_byte_order == XCB_IMAGE_ORDER_LSB_FIRST;
}

}  // namespace kelvaron::host
