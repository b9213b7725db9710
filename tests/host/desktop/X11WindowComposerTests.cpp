// One application's windows from their own pixels: the capture of an app scope and the windows'
// thumbnails, on an Xvfb managed by openbox with an xterm and an xlogo over part of it.

#include "host/x11/X11WindowComposer.hpp"

#include <xcb/xcb.h>

#include <gtest/gtest.h>

#include <asio/steady_timer.hpp>
#include <asio/thread_pool.hpp>
#include <cstdlib>
#include <functional>

#include "host/desktop/X11WindowThumbnails.hpp"
#include "host/video/RandrDisplayManager.hpp"
#include "host/video/X11CaptureSource.hpp"
#include "host/x11/X11Connection.hpp"
#include "kit/media/CaptureClock.hpp"
#include "tests/support/AsyncTest.hpp"
#include "tests/support/ChildProcess.hpp"
#include "tests/support/JpegPicture.hpp"
#include "tests/support/TempDirectory.hpp"
#include "tests/support/VirtualDisplay.hpp"

namespace kelvaron::host {
namespace {

using namespace test;

constexpr std::uint32_t kTerminal = 0x202080;  // the xterm's text area
constexpr std::uint32_t kMenu = 0xff8000;      // its ctrl-click menu
constexpr std::uint32_t kLogo = 0x00ff00;      // xlogo's background
// Where xlogo lies over the terminal's text area, far from its prompt (root pixels).
constexpr RootRect kCovered{310, 130, 160, 200};

// The desktop of a person who keeps a private window over part of their terminal: openbox, an
// xterm at the top left, then an xlogo on top of it, each waited for until it is there.
class TerminalUnderLogo : public testing::Test {
 protected:
  void SetUp() override {
    SKIP_WITHOUT_DISPLAY(display);
    const XcbReply<xcb_query_extension_reply_t> composite(xcb_query_extension_reply(
        x.connection, xcb_query_extension(x.connection, 9, "Composite"), nullptr));
    if (!composite || !composite->present) GTEST_SKIP() << "the X server has no Composite";
    windowManager = start({"openbox", "--sm-disable"}, "openbox.log");
    // A window mapped before openbox took over the root may stay unmanaged and unmapped.
    run("timeout 10 sh -c 'until xprop -root _NET_SUPPORTING_WM_CHECK | grep -q \"window id\"; "
        "do sleep 0.05; done'");
    terminal = start({"xterm", "-geometry", "80x24+0+0", "-xrm", "*background: #ff8000", "-xrm",
                      "*vt100.background: #202080"},
                     "xterm.log");
    terminalWindow = waitForWindow("xterm");
    logo = start({"xlogo", "-geometry", "300x300+300+100", "-bg", "#00ff00", "-fg", "#ff00ff"},
                 "xlogo.log");
    logoWindow = waitForWindow("xlogo");
    if (!terminalWindow || !logoWindow) {
      GTEST_SKIP() << "no xterm and xlogo under openbox: "
                   << run("cat " + (logs / "*.log").string()).output;
    }
    run("xdotool windowraise " + std::to_string(logoWindow));
  }
  void TearDown() override { xcb_disconnect(x.connection); }

  CommandResult run(const std::string& command) {
    return runCommand({"sh", "-c", "DISPLAY=" + display.name() + " " + command});
  }
  std::unique_ptr<ChildProcess> start(std::vector<std::string> arguments, const char* log) {
    arguments.insert(arguments.begin(), {"env", "DISPLAY=" + display.name()});
    return std::make_unique<ChildProcess>(arguments, logs / log);
  }
  // The client window of the program of that class once it shows in openbox's frame; 0 if it
  // never does.
  xcb_window_t waitForWindow(const std::string& className) {
    const auto found = run("timeout 10 xdotool search --sync --onlyvisible --class " + className);
    const auto window = xcb_window_t(std::strtoul(found.output.c_str(), nullptr, 10));
    return window && frameOf(window) != window ? window : 0;
  }
  xcb_window_t frameOf(xcb_window_t window) {
    for (xcb_window_t parent = window; parent;) {
      const XcbReply<xcb_query_tree_reply_t> tree(
          xcb_query_tree_reply(x.connection, xcb_query_tree(x.connection, parent), nullptr));
      if (!tree) return 0;
      if (tree->parent == tree->root) return parent;
      parent = tree->parent;
    }
    return 0;
  }

