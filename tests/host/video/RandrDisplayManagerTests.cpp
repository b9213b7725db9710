// RandrDisplayManager against a real Xvfb, whose monitors the test changes through RANDR itself.

#include "host/video/RandrDisplayManager.hpp"

#include <gtest/gtest.h>
#include <sys/uio.h>
#include <xcb/randr.h>
#include <xcb/xcbext.h>

#include <cstdlib>
#include <cstring>

#include "tests/support/AsyncTest.hpp"
#include "tests/support/VirtualDisplay.hpp"

namespace kelvaron::host {
namespace {

using namespace test;

// Another client of the server, setting and deleting monitors as a user's tool would.
class MonitorTool {
 public:
  explicit MonitorTool(const std::string& display) : c_(xcb_connect(display.c_str(), nullptr)) {
    root_ = xcb_setup_roots_iterator(xcb_get_setup(c_)).data->root;
  }
  ~MonitorTool() { xcb_disconnect(c_); }

  bool set(const char* name, bool primary, std::int16_t x, std::uint16_t width,
           std::uint16_t height) {
    xcb_randr_monitor_info_t monitor{};
    monitor.name = atom(name);
    monitor.primary = primary;
    monitor.x = x;
    monitor.width = width;
    monitor.height = height;
    monitor.width_in_millimeters = width / 4;
    monitor.height_in_millimeters = height / 4;
    // Sent by hand: Debian's libxcb-randr 1.15 adds a trailing pad of uninitialized length to its
    // SetMonitor request, which fails xcb's own assertion on some calls.
    xcb_randr_set_monitor_request_t request{};
    request.window = root_;
    iovec parts[4] = {{}, {}, {&request, sizeof request}, {&monitor, sizeof monitor}};
    xcb_protocol_request_t shape{2, &xcb_randr_id, XCB_RANDR_SET_MONITOR, 1};
    return succeeded({xcb_send_request(c_, XCB_REQUEST_CHECKED, &parts[2], &shape)});
  }
  bool remove(const char* name) {
    return succeeded(xcb_randr_delete_monitor_checked(c_, root_, atom(name)));
  }

 private:
  xcb_atom_t atom(const char* name) {
    auto* reply = xcb_intern_atom_reply(
        c_, xcb_intern_atom(c_, 0, static_cast<std::uint16_t>(std::strlen(name)), name), nullptr);
    const xcb_atom_t value = reply ? reply->atom : xcb_atom_t{XCB_ATOM_NONE};
    std::free(reply);
    return value;
  }
  bool succeeded(xcb_void_cookie_t cookie) {
    auto* error = xcb_request_check(c_, cookie);
    std::free(error);
    return error == nullptr;
  }

  xcb_connection_t* c_;
  xcb_window_t root_;
};

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
    MonitorTool tool(display.name());
    CO_ASSERT_TRUE(tool.set("TOVU-RIGHT", false, 640, 640, 720));
    const auto added = co_await nextWithin(*changes, 5s);
    CO_ASSERT_TRUE(added.has_value());
    const auto two = co_await manager.displays();
    CO_ASSERT_TRUE(two.size() == 2);
    CO_ASSERT_TRUE(two[0] == screen);
    CO_ASSERT_TRUE(two[1].name == "TOVU-RIGHT" && !two[1].isMain && two[1].id != screen.id);
    CO_ASSERT_TRUE((two[1].frame == DisplayFrame{640, 0, 640, 720}));
    const auto again = co_await manager.displays();
    CO_ASSERT_TRUE(again == two);

    // Made primary, it is main, and the origin moves to its top left corner. (Xvfb refuses to
    // replace a monitor under the same name, so it is deleted and set again.)
    CO_ASSERT_TRUE(tool.remove("TOVU-RIGHT") && tool.set("TOVU-RIGHT", true, 640, 640, 720));
    const auto madePrimary = co_await nextWithin(*changes, 5s);
    CO_ASSERT_TRUE(madePrimary.has_value());
    const auto swapped = co_await manager.displays();
    CO_ASSERT_TRUE(swapped.size() == 2);
    CO_ASSERT_TRUE(swapped[0].id == two[1].id && swapped[0].isMain);
    CO_ASSERT_TRUE((swapped[0].frame == DisplayFrame{0, 0, 640, 720}));
    CO_ASSERT_TRUE(swapped[1].id == screen.id && !swapped[1].isMain);
    CO_ASSERT_TRUE((swapped[1].frame == DisplayFrame{-640, 0, 1280, 720}));

    CO_ASSERT_TRUE(tool.remove("TOVU-RIGHT"));
    const auto removed = co_await nextWithin(*changes, 5s);
    CO_ASSERT_TRUE(removed.has_value());
    const auto back = co_await manager.displays();
    CO_ASSERT_TRUE(back == initial);
  });
}

// Without a primary monitor, main is the first at the root's origin, else the first; a primary
// one is main and first even when its ID is the higher.
TEST(RandrDisplayManager, ChoosesTheMainDisplayAndMeasuresFromIt) {
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

// The same monitor of another server (as after a restart) keeps its ID; a server that goes away is
// a change, after which the list is empty; with no server at all it is empty from the start.
TEST(RandrDisplayManager, KeepsIDsAcrossServersAndSurvivesTheServerGoing) {
  VirtualDisplay first;
  VirtualDisplay second;
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
    CO_ASSERT_TRUE(gone.has_value());
    const auto empty = co_await one.displays();
    CO_ASSERT_TRUE(empty.empty());
    const auto stillEmpty = co_await one.displays();
    CO_ASSERT_TRUE(stillEmpty.empty());

    RandrDisplayManager nowhere(io.get_executor(), ":987");
    const auto none = co_await nowhere.displays();
    CO_ASSERT_TRUE(none.empty());
  });
}

}  // namespace
}  // namespace kelvaron::host
