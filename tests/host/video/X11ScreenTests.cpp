// The X connection, the display list of RANDR's monitors and its change signals, and capture, on
// real Xvfb servers whose monitors and pixels the tests change as a user's tools would.

#include "host/video/X11CaptureSource.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <exception>
#include <functional>
#include <limits>

#include "host/video/ChangeBroadcaster.hpp"
#include "host/video/RandrDisplayManager.hpp"
#include "host/x11/RandrMonitors.hpp"
#include "host/x11/X11Connection.hpp"
#include "kit/media/CaptureClock.hpp"
#include "tests/support/AsyncTest.hpp"
#include "tests/support/ScreenPainter.hpp"
#include "tests/support/VirtualDisplay.hpp"

namespace kelvaron::host {
namespace {

using namespace test;
constexpr auto kDebounce = 100ms;

// Events that xcb queued while it read a reply are delivered too (they carry the change signals);
// a read loop does not keep its connection alive. Monitors set by clients come first; one whose
// name reads as nothing is named by its place. A monitor keeps its ID on another server (as after a
// restart). A server going away is reported once and empties the list; no server, no displays.
TEST(RandrDisplayManager, ListsTheMonitorsAndSignalsTheirChangesAndTheServerGoing) {
  VirtualDisplay display, lost;
  SKIP_WITHOUT_DISPLAY(display);
  SKIP_WITHOUT_DISPLAY(lost);
  runAsync([&](asio::io_context& io) -> asio::awaitable<void> {
    auto connection = X11Connection::open(io.get_executor(), lost.name());
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
    });
    const auto queued = co_await nextWithin(events, 5s);
    CO_ASSERT_TRUE(queued == XCB_PROPERTY_NOTIFY);

    auto other = X11Connection::open(io.get_executor(), lost.name());
    other->startEvents([](const xcb_generic_event_t&) {}, [](std::string) {});
    co_await runOn(other->executor(), [] { return 0; });  // reading has started
    const std::weak_ptr<X11Connection> weak = std::exchange(other, nullptr);
    CO_ASSERT_TRUE(weak.expired());

    RandrDisplayManager manager(io.get_executor(), display.name());
    const auto changes = manager.changes();
    const auto initial = co_await manager.displays();
    CO_ASSERT_TRUE(initial.size() == 1);
    const DisplayInfo& screen = initial[0];
    CO_ASSERT_TRUE(screen.isMain && screen.id != 0 && !screen.name.empty());
    CO_ASSERT_TRUE(screen.pixelWidth == 1280 && (screen.frame == DisplayFrame{0, 0, 1280, 720}));

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

    RandrDisplayManager elsewhere(io.get_executor(), lost.name());
    const auto listedElsewhere = co_await elsewhere.displays();
    CO_ASSERT_TRUE(listedElsewhere.size() == 1 && listedElsewhere[0].id == screen.id);
    // Asked for once the list is read, so that only the server's going can be the next change.
    const auto elsewhereChanges = elsewhere.changes();
    lost.stopServer();
    const auto reason = co_await nextWithin(closings, 5s);
    const auto again = co_await nextWithin(closings, 200ms);
    CO_ASSERT_TRUE(reason && !reason->empty() && !again && connection->broken());
    const auto gone = co_await nextWithin(*elsewhereChanges, 5s);
    const auto empty = co_await elsewhere.displays();
    const auto stillEmpty = co_await elsewhere.displays();
    RandrDisplayManager nowhere(io.get_executor(), ":987");
    const auto none = co_await nowhere.displays();
    CO_ASSERT_TRUE(gone && empty.empty() && stillEmpty.empty() && none.empty());
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
    const std::weak_ptr<AsyncQueue<ChangeSignal>> dropped = broadcaster->subscribe();
    CO_ASSERT_TRUE(dropped.expired() && broadcaster->subscriberCount() == 3);
    for (int burst = 0; burst < 3; ++burst) {
      for (int i = 0; i < 5; ++i) broadcaster->signal();
      const auto signal = co_await nextWithin(*prompt, 5s);
      CO_ASSERT_TRUE(signal.has_value());
    }
    const auto more = co_await nextWithin(*prompt, 4 * kDebounce);
    CO_ASSERT_TRUE(!more && late->count() == 1 && broadcaster->subscriberCount() == 2);
    broadcaster.reset();
    CO_ASSERT_TRUE(prompt->isFinished());
  });
}

using Colours = std::vector<std::uint32_t>;