  VirtualDisplay display{1280, 1024};
  DisplayLink x = display.available() ? connectToDisplay(display.name()) : DisplayLink{};
  TempDirectory logs;
  std::unique_ptr<ChildProcess> windowManager, terminal, logo;
  xcb_window_t terminalWindow = 0, logoWindow = 0;
};

// How many pixels of a picture (B, G, R, X) inside `rect` have the colour (0xRRGGBB).
int count(const PixelBuffer& picture, std::uint32_t rgb, RootRect rect = {0, 0, 1 << 20, 1 << 20}) {
  int found = 0;
  for (int y = rect.y; y < std::min(rect.y + rect.height, picture.height); ++y) {
    for (int x = rect.x; x < std::min(rect.x + rect.width, picture.width); ++x) {
      const std::uint8_t* p = &picture.bytes[std::size_t(y * picture.stride + x * 4)];
      found += (std::uint32_t(p[2]) << 16 | std::uint32_t(p[1]) << 8 | p[0]) == rgb;
    }
  }
  return found;
}

// The terminal's app scope shows the terminal whole, also where xlogo covers it on the screen,
// and never a pixel of xlogo, which a crop of the same rectangle is full of; its menu, an
// override-redirect window of the same process, shows when it opens; elsewhere all is black.
TEST_F(TerminalUnderLogo, AnAppScopeShowsOnlyThatApplicationsWindows) {
  runAsync(
      [&](asio::io_context& io) -> asio::awaitable<void> {
        std::vector<DisplayInfo> displays;
        {
          RandrDisplayManager manager(io.get_executor(), display.name());
          displays = co_await manager.displays();
        }
        CO_ASSERT_TRUE(!displays.empty());
        const DisplayInfo main = displays.front();
        const auto source = X11CaptureSource::make(io.get_executor(), display.name());
        auto frames = std::make_shared<AsyncQueue<CapturedFrame>>();
        const Rect around{0, 0, 900, 900};
        std::uint64_t since = 0;  // frames taken before are left out
        // Frames until one passes `done`, each of them checked by `every`.
        const auto until =
            [&](std::function<bool(const PixelBuffer&)> done,
                std::function<void(const PixelBuffer&)> every) -> asio::awaitable<bool> {
          for (;;) {
            auto next = co_await nextWithin(*frames, 5s);
            if (!next) co_return false;
            if (next->captureTimeNs < since) continue;
            every(*next->pixelBuffer);
            if (done(*next->pixelBuffer)) co_return true;
          }
        };

        source->setScope(scope::region{around});
        auto starting = source->start(
            main, {main.id, {0, 0, 1, 1}, 900, 900},
            [frames](CapturedFrame frame) { frames->push(std::move(frame)); }, [](std::string) {});
        co_await std::move(starting);
        auto cropping = until(
            [&](const PixelBuffer& p) {
              return count(p, kLogo) > 20000 && count(p, kTerminal, kCovered) == 0;
            },
            [](const PixelBuffer&) {});
        CO_ASSERT_TRUE(co_await std::move(cropping));

        source->setScope(scope::app{terminal->pid(), around});
        auto focusing = source->update(main, {main.id, {0, 0, 1, 1}, 900, 900});
        co_await std::move(focusing);
        since = monotonicRawNs();
        CO_ASSERT_TRUE(source->isolatesApps());
        int logoPixels = 0;
        const auto noLogo = [&](const PixelBuffer& p) { logoPixels += count(p, kLogo); };
        auto composing = until(
            [&](const PixelBuffer& p) {
              return p.width == 900 && count(p, kTerminal, kCovered) == 160 * 200 &&
                     count(p, 0, {520, 360, 60, 30}) == 60 * 30 &&  // xlogo beside the xterm
                     count(p, 0, {860, 10, 30, 30}) == 30 * 30;     // the bare root
            },
            noLogo);
        CO_ASSERT_TRUE(co_await std::move(composing));

        // The menu stays while the button is held.
        run("xdotool mousemove 60 120 keydown ctrl mousedown 1");
        auto opening = until([&](const PixelBuffer& p) { return count(p, kMenu) > 20000; }, noLogo);
        const bool opened = co_await std::move(opening);
        run("xdotool mouseup 1 keyup ctrl");
        CO_ASSERT_TRUE(opened);
        EXPECT_EQ(logoPixels, 0);
      },
      30s);
}

// Each window's thumbnail is its frame in its proportions, from its own pixels: the xterm's shows
// no xlogo though xlogo covers a third of it. An id of no window, and a window that went away,
// give nothing.
TEST_F(TerminalUnderLogo, WindowThumbnailsShowEachWindowWholeFromItsOwnPixels) {
  const XcbReply<xcb_get_geometry_reply_t> frame(xcb_get_geometry_reply(
      x.connection, xcb_get_geometry(x.connection, frameOf(terminalWindow)), nullptr));
  ASSERT_TRUE(frame);
  asio::thread_pool pool(1);
  X11WindowThumbnails thumbnails(pool.get_executor(), display.name());
  const auto ask = [&](std::vector<std::uint32_t> ids) {
    std::map<std::uint32_t, Data> made;
    runAsync([&](asio::io_context&) -> asio::awaitable<void> {
      auto asking = thumbnails.thumbnails(std::move(ids), 240);
      made = co_await std::move(asking);
    });
    return made;
  };

  const xcb_window_t nothing = terminalWindow + 0x1000;
  auto made = ask({terminalWindow, logoWindow, nothing});
  ASSERT_TRUE(made.contains(terminalWindow) && made.contains(logoWindow));
  EXPECT_FALSE(made.contains(nothing));
  const JpegPicture terminalPicture = decodeJpeg(made[terminalWindow]);
  const int frameWidth = frame->width + 2 * frame->border_width;
  const int frameHeight = frame->height + 2 * frame->border_width;
  EXPECT_EQ(terminalPicture.width, 240);
  EXPECT_NEAR(terminalPicture.height, 240.0 * frameHeight / frameWidth, 1.0);
  EXPECT_GT(terminalPicture.share(kTerminal), 0.7);
  EXPECT_EQ(terminalPicture.share(kLogo), 0);
  EXPECT_GT(decodeJpeg(made[logoWindow]).share(kLogo), 0.3);

  logo->stop();
  run("timeout 5 sh -c 'while xdotool search --class xlogo; do :; done'");
  made = ask({logoWindow, terminalWindow});
  EXPECT_FALSE(made.contains(logoWindow));
  EXPECT_TRUE(made.contains(terminalWindow));
}

}  // namespace
}  // namespace kelvaron::host
