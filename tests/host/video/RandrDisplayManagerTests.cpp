// RandrDisplayManager against a real Xvfb, whose monitors the test changes through RANDR itself.

#include "host/video/RandrDisplayManager.hpp"

#include <gtest/gtest.h>

#include <algorithm>

#include "tests/support/AsyncTest.hpp"
#include "tests/support/ScreenPainter.hpp"
#include "tests/support/VirtualDisplay.hpp"

namespace kelvaron::host {
namespace {

using namespace test;

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
    CO_ASSERT_TRUE(tool.deleteMonitor("TOVU-RIGHT") &&
                   tool.setMonitor("TOVU-RIGHT", 640, 0, 640, 720, true));
    const auto madePrimary = co_await nextWithin(*changes, 5s);
    CO_ASSERT_TRUE(madePrimary.has_value());
    const auto swapped = co_await manager.displays();
    CO_ASSERT_TRUE(swapped.size() == 2);
    CO_ASSERT_TRUE(swapped[0].id == two[1].id && swapped[0].isMain);
    CO_ASSERT_TRUE((swapped[0].frame == DisplayFrame{0, 0, 640, 720}));
    CO_ASSERT_TRUE(swapped[1].id == screen.id && !swapped[1].isMain);
    CO_ASSERT_TRUE((swapped[1].frame == DisplayFrame{-640, 0, 1280, 720}));

    // A monitor whose name reads as nothing (here an atom with an empty name) is named by its
    // place in RANDR's list, which holds the monitors set by clients first: the second.
    CO_ASSERT_TRUE(tool.setMonitor("", 0, 0, 640, 720, false));
    const auto unnamedAdded = co_await nextWithin(*changes, 5s);
    CO_ASSERT_TRUE(unnamedAdded.has_value());
    const auto withUnnamed = co_await manager.displays();
    CO_ASSERT_TRUE(withUnnamed.size() == 3);
    const auto unnamed =
        std::ranges::find(withUnnamed, DisplayFrame{-640, 0, 640, 720}, &DisplayInfo::frame);
    CO_ASSERT_TRUE(unnamed != withUnnamed.end() && unnamed->name == "Display 2");
    CO_ASSERT_TRUE(tool.deleteMonitor(""));
    const auto unnamedRemoved = co_await nextWithin(*changes, 5s);
    CO_ASSERT_TRUE(unnamedRemoved.has_value());

    CO_ASSERT_TRUE(tool.deleteMonitor("TOVU-RIGHT"));
    const auto removed = co_await nextWithin(*changes, 5s);
    CO_ASSERT_TRUE(removed.has_value());
    const auto back = co_await manager.displays();
    CO_ASSERT_TRUE(back == initial);
  });
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
