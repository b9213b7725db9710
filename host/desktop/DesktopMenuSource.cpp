#include "host/desktop/DesktopMenuSource.hpp"

#include <gio/gio.h>
#include <xcb/xcb.h>

#include <asio/async_result.hpp>
#include <asio/post.hpp>
#include <asio/use_awaitable.hpp>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <thread>
#include <variant>

#include "host/desktop/BusConnection.hpp"
#include "host/desktop/MenuReaders.hpp"
#include "host/desktop/MenuTree.hpp"
#include "host/video/ChangeBroadcaster.hpp"
#include "host/x11/X11Connection.hpp"
#include "host/x11/X11WindowOwners.hpp"
#include "kit/log/Logger.hpp"

namespace kelvaron::host {

namespace {

constexpr std::chrono::milliseconds kReadTime{1500};
constexpr int kMaxItems = 3200;
constexpr auto kSlowRead = std::chrono::milliseconds(100);
// Routes remembered for this many processes at most; the gone ones are forgotten first.
constexpr std::size_t kMaxRoutes = 32;
// A window property longer than this is no name or path.
constexpr std::uint32_t kMaxPropertyWords = 256;

const Logger& log() {
  static const Logger logger{"io.dovka.tovu.host", "menus"};
  return logger;
}

struct AtspiRoute {
  friend bool operator==(const AtspiRoute&, const AtspiRoute&) = default;
};
using MenuRoute = std::variant<GtkMenuAddress, DbusMenuAddress, AtspiRoute>;

const char* routeName(const MenuRoute& route) {
  if (std::holds_alternative<GtkMenuAddress>(route)) return "GTK menu model";
  if (std::holds_alternative<DbusMenuAddress>(route)) return "dbusmenu";
  return "accessibility tree";
}

// The window of a process whose properties name its menus.
struct MenuWindow {
  xcb_window_t id = XCB_NONE;
  GtkMenuAddress gtk;
  DbusMenuAddress kde;
};

// The X side: which window a process shows in front, and what its properties name.
class WindowProperties {
 public:
  explicit WindowProperties(std::string displayName) : displayName_(std::move(displayName)) {}
  ~WindowProperties() { disconnect(); }
  WindowProperties(const WindowProperties&) = delete;
  WindowProperties& operator=(const WindowProperties&) = delete;

  std::optional<MenuWindow> windowOf(std::int32_t pid) {
    if (link_.connection && xcb_connection_has_error(link_.connection)) disconnect();
    if (!link_.connection && !connect()) return std::nullopt;
    std::vector<xcb_window_t> candidates;
    if (const auto active = windows(link_.screen->root, atoms_[activeWindow], XCB_ATOM_WINDOW);
        !active.empty() && active.front() != XCB_NONE) {
      candidates.push_back(active.front());
    }
    // Top of the stack first.
    auto stacking = windows(link_.screen->root, atoms_[clientListStacking], XCB_ATOM_WINDOW);
    candidates.insert(candidates.end(), stacking.rbegin(), stacking.rend());
    const auto owners = owners_->processes(candidates);
    // The front-most window that names its menus (a dialog in front names none), else the
    // front-most, whose menus a registrar may know.
    std::optional<MenuWindow> first;
    for (std::size_t i = 0; i < candidates.size(); ++i) {
      if (owners[i] != pid) continue;
      MenuWindow window{candidates[i], {}, {}};
      window.gtk = {text(window.id, gtkBusName), text(window.id, gtkMenubarPath),
                    text(window.id, gtkApplicationPath), text(window.id, gtkWindowPath)};
      window.kde = {text(window.id, kdeServiceName), text(window.id, kdeObjectPath)};
      if (!window.gtk.menubar.empty() || !window.kde.path.empty()) return window;
      if (!first) first = std::move(window);
    }
    return first;
  }

  // The accessibility bus's address as its launcher leaves it on the root.
  std::string accessibilityBus() {
    if (!link_.connection && !connect()) return {};
    return text(link_.screen->root, atSpiBus);
  }

 private:
  enum Atom {
    activeWindow,
    clientListStacking,
    gtkBusName,
    gtkMenubarPath,
    gtkApplicationPath,
    gtkWindowPath,
    kdeServiceName,
    kdeObjectPath,
    atSpiBus,
    atomCount
  };

