#include "host/desktop/X11WindowCore.hpp"

#include <set>
#include <utility>

namespace kelvaron::host {

namespace {

constexpr std::size_t kIconWindows = 4;  // windows of one process asked for its icon

// Which of the connection's screens `root` is, for the EWMH requests that name one.
int screenNumberOf(xcb_connection_t* c, xcb_window_t root) {
  int number = 0;
  for (auto screens = xcb_setup_roots_iterator(xcb_get_setup(c)); screens.rem > 0;
       xcb_screen_next(&screens), ++number) {
    if (screens.data->root == root) return number;
  }
  return 0;
}

}  // namespace

X11WindowCore::X11WindowCore(const Executor& executor, std::string name)
    : strand(makeStrand(executor)),
      link(strand, std::move(name), Logger("io.dovka.tovu.host", "windows"), "No windows",
           [this] { forget(); }),
      appChanges(strand, std::chrono::milliseconds(300)),
      recent(strand) {}

X11WindowCore::~X11WindowCore() {
  reader.reset();  // before the connection it reads
}

bool X11WindowCore::ensureConnected() {
  const bool fresh = !link.connection() || link.connection()->broken();
  X11Connection* const connection = link.ensure([this](X11Connection& candidate) {
    xcb_connection_t* c = candidate.get();
    reader = std::make_unique<X11WindowReader>(c, candidate.screen(),
                                               screenNumberOf(c, candidate.root()));
    // The window manager tells of new clients and of activation on the root's properties.
    const std::uint32_t mask = XCB_EVENT_MASK_PROPERTY_CHANGE;
    xcb_change_window_attributes(c, candidate.root(), XCB_CW_EVENT_MASK, &mask);
    xcb_flush(c);
    candidate.startEvents(
        [weak = weak_from_this()](const xcb_generic_event_t& event) {
          if (const auto self = weak.lock()) self->handleEvent(event);
        },
        // Found broken by the next operation, which lets go of it and says so; the list changed.
        [weak = weak_from_this()](std::string) {
          if (const auto self = weak.lock()) self->appChanges.signal();
        });
  });
  if (!connection) {
    reader.reset();  // of a candidate that would not do
    return false;
  }
  if (fresh) {
    ++generation;
    if (std::exchange(everConnected, true)) appChanges.signal();
    seedRecent();
  }
  return true;
}

void X11WindowCore::settle() {
  const auto& connection = link.connection();
  if (!connection) return;
  connection->dispatchQueuedEvents();
  if (link.connection() && link.connection()->broken()) link.lose();
}

// Processes, pids and icons belong to the server's session that went away.
void X11WindowCore::forget() {
  reader.reset();
  processes.clear();
  iconless.clear();
  appChanges.signal();
}

void X11WindowCore::fail(const std::string& reason) { link.fail(reason); }

std::optional<X11WindowCore::Snapshot> X11WindowCore::snapshot(bool popups) {
  if (!ensureConnected()) return std::nullopt;
  Snapshot taken;
  taken.desktop = reader->desktop();
  const auto windows = popups ? reader->stackedTopLevels(taken.desktop) : taken.desktop.clients;
  taken.windows = reader->read(taken.desktop, windows);
  settle();
  if (!reader) return std::nullopt;
  std::set<std::int32_t> seen;
  for (X11Window& window : taken.windows) {
    window.record.ownerName = process(window).name;
    seen.insert(window.record.pid);
  }
  // A process keeps its identity while it has windows; its pid may later be another's.
  std::erase_if(processes, [&seen](const auto& entry) { return !seen.contains(entry.first); });
  std::erase_if(iconless, [&seen](std::int32_t pid) { return !seen.contains(pid); });
  return taken;
}

const X11WindowCore::Process& X11WindowCore::process(const X11Window& window) {
  const std::int32_t pid = window.record.pid;
  auto [entry, fresh] = processes.try_emplace(pid);
  Process& known = entry->second;
  const WindowClassHints& hints = window.classHints;
  const bool tells =
      !hints.gtkApplicationID.empty() || !hints.className.empty() || !hints.instance.empty();
  if (fresh) known.name = processName(pid);
  if (fresh || (!known.identity.settled && tells)) known.identity = identifyApp(pid, hints);
  return known;
}

std::optional<Data> X11WindowCore::iconOf(std::int32_t pid,
                                          const std::vector<const X11Window*>& windows) {
  if (windows.empty()) return std::nullopt;
  const std::string& bundleID = process(*windows.front()).identity.bundleID;
  if (const auto known = icons.find(bundleID); known != icons.end()) return known->second;
  if (iconless.contains(pid) || !reader) return std::nullopt;
  for (std::size_t i = 0; i < windows.size() && i < kIconWindows; ++i) {
    if (auto png = reader->icon(windows[i]->record.id)) {
      icons[bundleID] = *png;
      return png;
    }
  }
  iconless.insert(pid);
  return std::nullopt;
}

void X11WindowCore::seedRecent() {
  if (!reader) return;
  const X11Desktop desktop = reader->desktop(false);
  auto windows = desktop.clients;
  windows.push_back(desktop.active);
  const auto owners = reader->owners().processes(windows);
  std::vector<std::int32_t> order;
  for (std::size_t i = 0; i + 1 < owners.size(); ++i) order.push_back(owners[i].value_or(0));
  const std::int32_t active = desktop.active != XCB_NONE ? owners.back().value_or(0) : 0;
  recent.seed(order, active);
}

void X11WindowCore::handleEvent(const xcb_generic_event_t& event) {
  if (event.response_type == 0) {
    // Requests about windows that went away in the meantime fail; that is their answer.
    const auto& error = reinterpret_cast<const xcb_generic_error_t&>(event);
    if (error.error_code != XCB_WINDOW && error.error_code != XCB_MATCH) {
      link.log().debug("The X server refused a request: error %u, request %u.%u", error.error_code,
                       error.major_code, error.minor_code);
    }
    return;
  }
  if ((event.response_type & 0x7f) != XCB_PROPERTY_NOTIFY || !reader) return;
  const auto& notify = reinterpret_cast<const xcb_property_notify_event_t&>(event);
  if (notify.window != link.connection()->root()) return;
  const auto& ewmh = reader->ewmh();
  if (notify.atom == ewmh._NET_ACTIVE_WINDOW) {
    appChanges.signal();
    const X11Desktop desktop = reader->desktop(false);
    if (desktop.active != XCB_NONE) {
      recent.activate(reader->owners().process(desktop.active).value_or(0));
    }
  } else if (notify.atom == ewmh._NET_CLIENT_LIST) {
    appChanges.signal();
    const X11Desktop desktop = reader->desktop(false);
    std::set<std::int32_t> running;
    for (const auto& owner : reader->owners().processes(desktop.clients)) {
      if (owner) running.insert(*owner);
    }
    recent.retain(running);
  }
}

}  // namespace kelvaron::host
