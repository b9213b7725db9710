// The pure logic of input; what real layouts type, compiled by libxkbcommon from the system's XKB
// data; and XTestInjector on a real Xvfb, with a window that records what an application sees.

#include "host/input/XTestInjector.hpp"

#include <gmock/gmock.h>

#include <chrono>
#include <cmath>
#include <future>
#include <limits>
#include <map>
#include <memory>
#include <thread>
#include <tuple>

#include "host/input/HIDKeyNames.hpp"
#include "host/input/HostScroll.hpp"
#include "host/input/KeyboardLayout.hpp"
#include "host/input/PointerTracker.hpp"
#include "tests/support/ChildProcess.hpp"
#include "tests/support/InputRecorder.hpp"
#include "tests/support/ScreenPainter.hpp"
#include "tests/support/VirtualDisplay.hpp"
#include "tests/support/XkbLayouts.hpp"

namespace kelvaron::host {
namespace {

using namespace test;
using Kind = InputRecorder::Event::Kind;
using testing::AllOf, testing::Contains, testing::IsEmpty, testing::Not;

// The pointer's belief trusts its own recent moves and resyncs on any other reading; a point is
// clamped to the nearest pixel of the nearest display.
TEST(PointerTracker, TrustsItsOwnRecentMovesAndClampsToTheNearestDisplay) {
  PointerTracker tracker;
  EXPECT_FALSE(tracker.observe(std::nullopt, 0));
  EXPECT_FALSE(tracker.observe(Point{10, 10}, 0));  // the first reading is no resync
  EXPECT_EQ(tracker.position(), (Point{10, 10}));

  // The server lags behind a run of moves: readings near any of the last half second are old news.
  for (int i = 1; i <= 10; ++i) tracker.record({10.0 + 10 * i, 10}, 1.0 + 0.01 * i);
  EXPECT_FALSE(tracker.observe(Point{31.5, 11.5}, 1.2));  // 1.5 on each axis still counts as near
  EXPECT_EQ(tracker.position(), (Point{110, 10}));
  // A reading near a move older than half a second is somebody else's doing.
  EXPECT_TRUE(tracker.observe(Point{20, 10}, 1.7));
  EXPECT_EQ(tracker.position(), (Point{20, 10}));
  EXPECT_TRUE(tracker.observe(Point{300, 200}, 1.8));
  EXPECT_FALSE(tracker.observe(Point{301.5, 198.5}, 1.9));
  EXPECT_EQ(tracker.position(), (Point{300, 200}));

  // A main display and one to its right with a gap between them, and one with no area.
  const std::vector<DisplayFrame> displays = {
      {0, 0, 1920, 1080}, {2000, 0, 1280, 720}, {5000, 0, 0, 0}};
  EXPECT_EQ(clampToDisplays({100.5, 200}, displays), (Point{100.5, 200}));
  EXPECT_EQ(clampToDisplays({4000, 100}, displays), (Point{3279, 100}));    // past the right edge
  EXPECT_EQ(clampToDisplays({1950, 100}, displays), (Point{1919, 100}));    // nearer the main
  EXPECT_EQ(clampToDisplays({1959.5, 100}, displays), (Point{1919, 100}));  // a tie: the earlier
  EXPECT_EQ(clampToDisplays({1960, 100}, displays), (Point{2000, 100}));
  EXPECT_EQ(clampToDisplays({2500, 900}, displays), (Point{2500, 719}));
  EXPECT_EQ(clampToDisplays({-50, -50}, displays), (Point{0, 0}));
  EXPECT_EQ(clampToDisplays({-50, -50}, {}), (Point{-50, -50}));
  EXPECT_EQ(clampToDisplays({-50, -50}, {{0, 0, 0, 10}}), (Point{-50, -50}));
}

// Points to pixels; the wheel clicks made of them are seen on a real server below.
TEST(HostScroll, CarriesFractionsWithinAGestureAndDropsTheExcess) {
  HostScroll::Remainder remainder;
  EXPECT_EQ(HostScroll::toPixels(0.3f, 0.3f, remainder), (HostScroll::Pixels{0, 0}));
  EXPECT_EQ(HostScroll::toPixels(0.3f, 0.3f, remainder), (HostScroll::Pixels{1, 1}));
  EXPECT_NEAR(remainder.y, 0.2f, 1e-6);
  EXPECT_EQ(HostScroll::toPixels(0, -20000, remainder), (HostScroll::Pixels{0, -30000}));
  EXPECT_NEAR(remainder.y, -0.8f, 1e-3);  // only the fraction is kept; the excess is dropped
  EXPECT_EQ(HostScroll::toPixels(0, std::numeric_limits<float>::max(), remainder),
            (HostScroll::Pixels{0, 30000}));
  EXPECT_EQ(HostScroll::toPixels(NAN, 1, remainder), std::nullopt);
  EXPECT_EQ(HostScroll::toPixels(0, INFINITY, remainder), std::nullopt);
}

// The ends of the table's runs, the keys X11 lacks, and those that only modify.
TEST(HIDKeyNames, NamesThePhysicalKeysOfTheTable) {
  // Z, 0, the ISO key, F20 and command.
  const std::pair<std::uint16_t, const char*> named[] = {
      {0x1D, "AB01"}, {0x27, "AE10"}, {0x64, "LSGT"}, {0x6F, "FK20"}, {0xE3, "LWIN"}};
  for (const auto& [usage, name] : named) EXPECT_EQ(xkbKeyName({usage}), name) << usage;
  for (const int u : {0x32, 0x46, 0xFF03}) EXPECT_EQ(xkbKeyName({std::uint16_t(u)}), std::nullopt);
  for (const int u : {0xE0, 0xE7, 0x39, 0xFF03}) EXPECT_TRUE(isModifierUsage({std::uint16_t(u)}));
  EXPECT_FALSE(isModifierUsage({0x04}));
}

using test::layoutOf;

// Each character on its simplest stroke; none for a control character or one without a key.
TEST(KeyboardLayout, FindsEachCharacterOnItsSimplestKeyStroke) {
  // Layout, character, its key (none without) and level: 1 plain, 2 with shift, 3 the third level.
  // US 1 is on the main row, not the keypad. German swaps y and z and has @ and € on the third
  // level; French digits need shift, é is unshifted, a and q are swapped.
  const std::tuple<const char*, char32_t, const char*, int> strokes[] = {
      {"us", U'a', "AC01", 1},  {"us", U'A', "AC01", 2},     {"us", U'@', "AE02", 2},
      {"us", U'1', "AE01", 1},  {"us", U' ', "SPCE", 1},     {"us", U'\n', "RTRN", 1},
      {"us", U'\t', "TAB", 1},  {"us", U'\x7f', nullptr, 0}, {"us", U'\x1b', nullptr, 0},
      {"us", U'é', nullptr, 0}, {"de", U'z', "AD06", 1},     {"de", U'@', "AD01", 3},
      {"de", U'€', "AD03", 3},  {"de", U'ß', "AE11", 1},     {"fr", U'1', "AE01", 2},
      {"fr", U'é', "AE02", 1},  {"fr", U'a', "AD01", 1}};
  std::map<std::string, std::unique_ptr<KeyboardLayout>> layouts;
  for (const auto& [name, character, key, level] : strokes) {
    auto& layout = layouts[name];
    if (!layout && !(layout = layoutOf(name)))
      GTEST_SKIP() << "no XKB data for the layout " << name << " (xkb-data)";
    std::optional<LayoutKeystroke> expected;
    if (key) expected = LayoutKeystroke{*layout->keycode(key), level == 2, level == 3};
    EXPECT_EQ(layout->keystroke(character), expected) << name << " " << std::uint32_t(character);
  }
  for (const auto& [name, layout] : layouts)
    EXPECT_THAT(layout->spareKeycodes(),
                AllOf(Not(IsEmpty()), Not(Contains(*layout->keycode("AC01")))))
        << name;
}

constexpr std::uint16_t kShiftMask = 1, kControlMask = 4;
constexpr InputOwner kOwner = 1, kOtherOwner = 2;

std::vector<InputRecorder::Event> only(std::vector<InputRecorder::Event> events, Kind kind) {
  std::erase_if(events, [&](const auto& e) { return e.kind != kind; });
  return events;
}

// The buttons pressed among `events`, wheel clicks included.
std::vector<int> buttons(const std::vector<InputRecorder::Event>& events) {
  std::vector<int> pressed;
  for (const auto& e : only(events, Kind::buttonPress)) pressed.push_back(e.detail);
  return pressed;
}

// Text, whatever the layout has keys for and what it has not; keys as places on the keyboard.
// Characters without a key go on spare keys, which are given back when the layout group changes.
TEST(XTestInjector, KeysAndTextArriveAsSentUnderEachLayoutAndSpareKeysAreGivenBack) {
  VirtualDisplay x(640, 480);
  SKIP_WITHOUT_DISPLAY(x);
  XTestInjector injector(x.name());
  const auto tap = [&](std::uint16_t usage, std::uint8_t flags) {
    for (const bool down : {true, false}) injector.injectKey(kOwner, {{usage}, down, {flags}});
  };
  const std::string text = "Grüße, Ça va? @€ 1 Zoë 日本\tok\n";
  for (const std::string layout : {"us", "de", "fr", "jp", "us,de"}) {
    SCOPED_TRACE(layout);
    if (!runCommand({"setxkbmap", "-display", x.name(), layout}).succeeded())
      GTEST_SKIP() << "setxkbmap cannot set " << layout << " (x11-xkb-utils)";
    InputRecorder recorder(x.name());
    if (layout == "us,de") {
      injector.injectText(kOwner, "日");
      EXPECT_EQ(InputRecorder::typed(recorder.take()), "日");
      EXPECT_EQ(recorder.keycodesTyping(0x10065E5), 1u);
      recorder.lockKeyboardGroup(1);
      injector.injectText(kOwner, "a");
      EXPECT_EQ(InputRecorder::typed(recorder.take()), "a");  // what went before it is done
      EXPECT_EQ(recorder.keycodesTyping(0x10065E5), 0u);
      continue;
    }
    injector.injectText(kOwner, text);
    injector.injectText(kOwner, "a\001\177b");  // control characters are dropped
    EXPECT_EQ(InputRecorder::typed(recorder.take()), text + "ab");

    // The US Y is a Z on a German keyboard; the flags alone say which modifiers are down: A with
    // shift, then C with control and shift no more.
    tap(0x1C, 0);
    tap(0x04, 0x01);
    tap(0x06, 0x02);
    injector.injectKey(kOwner, {{0x32}, true, {0}});  // no such key: logged and dropped
    injector.release(kOwner);
    std::string plain;
    std::vector<bool> shiftedWithControl;
    for (const auto& e : only(recorder.take(), Kind::keyPress)) {
      if (e.state & kControlMask) shiftedWithControl.push_back(e.state & kShiftMask);
      if (!(e.state & kControlMask)) plain += e.text;
    }
    EXPECT_EQ(plain, layout == "de" ? "zA" : layout == "fr" ? "yQ" : "yA");
    EXPECT_EQ(shiftedWithControl, std::vector<bool>{false});

    // The client's right option is AltGr here: held with the option flag, it reaches the third
    // level (German AltGr+Q is @) instead of being let go for the flag's Alt.
    if (layout == "de") {
      injector.injectKey(kOwner, {{0xE6}, true, {0x04}});
      tap(0x14, 0x04);
      injector.injectKey(kOwner, {{0xE6}, false, {0}});
      EXPECT_EQ(InputRecorder::typed(recorder.take()), "@");
    }
  }
}

TEST(XTestInjector, ThePointerMovesClicksDragsAndScrollsAsAPersonWould) {
  VirtualDisplay x(2560, 720);
  SKIP_WITHOUT_DISPLAY(x);
  // Two monitors side by side; the right one is the main display, so the left lies at -1280.
  ScreenPainter painter(x.name());
  ASSERT_TRUE(painter.setMonitor("LEFT", 0, 0, 1280, 720, false));
  ASSERT_TRUE(painter.setMonitor("RIGHT", 1280, 0, 1280, 720, true));
  const DisplayInfo left{1, "LEFT", false, 1280, 720, {-1280, 0, 1280, 720}};
  InputRecorder recorder(x.name());
  XTestInjector injector(x.name());
  const auto point = [&](const PointerEvent& event) {
    injector.injectPointer(kOwner, event, std::nullopt);
  };
  const auto motions = [&] {
    std::vector<Point> at;
    for (const auto& e : only(recorder.take(), Kind::motion))
      at.push_back({double(e.x), double(e.y)});
    return at;
  };

  // Absolute moves land on the pixel of the display they name; without a display, nowhere.
  injector.injectPointer(kOwner, pointer::moveAbsolute{1, 0.25f, 0.5f}, left);
  point(pointer::moveAbsolute{9, 0.9f, 0.9f});
  EXPECT_EQ(motions(), (std::vector<Point>{{320, 360}}));
  EXPECT_EQ(injector.currentPointerPosition(), (Point{-960, 360}));
  // Relative moves go on from there, and stop at the last pixel of the outermost display.
  point(pointer::moveRelative{10.4f, -5.6f});
  point(pointer::moveRelative{5000, 0});
  point(pointer::moveRelative{NAN, 0});  // dropped
  EXPECT_EQ(motions(), (std::vector<Point>{{330, 354}, {2559, 354}}));
  // Somebody else moves the pointer: the next relative move starts from where it really is.
  painter.warpPointer(100, 100);
  point(pointer::moveRelative{10, 10});
  EXPECT_EQ(motions(), (std::vector<Point>{{100, 100}, {110, 110}}));
  point(pointer::moveRelative{5000, -5});
  EXPECT_EQ(motions(), (std::vector<Point>{{2559, 105}}));

  // A double click is two clicks in quick succession; a drag moves with the button down.
  for (std::uint8_t click = 1; click <= 2; ++click)
    for (const bool down : {true, false}) point(pointer::button{PointerButton::left, down, click});
  point(pointer::button{PointerButton::right, true, 1});
  point(pointer::moveRelative{-100, 0});
  point(pointer::button{PointerButton::right, false, 1});
  const auto clicks = recorder.take();
  EXPECT_EQ(buttons(clicks), (std::vector<int>{1, 1, 3}));
  const auto drag = only(clicks, Kind::motion);
  ASSERT_EQ(drag.size(), 1u);
  EXPECT_EQ(drag[0].x, 2459);
  EXPECT_NE(drag[0].state & 1024, 0);  // Button3 held

  // Scrolling: 2 pixels a unit, 40 a wheel click; what is short of a click waits for the next
  // event of the gesture, and a new gesture starts afresh.
  point(pointer::scroll{0, 30, ScrollPhase::began});           // 60 px: 1 up
  point(pointer::scroll{0, 10, ScrollPhase::changed});         // 40 px: 1 up
  point(pointer::scroll{-25, 0, ScrollPhase::momentum});       // 50 px: 1 right
  point(pointer::scroll{0, -5, ScrollPhase::began});           // 10 px: none
  point(pointer::scroll{0, -40, ScrollPhase::momentumEnded});  // 90 px: 2 down
  EXPECT_EQ(buttons(recorder.take()), (std::vector<int>{4, 4, 7, 5, 5}));

  // The end of a session lets go of what it holds down, and of nothing another session holds.
  point(pointer::button{PointerButton::middle, true, 1});
  injector.injectKey(kOwner, {{0xE1}, true, {0x01}});       // left shift, held
  injector.injectKey(kOtherOwner, {{0x04}, true, {0x01}});  // A, held by another session
  recorder.take();
  injector.release(kOwner);
  const auto released = recorder.take();
  EXPECT_EQ(only(released, Kind::buttonRelease).size(), 1u);
  EXPECT_EQ(only(released, Kind::keyRelease).size(), 1u);
  injector.release(kOtherOwner);
  EXPECT_EQ(only(recorder.take(), Kind::keyRelease).size(), 1u);
}

// The injector hears of the pointer from the server rather than asking at each look: a move by
// another client through XTEST, as a mouse makes them, and an application's warp, which the server
// tells nobody of, are seen at once; a new main display moves the origin under a still pointer. A
// look at a still pointer waits for nothing, not even a server another client grabbed.
TEST(XTestInjector, LearnsOfOthersMovesAndALookAtAStillPointerWaitsForNothing) {
  VirtualDisplay x(1280, 480);
  SKIP_WITHOUT_DISPLAY(x);
  ScreenPainter painter(x.name());
  ASSERT_TRUE(painter.setMonitor("LEFT", 0, 0, 640, 480, true));
  ASSERT_TRUE(painter.setMonitor("RIGHT", 640, 0, 640, 480, false));
  XTestInjector injector(x.name());
  const auto sees = [&](Point wanted, double seconds) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (injector.currentPointerPosition() != wanted) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
  };

