#include "host/video/RandrDisplayManager.hpp"

#include <xcb/randr.h>

#include <asio/post.hpp>
#include <cstdlib>
#include <stdexcept>

#include "host/video/ChangeBroadcaster.hpp"
#include "host/x11/RandrMonitors.hpp"
#include "host/x11/X11Connection.hpp"
#include "kit/log/Logger.hpp"

namespace kelvaron::host {

// Everything lives on `strand`; the connection's own strand is made on it, so its events are
// handled in step with the rest.
struct RandrDisplayManager::Core : std::enable_shared_from_this<Core> {
  Core(const Executor& executor, std::string name)
      : strand(makeStrand(executor)), displayName(std::move(name)), broadcaster(executor) {}

  // A working connection, made anew when there is none or it broke.
  bool ensureConnected() {
    if (connection && !connection->broken()) return true;
    if (connection) {
      connection->dispatchQueuedEvents();  // reports the loss if nothing has yet
      forgetConnection();
    }
    try {
      auto candidate = X11Connection::open(strand, displayName);
      const std::uint8_t eventBase = prepare(*candidate);
      candidate->startEvents(
          [weak = weak_from_this(), eventBase](const xcb_generic_event_t& event) {
            if (const auto self = weak.lock()) self->handleEvent(event, eventBase);
          },
          [weak = weak_from_this()](std::string reason) {
            if (const auto self = weak.lock()) self->connectionLost(reason);
          });
      connection = std::move(candidate);
    } catch (const std::exception& error) {
      if (!reportedFailure) log.error("No display list: %s", error.what());
      reportedFailure = true;
      return false;
    }
    reportedFailure = false;
    // The list may have changed while there was no server: everyone looks again.
    if (std::exchange(connectedBefore, true)) broadcaster.signal();
    return true;
  }

  // Checks for RANDR 1.5 and asks for every notification of a change; gives the first RANDR event
  // code. Throws with a text for a person.
  static std::uint8_t prepare(X11Connection& x) {
    auto* c = x.get();
    const auto [major, minor] = requireMonitors(c, 6);
    // Monitors that clients set or delete are told only through the root's ConfigureNotify.
    const std::uint32_t rootEvents = XCB_EVENT_MASK_STRUCTURE_NOTIFY;
    xcb_change_window_attributes(c, x.root(), XCB_CW_EVENT_MASK, &rootEvents);
    std::uint16_t randrEvents = XCB_RANDR_NOTIFY_MASK_SCREEN_CHANGE |
                                XCB_RANDR_NOTIFY_MASK_CRTC_CHANGE |
                                XCB_RANDR_NOTIFY_MASK_OUTPUT_CHANGE;
    if (major > 1 || minor >= 4) {
      randrEvents |= XCB_RANDR_NOTIFY_MASK_PROVIDER_CHANGE | XCB_RANDR_NOTIFY_MASK_RESOURCE_CHANGE;
    }
    xcb_randr_select_input(c, x.root(), randrEvents);
    xcb_flush(c);
    return xcb_get_extension_data(c, &xcb_randr_id)->first_event;
  }

  void handleEvent(const xcb_generic_event_t& event, std::uint8_t randrBase) {
    const unsigned type = event.response_type & 0x7f;
    if (type == 0) {
      const auto& error = reinterpret_cast<const xcb_generic_error_t&>(event);
      log.error("The X server refused a display request: error %u, request %u.%u", error.error_code,
                error.major_code, error.minor_code);
      return;
    }
    const unsigned randrType = type - randrBase;  // wraps for core events, which are below it
    if (type == XCB_CONFIGURE_NOTIFY || randrType == XCB_RANDR_SCREEN_CHANGE_NOTIFY ||
        randrType == XCB_RANDR_NOTIFY) {
      broadcaster.signal();
    }
  }

  void connectionLost(const std::string& reason) {
    log.error("Lost the X display: %s", reason.c_str());
    broadcaster.signal();
    // Not from inside the connection's own call: let go of it on the next turn.
    asio::post(strand, [weak = weak_from_this()] {
      const auto self = weak.lock();
      if (self && self->connection && self->connection->broken()) self->forgetConnection();
    });
  }

  void forgetConnection() {
    connection.reset();
    monitorNames = {};
  }

  std::vector<DisplayInfo> readDisplays() {
    if (!ensureConnected()) return {};
    const auto monitors = queryNamedMonitors(connection->get(), connection->root(), monitorNames);
    connection->dispatchQueuedEvents();
    return displayListFromMonitors(monitors);
  }

  const Executor strand;
  const std::string displayName;
  ChangeBroadcaster broadcaster;
  Logger log{"io.dovka.tovu.host", "display"};

  std::shared_ptr<X11Connection> connection;
  MonitorNames monitorNames;  // of `connection`'s server
  bool connectedBefore = false;
  bool reportedFailure = false;  // one log line for a run of failed attempts
};

RandrDisplayManager::RandrDisplayManager(const Executor& executor, std::string displayName)
    : core_(std::make_shared<Core>(executor, std::move(displayName))) {
  // Connect now, so that changes are signalled before anyone asks for the list.
  asio::post(core_->strand, [weak = std::weak_ptr<Core>(core_)] {
    if (const auto core = weak.lock()) core->ensureConnected();
  });
}

RandrDisplayManager::~RandrDisplayManager() = default;

asio::awaitable<std::vector<DisplayInfo>> RandrDisplayManager::displays() {
  return runOn(core_->strand, [core = core_] { return core->readDisplays(); });
}

ChangeStream RandrDisplayManager::changes() { return core_->broadcaster.subscribe(); }

}  // namespace kelvaron::host