constexpr std::uint32_t kRed = 0xff0000, kGreen = 0x00ff00, kBlue = 0x0000ff, kWhite = 0xffffff,
                        kYellow = 0xffff00;
const NormalizedRect kWhole{0, 0, 1, 1};
const NormalizedRect kBottomRight{0.5f, 0.5f, 0.5f, 0.5f};
const Colours kQuadrants{kRed, kGreen, kBlue, kWhite};

std::uint32_t pixelAt(const CapturedFrame& f, int x, int y) {
  const std::uint8_t* p = &f.pixelBuffer->bytes[std::size_t(y * f.pixelBuffer->stride + x * 4)];
  return std::uint32_t(p[2]) << 16 | std::uint32_t(p[1]) << 8 | p[0];  // B, G, R, X
}

// Whether `frame` is `width` x `height`, with `colours` at the centres of its four quadrants.
bool shows(const CapturedFrame& frame, int width, int height, const Colours& colours) {
  const int w = frame.pixelBuffer->width, h = frame.pixelBuffer->height;
  const Colours centres{pixelAt(frame, w / 4, h / 4), pixelAt(frame, 3 * w / 4, h / 4),
                        pixelAt(frame, w / 4, 3 * h / 4), pixelAt(frame, 3 * w / 4, 3 * h / 4)};
  return w == width && h == height && centres == colours;
}

// A screen of 1280x720 in the quadrants' colours, its displays, and a capture source with its
// frames and stops in queues. Calls to the source take two steps (GCC 12); a start or an update
// gives the first frame that follows it.
class X11CaptureSourceTest : public testing::Test {
 protected:
  void SetUp() override {
    SKIP_WITHOUT_DISPLAY(display);
    painter = std::make_unique<ScreenPainter>(display.name());
    for (int i = 0; i < 4; ++i)
      painter->fill(kQuadrants[i], std::int16_t(i % 2 * 640), std::int16_t(i / 2 * 360), 640, 360);
  }

  // The source goes before its io_context does, whether `body` failed or not.
  void run(const std::function<asio::awaitable<void>()>& body) {
    runAsync([&](asio::io_context& io) -> asio::awaitable<void> {
      const std::shared_ptr<void> releaseSource(nullptr, [this](void*) { source.reset(); });
      {
        RandrDisplayManager manager(io.get_executor(), display.name());
        displays = co_await manager.displays();
      }
      CO_ASSERT_TRUE(!displays.empty());
      source = X11CaptureSource::make(io.get_executor(), display.name());
      co_await body();
    });
  }

  asio::awaitable<CapturedFrame> start(const DisplayInfo& shown, std::uint32_t w, std::uint32_t h) {
    auto starting = source->start(
        shown, {shown.id, kWhole, w, h},
        [q = frames](CapturedFrame frame) { q->push(std::move(frame)); },
        [q = stops](std::string reason) { q->push(std::move(reason)); });
    co_await std::move(starting);
    co_return co_await next();
  }
  asio::awaitable<CapturedFrame> update(const DisplayInfo& shown, NormalizedRect rect,
                                        std::uint32_t w, std::uint32_t h) {
    auto updating = source->update(shown, {shown.id, rect, w, h});
    co_await std::move(updating);
    co_return co_await next();
  }
  // What a start (without `rect`) or an update threw; empty when it did not.
  asio::awaitable<std::string> refusal(const DisplayInfo& shown,
                                       std::optional<NormalizedRect> rect = {}) {
    try {
      if (rect) co_await update(shown, *rect, 320, 180);
      if (!rect) co_await start(shown, 640, 360);
    } catch (const std::exception& error) {
      co_return error.what();
    }
    co_return "";
  }
  asio::awaitable<CapturedFrame> next() {
    auto frame = co_await nextWithin(*frames, 5s);
    CO_ASSERT_TRUE(frame.has_value());
    co_return std::move(*frame);
  }

  VirtualDisplay display{1280, 720};
  std::unique_ptr<ScreenPainter> painter;
  std::vector<DisplayInfo> displays;
  std::shared_ptr<X11CaptureSource> source;
  std::shared_ptr<AsyncQueue<CapturedFrame>> frames = std::make_shared<AsyncQueue<CapturedFrame>>();
  std::shared_ptr<AsyncQueue<std::string>> stops = std::make_shared<AsyncQueue<std::string>>();
};

