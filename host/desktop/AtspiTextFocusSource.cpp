#include "host/desktop/AtspiTextFocusSource.hpp"

#include <atspi/atspi.h>
#include <gio/gio.h>
#include <xcb/xcb.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "host/desktop/BusConnection.hpp"
#include "host/x11/RandrMonitors.hpp"
#include "kit/log/Logger.hpp"

namespace kelvaron::host {

namespace {

// Each call into an application: a hung one costs a read at most a few times this (libatspi
// waits longer than the value it is given). The longer wait is for an application's first call.
constexpr int kCallTimeoutMs = 250;
constexpr int kStartupTimeoutMs = 1000;
// A burst of focus events settles before it is read.
constexpr guint kReadDelayMs = 100;
// Text that seems to have lost the focus is read again this much later before its loss is told:
// focus passes through nothing while windows switch, and the window system tells of a new
// application in front only after 0.3 s.
constexpr guint kConfirmDelayMs = 400;
constexpr long kSlowReadMs = 100;
// All the calls of one read: past this, the read has found nothing.
constexpr std::chrono::milliseconds kReadBudget{1500};
constexpr int kStatusTimeoutMs = 1000;
// Bounds of a walk for the focused element: nodes looked at, children of one node, and what an
// application's attributes may hold.
constexpr int kMaxWalkedNodes = 2000;
constexpr int kMaxChildren = 512;
constexpr int kMaxIconChildren = 4;
constexpr std::size_t kMaxAttributes = 64;
constexpr std::size_t kMaxAttributeLength = 256;

constexpr const char* kFocusEvent = "object:state-changed:focused";

// libatspi keeps one connection for the process and cannot be initialised again once it has
// seen applications (atspi_exit leaves them behind half undone): it is connected once, and the
// thread of the source that observes takes it over. One source observes at a time.
std::mutex atspiLock;
bool atspiConnected = false;

struct GObjectUnref {
  void operator()(gpointer object) const {
    if (object) g_object_unref(object);
  }
};
template <class T>
using GRef = std::unique_ptr<T, GObjectUnref>;

struct GFree {
  void operator()(gpointer memory) const { g_free(memory); }
};

// The application in front, as the window system says.
struct Front {
  std::int32_t pid = 0;
  std::string bundleID;
  std::optional<Rect> windowFrame;  // its front-most window on screen
  friend bool operator==(const Front&, const Front&) = default;
};

Front frontOf(const std::vector<AppInfo>& apps) {
  for (const AppInfo& app : apps) {
    if (!app.isFrontmost) continue;
    Front front{app.pid, app.bundleID, std::nullopt};
    for (const WindowInfo& window : app.windows) {
      if (!window.isOnScreen || window.isMinimized) continue;
      front.windowFrame =
          Rect{window.frame.x, window.frame.y, window.frame.width, window.frame.height};
      break;
    }
    return front;
  }
  return {};
}

AccessibleRole roleOf(AtspiRole role) {
  switch (role) {
    case ATSPI_ROLE_TEXT:
      return AccessibleRole::text;
    case ATSPI_ROLE_ENTRY:
      return AccessibleRole::entry;
    case ATSPI_ROLE_PASSWORD_TEXT:
      return AccessibleRole::passwordText;
    case ATSPI_ROLE_COMBO_BOX:
      return AccessibleRole::comboBox;
    case ATSPI_ROLE_SPIN_BUTTON:
      return AccessibleRole::spinButton;
    case ATSPI_ROLE_DOCUMENT_TEXT:
      return AccessibleRole::documentText;
    case ATSPI_ROLE_TERMINAL:
      return AccessibleRole::terminal;
    default:
      return AccessibleRole::other;
  }
}

struct Corner {
  double x = 0, y = 0;
};

// Where the main display's top left corner is in the root window: AT-SPI's screen coordinates
// are the root's, and the desktop's points start there. Asked again at each change of the
// application in front, on a connection of its own made anew when it broke.
class DesktopOrigin {
 public:
  explicit DesktopOrigin(std::string displayName) : displayName_(std::move(displayName)) {}
  ~DesktopOrigin() { disconnect(); }
  DesktopOrigin(const DesktopOrigin&) = delete;
  DesktopOrigin& operator=(const DesktopOrigin&) = delete;

  Corner read() {
    if (connection_ && xcb_connection_has_error(connection_)) disconnect();
    if (!connection_) connect();
    if (!connection_ || !hasMonitors_) return {};
    const auto monitors = queryMonitors(connection_, root_);
    if (monitors.empty()) return {};
    const RandrMonitor& main = monitors[mainMonitorIndex(monitors)];
    return {double(main.x), double(main.y)};
  }