  ASSERT_TRUE(sees({640, 240}, 5));  // where Xvfb starts it, in the middle of its screen
  painter.warpPointer(100, 100);
  // A look every 5 ms: at once is a few looks, well within a round of the session's 1/60 s.
  constexpr double kAtOnce = 0.05;
  EXPECT_TRUE(sees({100, 100}, kAtOnce));
  for (int i = 1; i <= 3; ++i) {
    const auto moved = runCommand(
        {"env", "DISPLAY=" + x.name(), "xdotool", "mousemove_relative", "--", "10", "5"});
    ASSERT_TRUE(moved.succeeded()) << "xdotool: " << moved.output;
    EXPECT_TRUE(sees({100.0 + 10 * i, 100.0 + 5 * i}, kAtOnce)) << i;
  }
  // The right monitor becomes the main display: the pointer lies 640 points left of its corner.
  ASSERT_TRUE(painter.deleteMonitor("LEFT") && painter.deleteMonitor("RIGHT"));
  ASSERT_TRUE(painter.setMonitor("RIGHT", 640, 0, 640, 480, true));
  EXPECT_TRUE(sees({130 - 640, 115}, kAtOnce));

  // While another client holds the server, it answers nobody else.
  xcb_connection_t* holder = xcb_connect(x.name().c_str(), nullptr);
  xcb_grab_server(holder);
  std::free(xcb_get_input_focus_reply(holder, xcb_get_input_focus(holder), nullptr));
  auto look = std::async(std::launch::async, [&] { return injector.currentPointerPosition(); });
  const bool answered = look.wait_for(std::chrono::milliseconds(500)) == std::future_status::ready;
  xcb_ungrab_server(holder);
  xcb_disconnect(holder);
  EXPECT_TRUE(answered) << "a look at a still pointer waited for the server";
  EXPECT_EQ(look.get(), (Point{130 - 640, 115}));
}

}  // namespace
}  // namespace kelvaron::host
