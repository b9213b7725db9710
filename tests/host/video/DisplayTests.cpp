// The X connection against a real Xvfb; the display list made of RANDR's monitors, and its change
// signals: ChangeBroadcaster with a short debounce, and RandrDisplayManager against a real Xvfb
// whose monitors the test changes through RANDR itself.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "host/video/ChangeBroadcaster.hpp"
#include "host/video/RandrDisplayManager.hpp"
#include "host/x11/RandrMonitors.hpp"
#include "host/x11/X11Connection.hpp"
#include "tests/support/AsyncTest.hpp"
#include "tests/support/ScreenPainter.hpp"
#include "tests/support/VirtualDisplay.hpp"

namespace kelvaron::host {
namespace {

using namespace test;

constexpr auto kDebounce = 100ms;

TEST(X11Connection, NamesTheDisplayItCannotReach) {
  asio::io_context io;
  EXPECT_THAT([&] { X11Connection::open(io.get_executor(), ":987"); },
              testing::ThrowsMessage<std::runtime_error>(testing::HasSubstr(":987")));
}

// Events that xcb queued while it read a reply are delivered too (those read from the descriptor
// carry the display manager's change signals); the server going away is reported once; a running
// read loop does not keep the connection alive.
TEST(X11Connection, DeliversEventsAndReportsTheServerGoing) {
  VirtualDisplay display;
  SKIP_WITHOUT_DISPLAY(display);
  runAsync([&](asio::io_context& io) -> asio::awaitable<void> {
    auto connection = X11Connection::open(io.get_executor(), display.name());
    CO_ASSERT_TRUE(connection->root() != XCB_WINDOW_NONE &&
                   connection->screen().width_in_pixels > 0);
    AsyncQueue<std::uint8_t> events;
    AsyncQueue<std::string> closings;
    connection->startEvents(
        [&events](const xcb_generic_event_t& event) { events.push(event.response_type & 0x7f); },
        [&closings](std::string reason) { closings.push(std::move(reason)); });

    // On the strand: the event arrives while xcb reads the reply, so only the queue holds it.
    co_await runOn(connection->executor(), [&] {
      auto* c = connection->get();
      const std::uint32_t mask = XCB_EVENT_MASK_PROPERTY_CHANGE;
      xcb_change_window_attributes(c, connection->root(), XCB_CW_EVENT_MASK, &mask);
      xcb_change_property(c, XCB_PROP_MODE_REPLACE, connection->root(), XCB_ATOM_WM_NAME,
                          XCB_ATOM_STRING, 8, 4, "test");
      std::free(xcb_get_input_focus_reply(c, xcb_get_input_focus(c), nullptr));
      connection->dispatchQueuedEvents();
      return 0;
    });
    const auto queued = co_await nextWithin(events, 5s);
    CO_ASSERT_TRUE(queued == XCB_PROPERTY_NOTIFY);

    auto other = X11Connection::open(io.get_executor(), display.name());
    other->startEvents([](const xcb_generic_event_t&) {}, [](std::string) {});
    co_await runOn(other->executor(), [] { return 0; });  // reading has started
    const std::weak_ptr<X11Connection> weak = other;
    other.reset();
    CO_ASSERT_TRUE(weak.expired());

    display.stopServer();
    const auto reason = co_await nextWithin(closings, 5s);
    const auto again = co_await nextWithin(closings, 200ms);
    CO_ASSERT_TRUE(reason && !reason->empty() && !again && connection->broken());
  });
}

// Without a primary monitor, main is the first at the root's origin, else the first; a primary
// one is main and first even when its ID is the higher.
TEST(RandrMonitors, ChoosesTheMainDisplayAndMeasuresFromIt) {
  const auto noOrigin =
      displayListFromMonitors({{"B", false, 100, 50, 800, 600}, {"C", false, 900, 0, 400, 300}});
  ASSERT_EQ(noOrigin.size(), 2u);
  EXPECT_TRUE(noOrigin[0].isMain && noOrigin[0].name == "B" && !noOrigin[1].isMain);
  EXPECT_EQ(noOrigin[1].frame, (DisplayFrame{800, -50, 400, 300}));

  const bool leftIsHigher = displayIDForMonitorName("L") > displayIDForMonitorName("R");
  const auto withPrimary = displayListFromMonitors({{"X", false, 0, 0, 10, 10},
                                                    {"L", leftIsHigher, 10, 0, 10, 10},
                                                    {"R", !leftIsHigher, 20, 0, 10, 10}});
  ASSERT_EQ(withPrimary.size(), 3u);
  EXPECT_EQ(withPrimary[0].name, leftIsHigher ? "L" : "R");
  EXPECT_TRUE(withPrimary[0].isMain && !withPrimary[1].isMain && !withPrimary[2].isMain);
  EXPECT_LT(withPrimary[1].id, withPrimary[2].id);
  EXPECT_EQ(withPrimary[0].frame.x, 0);
}

// A burst is one signal for each subscriber, and one is kept for a reader that comes late; a
// dropped stream is forgotten, and the rest end when the broadcaster goes.
TEST(ChangeBroadcaster, FoldsBurstsKeepsOneForALateReaderAndForgetsDroppedStreams) {
  runAsync([](asio::io_context& io) -> asio::awaitable<void> {
    auto broadcaster = std::make_unique<ChangeBroadcaster>(io.get_executor(), kDebounce);
    const auto prompt = broadcaster->subscribe(), late = broadcaster->subscribe();
    auto dropped = broadcaster->subscribe();
    const std::weak_ptr<AsyncQueue<ChangeSignal>> weak = dropped;
    dropped.reset();
    CO_ASSERT_TRUE(weak.expired() && broadcaster->subscriberCount() == 3);
    for (int burst = 0; burst < 3; ++burst) {
      for (int i = 0; i < 5; ++i) broadcaster->signal();
      const auto signal = co_await nextWithin(*prompt, 5s);
      CO_ASSERT_TRUE(signal.has_value());
    }
    const auto more = co_await nextWithin(*prompt, 4 * kDebounce);
    CO_ASSERT_TRUE(!more.has_value());
    CO_ASSERT_TRUE(late->count() == 1 && broadcaster->subscriberCount() == 2);
    broadcaster.reset();
    CO_ASSERT_TRUE(prompt->isFinished());
  });
}

// Monitors set by clients come first in RANDR's list; one whose name reads as nothing (an atom
// with an empty name) is named by its place.
TEST(RandrDisplayManager, ListsTheMonitorsAndSignalsTheirChanges) {
  VirtualDisplay display(1280, 720);
  SKIP_WITHOUT_DISPLAY(display);
  runAsync([&](asio::io_context& io) -> asio::awaitable<void> {
    RandrDisplayManager manager(io.get_executor(), display.name());
    const auto changes = manager.changes();
    const auto initial = co_await manager.displays();
    CO_ASSERT_TRUE(initial.size() == 1);
    const DisplayInfo& screen = initial[0];
    CO_ASSERT_TRUE(screen.isMain && screen.id != 0 && !screen.name.empty());
    CO_ASSERT_TRUE(screen.pixelWidth == 1280 && screen.pixelHeight == 720);
    CO_ASSERT_TRUE((screen.frame == DisplayFrame{0, 0, 1280, 720}));

    // A second monitor on the right half: the first stays main, being at the origin.
    ScreenPainter tool(display.name());
    CO_ASSERT_TRUE(tool.setMonitor("TOVU-RIGHT", 640, 0, 640, 720, false));
    const auto added = co_await nextWithin(*changes, 5s);
    const auto two = co_await manager.displays();
    CO_ASSERT_TRUE(added && two.size() == 2 && two[0] == screen);
    CO_ASSERT_TRUE(two[1].name == "TOVU-RIGHT" && !two[1].isMain && two[1].id != screen.id);
    CO_ASSERT_TRUE((two[1].frame == DisplayFrame{640, 0, 640, 720}));

    CO_ASSERT_TRUE(tool.setMonitor("", 0, 0, 640, 720, false));
    const auto unnamedAdded = co_await nextWithin(*changes, 5s);
    const auto three = co_await manager.displays();
    CO_ASSERT_TRUE(unnamedAdded && three.size() == 3);
    const auto unnamed =
        std::ranges::find(three, DisplayFrame{0, 0, 640, 720}, &DisplayInfo::frame);
    CO_ASSERT_TRUE(unnamed != three.end() && unnamed->name == "Display 2");

    CO_ASSERT_TRUE(tool.deleteMonitor("") && tool.deleteMonitor("TOVU-RIGHT"));
    const auto removed = co_await nextWithin(*changes, 5s);
    const auto back = co_await manager.displays();
    CO_ASSERT_TRUE(removed && back == initial);
  });
}

// The same monitor of another server (as after a restart) keeps its ID; a server that goes away is
// a change, after which the list is empty; with no server at all it is empty from the start.
TEST(RandrDisplayManager, KeepsIDsAcrossServersAndSurvivesTheServerGoing) {
  VirtualDisplay first, second;
  SKIP_WITHOUT_DISPLAY(first);
  SKIP_WITHOUT_DISPLAY(second);
  runAsync([&](asio::io_context& io) -> asio::awaitable<void> {
    RandrDisplayManager one(io.get_executor(), first.name());
    RandrDisplayManager other(io.get_executor(), second.name());
    const auto listed = co_await one.displays();
    const auto listedElsewhere = co_await other.displays();
    CO_ASSERT_TRUE(listed.size() == 1 && listedElsewhere.size() == 1);
    CO_ASSERT_TRUE(listed[0].id == listedElsewhere[0].id);

    const auto changes = one.changes();
    first.stopServer();
    const auto gone = co_await nextWithin(*changes, 5s);
    const auto empty = co_await one.displays();
    const auto stillEmpty = co_await one.displays();
    CO_ASSERT_TRUE(gone && empty.empty() && stillEmpty.empty());
    RandrDisplayManager nowhere(io.get_executor(), ":987");
    const auto none = co_await nowhere.displays();
    CO_ASSERT_TRUE(none.empty());
  });
}

}  // namespace
}  // namespace kelvaron::host