  bool connect() {
    try {
      link_ = connectToDisplay(displayName_);
    } catch (const std::exception& failure) {
      if (!warned_) log().error("menus: %s", failure.what());
      warned_ = true;
      return false;
    }
    warned_ = false;
    static constexpr const char* kNames[atomCount] = {"_NET_ACTIVE_WINDOW",
                                                      "_NET_CLIENT_LIST_STACKING",
                                                      "_GTK_UNIQUE_BUS_NAME",
                                                      "_GTK_MENUBAR_OBJECT_PATH",
                                                      "_GTK_APPLICATION_OBJECT_PATH",
                                                      "_GTK_WINDOW_OBJECT_PATH",
                                                      "_KDE_NET_WM_APPMENU_SERVICE_NAME",
                                                      "_KDE_NET_WM_APPMENU_OBJECT_PATH",
                                                      "AT_SPI_BUS"};
    xcb_intern_atom_cookie_t cookies[atomCount];
    for (int i = 0; i < atomCount; ++i) {
      cookies[i] =
          xcb_intern_atom(link_.connection, 0, std::uint16_t(std::strlen(kNames[i])), kNames[i]);
    }
    for (int i = 0; i < atomCount; ++i) {
      XcbReply<xcb_intern_atom_reply_t> reply(
          xcb_intern_atom_reply(link_.connection, cookies[i], nullptr));
      atoms_[i] = reply ? reply->atom : xcb_atom_t(XCB_ATOM_NONE);
    }
    owners_ = std::make_unique<X11WindowOwners>(link_.connection);
    return true;
  }

  void disconnect() {
    owners_.reset();
    if (link_.connection) xcb_disconnect(link_.connection);
    link_ = {};
  }

  XcbReply<xcb_get_property_reply_t> property(xcb_window_t window, xcb_atom_t atom,
                                              xcb_atom_t type) {
    return XcbReply<xcb_get_property_reply_t>(xcb_get_property_reply(
        link_.connection,
        xcb_get_property(link_.connection, 0, window, atom, type, 0, kMaxPropertyWords), nullptr));
  }

  std::vector<xcb_window_t> windows(xcb_window_t window, xcb_atom_t atom, xcb_atom_t type) {
    const auto reply = property(window, atom, type);
    if (!reply || reply->format != 32 || reply->type != type) return {};
    const auto* values = static_cast<const xcb_window_t*>(xcb_get_property_value(reply.get()));
    return {values, values + xcb_get_property_value_length(reply.get()) / 4};
  }

  std::string text(xcb_window_t window, Atom atom) {
    const auto reply = property(window, atoms_[atom], XCB_GET_PROPERTY_TYPE_ANY);
    // Longer than asked for: no name of a bus or an object.
    if (!reply || reply->format != 8 || reply->bytes_after > 0) return {};
    std::string value(static_cast<const char*>(xcb_get_property_value(reply.get())),
                      std::size_t(xcb_get_property_value_length(reply.get())));
    while (!value.empty() && value.back() == '\0') value.pop_back();
    if (value.find('\0') != std::string::npos) return {};
    return value;
  }

  const std::string displayName_;
  DisplayLink link_;
  xcb_atom_t atoms_[atomCount] = {};
  std::unique_ptr<X11WindowOwners> owners_;
  bool warned_ = false;
};

using Connection = Owned<GDBusConnection>;

}  // namespace

// Everything but `post`, `broadcaster` and the thread's start and end runs on the GLib thread.
struct DesktopMenuSource::Core {
  explicit Core(const Executor& executor, std::string displayName)
      : broadcaster(std::make_shared<ChangeBroadcaster>(executor, std::chrono::milliseconds(200))),
        x(std::move(displayName)) {
    context = g_main_context_new();
    loop = g_main_loop_new(context, FALSE);
    thread = std::thread([this] {
      g_main_context_push_thread_default(context);
      g_main_loop_run(loop);
      unwatch();
      session.reset();
      a11y.reset();
      g_main_context_pop_thread_default(context);
    });
  }

