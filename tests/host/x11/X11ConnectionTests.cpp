// X11Connection against a real X server, and the display list made of RANDR's monitors.

#include <gtest/gtest.h>

#include <cstring>

#include "host/x11/RandrMonitors.hpp"
#include "host/x11/X11Connection.hpp"
#include "tests/support/AsyncTest.hpp"
#include "tests/support/VirtualDisplay.hpp"

namespace kelvaron::host {
namespace {

using namespace test;

TEST(X11Connection, NamesTheDisplayItCannotReach) {
  asio::io_context io;
  try {
    X11Connection::open(io.get_executor(), ":987");
    FAIL() << "connected to a display that has no server";
  } catch (const std::runtime_error& error) {
    EXPECT_NE(std::strstr(error.what(), ":987"), nullptr) << error.what();
  }
}

// Root window property changes of its own, with what xcb queued during a reply delivered too; the
// server going away is reported once; a running read loop does not keep the connection alive.
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

    // Read from the descriptor this time.
    co_await runOn(connection->executor(), [&] {
      xcb_delete_property(connection->get(), connection->root(), XCB_ATOM_WM_NAME);
      xcb_flush(connection->get());
      return 0;
    });
    const auto read = co_await nextWithin(events, 5s);
    CO_ASSERT_TRUE(read == XCB_PROPERTY_NOTIFY);

    auto other = X11Connection::open(io.get_executor(), display.name());
    other->startEvents([](const xcb_generic_event_t&) {}, [](std::string) {});
    co_await runOn(other->executor(), [] { return 0; });  // reading has started
    const std::weak_ptr<X11Connection> weak = other;
    other.reset();
    CO_ASSERT_TRUE(weak.expired());

    display.stopServer();
    const auto reason = co_await nextWithin(closings, 5s);
    CO_ASSERT_TRUE(reason && !reason->empty());
    CO_ASSERT_TRUE(connection->broken());
    const auto again = co_await nextWithin(closings, 200ms);
    CO_ASSERT_TRUE(!again);
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

}  // namespace
}  // namespace kelvaron::host
