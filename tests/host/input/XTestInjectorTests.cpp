// XTestInjector against a real Xvfb, with a window that records what arrives as an application
// sees it.

#include "host/input/XTestInjector.hpp"

#include <gtest/gtest.h>

#include <algorithm>

#include "tests/support/ChildProcess.hpp"
#include "tests/support/InputRecorder.hpp"
#include "tests/support/ScreenPainter.hpp"
#include "tests/support/VirtualDisplay.hpp"

namespace kelvaron::host {
namespace {

using namespace test;
using Kind = InputRecorder::Event::Kind;

constexpr std::uint16_t kShiftMask = 1, kControlMask = 4, kButton1Mask = 256;
constexpr InputOwner kOwner = 1, kOtherOwner = 2;

bool setLayout(const VirtualDisplay& x, const std::string& layout) {
  return runCommand({"setxkbmap", "-display", x.name(), layout}).succeeded();
}

std::vector<InputRecorder::Event> only(const std::vector<InputRecorder::Event>& events, Kind kind) {
  std::vector<InputRecorder::Event> kept;
  std::ranges::copy_if(events, std::back_inserter(kept), [&](auto& e) { return e.kind == kind; });
  return kept;
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
  const std::string text = "Grüße, Ça va? @€ 1 Zoë 日本\tok\n";
  for (const std::string layout : {"us", "de", "fr", "jp", "us,de"}) {
    SCOPED_TRACE(layout);
    if (!setLayout(x, layout))
      GTEST_SKIP() << "setxkbmap cannot set " << layout << " (x11-xkb-utils)";
    InputRecorder recorder(x.name());
    if (layout == "us,de") {
      injector.injectText(kOwner, "日");
      EXPECT_EQ(InputRecorder::typed(recorder.take()), "日");
      EXPECT_EQ(recorder.keycodesTyping(0x10065E5), 1u);
      recorder.lockKeyboardGroup(1);
      injector.injectText(kOwner, "a");
      injector.currentPointerPosition();  // a round trip: the text has gone out
      EXPECT_EQ(recorder.keycodesTyping(0x10065E5), 0u);
      continue;
    }
    injector.injectText(kOwner, text);
    injector.injectText(kOwner,
                        "a\x01\x7f"
                        "b");  // control characters are dropped
    EXPECT_EQ(InputRecorder::typed(recorder.take()), text + "ab");

    // The key of the US Y is a Z on a German keyboard. The flags alone say which modifiers are
    // down.
    injector.injectKey(kOwner, {{0x1C}, true, {0}});
    injector.injectKey(kOwner, {{0x1C}, false, {0}});
    injector.injectKey(kOwner, {{0x04}, true, {0x01}});  // shift
    injector.injectKey(kOwner, {{0x04}, false, {0x01}});
    injector.injectKey(kOwner, {{0x06}, true, {0x02}});  // control, and shift no more
    injector.injectKey(kOwner, {{0x06}, false, {0x02}});
    injector.injectKey(kOwner, {{0x32}, true, {0}});  // no such key: logged and dropped
    injector.release(kOwner);
    std::string plain;
    std::vector<std::uint16_t> controlled;
    for (const auto& e : only(recorder.take(), Kind::keyPress)) {
      if (e.state & kControlMask) controlled.push_back(e.state);
      if (!(e.state & kControlMask)) plain += e.text;
    }
    EXPECT_EQ(plain, layout == "de" ? "zA" : layout == "fr" ? "yQ" : "yA");
    ASSERT_EQ(controlled.size(), 1u);
    EXPECT_EQ(controlled[0] & kShiftMask, 0);

    // The client's right option is AltGr here: held with the option flag, it reaches the third
    // level (German AltGr+Q is @) instead of being let go for the flag's Alt.
    if (layout == "de") {
      injector.injectKey(kOwner, {{0xE6}, true, {0x04}});
      injector.injectKey(kOwner, {{0x14}, true, {0x04}});
      injector.injectKey(kOwner, {{0x14}, false, {0x04}});
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
  auto moved = motions();
  ASSERT_FALSE(moved.empty());
  EXPECT_EQ(moved.back(), (Point{110, 110}));
  point(pointer::moveRelative{5000, -5});
  EXPECT_EQ(motions().back(), (Point{2559, 105}));

  // A double click is two clicks in quick succession; a drag moves with the button down.
  for (std::uint8_t click = 1; click <= 2; ++click) {
    point(pointer::button{PointerButton::left, true, click});
    point(pointer::button{PointerButton::left, false, click});
  }
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

}  // namespace
}  // namespace kelvaron::host