 private:
  void connect() {
    int screenNumber = 0;
    connection_ = xcb_connect(displayName_.empty() ? nullptr : displayName_.c_str(), &screenNumber);
    if (xcb_connection_has_error(connection_)) {
      disconnect();
      return;
    }
    auto screens = xcb_setup_roots_iterator(xcb_get_setup(connection_));
    for (int i = 0; i < screenNumber && screens.rem > 0; ++i) xcb_screen_next(&screens);
    root_ = screens.data->root;
    try {
      requireMonitors(connection_, 5);
      hasMonitors_ = true;
    } catch (const std::exception&) {
      // Without RANDR's monitors the root is one display, at the origin.
      hasMonitors_ = false;
    }
  }
  void disconnect() {
    if (connection_) xcb_disconnect(connection_);
    connection_ = nullptr;
  }

  const std::string displayName_;
  xcb_connection_t* connection_ = nullptr;
  xcb_window_t root_ = XCB_NONE;
  bool hasMonitors_ = false;
};

// One read of an application's tree. A hung application answers no call with an error: it gives
// -1, NULL, ROLE_INVALID or a state set of DEFUNCT alone, each after a timeout. So the first such
// answer ends the read, and everything after it answers nothing at once; so does the end of the
// read's time, for an application that answers every call, slowly.
class TreeReader {
 public:
  TreeReader() : deadline_(std::chrono::steady_clock::now() + kReadBudget) {}

  bool failed() const { return failed_; }

  std::optional<AtspiRole> role(AtspiAccessible* object) {
    if (failed_) return std::nullopt;
    GError* error = nullptr;
    const AtspiRole role = atspi_accessible_get_role(object, &error);
    if (check(error) && role != ATSPI_ROLE_INVALID) return role;
    failed_ = true;
    return std::nullopt;
  }

  GRef<AtspiStateSet> states(AtspiAccessible* object) {
    if (failed_) return nullptr;
    GRef<AtspiStateSet> set(atspi_accessible_get_state_set(object));
    if (!set || atspi_state_set_contains(set.get(), ATSPI_STATE_DEFUNCT) || late()) {
      failed_ = true;
      return nullptr;
    }
    return set;
  }

  int childCount(AtspiAccessible* object) {
    if (failed_) return 0;
    GError* error = nullptr;
    const int count = atspi_accessible_get_child_count(object, &error);
    if (check(error) && count >= 0) return std::min(count, kMaxChildren);
    failed_ = true;
    return 0;
  }

  GRef<AtspiAccessible> child(AtspiAccessible* object, int index) {
    if (failed_) return nullptr;
    GError* error = nullptr;
    GRef<AtspiAccessible> child(atspi_accessible_get_child_at_index(object, index, &error));
    if (check(error) && child) return child;
    failed_ = true;
    return nullptr;
  }

  std::string name(AtspiAccessible* object) {
    if (failed_) return {};
    GError* error = nullptr;
    std::unique_ptr<gchar, GFree> name(atspi_accessible_get_name(object, &error));
    if (!check(error) || !name) {
      failed_ = true;
      return {};
    }
    return std::string(name.get()).substr(0, kMaxAttributeLength);
  }

  std::map<std::string, std::string> attributes(AtspiAccessible* object) {
    std::map<std::string, std::string> result;
    if (failed_) return result;
    GError* error = nullptr;
    GHashTable* table = atspi_accessible_get_attributes(object, &error);
    if (!check(error) || !table) {
      failed_ = true;
      return result;
    }
    GHashTableIter iterator;
    gpointer key = nullptr, value = nullptr;
    g_hash_table_iter_init(&iterator, table);
    while (result.size() < kMaxAttributes && g_hash_table_iter_next(&iterator, &key, &value)) {
      if (!key || !value) continue;
      result.emplace(std::string(static_cast<const char*>(key)).substr(0, kMaxAttributeLength),
                     std::string(static_cast<const char*>(value)).substr(0, kMaxAttributeLength));
    }
    g_hash_table_unref(table);
    return result;
  }

