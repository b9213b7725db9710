#include "host/video/RandrDisplayManager.hpp"

#include <xcb/randr.h>

#include <algorithm>
#include <asio/post.hpp>
#include <cstdlib>
#include <map>
#include <set>
#include <stdexcept>
#include <unordered_map>

#include "host/video/ChangeBroadcaster.hpp"
#include "host/video/X11Connection.hpp"
#include "kit/log/Logger.hpp"

namespace kelvaron::host {

namespace {

// Atoms live as long as the server, so their names are kept; a bound keeps a server that makes
// monitors under ever new names from growing the cache without end.
constexpr std::size_t kMaxCachedNames = 256;

}  // namespace

std::uint32_t displayIDForMonitorName(std::string_view name) {
  std::uint32_t hash = 2166136261u;
  for (const unsigned char c : name) {
    hash ^= c;
    hash *= 16777619u;
  }
  return hash == 0 ? 1 : hash;
}

std::size_t mainMonitorIndex(const std::vector<RandrMonitor>& monitors) {
  auto main = std::ranges::find_if(monitors, &RandrMonitor::primary);
  if (main == monitors.end()) {
    main =
        std::ranges::find_if(monitors, [](const RandrMonitor& m) { return m.x == 0 && m.y == 0; });
  }
  return main == monitors.end() ? 0 : std::size_t(main - monitors.begin());
}

std::vector<RandrMonitor> queryMonitors(xcb_connection_t* c, xcb_window_t root,
                                        std::vector<xcb_atom_t>* nameAtoms) {
  static const Logger log("io.dovka.tovu.host", "display");
  xcb_generic_error_t* error = nullptr;
  const XcbReply<xcb_randr_get_monitors_reply_t> reply(
      xcb_randr_get_monitors_reply(c, xcb_randr_get_monitors(c, root, 1), &error));
  if (!reply) {
    if (error) log.error("The X server refused the list of monitors: error %u", error->error_code);
    std::free(error);
    return {};  // a broken connection is its owner's to report
  }
  // The reply's own length bounds what is read of it, whatever its counts say.
  const auto* end =
      reinterpret_cast<const char*>(reply.get()) + 32 + 4 * std::size_t{reply->length};
  std::vector<RandrMonitor> monitors;
  for (auto it = xcb_randr_get_monitors_monitors_iterator(reply.get()); it.rem > 0;
       xcb_randr_monitor_info_next(&it)) {
    const auto* m = it.data;
    const auto* mEnd = reinterpret_cast<const char*>(m) + sizeof(*m);
    if (mEnd > end || mEnd + 4 * std::size_t{m->nOutput} > end) {
      log.error("The X server's list of monitors is cut short; %zu of %d kept", monitors.size(),
                static_cast<int>(reply->nMonitors));
      break;
    }
    monitors.push_back({{}, m->primary != 0, m->x, m->y, m->width, m->height});
    if (nameAtoms) nameAtoms->push_back(m->name);
  }
  return monitors;
}

std::vector<DisplayInfo> displayListFromMonitors(const std::vector<RandrMonitor>& monitors) {
  if (monitors.empty()) return {};
  const auto main = monitors.begin() + std::ptrdiff_t(mainMonitorIndex(monitors));

  // IDs in the order of names, so that a clash of hashes is settled the same way every time.
  std::map<std::string, std::uint32_t> ids;
  for (const auto& monitor : monitors) ids[monitor.name] = 0;
  std::set<std::uint32_t> taken;
  for (auto& [name, id] : ids) {
    id = displayIDForMonitorName(name);
    while (id == 0 || taken.contains(id)) ++id;
    taken.insert(id);
  }

  std::vector<DisplayInfo> list;
  for (const auto& monitor : monitors) {
    DisplayInfo info;
    info.id = ids[monitor.name];
    info.name = monitor.name;
    info.isMain = &monitor == &*main;
    info.pixelWidth = monitor.width;
    info.pixelHeight = monitor.height;
    // Points are pixels on X11; the origin is the main display's top left corner.
    info.frame = {static_cast<float>(monitor.x - main->x), static_cast<float>(monitor.y - main->y),
                  static_cast<float>(monitor.width), static_cast<float>(monitor.height)};
    list.push_back(std::move(info));
  }
  std::ranges::sort(list, [](const DisplayInfo& a, const DisplayInfo& b) {
    if (a.isMain != b.isMain) return a.isMain;
    return a.id < b.id;
  });
  return list;
}

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
    const auto* extension = xcb_get_extension_data(c, &xcb_randr_id);
    if (!extension || !extension->present) {
      throw std::runtime_error("the X server has no RANDR extension");
    }
    xcb_generic_error_t* error = nullptr;
    const XcbReply<xcb_randr_query_version_reply_t> version(
        xcb_randr_query_version_reply(c, xcb_randr_query_version(c, 1, 6), &error));
    std::free(error);
    if (!version) throw std::runtime_error("the X server did not tell its RANDR version");
    const auto major = version->major_version, minor = version->minor_version;
    if (major < 1 || (major == 1 && minor < 5)) {
      throw std::runtime_error("the X server has RANDR " + std::to_string(major) + "." +
                               std::to_string(minor) + "; monitors need 1.5");
    }
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
    return extension->first_event;
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
    atomNames.clear();
  }

  std::vector<DisplayInfo> readDisplays() {
    if (!ensureConnected()) return {};
    const auto monitors = readMonitors();
    connection->dispatchQueuedEvents();
    return displayListFromMonitors(monitors);
  }

  std::vector<RandrMonitor> readMonitors() {
    std::vector<xcb_atom_t> atoms;
    auto monitors = queryMonitors(connection->get(), connection->root(), &atoms);
    const auto names = namesOf(atoms);
    for (std::size_t i = 0; i < monitors.size(); ++i) monitors[i].name = names[i];
    return monitors;
  }

  // The names of monitors' atoms, asking the server in one round trip for those not known yet. A
  // monitor without a readable name is "Display " and its place in the list, counted from 1.
  std::vector<std::string> namesOf(const std::vector<xcb_atom_t>& atoms) {
    if (atomNames.size() > kMaxCachedNames) atomNames.clear();
    auto* c = connection->get();
    std::vector<std::pair<xcb_atom_t, xcb_get_atom_name_cookie_t>> asked;
    for (const auto atom : atoms) {
      if (atom != XCB_ATOM_NONE && !atomNames.contains(atom)) {
        asked.emplace_back(atom, xcb_get_atom_name(c, atom));
      }
    }
    for (const auto& [atom, cookie] : asked) {
      xcb_generic_error_t* error = nullptr;
      const XcbReply<xcb_get_atom_name_reply_t> reply(xcb_get_atom_name_reply(c, cookie, &error));
      std::free(error);
      if (reply) {
        atomNames[atom].assign(
            xcb_get_atom_name_name(reply.get()),
            static_cast<std::size_t>(xcb_get_atom_name_name_length(reply.get())));
      }
    }
    std::vector<std::string> names;
    for (std::size_t i = 0; i < atoms.size(); ++i) {
      const auto known = atomNames.find(atoms[i]);
      names.push_back(known != atomNames.end() && !known->second.empty()
                          ? known->second
                          : "Display " + std::to_string(i + 1));
    }
    return names;
  }

  const Executor strand;
  const std::string displayName;
  ChangeBroadcaster broadcaster;
  Logger log{"io.dovka.tovu.host", "display"};

  std::shared_ptr<X11Connection> connection;
  std::unordered_map<xcb_atom_t, std::string> atomNames;  // of `connection`'s server
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
