// The menu bar of a real GTK program read and pressed by each route it can take: its exported
// menu model (with its accessibility bridge off, so that no other route could answer), and a
// plain GtkMenuBar that only the accessibility tree shows. A private session bus and
// accessibility bus, on an Xvfb managed by openbox.

#include "host/desktop/DesktopMenuSource.hpp"

#include <gio/gio.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <fstream>
#include <sstream>
#include <thread>

#include "host/desktop/MenuReaders.hpp"
#include "host/desktop/MenuTree.hpp"
#include "host/desktop/X11WindowSystem.hpp"
#include "tests/support/AccessibilityBus.hpp"
#include "tests/support/AsyncTest.hpp"
#include "tests/support/BusObject.hpp"
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
  std::unique_ptr<BusObject> registrar;
  if (route.needsRegistrar) {
    registrar = menuRegistrar(bus.sessionAddress());
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
  // Qt 6's first window sometimes stays unmapped under a window manager that has just started:
  // mapped again and activated, as a person would bring it up.
  runCommand({"env", "DISPLAY=" + display.name(), "timeout", "10", "xdotool", "search", "--sync",
              "--pid", std::to_string(app.pid()), "windowmap", "windowactivate"});

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

// A menu model as no GTK program would export it, served by the test: every read ends in time,
// with a finite tree or nothing.
TEST(GtkMenuModel, AHostileModelIsReadInBoundsOrNotAtAll) {
  AccessibilityBus bus;
  SKIP_WITHOUT_ACCESSIBILITY_BUS(bus);
  std::string many = "@a(uuaa{sv}) [(0, 0, [";
  for (int i = 0; i < 10'000; ++i) many += i ? ", {'label': <'x'>}" : "{'label': <'x'>}";
  many += "])]";
  enum Serving { answer, never, quit };
  struct Case {
    const char* what;
    std::string model;  // what Start answers, whatever the groups asked for
    Serving serving;
    MenuReadStatus status;
    std::string tree;
  };
  const Case cases[] = {
      {"cycles through submenus and sections, and control characters",
       "@a(uuaa{sv}) [(0, 0, [{'label': <'_Loop'>, ':submenu': <(uint32 1, uint32 0)>},"
       " {'label': <'Tab\\tbell\\u0007 \\u001b[31mred'>, 'action': <'app.gone'>},"
       " {':section': <(uint32 0, uint32 0)>}]),"
       " (1, 0, [{'label': <'Again'>, ':submenu': <(uint32 0, uint32 0)>}])]",
       answer, MenuReadStatus::read, "Loop\n  Again\nTab\tbell\a \x1b[31mred disabled\n"},
      {"10,000 items", many, answer, MenuReadStatus::exhausted, ""},
      {"never answers", "", never, MenuReadStatus::exhausted, ""},
      {"quits while being read", "", quit, MenuReadStatus::absent, ""},
  };
  for (const Case& c : cases) {
    std::vector<GDBusMethodInvocation*> unanswered;
    BusObject model(
        bus.sessionAddress(),
        "<interface name='org.gtk.Menus'><method name='Start'><arg type='au' direction='in'/>"
        "<arg type='a(uuaa{sv})' direction='out'/></method>"
        "<method name='End'><arg type='au' direction='in'/></method></interface>",
        "/menus",
        [&](const std::string&, const std::string& method, GVariant*,
            GDBusMethodInvocation* invocation) {
          if (method == "End") return g_dbus_method_invocation_return_value(invocation, nullptr);
          if (c.serving == never) return unanswered.push_back(invocation);
          if (c.serving == quit) {
            g_dbus_connection_close_sync(g_dbus_method_invocation_get_connection(invocation),
                                         nullptr, nullptr);
            return g_object_unref(invocation);
          }
          GVariant* menus = g_variant_new_parsed(c.model.c_str());
          g_dbus_method_invocation_return_value(invocation, g_variant_new_tuple(&menus, 1));
        });
    BusObject reader(bus.sessionAddress(), nullptr, nullptr, nullptr);
    ASSERT_TRUE(model.available() && reader.available()) << model.skipReason();

    MenuBudget budget(1500ms, 3200);
    const auto started = std::chrono::steady_clock::now();
    const MenuRead read =
        readGtkMenus(reader.connection(), {model.uniqueName(), "/menus", "", ""}, budget);
    EXPECT_LT(std::chrono::steady_clock::now() - started, 2s) << c.what;
    EXPECT_EQ(read.status, c.status) << c.what;
    EXPECT_EQ(describe(read.items), c.tree) << c.what;
    for (GDBusMethodInvocation* invocation : unanswered) g_object_unref(invocation);
  }
}

}  // namespace
}  // namespace kelvaron::host