  // Nothing, without failing, for an element that is no component.
  std::optional<Rect> frame(AtspiAccessible* object, Corner origin) {
    if (failed_) return std::nullopt;
    GRef<AtspiComponent> component(atspi_accessible_get_component_iface(object));
    if (!component) return std::nullopt;
    GError* error = nullptr;
    std::unique_ptr<AtspiRect, GFree> box(
        atspi_component_get_extents(component.get(), ATSPI_COORD_TYPE_SCREEN, &error));
    if (!check(error) || !box) {
      failed_ = true;
      return std::nullopt;
    }
    if (box->width <= 0 || box->height <= 0) return std::nullopt;
    return Rect{double(box->x) - origin.x, double(box->y) - origin.y, double(box->width),
                double(box->height)};
  }

  // The element as classifying needs it; nothing once a call failed.
  // Its frame in the desktop's points, `origin` being the main display's corner in the root.
  std::optional<TextFocusElement> element(AtspiAccessible* object, Corner origin) {
    TextFocusElement element;
    const auto atspiRole = role(object);
    const auto set = states(object);
    if (!atspiRole || !set) return std::nullopt;
    element.role = roleOf(*atspiRole);
    element.editable = atspi_state_set_contains(set.get(), ATSPI_STATE_EDITABLE);
    element.singleLine = atspi_state_set_contains(set.get(), ATSPI_STATE_SINGLE_LINE);
    element.multiLine = atspi_state_set_contains(set.get(), ATSPI_STATE_MULTI_LINE);
    if (element.role == AccessibleRole::text || element.role == AccessibleRole::entry) {
      // What may tell a search box from another entry.
      element.attributes = attributes(object);
      const int count = std::min(childCount(object), kMaxIconChildren);
      for (int index = 0; index < count; ++index) {
        const auto child = this->child(object, index);
        if (!child) break;
        if (role(child.get()) == ATSPI_ROLE_ICON) element.iconNames.push_back(name(child.get()));
      }
    }
    element.frame = frame(object, origin);
    if (failed_) return std::nullopt;
    return element;
  }

 private:
  bool check(GError* error) {
    if (!error) return !late();
    g_error_free(error);
    return false;
  }
  bool late() const { return std::chrono::steady_clock::now() > deadline_; }

  const std::chrono::steady_clock::time_point deadline_;
  bool failed_ = false;
};

// The accessible application of a process, among the desktop's; the bus daemon answers for the
// process, so an application that hangs costs nothing here.
GRef<AtspiAccessible> applicationOf(std::int32_t pid, TreeReader& reader) {
  GRef<AtspiAccessible> desktop(atspi_get_desktop(0));
  if (!desktop) return nullptr;
  const int count = reader.childCount(desktop.get());
  for (int index = 0; index < count; ++index) {
    auto app = reader.child(desktop.get(), index);
    if (!app) return nullptr;
    GError* error = nullptr;
    const guint appPID = atspi_accessible_get_process_id(app.get(), &error);
    if (error) {
      g_error_free(error);
      continue;
    }
    if (std::int32_t(appPID) == pid) return app;
  }
  return nullptr;
}

// The descendant that has the focus: depth first through what is showing, not into containers
// that manage their descendants (their focused child comes with the focus event).
GRef<AtspiAccessible> focusedIn(AtspiAccessible* app, TreeReader& reader) {
  std::vector<GRef<AtspiAccessible>> stack;
  const auto pushChildren = [&](AtspiAccessible* parent) {
    const int count = reader.childCount(parent);
    std::vector<GRef<AtspiAccessible>> children;
    for (int index = 0; index < count; ++index) {
      auto child = reader.child(parent, index);
      if (!child) return;
      children.push_back(std::move(child));
    }
    for (auto it = children.rbegin(); it != children.rend(); ++it) stack.push_back(std::move(*it));
  };
  pushChildren(app);
  int walked = 0;
  while (!stack.empty() && !reader.failed() && walked++ < kMaxWalkedNodes) {
    GRef<AtspiAccessible> node = std::move(stack.back());
    stack.pop_back();
    const auto set = reader.states(node.get());
    if (!set) return nullptr;
    if (atspi_state_set_contains(set.get(), ATSPI_STATE_FOCUSED)) return node;
    if (!atspi_state_set_contains(set.get(), ATSPI_STATE_SHOWING)) continue;
    if (atspi_state_set_contains(set.get(), ATSPI_STATE_MANAGES_DESCENDANTS)) continue;
    pushChildren(node.get());
  }
  return nullptr;
}

}  // namespace

// Everything below `// Main loop's` runs on the GLib thread only; the handlers and the task that
// follows the application in front are shared with the callers of start and stop.
struct AtspiTextFocusSource::Impl : std::enable_shared_from_this<Impl> {
  Impl(Executor work, std::shared_ptr<AppProviding> provider, std::string displayName)
      : executor(std::move(work)), apps(std::move(provider)), origin(std::move(displayName)) {
    context = g_main_context_new();
    loop = g_main_loop_new(context, FALSE);
    thread = std::thread([this] {
      g_main_context_push_thread_default(context);
      g_main_loop_run(loop);
      g_main_context_pop_thread_default(context);
    });
  }