  ~Core() {
    post([this] { g_main_loop_quit(loop); });
    thread.join();
    g_main_loop_unref(loop);
    // Work still queued goes with the context: its callers have gone too.
    g_main_context_unref(context);
  }

  // Runs `work` on the GLib thread, in the order posted. Any thread.
  void post(std::function<void()> work) {
    GSource* source = g_idle_source_new();
    g_source_set_callback(
        source,
        [](gpointer data) -> gboolean {
          (*static_cast<std::function<void()>*>(data))();
          return G_SOURCE_REMOVE;
        },
        new std::function<void()>(std::move(work)),
        [](gpointer data) { delete static_cast<std::function<void()>*>(data); });
    g_source_attach(source, context);
    g_source_unref(source);
  }

  // `work`'s result on the GLib thread, handed to the awaiting coroutine on its own executor.
  template <class T>
  asio::awaitable<T> run(std::function<T()> work) {
    return asio::async_initiate<decltype(asio::use_awaitable), void(T)>(
        [this, work = std::move(work)](auto handler) mutable {
          auto executor = asio::get_associated_executor(handler);
          auto waiting = std::make_shared<decltype(handler)>(std::move(handler));
          post([work = std::move(work), waiting, executor]() mutable {
            asio::post(executor,
                       [waiting, result = work()]() mutable { (*waiting)(std::move(result)); });
          });
        },
        asio::use_awaitable);
  }

  // The session bus, connected anew after it closed; null without one.
  GDBusConnection* sessionBus() {
    if (session && g_dbus_connection_is_closed(session.get())) {
      unwatch();
      session.reset();
    }
    if (!session) session = connect(nullptr, "session");
    return session.get();
  }

  GDBusConnection* accessibilityBus(MenuBudget& budget) {
    if (a11y && g_dbus_connection_is_closed(a11y.get())) a11y.reset();
    if (a11y) return a11y.get();
    std::string address;
    if (const char* given = std::getenv("AT_SPI_BUS_ADDRESS"); given && *given) address = given;
    if (address.empty()) {
      if (GDBusConnection* bus = sessionBus()) {
        const Variant reply = callMethod(bus, "org.a11y.Bus", "/org/a11y/bus", "org.a11y.Bus",
                                         "GetAddress", nullptr, "(s)", budget);
        const gchar* found = nullptr;
        if (reply) g_variant_get(reply.get(), "(&s)", &found);
        if (found) address = found;
      }
    }
    if (address.empty()) address = x.accessibilityBus();
    if (address.empty()) return nullptr;
    a11y = connect(address.c_str(), "accessibility");
    return a11y.get();
  }

  Connection connect(const char* address, const char* name) {
    GError* error = nullptr;
    Connection connection = connectBus(address, &error);
    if (!connection) {
      // Once per run of failures.
      if (!busWarned[name]) {
        log().error("menus: no %s bus: %s", name, error ? error->message : "unknown error");
      }
      busWarned[name] = true;
      if (error) g_error_free(error);
      return nullptr;
    }
    busWarned[name] = false;
    return connection;
  }

  // The first route with a menu bar for `pid`; nothing when none has one or the budget ran out.
  std::optional<std::pair<MenuRoute, std::vector<RawMenuItem>>> discover(std::int32_t pid,
                                                                         MenuBudget& budget) {
    const auto window = x.windowOf(pid);
    GDBusConnection* bus = sessionBus();
    if (window && bus && !window->gtk.bus.empty() && !window->gtk.menubar.empty()) {
      auto read = readGtkMenus(bus, window->gtk, budget);
      // GtkApplication exports a menu bar for every window, empty where it has none.
      if (read.status == MenuReadStatus::read && !read.items.empty()) {
        return std::pair{window->gtk, std::move(read.items)};
      }
      if (read.status == MenuReadStatus::exhausted) return std::nullopt;
    }
    if (window && bus) {
      DbusMenuAddress address = window->kde;
      if (address.bus.empty() || address.path.empty())
        address = registered(bus, window->id, budget);
      if (!address.bus.empty() && !address.path.empty()) {
        auto read = readDbusMenu(bus, address, budget);
        if (read.status == MenuReadStatus::read && !read.items.empty()) {
          return std::pair{address, std::move(read.items)};
        }
        if (read.status == MenuReadStatus::exhausted) return std::nullopt;
      }
    }
    if (budget.exhausted()) return std::nullopt;
    if (GDBusConnection* a11yBus = accessibilityBus(budget)) {
      auto read = readAtspiMenus(a11yBus, pid, budget);
      if (read.status == MenuReadStatus::read)
        return std::pair{AtspiRoute{}, std::move(read.items)};
    }
    return std::nullopt;
  }