// Frames keep the rectangle they were taken with: the old one up to an update, the new one, at its
// output size and with its pixels, from when it is in force. Geometry from the network that is no
// rectangle is refused, and the capture goes on as it was; a nonsensical viewport is clamped.
TEST_F(X11CaptureSourceTest, CapturesTheScreenScaledOrARegionEachFrameTaggedWithItsRectangle) {
  run([&]() -> asio::awaitable<void> {
    const DisplayInfo main = displays.front();
    const std::uint64_t before = monotonicRawNs();
    const CapturedFrame same = co_await start(main, 1280, 720);
    CO_ASSERT_TRUE(same.displayID == main.id && same.sourceRect == kWhole);
    CO_ASSERT_TRUE(before <= same.captureTimeNs && same.captureTimeNs <= monotonicRawNs());
    CO_ASSERT_TRUE(shows(same, 1280, 720, kQuadrants));
    CO_ASSERT_TRUE(pixelAt(same, 639, 359) == kRed && pixelAt(same, 640, 360) == kWhite);

    painter->fill(kWhite, 700, 400, 10, 10);  // a change on its way while the rectangle changes
    const std::uint64_t requested = monotonicRawNs();
    auto changing = source->update(main, {main.id, kBottomRight, 320, 180});
    co_await std::move(changing);
    const std::uint64_t confirmed = monotonicRawNs();
    CapturedFrame frame;
    do {  // what was taken before the change took effect shows the whole screen
      frame = co_await next();
    } while (frame.sourceRect == kWhole && frame.captureTimeNs < confirmed &&
             frame.pixelBuffer->width == 1280);
    CO_ASSERT_TRUE(frame.sourceRect == kBottomRight && frame.captureTimeNs > requested);
    CO_ASSERT_TRUE(shows(frame, 320, 180, Colours(4, kWhite)));
    frame = {};  // let go: the source has six buffers for all the frames this test holds
    const CapturedFrame scaled = co_await update(main, kWhole, 640, 360);
    CO_ASSERT_TRUE(shows(scaled, 640, 360, kQuadrants));

    // A region in desktop points: the green quadrant, never scaled up beyond its pixels.
    source->setScope(scope::region{{640, 0, 640, 360}});
    const CapturedFrame region = co_await update(main, kWhole, 1280, 720);
    CO_ASSERT_TRUE(shows(region, 640, 360, Colours(4, kGreen)));
    CO_ASSERT_TRUE(pixelAt(region, 0, 0) == kGreen && pixelAt(region, 639, 359) == kGreen);
    // A region partly off the screen: the part on it keeps its place, the rest is black.
    source->setScope(scope::region{{960, 540, 640, 360}});
    const CapturedFrame partly = co_await update(main, kWhole, 640, 360);
    CO_ASSERT_TRUE(shows(partly, 640, 360, {kWhite, 0, 0, 0}));
    CO_ASSERT_TRUE(pixelAt(partly, 0, 0) == kWhite && pixelAt(partly, 319, 179) == kWhite);
    CO_ASSERT_TRUE(pixelAt(partly, 320, 0) == 0 && pixelAt(partly, 0, 180) == 0 &&
                   pixelAt(partly, 639, 359) == 0);

    source->setScope(scope::region{{NAN, 0, 1e300, -5}});
    const auto refused = co_await refusal(main, kBottomRight);
    CO_ASSERT_TRUE(refused == "The capture region is not a valid rectangle.");
    painter->fill(kYellow, 0, 0, 1280, 720);
    const CapturedFrame kept = co_await next();
    CO_ASSERT_TRUE(kept.sourceRect == kWhole && shows(kept, 640, 360, {kYellow, 0, 0, 0}));
    source->setScope(scope::display{});
    const NormalizedRect nonsense{NAN, -3, 7, NAN};
    const CapturedFrame clamped =
        co_await update(main, nonsense, std::numeric_limits<std::uint32_t>::max(), 1);
    CO_ASSERT_TRUE(clamped.sourceRect == normalizedRect(nonsense));
    CO_ASSERT_TRUE(clamped.pixelBuffer->width == 8192 && clamped.pixelBuffer->height == 2);
  });
}