  ~Impl() {
    post([this] {
      if (observing) endObserving();
      if (session) {
        g_dbus_connection_close_sync(session, nullptr, nullptr);
        g_object_unref(session);
        session = nullptr;
      }
      // The connection stays for the process; its sources leave this loop for the default
      // context, where they wait for the next source to take them over.
      if (atspiReady) {
        std::lock_guard guard(atspiLock);
        if (atspi_get_a11y_bus()) atspi_set_main_context(nullptr);
      }
      g_main_loop_quit(loop);
    });
    // Never on the thread itself: nothing there holds the object.
    thread.join();
    g_main_loop_unref(loop);
    g_main_context_unref(context);
  }

  // Runs `work` on the GLib thread, in the order posted.
  void post(std::function<void()> work) {
    bool wake = false;
    {
      std::lock_guard guard(queueLock);
      wake = queue.empty();
      queue.push_back(std::move(work));
    }
    if (!wake) return;
    // Always through the loop, even before the thread runs it (g_main_context_invoke would run
    // the work at once on a context that nobody owns yet).
    GSource* source = g_idle_source_new();
    g_source_set_priority(source, G_PRIORITY_DEFAULT);
    g_source_set_callback(source, &Impl::drain, this, nullptr);
    g_source_attach(source, context);
    g_source_unref(source);
  }

  static gboolean drain(gpointer data) {
    auto* self = static_cast<Impl*>(data);
    for (;;) {
      std::function<void()> work;
      {
        std::lock_guard guard(self->queueLock);
        if (self->queue.empty()) break;
        work = std::move(self->queue.front());
        self->queue.pop_front();
      }
      work();
    }
    return G_SOURCE_REMOVE;
  }

  Stop start(Handler handler) {
    std::lock_guard guard(handlersLock);
    const std::uint64_t id = nextHandlerID++;
    handlers.emplace(id, std::move(handler));
    if (handlers.size() == 1) {
      // Observing first: the task may report the application in front before spawn returns.
      post([this, withApps = bool(apps)] { beginObserving(withApps); });
      const std::uint64_t generation = ++frontGeneration;
      if (apps) frontTask = Task::spawn(executor, followFront(weak_from_this(), apps, generation));
    } else {
      // The newcomer learns the present state.
      post([this] {
        if (front) scheduleRead();
      });
    }
    return [weak = weak_from_this(), id] {
      if (const auto self = weak.lock()) self->stop(id);
    };
  }

  void stop(std::uint64_t id) {
    std::lock_guard guard(handlersLock);
    if (handlers.erase(id) == 0 || !handlers.empty()) return;
    frontTask.cancel();
    ++frontGeneration;
    post([this] { endObserving(); });
  }

  // The application in front at start and at each change the window system signals.
  static asio::awaitable<void> followFront(std::weak_ptr<Impl> weak,
                                           std::shared_ptr<AppProviding> apps,
                                           std::uint64_t generation) {
    const ChangeStream changes = apps->changes();
    for (;;) {
      if (co_await isCancelled()) co_return;
      const std::vector<AppInfo> list = co_await apps->apps();
      if (co_await isCancelled()) co_return;
      const auto self = weak.lock();
      if (!self) co_return;
      self->post([raw = self.get(), front = frontOf(list), generation] {
        raw->setFront(front, generation);
      });
      const auto signal = co_await changes->next();
      if (!signal) co_return;
    }
  }

  void deliver(const TextFocus& focus) {
    std::lock_guard guard(handlersLock);
    for (const auto& [id, handler] : handlers) handler(focus);
  }

  // Main loop's.

  void beginObserving(bool withApps) {
    observing = true;
    if (!withApps) log.error("text focus: no window system to tell the application in front");
    enableAccessibility();
    if (!atspiReady) initialize();
    if (atspiReady && !listener) {
      listener = atspi_event_listener_new(&Impl::onEvent, this, nullptr);
      GError* error = nullptr;
      if (!atspi_event_listener_register(listener, kFocusEvent, &error)) {
        log.error("text focus: cannot listen to focus events: %s",
                  error ? error->message : "unknown error");
        if (error) g_error_free(error);
      }
    }
  }