  // The dbusmenu a running registrar knows for the window.
  static DbusMenuAddress registered(GDBusConnection* bus, xcb_window_t window, MenuBudget& budget) {
    const Variant reply =
        callMethod(bus, "com.canonical.AppMenu.Registrar", "/com/canonical/AppMenu/Registrar",
                   "com.canonical.AppMenu.Registrar", "GetMenuForWindow",
                   g_variant_new("(u)", guint32(window)), "(so)", budget);
    if (!reply) return {};
    const gchar *service = nullptr, *path = nullptr;
    g_variant_get(reply.get(), "(&s&o)", &service, &path);
    return {service, path};
  }

  std::optional<std::vector<RawMenuItem>> read(std::int32_t pid) {
    const auto started = std::chrono::steady_clock::now();
    MenuBudget budget(kReadTime, kMaxItems);
    auto found = discover(pid, budget);
    const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - started);
    if (budget.exhausted()) {
      if (budget.outOfItems()) {
        log().error("menu read for pid %d ran out of items (more than %d)", int(pid), kMaxItems);
      } else {
        log().error("menu read for pid %d ran out of time (%lld ms)", int(pid),
                    (long long)took.count());
      }
      return std::nullopt;
    }
    if (!found) {
      routes.erase(pid);
      return std::nullopt;
    }
    if (took > kSlowRead) {
      log().info("menu read for pid %d took %lld ms (%s)", int(pid), (long long)took.count(),
                 routeName(found->first));
    }
    remember(pid, found->first);
    return std::move(found->second);
  }

  MenuPressResult press(std::int32_t pid, const std::vector<std::string>& path) {
    MenuBudget budget(kReadTime, kMaxItems);
    auto known = routes.find(pid);
    if (known == routes.end()) {
      if (!discover(pid, budget)) return MenuPressResult::failed;
      // The route is now known; the press has a budget of its own.
      budget = MenuBudget(kReadTime, kMaxItems);
      known = routes.find(pid);
      if (known == routes.end()) return MenuPressResult::failed;
    }
    const MenuRoute route = known->second;
    MenuPressResult result = MenuPressResult::failed;
    if (const auto* gtk = std::get_if<GtkMenuAddress>(&route)) {
      if (GDBusConnection* bus = sessionBus()) result = pressGtkMenu(bus, *gtk, path, budget);
    } else if (const auto* dbus = std::get_if<DbusMenuAddress>(&route)) {
      if (GDBusConnection* bus = sessionBus()) result = pressDbusMenu(bus, *dbus, path, budget);
    } else if (GDBusConnection* a11yBus = accessibilityBus(budget)) {
      result = pressAtspiMenu(a11yBus, pid, path, budget);
    }
    if (budget.exhausted()) {
      log().error("menu press for pid %d ran out of time", int(pid));
    }
    return result;
  }

  void remember(std::int32_t pid, const MenuRoute& route) {
    auto [where, added] = routes.insert_or_assign(pid, route);
    if (added && routes.size() > kMaxRoutes) {
      std::erase_if(routes, [](const auto& entry) {
        return !std::filesystem::exists("/proc/" + std::to_string(entry.first));
      });
      if (routes.size() > kMaxRoutes) routes.clear();
      routes.insert_or_assign(pid, route);
    }
    watch(route);
  }

