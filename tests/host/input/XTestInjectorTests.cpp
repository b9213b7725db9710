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

bool setLayout(const VirtualDisplay& x, const std::string& layout) {
  return runCommand({"setxkbmap", "-display", x.name(), layout}).succeeded();
}

std::vector<InputRecorder::Event> only(const std::vector<InputRecorder::Event>& events, Kind kind) {
  std::vector<InputRecorder::Event> kept;
  std::ranges::copy_if(events, std::back_inserter(kept), [&](auto& e) { return e.kind == kind; });
  return kept;
}

TEST(XTestInjector, KeysAndTextArriveAsSentUnderUSGermanFrenchAndJapaneseLayouts) {
  VirtualDisplay x(640, 480);
  SKIP_WITHOUT_DISPLAY(x);
  XTestInjector injector(x.name());
  const std::string text = "Grüße, Ça va? @€ 1 Zoë 日本\tok\n";
  for (const std::string layout : {"us", "de", "fr", "jp"}) {
    SCOPED_TRACE(layout);
    if (!setLayout(x, layout)) GTEST_SKIP() << "setxkbmap cannot set " << layout << " (x11-xkb-utils)";
    InputRecorder recorder(x.name());
    // Text, whatever the layout has keys for and what it has not.
    injector.injectText(text);
    injector.injectText("a\x01\x7f" "b");  // control characters are dropped
    const auto typed = InputRecorder::typed(recorder.take());
    EXPECT_EQ(typed, text + "ab");

    // Keys are places on the keyboard: the key of the US Y is a Z on a German keyboard. The
    // flags alone say which modifiers are down.
    injector.injectKey({{0x1C}, true, {0}});
    injector.injectKey({{0x1C}, false, {0}});
    injector.injectKey({{0x04}, true, {0x01}});  // shift
    injector.injectKey({{0x04}, false, {0x01}});
    injector.injectKey({{0x06}, true, {0x02}});  // control, and shift no more
    injector.injectKey({{0x06}, false, {0x02}});
    injector.injectKey({{0x32}, true, {0}});  // no such key: logged and dropped
    injector.releaseAll();
    const auto presses = only(recorder.take(), Kind::keyPress);
    std::string plain;
    std::vector<std::uint16_t> controlled;
    for (const auto& e : presses) {
      if (e.state & kControlMask) {
        controlled.push_back(e.state);
      } else {
        plain += e.text;
      }
    }
    EXPECT_EQ(plain, layout == "de" ? "zA" : layout == "fr" ? "yQ" : "yA");
    ASSERT_EQ(controlled.size(), 1u);
    EXPECT_EQ(controlled[0] & kShiftMask, 0);
  }
}

}  // namespace
}  // namespace kelvaron::host