  void endObserving() {
    observing = false;
    if (listener) {
      atspi_event_listener_deregister(listener, kFocusEvent, nullptr);
      g_object_unref(listener);
      listener = nullptr;
    }
    cancelRead();
    candidate.reset();
    front.reset();
    told.reset();
    confirming = false;
    restoreAccessibility();
  }

  void initialize() {
    std::lock_guard guard(atspiLock);
    if (!atspiConnected) {
      // 1: initialised by someone else before.
      if (atspi_init() == 2) {
        // Nothing seen yet, so a later observation may try again.
        atspi_exit();
        if (!noBusLogged) {
          log.error("text focus: no accessibility bus; only terminals are reported");
          noBusLogged = true;
        }
        return;
      }
      atspi_set_timeout(kCallTimeoutMs, kStartupTimeoutMs);
      atspiConnected = true;
    }
    // Connects again when the bus went away since (libatspi aborts on a missing one).
    if (!atspi_get_a11y_bus()) {
      if (!noBusLogged) {
        log.error("text focus: the accessibility bus is gone; only terminals are reported");
        noBusLogged = true;
      }
      return;
    }
    atspi_set_main_context(context);
    atspiReady = true;
  }

  bool sessionBus() {
    if (session) return true;
    GError* error = nullptr;
    session = connectBus(nullptr, &error).release();
    if (!session && !noSessionLogged) {
      log.error("text focus: no session bus to turn accessibility on: %s",
                error ? error->message : "unknown error");
      noSessionLogged = true;
    }
    if (error) g_error_free(error);
    return session != nullptr;
  }

  std::optional<bool> accessibilityEnabled() {
    GError* error = nullptr;
    GVariant* reply = g_dbus_connection_call_sync(
        session, "org.a11y.Bus", "/org/a11y/bus", "org.freedesktop.DBus.Properties", "Get",
        g_variant_new("(ss)", "org.a11y.Status", "IsEnabled"), G_VARIANT_TYPE("(v)"),
        G_DBUS_CALL_FLAGS_NONE, kStatusTimeoutMs, nullptr, &error);
    if (!reply) {
      log.error("text focus: cannot read whether accessibility is on: %s", error->message);
      g_error_free(error);
      return std::nullopt;
    }
    GVariant* value = nullptr;
    g_variant_get(reply, "(v)", &value);
    std::optional<bool> enabled;
    if (g_variant_is_of_type(value, G_VARIANT_TYPE_BOOLEAN)) {
      enabled = g_variant_get_boolean(value);
    }
    g_variant_unref(value);
    g_variant_unref(reply);
    return enabled;
  }

  bool setAccessibility(bool enabled) {
    GError* error = nullptr;
    GVariant* reply = g_dbus_connection_call_sync(
        session, "org.a11y.Bus", "/org/a11y/bus", "org.freedesktop.DBus.Properties", "Set",
        g_variant_new("(ssv)", "org.a11y.Status", "IsEnabled", g_variant_new_boolean(enabled)),
        nullptr, G_DBUS_CALL_FLAGS_NONE, kStatusTimeoutMs, nullptr, &error);
    if (!reply) {
      log.error("text focus: cannot turn accessibility %s: %s", enabled ? "on" : "off",
                error->message);
      g_error_free(error);
      return false;
    }
    g_variant_unref(reply);
    return true;
  }

  void enableAccessibility() {
    if (!sessionBus()) return;
    if (accessibilityEnabled() == false && setAccessibility(true)) {
      log.info("text focus: turned accessibility on");
      enabledByUs = true;
    }
  }

  void restoreAccessibility() {
    if (!enabledByUs || !session) return;
    enabledByUs = false;
    if (setAccessibility(false)) log.info("text focus: turned accessibility off again");
  }

  void setFront(const Front& next, std::uint64_t generation) {
    if (!observing || generation != frontGeneration.load()) return;
    if (front == next) return;
    if (!front || front->pid != next.pid) candidate.reset();
    front = next;
    desktopOrigin = origin.read();
    // Read the new application soon, even when a confirmation waits longer.
    cancelRead();
    scheduleRead();
  }

  static void onEvent(AtspiEvent* event, void* data) {
    static_cast<Impl*>(data)->focusEvent(event);
    g_boxed_free(ATSPI_TYPE_EVENT, event);
  }