  // The change signals of the route read last: one process's menus are watched at a time.
  void watch(const MenuRoute& route) {
    if (watched == route) return;
    unwatch();
    watched = route;
    GDBusConnection* bus = session.get();
    if (!bus) return;
    const auto subscribe = [&](const std::string& sender, const char* interface, const char* member,
                               const std::string& path) {
      if (path.empty()) return;
      subscriptions.push_back(g_dbus_connection_signal_subscribe(
          bus, sender.c_str(), interface, member, path.c_str(), nullptr, G_DBUS_SIGNAL_FLAGS_NONE,
          [](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*, GVariant*,
             gpointer data) { static_cast<Core*>(data)->broadcaster->signal(); },
          this, nullptr));
    };
    if (const auto* gtk = std::get_if<GtkMenuAddress>(&route)) {
      subscribe(gtk->bus, "org.gtk.Menus", "Changed", gtk->menubar);
      subscribe(gtk->bus, "org.gtk.Actions", "Changed", gtk->app);
      subscribe(gtk->bus, "org.gtk.Actions", "Changed", gtk->window);
    } else if (const auto* dbus = std::get_if<DbusMenuAddress>(&route)) {
      subscribe(dbus->bus, "com.canonical.dbusmenu", "LayoutUpdated", dbus->path);
      subscribe(dbus->bus, "com.canonical.dbusmenu", "ItemsPropertiesUpdated", dbus->path);
    }
  }

  void unwatch() {
    if (session) {
      for (const guint id : subscriptions) g_dbus_connection_signal_unsubscribe(session.get(), id);
    }
    subscriptions.clear();
    watched.reset();
  }

  const std::shared_ptr<ChangeBroadcaster> broadcaster;  // any thread
  GMainContext* context = nullptr;
  GMainLoop* loop = nullptr;
  std::thread thread;

  WindowProperties x;
  Connection session;
  Connection a11y;
  std::map<std::string, bool> busWarned;
  std::map<std::int32_t, MenuRoute> routes;
  std::optional<MenuRoute> watched;
  std::vector<guint> subscriptions;
};

namespace {

asio::awaitable<void> forwardChanges(ChangeStream changes,
                                     std::shared_ptr<ChangeBroadcaster> broadcaster) {
  for (;;) {
    const std::optional<ChangeSignal> change = co_await changes->next();
    if (!change) co_return;
    const bool cancelled = co_await isCancelled();
    if (cancelled) co_return;
    broadcaster->signal();
  }
}

}  // namespace

DesktopMenuSource::DesktopMenuSource(const Executor& executor, std::shared_ptr<AppProviding> apps,
                                     std::string displayName)
    : apps_(std::move(apps)), core_(std::make_unique<Core>(executor, std::move(displayName))) {
  if (apps_) {
    follow_ =
        Task::spawn(makeStrand(executor), forwardChanges(apps_->changes(), core_->broadcaster));
  }
}

DesktopMenuSource::~DesktopMenuSource() { follow_.cancel(); }

asio::awaitable<std::optional<FrontApp>> DesktopMenuSource::frontmost() {
  if (!apps_) co_return std::nullopt;
  const std::vector<AppInfo> apps = co_await apps_->apps();
  for (const AppInfo& app : apps) {
    if (app.isFrontmost) co_return FrontApp{app.pid, app.bundleID, app.name};
  }
  co_return std::nullopt;
}

ChangeStream DesktopMenuSource::changes() { return core_->broadcaster->subscribe(); }

asio::awaitable<std::optional<std::vector<RawMenuItem>>> DesktopMenuSource::readRaw(
    std::int32_t pid) {
  // The work runs before the thread ends, which the core's end waits for.
  Core* core = core_.get();
  return core->run<std::optional<std::vector<RawMenuItem>>>(
      [core, pid] { return core->read(pid); });
}

asio::awaitable<std::optional<std::vector<MenuNode>>> DesktopMenuSource::readMenus(
    std::int32_t pid) {
  auto reading = readRaw(pid);
  auto raw = co_await std::move(reading);
  if (!raw) co_return std::nullopt;
  MenuConversion conversion = toMenuNodes(*raw);
  co_return std::move(conversion.nodes);
}

asio::awaitable<MenuPressResult> DesktopMenuSource::press(std::int32_t pid,
                                                          std::vector<std::string> path) {
  if (path.size() < 2) co_return MenuPressResult::notFound;
  Core* core = core_.get();
  std::function<MenuPressResult()> work = [core, pid, path = std::move(path)] {
    return core->press(pid, path);
  };
  auto pressing = core->run<MenuPressResult>(std::move(work));
  co_return co_await std::move(pressing);
}

}  // namespace kelvaron::host
