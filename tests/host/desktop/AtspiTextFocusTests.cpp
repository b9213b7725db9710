// The focused text field of a real GTK application, read through a private accessibility bus on
// an Xvfb managed by openbox, and told to a client by a session: keys and a click move the focus
// as a person would (xdotool), an xterm comes to the front, and the program hangs (SIGSTOP).

#include "host/desktop/AtspiTextFocusSource.hpp"

#include <gtest/gtest.h>

#include <asio/co_spawn.hpp>
#include <fstream>
#include <map>
#include <sstream>

#include "host/desktop/X11WindowSystem.hpp"
#include "host/session/HostSession.hpp"
#include "kit/async/Uptime.hpp"
#include "kit/transport/InMemoryConnection.hpp"
#include "tests/support/AccessibilityBus.hpp"
#include "tests/support/AsyncTest.hpp"
#include "tests/support/ChildProcess.hpp"
#include "tests/support/HostFakes.hpp"
#include "tests/support/TempDirectory.hpp"
#include "tests/support/VirtualDisplay.hpp"

namespace kelvaron::host {
namespace {

using namespace test;

// The widgets' boxes as the text-fields program prints them, once it is ready (within ten
// seconds); none if it never is.
std::map<std::string, Rect> waitForWidgets(const std::filesystem::path& log) {
  for (int tries = 0; tries < 500; ++tries, std::this_thread::sleep_for(20ms)) {
    std::ifstream in(log);
    std::map<std::string, Rect> boxes;
    for (std::string line, name; std::getline(in, line);) {
      if (line == "ready") return boxes;
      std::istringstream fields(line);
      if (Rect box; fields >> name >> box.x >> box.y >> box.width >> box.height) boxes[name] = box;
    }
  }
  return {};
}

asio::awaitable<msg::textFocus> nextTextFocus(Connection& client) {
  for (;;) {
    const auto message = co_await nextWithin(client.messages(), 10s);
    CO_ASSERT_TRUE(message);
    if (const auto* focus = std::get_if<msg::textFocus>(&*message)) co_return *focus;
  }
}

// Runs a command to its end; false (with the output in the test's log) when it failed.
bool run(const AccessibilityBus& bus, const std::vector<std::string>& arguments) {
  const auto result = runCommand(bus.withEnvironment(arguments));
  EXPECT_TRUE(result.succeeded()) << arguments[0] << ": " << result.output;
  return result.succeeded();
}

TEST(AtspiTextFocus, EachKindOfFieldIsToldOnceAndAClickIntoOneSaysSoWhileAccessibilityIsOn) {
  VirtualDisplay display(1280, 720);
  SKIP_WITHOUT_DISPLAY(display);
  if (!runCommand({"sh", "-c", "command -v openbox && command -v xterm"}).succeeded())
    GTEST_SKIP() << "openbox or xterm is missing";
  AccessibilityBus bus(display.name());
  SKIP_WITHOUT_ACCESSIBILITY_BUS(bus);
  bus.exportToProcess();
  // Settings in memory: nobody has turned it on.
  ASSERT_EQ(bus.accessibilityEnabled(), false);

  TempDirectory logs;
  ChildProcess openbox(bus.withEnvironment({"openbox", "--sm-disable"}), logs / "openbox.log");
  ChildProcess fields(bus.withEnvironment({TOVU_TEXT_FIELDS_APP, "Text Fields"}),
                      logs / "fields.log");
  const auto widgets = waitForWidgets(logs / "fields.log");
  ASSERT_EQ(widgets.size(), 4u) << "the text-fields program did not show its window";
  std::unique_ptr<ChildProcess> xterm;  // in front until the end, for the hanging program's turn

  runAsync(
      [&](asio::io_context& io) -> asio::awaitable<void> {
        const auto windows = std::make_shared<X11WindowSystem>(io.get_executor(), display.name());
        const auto source =
            std::make_shared<AtspiTextFocusSource>(io.get_executor(), windows, display.name());
        // The program's bundle ID, once the window manager has put its window in front.
        std::string bundleID;
        for (int i = 0; i < 500 && bundleID.empty(); ++i, co_await sleepFor(20ms)) {
          const std::vector<AppInfo> apps = co_await windows->apps();
          for (const AppInfo& app : apps)
            if (app.pid == fields.pid() && app.isFrontmost) bundleID = app.bundleID;
        }
        CO_ASSERT_TRUE(!bundleID.empty());

        auto [client, host] = InMemoryConnection::makePair();
        const auto captures = std::make_shared<FakeCaptures>();
        HostEnvironment env{.hostName = "studio",
                            .displays = std::make_shared<FakeDisplays>(),
                            .encoders = std::make_shared<FakeEncoders>(),
                            .injector = std::make_shared<FakeInjector>(),
                            .power = std::make_shared<FakePower>(),
                            .textFocus = source};
        env.makeCapture = [captures] { return std::make_shared<FakeCapture>(captures); };
        const auto session = HostSession::make(io.get_executor(), host, env, nullptr, std::nullopt,
                                               [](const SessionStatus&) {});
        auto ended = std::make_shared<bool>(false);
        asio::co_spawn(io, session->run(), [ended](std::exception_ptr) { *ended = true; });
        const ClientCapabilities iPad{{CodecProfile::hevcMain}, 2048, 1536, 2, "iPad8,1", false};
        client->send(msg::hello{kProtocolVersion, UUID{{1}}, "Ann's iPad", iPad});

        // GTK gives the first entry the focus of a new window.
        CO_EXPECT_EQ(nextTextFocus(*client),
                     msg::textFocus{true, bundleID, TextFocusKind::field, false});
        EXPECT_EQ(bus.accessibilityEnabled(), true);
        for (const auto kind :
             {TextFocusKind::secure, TextFocusKind::search, TextFocusKind::area}) {
          CO_ASSERT_TRUE(run(bus, {"xdotool", "key", "Tab"}));
          CO_EXPECT_EQ(nextTextFocus(*client), msg::textFocus{true, bundleID, kind, false});
        }

        // The client clicks into the entry, as the injector records it.
        const Rect entry = widgets.at("entry");
        const Point middle{entry.x + entry.width / 2, entry.y + entry.height / 2};
        env.clicks->record({middle, uptimeSeconds()});
        CO_ASSERT_TRUE(run(bus, {"xdotool", "mousemove", std::to_string(int(middle.x)),
                                 std::to_string(int(middle.y)), "click", "1"}));
        CO_EXPECT_EQ(nextTextFocus(*client),
                     msg::textFocus{true, bundleID, TextFocusKind::field, true});
        EXPECT_EQ(env.clicks->last(), std::nullopt);

        // xterm is on no accessibility bus: its bundle ID alone says it is a terminal.
        xterm = std::make_unique<ChildProcess>(
            bus.withEnvironment({"xterm", "-geometry", "60x20+300+200"}), logs / "xterm.log");
        CO_EXPECT_EQ(nextTextFocus(*client),
                     msg::textFocus{true, "debian-xterm", TextFocusKind::terminal, false});

        client->close();
        CO_ASSERT_TRUE(co_await pollUntil([&] { return *ended; }));
      },
      60s);

  // Stopped, the source turns accessibility off again: it was off before.
  std::optional<bool> enabled;
  for (int i = 0; i < 250 && (enabled = bus.accessibilityEnabled()) != false; ++i)
    std::this_thread::sleep_for(20ms);
  EXPECT_EQ(enabled, false);

  // An application that hangs answers no call: the read ends at the first, bounded in time, and
  // finds no element. Going on, it is read as before.
  ::kill(fields.pid(), SIGSTOP);
  runAsync([&](asio::io_context& io) -> asio::awaitable<void> {
    const auto windows = std::make_shared<FakeWindows>();
    windows->appList = {
        {.pid = fields.pid(), .bundleID = "org.example.Fields", .isFrontmost = true}};
    const auto source =
        std::make_shared<AtspiTextFocusSource>(io.get_executor(), windows, display.name());
    AsyncQueue<TextFocus> told;
    const double began = uptimeSeconds();
    const auto stop = source->start([&told](TextFocus focus) { told.push(std::move(focus)); });
    CO_EXPECT_EQ(nextWithin(told, 10s),
                 TextFocus{false, "org.example.Fields", TextFocusKind::none, std::nullopt});
    EXPECT_LT(uptimeSeconds() - began, 3.0);

    ::kill(fields.pid(), SIGCONT);
    CO_ASSERT_TRUE(
        run(bus, {"xdotool", "search", "--name", "^Text Fields$", "windowactivate", "--sync"}));
    const auto focus = co_await nextWithin(told, 10s);
    CO_ASSERT_TRUE(focus);
    EXPECT_EQ(std::tuple(focus->isText, focus->kind), std::tuple(true, TextFocusKind::field));
    stop();
  });
  ::kill(fields.pid(), SIGCONT);
}

TEST(AtspiTextFocus, WithoutAnAccessibilityBusOnlyATerminalInFrontIsText) {
  TempDirectory folder;
  const ScopedEnvironment nowhere{
      {{"DISPLAY", std::nullopt},
       {"AT_SPI_BUS_ADDRESS", std::nullopt},
       {"XDG_RUNTIME_DIR", folder.path().string()},
       {"DBUS_SESSION_BUS_ADDRESS", "unix:path=" + (folder / "none").string()}}};
  runAsync([](asio::io_context& io) -> asio::awaitable<void> {
    const auto windows = std::make_shared<FakeWindows>();
    windows->appList = {{.pid = 10, .bundleID = "org.gnome.TextEditor", .isFrontmost = true}};
    const auto source = std::make_shared<AtspiTextFocusSource>(io.get_executor(), windows, "");
    AsyncQueue<TextFocus> told;
    const auto stop = source->start([&told](TextFocus focus) { told.push(std::move(focus)); });
    CO_EXPECT_EQ(nextWithin(told, 5s),
                 TextFocus{false, "org.gnome.TextEditor", TextFocusKind::none, std::nullopt});

    // A terminal's text is its front window.
    const WindowInfo window{1, "~", {40, 40, 600, 400}, 1, true, false};
    windows->appList = {
        {.pid = 11, .bundleID = "debian-xterm", .isFrontmost = true, .windows = {window}}};
    windows->appChanges->push({});
    CO_EXPECT_EQ(nextWithin(told, 5s),
                 TextFocus{true, "debian-xterm", TextFocusKind::terminal, Rect{40, 40, 600, 400}});
    stop();
  });
}

}  // namespace
}  // namespace kelvaron::host