  void focusEvent(const AtspiEvent* event) {
    if (!observing || !front || !event->source) return;
    GError* error = nullptr;
    const guint pid = atspi_accessible_get_process_id(event->source, &error);
    if (error) {
      g_error_free(error);
      return;
    }
    if (std::int32_t(pid) != front->pid) return;
    if (event->detail1) candidate.reset(static_cast<AtspiAccessible*>(g_object_ref(event->source)));
    scheduleRead();
  }

  void scheduleRead(guint delayMs = kReadDelayMs) {
    if (pendingRead) return;
    pendingRead = g_timeout_source_new(delayMs);
    g_source_set_callback(pendingRead, &Impl::onReadTimer, this, nullptr);
    g_source_attach(pendingRead, context);
  }

  void cancelRead() {
    if (!pendingRead) return;
    g_source_destroy(pendingRead);
    g_source_unref(pendingRead);
    pendingRead = nullptr;
  }

  static gboolean onReadTimer(gpointer data) {
    auto* self = static_cast<Impl*>(data);
    g_source_unref(self->pendingRead);
    self->pendingRead = nullptr;
    self->read();
    return G_SOURCE_REMOVE;
  }

  void read() {
    if (!observing || !front) return;
    const Front now = *front;
    std::optional<TextFocusElement> element;
    if (atspiReady && now.pid > 0 && !isTerminalApp(now.bundleID)) {
      const auto began = std::chrono::steady_clock::now();
      element = readFocused(now.pid);
      const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(
                            std::chrono::steady_clock::now() - began)
                            .count();
      if (took > kSlowReadMs) {
        log.info("text focus: AT-SPI read of %s took %ld ms", now.bundleID.c_str(), long(took));
      }
    }
    TextFocus focus = classifyTextFocus(now.bundleID, std::move(element));
    if (focus.kind == TextFocusKind::terminal && !focus.frame) focus.frame = now.windowFrame;
    if (!focus.isText && told && told->isText && !confirming) {
      confirming = true;
      scheduleRead(kConfirmDelayMs);
      return;
    }
    confirming = false;
    told = focus;
    deliver(focus);
  }

  // The element with the focus in the process's application: the last focus event's, while it
  // keeps the focus, else the one a walk finds.
  std::optional<TextFocusElement> readFocused(std::int32_t pid) {
    TreeReader reader;
    if (candidate) {
      const auto set = reader.states(candidate.get());
      if (set && atspi_state_set_contains(set.get(), ATSPI_STATE_FOCUSED)) {
        return reader.element(candidate.get(), desktopOrigin);
      }
      candidate.reset();
      if (reader.failed()) return std::nullopt;
    }
    const auto app = applicationOf(pid, reader);
    if (!app) return std::nullopt;
    const auto focused = focusedIn(app.get(), reader);
    if (!focused) return std::nullopt;
    return reader.element(focused.get(), desktopOrigin);
  }

  const Executor executor;
  const std::shared_ptr<AppProviding> apps;
  GMainContext* context = nullptr;
  GMainLoop* loop = nullptr;
  std::thread thread;

  std::mutex queueLock;
  std::deque<std::function<void()>> queue;

  // Held while handlers run, so that a handler stopped is never called after its stop returned.
  std::recursive_mutex handlersLock;
  std::map<std::uint64_t, Handler> handlers;
  std::uint64_t nextHandlerID = 1;
  Task frontTask;
  // Moved at each start and stop: a report of the application in front from an earlier
  // observation is dropped.
  std::atomic<std::uint64_t> frontGeneration = 0;

  bool observing = false;
  bool atspiReady = false;
  bool noBusLogged = false;
  bool noSessionLogged = false;
  GDBusConnection* session = nullptr;
  bool enabledByUs = false;
  AtspiEventListener* listener = nullptr;
  std::optional<Front> front;
  DesktopOrigin origin;
  Corner desktopOrigin;
  GRef<AtspiAccessible> candidate;  // of the application in front
  GSource* pendingRead = nullptr;
  std::optional<TextFocus> told;  // the last result handed out
  bool confirming = false;        // the next read tells what it finds
  Logger log{"io.dovka.tovu.host", "textfocus"};
};

AtspiTextFocusSource::AtspiTextFocusSource(const Executor& executor,
                                           std::shared_ptr<AppProviding> apps,
                                           std::string displayName)
    : impl_(std::make_shared<Impl>(executor, std::move(apps), std::move(displayName))) {}

AtspiTextFocusSource::~AtspiTextFocusSource() = default;

TextFocusSource::Stop AtspiTextFocusSource::start(Handler handler) {
  return impl_->start(std::move(handler));
}

}  // namespace kelvaron::host