// Nothing is captured while nothing changes; a change is captured into a buffer nobody holds;
// nothing at all after a stop. A display that is not there is refused at the start; the server
// going away stops the capture once, and an update then says why it cannot start again.
TEST_F(X11CaptureSourceTest, CapturesChangesOnlyAndStopsOnceWhenTheServerGoes) {
  run([&]() -> asio::awaitable<void> {
    const DisplayInfo main = displays.front();
    auto first = co_await start(main, 640, 360);
    const auto still = co_await nextWithin(*frames, 700ms);
    CO_ASSERT_TRUE(!still.has_value());

    // Held by us: the next picture goes elsewhere, and this one stays as it was.
    painter->fill(kYellow, 0, 0, 640, 360);
    auto second = co_await next();
    CO_ASSERT_TRUE(pixelAt(second, 100, 100) == kYellow && pixelAt(first, 100, 100) == kRed);
    // Let go of: one of those buffers is written again, rather than a new one made.
    const std::vector released{first.pixelBuffer.get(), second.pixelBuffer.get()};
    first = second = {};
    painter->fill(kBlue, 0, 0, 640, 360);
    const CapturedFrame third = co_await next();
    CO_ASSERT_TRUE(std::ranges::find(released, third.pixelBuffer.get()) != released.end());
    CO_ASSERT_TRUE(pixelAt(third, 100, 100) == kBlue);

    // A change on its way when the capture stops never comes out; stopping again is no error.
    painter->fill(kRed, 0, 0, 1280, 720);
    co_await source->stop();
    co_await source->stop();
    const auto late = co_await nextWithin(*frames, 500ms);
    const auto notStarted = co_await refusal(main, kWhole);
    CO_ASSERT_TRUE(!late.has_value() && notStarted == "Capture has not been started.");

    DisplayInfo unknown = main;
    unknown.id = main.id ^ 0x5a5a5a5au;
    const auto notFound = co_await refusal(unknown);
    CO_ASSERT_TRUE(notFound ==
                   "Display " + std::to_string(unknown.id) + " is not available for capture.");
    co_await start(main, 640, 360);
    display.stopServer();
    const auto reason = co_await nextWithin(*stops, 5s);
    const auto again = co_await nextWithin(*stops, 300ms);
    CO_ASSERT_TRUE(reason.has_value() && !reason->empty() && !again.has_value());
    const auto gone = co_await refusal(main, kWhole);
    CO_ASSERT_TRUE(gone.starts_with("Cannot connect to the X display " + display.name() + ":"));
    co_await source->stop();
  });
}

// Regions are in points of their display, wherever it lies on the screen and whichever display is
// the main one. Another display restarts the capture there; a display that went away fails
// the update, and the capture stays where it was.
TEST_F(X11CaptureSourceTest, FollowsDisplaysAndRefusesOneThatVanished) {
  ASSERT_TRUE(painter->setMonitor("TOVU-RIGHT", 640, 0, 640, 720, true));
  run([&]() -> asio::awaitable<void> {
    CO_ASSERT_TRUE(displays.size() == 2 && displays[0].name == "TOVU-RIGHT");
    const DisplayInfo right = displays[0];
    const DisplayInfo whole = displays[1];  // the screen's own monitor, left of the main one
    CO_ASSERT_TRUE(whole.frame.x == -640);

    const CapturedFrame all = co_await start(whole, 640, 360);
    CO_ASSERT_TRUE(shows(all, 640, 360, kQuadrants));
    source->setScope(scope::region{{0, 0, 640, 360}});
    const CapturedFrame topLeft = co_await update(whole, kWhole, 320, 180);
    CO_ASSERT_TRUE(shows(topLeft, 320, 180, Colours(4, kRed)));

    source->setScope(scope::display{});
    const CapturedFrame there = co_await update(right, kWhole, 320, 360);
    CO_ASSERT_TRUE(there.displayID == right.id &&
                   shows(there, 320, 360, {kGreen, kGreen, kWhite, kWhite}));
    source->setScope(scope::region{{0, 360, 640, 360}});
    const CapturedFrame bottomRight = co_await update(right, kWhole, 320, 180);
    CO_ASSERT_TRUE(shows(bottomRight, 320, 180, Colours(4, kWhite)));

    CO_ASSERT_TRUE(painter->deleteMonitor("TOVU-RIGHT"));
    const auto refused = co_await refusal(right, kBottomRight);
    CO_ASSERT_TRUE(refused ==
                   "Display " + std::to_string(right.id) + " is not available for capture.");
    painter->fill(kYellow, 640, 360, 640, 360);
    const CapturedFrame kept = co_await next();
    CO_ASSERT_TRUE(kept.displayID == right.id && kept.sourceRect == kWhole);
    CO_ASSERT_TRUE(shows(kept, 320, 180, Colours(4, kYellow)));
  });
}

}  // namespace
}  // namespace kelvaron::host
