// The menu bar of a real GTK program read and pressed by each route it can take: its exported
// menu model (with its accessibility bridge off, so that no other route could answer), and a
// plain GtkMenuBar that only the accessibility tree shows. A private session bus and
// accessibility bus, on an Xvfb managed by openbox.

#include "host/desktop/DesktopMenuSource.hpp"

#include <gio/gio.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <fstream>
#include <map>
#include <sstream>
#include <thread>

#include "host/desktop/MenuReaders.hpp"
#include "host/desktop/MenuTree.hpp"
#include "host/desktop/X11WindowSystem.hpp"
#include "tests/support/AccessibilityBus.hpp"
#include "tests/support/AsyncTest.hpp"
#include "tests/support/ChildProcess.hpp"
#include "tests/support/TempDirectory.hpp"
#include "tests/support/VirtualDisplay.hpp"

namespace kelvaron::host {

namespace {

using namespace test;

// One line per item, indented by depth: "-" for a separator, else the title, the shortcut as
// ctrl/alt/shift/cmd+key (a key without a character of its own in hex), the mark, and
// "disabled".
void describe(const std::vector<RawMenuItem>& items, int depth, std::ostringstream& out) {
  for (const RawMenuItem& item : items) {
    out << std::string(std::size_t(depth) * 2, ' ') << (item.title.empty() ? "-" : item.title);
    if (!item.key.empty()) {
      out << ' ';
      if (item.modifiers & kMenuControl) out << "ctrl+";
      if (item.modifiers & kMenuOption) out << "alt+";
      if (item.modifiers & kMenuShift) out << "shift+";
      if (item.modifiers & kMenuCommand) out << "cmd+";
      const unsigned char first = item.key.front();
      if (item.key.size() == 1 && first > 0x20 && first < 0x7F) {
        out << item.key;
      } else {
        out << "<";
        for (const unsigned char c : item.key) out << std::hex << int(c) << std::dec;
        out << ">";
      }
    }
    if (item.mark == MenuMark::check) out << " [check]";
    if (item.mark == MenuMark::bullet) out << " [bullet]";
    if (item.mark == MenuMark::mixed) out << " [mixed]";
    if (!item.title.empty() && !item.enabled) out << " disabled";
    out << '\n';
    describe(item.children, depth + 1, out);
  }
}

std::string describe(const std::vector<RawMenuItem>& items) {
  std::ostringstream out;
  describe(items, 0, out);
  return out.str();
}

// Both ways of publishing give this, before and after Light is pressed.
constexpr const char* kMenus =
    "File\n"
    "  New Window ctrl+n\n"
    "  -\n"
    "  Show Toolbar [check]\n"
    "  -\n"
    "  Light\n"
    "  Dark [bullet]\n"
    "  -\n"
    "  Print disabled\n"
    "  Quit ctrl+q\n"
    "Edit\n"
    "  Copy ctrl+c\n"
    "  Find Next <ef9c86>\n"  // F3, U+F706
    "  Zoom\n"
    "    Zoom In ctrl++\n"
    "    Reset _Zoom ctrl+shift+<8>\n";

std::string afterLight() {
  std::string menus = kMenus;
  menus.replace(menus.find("  Light\n"), 8, "  Light [bullet]\n");
  menus.replace(menus.find("  Dark [bullet]\n"), 16, "  Dark\n");
  return menus;
}

std::string readFile(const std::filesystem::path& file) {
  std::ifstream in(file);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

bool waitForLine(const std::filesystem::path& file, const std::string& line) {
  const auto deadline = std::chrono::steady_clock::now() + 10s;
  while (std::chrono::steady_clock::now() < deadline) {
    if (readFile(file).find(line + "\n") != std::string::npos) return true;
    std::this_thread::sleep_for(20ms);
  }
  return false;
}

// A com.canonical.AppMenu.Registrar on the session bus, as a KDE desktop runs one: Qt exports its
// menu bars as dbusmenus only while there is one, and tells it which window each belongs to.
class MenuRegistrar {
 public:
  explicit MenuRegistrar(const std::string& address) {
    context_ = g_main_context_new();
    loop_ = g_main_loop_new(context_, FALSE);
    GError* error = nullptr;
    bus_ = g_dbus_connection_new_for_address_sync(
        address.c_str(),
        GDBusConnectionFlags(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                             G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, &error);
    if (error) {
      reason_ = error->message;
      g_error_free(error);
      return;
    }
    static constexpr const char* kInterface =
        "<node><interface name='com.canonical.AppMenu.Registrar'>"
        "<method name='RegisterWindow'><arg type='u' direction='in'/>"
        "<arg type='o' direction='in'/></method>"
        "<method name='UnregisterWindow'><arg type='u' direction='in'/></method>"
        "<method name='GetMenuForWindow'><arg type='u' direction='in'/>"
        "<arg type='s' direction='out'/><arg type='o' direction='out'/></method>"
        "</interface></node>";
    GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(kInterface, nullptr);
    static const GDBusInterfaceVTable vtable = {&MenuRegistrar::call, nullptr, nullptr, {}};
    // Calls are answered on the thread below, whose context is current while registering.
    g_main_context_push_thread_default(context_);
    g_dbus_connection_register_object(bus_, "/com/canonical/AppMenu/Registrar", node->interfaces[0],
                                      &vtable, this, nullptr, nullptr);
    g_main_context_pop_thread_default(context_);
    g_dbus_node_info_unref(node);
    const Variant owned(g_dbus_connection_call_sync(
        bus_, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        "RequestName", g_variant_new("(su)", "com.canonical.AppMenu.Registrar", 4u), nullptr,
        G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, &error));
    if (error) {
      reason_ = error->message;
      g_error_free(error);
    }
    thread_ = std::thread([this] {
      g_main_context_push_thread_default(context_);
      g_main_loop_run(loop_);
      g_main_context_pop_thread_default(context_);
    });
  }
  ~MenuRegistrar() {
    if (thread_.joinable()) {
      g_main_context_invoke(
          context_,
          [](gpointer loop) {
            g_main_loop_quit(static_cast<GMainLoop*>(loop));
            return gboolean(G_SOURCE_REMOVE);
          },
          loop_);
      thread_.join();
    }
    if (bus_) g_object_unref(bus_);
    g_main_loop_unref(loop_);
    g_main_context_unref(context_);
  }
  MenuRegistrar(const MenuRegistrar&) = delete;
  MenuRegistrar& operator=(const MenuRegistrar&) = delete;

  bool available() const { return reason_.empty(); }
  const std::string& skipReason() const { return reason_; }

 private:
  static void call(GDBusConnection*, const gchar* sender, const gchar*, const gchar*,
                   const gchar* method, GVariant* parameters, GDBusMethodInvocation* invocation,
                   gpointer data) {
    auto* self = static_cast<MenuRegistrar*>(data);
    guint32 window = 0;
    g_variant_get_child(parameters, 0, "u", &window);
    const std::string name = method;
    if (name == "RegisterWindow") {
      const gchar* path = nullptr;
      g_variant_get_child(parameters, 1, "&o", &path);
      self->menus_[window] = {sender, path};
      g_dbus_method_invocation_return_value(invocation, nullptr);
    } else if (name == "UnregisterWindow") {
      self->menus_.erase(window);
      g_dbus_method_invocation_return_value(invocation, nullptr);
    } else if (const auto found = self->menus_.find(window); found != self->menus_.end()) {
      g_dbus_method_invocation_return_value(
          invocation,
          g_variant_new("(so)", found->second.first.c_str(), found->second.second.c_str()));
    } else {
      g_dbus_method_invocation_return_dbus_error(
          invocation, "com.canonical.AppMenu.Registrar.Error", "no menu for that window");
    }
  }

  GMainContext* context_ = nullptr;
  GMainLoop* loop_ = nullptr;
  GDBusConnection* bus_ = nullptr;
  std::thread thread_;
  std::string reason_;
  std::map<guint32, std::pair<std::string, std::string>> menus_;  // on the thread
};

struct Route {
  const char* name;
  std::vector<std::string> arguments;  // the program's, and what keeps it off other routes
  bool signalsChanges;                 // its state changes come as D-Bus signals
  bool needsRegistrar = false;
};

class MenuRoutes : public testing::TestWithParam<Route> {};

TEST_P(MenuRoutes, GiveTheTreeAndPressItsItemsAndAHungProgramGivesNothingInTime) {
  const Route& route = GetParam();
  VirtualDisplay display(1024, 768);
  SKIP_WITHOUT_DISPLAY(display);
  if (!runCommand({"sh", "-c", "command -v openbox"}).succeeded()) {
    GTEST_SKIP() << "openbox is missing";
  }
  AccessibilityBus bus(display.name());
  SKIP_WITHOUT_ACCESSIBILITY_BUS(bus);
  bus.exportToProcess();

  if (route.arguments.empty()) GTEST_SKIP() << "the program of this route was not built";
  std::unique_ptr<MenuRegistrar> registrar;
  if (route.needsRegistrar) {
    registrar = std::make_unique<MenuRegistrar>(bus.sessionAddress());
    if (!registrar->available()) GTEST_SKIP() << "no menu registrar: " << registrar->skipReason();
  }

  TempDirectory logs;
  const auto activations = logs / "activations";
  ChildProcess openbox(bus.withEnvironment({"openbox", "--sm-disable"}), logs / "openbox.log");
  if (!windowManagerRuns(display.name())) GTEST_SKIP() << "openbox did not start";
  std::vector<std::string> command = {"TOVU_MENU_LOG=" + activations.string()};
  command.insert(command.end(), route.arguments.begin(), route.arguments.end());
  ChildProcess app(bus.withEnvironment(command), logs / "app.log");
  ASSERT_TRUE(waitForLine(logs / "app.log", "ready")) << readFile(logs / "app.log");

  runAsync(
      [&](asio::io_context& io) -> asio::awaitable<void> {
        const auto windows = std::make_shared<X11WindowSystem>(io.get_executor(), display.name());
        DesktopMenuSource menus(io.get_executor(), windows, display.name());
        const auto changes = menus.changes();
        std::optional<FrontApp> front;
        for (int i = 0; i < 250 && (!front || front->pid != app.pid()); ++i) {
          front = co_await menus.frontmost();
          if (!front || front->pid != app.pid()) co_await sleepFor(20ms);
        }
        CO_ASSERT_TRUE(front && front->pid == app.pid());

        const auto raw = co_await menus.readRaw(app.pid());
        CO_ASSERT_TRUE(raw);
        EXPECT_EQ(describe(*raw), kMenus);
        const auto nodes = co_await menus.readMenus(app.pid());
        CO_ASSERT_TRUE(nodes && nodes->size() == 2);
        EXPECT_EQ(nodes->back().title, "Edit");

        using enum MenuPressResult;
        const std::vector<std::pair<std::vector<std::string>, MenuPressResult>> presses = {
            {{"File", "New Window"}, pressed},
            {{"Edit", "Zoom", "Zoom In"}, pressed},
            {{"File"}, notFound},
            {{"File", "Open"}, notFound},
            {{"Edit", "Zoom", "Zoom Out"}, notFound},
            {{"File", "Print"}, failed},
            {{"File", "Light"}, pressed},
        };
        for (const auto& [path, expected] : presses) {
          if (path.back() == "Light") {
            // Quiet first, so that a signal afterwards is the radio's.
            while (co_await nextWithin(*changes, 700ms)) {
            }
          }
          auto pressing = menus.press(app.pid(), path);
          const MenuPressResult result = co_await std::move(pressing);
          EXPECT_EQ(result, expected) << path.back();
        }
        EXPECT_TRUE(waitForLine(activations, "activated theme light"));
        EXPECT_EQ(readFile(activations),
                  "activated new-window\nactivated zoom-in\nactivated theme light\n");
        if (route.signalsChanges) {
          const auto signal = co_await nextWithin(*changes, 3s);
          EXPECT_TRUE(signal) << "no change signal after the radio's state changed";
        }
        const auto again = co_await menus.readRaw(app.pid());
        CO_ASSERT_TRUE(again);
        EXPECT_EQ(describe(*again), afterLight());

        ::kill(app.pid(), SIGSTOP);
        const auto started = std::chrono::steady_clock::now();
        const auto hung = co_await menus.readRaw(app.pid());
        const auto took = std::chrono::steady_clock::now() - started;
        ::kill(app.pid(), SIGCONT);
        EXPECT_FALSE(hung);
        EXPECT_LT(took, 2500ms);
      },
      40s);
}

// The Qt program's arguments; none when it was not built.
#ifdef TOVU_QT_MENU_APP
const std::vector<std::string> kQtProgram = {"QT_ACCESSIBILITY=0", TOVU_QT_MENU_APP};
#else
const std::vector<std::string> kQtProgram;
#endif

INSTANTIATE_TEST_SUITE_P(
    DesktopMenuSource, MenuRoutes,
    testing::Values(Route{"GtkMenuModel", {"NO_AT_BRIDGE=1", TOVU_MENU_APP}, true},
                    Route{"AccessibilityTree", {TOVU_MENU_APP, "--widgets"}, false},
                    Route{"Dbusmenu", kQtProgram, true, true}),
    [](const testing::TestParamInfo<Route>& each) { return std::string(each.param.name); });

}  // namespace
}  // namespace kelvaron::host
