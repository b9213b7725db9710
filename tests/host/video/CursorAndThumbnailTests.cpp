// The pointer's image and the displays' thumbnails, read from real Xvfb servers: one managed by
// openbox with an xterm on it, whose pointer the tests move, and one whose monitors and pixels they
// set as a user's tools would.

#include <png.h>
#include <poll.h>
#include <turbojpeg.h>
#include <xcb/xfixes.h>

#include <gtest/gtest.h>
#include <asio/co_spawn.hpp>
#include <asio/steady_timer.hpp>
#include <asio/thread_pool.hpp>
#include <bit>
#include <functional>
#include <set>

#include "host/video/RandrDisplayManager.hpp"
#include "host/video/X11Thumbnails.hpp"
#include "host/video/XFixesCursorSource.hpp"
#include "host/x11/X11Connection.hpp"
#include "tests/support/AsyncTest.hpp"
#include "tests/support/ChildProcess.hpp"
#include "tests/support/ScreenPainter.hpp"
#include "tests/support/VirtualDisplay.hpp"

namespace kelvaron::host {
namespace {

using namespace test;

// The cursor image as the X server reports it: premultiplied ARGB words.
struct ServerCursor {
  int width = 0, height = 0, xhot = 0, yhot = 0;
  std::vector<std::uint32_t> argb;
};

// The test's own client of the server: it moves the pointer, shows windows with cursors of its
// own, holds the server, and reads the cursor image the way any XFixes client would.
class PointerTool {
 public:
  explicit PointerTool(const std::string& displayName)
      : c_(xcb_connect(displayName.c_str(), nullptr)),
        root_(xcb_setup_roots_iterator(xcb_get_setup(c_)).data->root) {
    std::free(xcb_xfixes_query_version_reply(c_, xcb_xfixes_query_version(c_, 5, 0), nullptr));
  }
  ~PointerTool() { xcb_disconnect(c_); }
  PointerTool(const PointerTool&) = delete;
  PointerTool& operator=(const PointerTool&) = delete;

  void moveTo(std::int16_t x, std::int16_t y) {
    xcb_warp_pointer(c_, XCB_NONE, root_, 0, 0, 0, 0, x, y);
    sync();
  }

  // A frameless 100x100 window whose cursor is a red rectangle, or has no visible pixel at all,
  // as a video player hides the pointer.
  void showWindowWithCursor(std::int16_t x, std::int16_t y, std::uint16_t width,
                            std::uint16_t height, std::uint16_t hotspotX, std::uint16_t hotspotY,
                            bool drawn) {
    const xcb_pixmap_t bits = xcb_generate_id(c_);
    xcb_create_pixmap(c_, 1, bits, root_, width, height);
    const xcb_gcontext_t gc = xcb_generate_id(c_);
    const std::uint32_t value = drawn ? 1 : 0;
    xcb_create_gc(c_, gc, bits, XCB_GC_FOREGROUND, &value);
    const xcb_rectangle_t all{0, 0, width, height};
    xcb_poly_fill_rectangle(c_, bits, gc, 1, &all);
    const xcb_cursor_t cursor = xcb_generate_id(c_);
    xcb_create_cursor(c_, cursor, bits, bits, 0xffff, 0, 0, 0, 0, 0, hotspotX, hotspotY);
    const xcb_window_t window = xcb_generate_id(c_);
    const std::uint32_t values[] = {1, cursor};  // override-redirect: no frame
    xcb_create_window(c_, XCB_COPY_FROM_PARENT, window, root_, x, y, 100, 100, 0,
                      XCB_WINDOW_CLASS_INPUT_OUTPUT, XCB_COPY_FROM_PARENT,
                      XCB_CW_OVERRIDE_REDIRECT | XCB_CW_CURSOR, values);
    xcb_map_window(c_, window);
    sync();
  }

  ServerCursor cursor() {
    const XcbReply<xcb_xfixes_get_cursor_image_reply_t> reply(
        xcb_xfixes_get_cursor_image_reply(c_, xcb_xfixes_get_cursor_image(c_), nullptr));
    if (!reply) return {};
    const std::uint32_t* words = xcb_xfixes_get_cursor_image_cursor_image(reply.get());
    return {reply->width, reply->height, reply->xhot, reply->yhot,
            std::vector<std::uint32_t>(words, words + reply->width * reply->height)};
  }

  // While the server is held it answers no other client: a poll that asked it anything would wait.
  void holdServer(bool hold) {
    if (hold) xcb_grab_server(c_);
    if (!hold) xcb_ungrab_server(c_);
    sync();
  }

  // Returns once a window manager manages a window, false after ten seconds.
  bool waitForWindowManager() {
    const XcbReply<xcb_intern_atom_reply_t> atom(
        xcb_intern_atom_reply(c_, xcb_intern_atom(c_, 0, 16, "_NET_CLIENT_LIST"), nullptr));
    const std::uint32_t mask = XCB_EVENT_MASK_PROPERTY_CHANGE;
    xcb_change_window_attributes(c_, root_, XCB_CW_EVENT_MASK, &mask);
    for (const auto end = std::chrono::steady_clock::now() + 10s;
         std::chrono::steady_clock::now() < end;) {
      const XcbReply<xcb_get_property_reply_t> list(xcb_get_property_reply(
          c_, xcb_get_property(c_, 0, root_, atom->atom, XCB_ATOM_WINDOW, 0, 1), nullptr));
      if (list && xcb_get_property_value_length(list.get()) == 4) return true;
      pollfd change{xcb_get_file_descriptor(c_), POLLIN, 0};
      ::poll(&change, 1, 100);
      while (xcb_generic_event_t* event = xcb_poll_for_event(c_)) std::free(event);
    }
    return false;
  }

 private:
  void sync() { std::free(xcb_get_input_focus_reply(c_, xcb_get_input_focus(c_), nullptr)); }

  xcb_connection_t* c_;
  xcb_window_t root_;
};

// A screen of 1280x720 with an xterm at (100, 100), managed by openbox.
class ManagedDesktop {
 public:
  ManagedDesktop() {
    if (!display_.available()) {
      reason_ = display_.skipReason();
      return;
    }
    tool_ = std::make_unique<PointerTool>(display_.name());
    // The xterm first: one mapped while openbox starts up may wait five seconds for its map.
    terminal_ = std::make_unique<ChildProcess>(
        std::vector<std::string>{"env", "DISPLAY=" + display_.name(), "xterm", "-geometry",
                                 "80x24+100+100"},
        logs_ / "xterm.log");
    const auto found = xdotool({"search", "--sync", "--onlyvisible", "--class", "xterm"});
    terminalWindow_ = found.output.substr(0, found.output.find('\n'));
    if (!found.succeeded() || terminalWindow_.empty()) {
      reason_ = "xterm did not show: " + found.output;
      return;
    }
    windowManager_ = std::make_unique<ChildProcess>(
        std::vector<std::string>{"env", "DISPLAY=" + display_.name(), "openbox", "--sm-disable"},
        logs_ / "openbox.log");
    if (!tool_->waitForWindowManager()) reason_ = "openbox did not manage the xterm";
  }

  const std::string& skipReason() const { return reason_; }
  const std::string& name() const { return display_.name(); }
  PointerTool& tool() { return *tool_; }

  // Into the xterm's text area, where it shows its text cursor.
  void movePointerIntoTerminal() {
    const auto moved = xdotool({"mousemove", "--sync", "--window", terminalWindow_, "60", "60"});
    EXPECT_TRUE(moved.succeeded()) << moved.output;
  }

 private:
  CommandResult xdotool(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(),
                     {"env", "DISPLAY=" + display_.name(), "timeout", "10", "xdotool"});
    return runCommand(arguments);
  }

  TempDirectory logs_;
  VirtualDisplay display_{1280, 720};
  std::unique_ptr<PointerTool> tool_;
  std::unique_ptr<ChildProcess> terminal_, windowManager_;
  std::string terminalWindow_, reason_;
};

// The PNG is the server's image at twice its size in points, each pixel the straight-alpha form
// of the server's premultiplied one, with IHDR, IDAT and IEND only; the hot spot is in points. The
// token is FNV-1a over the PNG's pixels, then the hot spot and the size in points as doubles.
void expectShapeOf(const ServerCursor& server, const CursorPoll& poll, int pointWidth,
                   int pointHeight) {
  ASSERT_TRUE(server.width > 0 && poll.shape);
  const Data& file = poll.shape->png;
  std::set<std::string> chunks;  // after the signature: length, type, data, CRC
  for (std::size_t at = 8; at + 8 <= file.size();) {
    chunks.emplace(reinterpret_cast<const char*>(&file[at + 4]), 4);
    at += 12 + (std::size_t{file[at]} << 24 | std::size_t{file[at + 1]} << 16 |
                std::size_t{file[at + 2]} << 8 | file[at + 3]);
  }
  EXPECT_EQ(chunks, (std::set<std::string>{"IHDR", "IDAT", "IEND"}));
  png_image png{};
  png.version = PNG_IMAGE_VERSION;
  ASSERT_TRUE(png_image_begin_read_from_memory(&png, file.data(), file.size()));
  png.format = PNG_FORMAT_RGBA;
  std::vector<std::uint8_t> rgba(PNG_IMAGE_SIZE(png));
  ASSERT_TRUE(png_image_finish_read(&png, nullptr, rgba.data(), 0, nullptr));
  const int width = int(png.width), height = int(png.height);
  ASSERT_EQ(width, 2 * pointWidth);
  ASSERT_EQ(height, 2 * pointHeight);
  const CursorShapeData& shape = *poll.shape;
  EXPECT_FLOAT_EQ(shape.hotspotX, float(server.xhot * pointWidth) / float(server.width));
  EXPECT_FLOAT_EQ(shape.hotspotY, float(server.yhot * pointHeight) / float(server.height));
  EXPECT_EQ(shape.pointSize, pointWidth);

  int mismatches = 0;
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const std::uint8_t* p = &rgba[std::size_t(y * width + x) * 4];
      const auto times = [a = p[3]](std::uint8_t c) { return std::uint32_t((c * a + 127) / 255); };
      const std::uint32_t argb =
          std::uint32_t(p[3]) << 24 | times(p[0]) << 16 | times(p[1]) << 8 | times(p[2]);
      const int serverX = x * server.width / width, serverY = y * server.height / height;
      const std::uint32_t expected = server.argb[std::size_t(serverY * server.width + serverX)];
      const bool clear = (p[0] | p[1] | p[2] | p[3]) == 0;
      mismatches += argb != expected || (expected == 0 && !clear);
    }
  }
  EXPECT_EQ(mismatches, 0);

  std::uint64_t token = 0xcbf29ce484222325;
  const auto step = [&token](std::uint64_t value) { token = (token ^ value) * 0x100000001b3; };
  for (const std::uint8_t byte : rgba) step(byte);
  for (const double value :
       {double(shape.hotspotX), double(shape.hotspotY), double(pointWidth), double(pointHeight)}) {
    step(std::bit_cast<std::uint64_t>(value));
  }
  EXPECT_EQ(poll.token, token);
}

asio::awaitable<std::optional<CursorPoll>> pollCursor(XFixesCursorSource& source,
                                                      std::optional<std::uint64_t> token) {
  auto polling = source.poll(token);
  co_return co_await std::move(polling);
}

// The root's pointer (openbox's arrow), the xterm's text cursor, a cursor far too large and a
// hidden pointer each come with their own token and a PNG of the server's image (the large one
// brought down to 256 points); only the hidden one is not visible. The same image again, asked for
// with its token, is answered while the server is held, so without asking it anything; a change of
// the pointer is told by the server, and an image seen before comes back with the token it had.
TEST(XFixesCursorSource, SendsEachPointerImageOnceAndAsksTheServerOnlyAfterAChange) {
  ManagedDesktop desktop;
  if (!desktop.skipReason().empty()) GTEST_SKIP() << desktop.skipReason();
  PointerTool& tool = desktop.tool();
  tool.showWindowWithCursor(700, 20, 600, 300, 300, 150, true);
  tool.showWindowWithCursor(1000, 50, 1, 1, 0, 0, false);
  asio::thread_pool pool(1);
  XFixesCursorSource source(pool.get_executor(), desktop.name());

  struct Place {
    const char* name;
    std::function<void()> moveThere;
    bool visible;
    int pointWidth = 0, pointHeight = 0;  // 0: the server's
  };
  const Place places[] = {
      {"root", [&] { tool.moveTo(1200, 650); }, true},
      {"xterm", [&] { desktop.movePointerIntoTerminal(); }, true},
      {"large", [&] { tool.moveTo(750, 70); }, true, 256, 128},
      {"hidden", [&] { tool.moveTo(1050, 100); }, false},
  };
  std::vector<CursorPoll> seen;
  runAsync([&](asio::io_context& io) -> asio::awaitable<void> {
    for (const Place& place : places) {
      SCOPED_TRACE(place.name);
      place.moveThere();
      const auto poll = co_await pollCursor(source, std::nullopt);
      CO_ASSERT_TRUE(poll && poll->shape);
      EXPECT_EQ(poll->visible, place.visible);
      const ServerCursor server = tool.cursor();
      expectShapeOf(server, *poll, place.pointWidth ? place.pointWidth : server.width,
                    place.pointHeight ? place.pointHeight : server.height);
      for (const CursorPoll& before : seen) EXPECT_NE(poll->token, before.token);
      seen.push_back(*poll);
    }

    const std::uint64_t hidden = seen.back().token;
    auto answers = std::make_shared<AsyncQueue<std::optional<CursorPoll>>>();
    tool.holdServer(true);
    asio::co_spawn(io, pollCursor(source, hidden),
                   [answers](std::exception_ptr, std::optional<CursorPoll> poll) {
                     answers->push(std::move(poll));
                   });
    const auto whileHeld = co_await nextWithin(*answers, 5s);
    tool.holdServer(false);
    CO_ASSERT_TRUE(whileHeld && *whileHeld);
    const CursorPoll& same = **whileHeld;
    CO_ASSERT_TRUE(same.token == hidden && !same.visible && !same.shape);

    // Until the server's notification of the change has come.
    tool.moveTo(1200, 650);
    std::optional<CursorPoll> back;
    asio::steady_timer pause(io);
    for (const auto end = std::chrono::steady_clock::now() + 5s;
         (back = co_await pollCursor(source, hidden)) && back->token == hidden &&
         std::chrono::steady_clock::now() < end;) {
      pause.expires_after(10ms);
      co_await pause.async_wait(asio::use_awaitable);
    }
    CO_ASSERT_TRUE(back && back->token == seen[0].token && back->shape == seen[0].shape);
  });
}

// A server that goes away gives nothing, at once and afterwards, and so does none at all.
TEST(XFixesCursorSource, GivesNothingWithoutItsServer) {
  VirtualDisplay display;
  SKIP_WITHOUT_DISPLAY(display);
  asio::thread_pool pool(1);
  XFixesCursorSource source(pool.get_executor(), display.name());
  XFixesCursorSource nowhere(pool.get_executor(), ":987");
  runAsync([&](asio::io_context&) -> asio::awaitable<void> {
    const auto first = co_await pollCursor(source, std::nullopt);
    CO_ASSERT_TRUE(first && first->shape && first->visible);
    display.stopServer();
    const auto gone = co_await pollCursor(source, first->token);
    const auto stillGone = co_await pollCursor(source, std::nullopt);
    const auto none = co_await pollCursor(nowhere, std::nullopt);
    CO_ASSERT_TRUE(!gone && !stillGone && !none);
  });
}

// A JPEG decoded to R, G, B bytes; empty when it is none.
struct Picture {
  int width = 0, height = 0;
  std::vector<std::uint8_t> rgb;
  // Whether the pixel at (x, y) is `colour` (0xRRGGBB), within JPEG's error.
  bool is(int x, int y, std::uint32_t colour) const {
    const std::uint8_t* p = &rgb[std::size_t(y * width + x) * 3];
    for (int i = 0; i < 3; ++i) {
      if (std::abs(int(p[i]) - int(colour >> (16 - 8 * i) & 0xff)) > 24) return false;
    }
    return true;
  }
};

Picture decodeJpeg(const Data& jpeg) {
  Picture picture;
  tjhandle decoder = tjInitDecompress();
  int subsampling = 0, colourspace = 0;
  if (tjDecompressHeader3(decoder, jpeg.data(), jpeg.size(), &picture.width, &picture.height,
                          &subsampling, &colourspace) == 0) {
    picture.rgb.resize(std::size_t(picture.width) * std::size_t(picture.height) * 3);
    if (tjDecompress2(decoder, jpeg.data(), jpeg.size(), picture.rgb.data(), picture.width, 0,
                      picture.height, TJPF_RGB, 0) != 0) {
      picture = {};
    }
  }
  tjDestroy(decoder);
  return picture;
}

constexpr std::uint32_t kRed = 0xff0000, kBlue = 0x0000ff, kBlack = 0;

// Each display's thumbnail is a JPEG as wide as asked but never wider than the display, in its
// proportions, showing what is there; the part of a monitor beyond the screen is black. An unknown
// display, a width of nothing and a server gone give nothing.
TEST(X11Thumbnails, ShowsEachDisplayInItsProportions) {
  VirtualDisplay display{1280, 720};
  SKIP_WITHOUT_DISPLAY(display);
  ScreenPainter painter(display.name());
  painter.fill(kRed, 0, 0, 640, 720);
  painter.fill(kBlue, 640, 0, 640, 720);
  ASSERT_TRUE(painter.setMonitor("TOVU-RIGHT", 640, 0, 640, 720, false));
  ASSERT_TRUE(painter.setMonitor("TOVU-OVER", 960, 360, 640, 720, false));
  asio::thread_pool pool(1);
  X11Thumbnails thumbnails(pool.get_executor(), display.name());
  RandrDisplayManager manager(pool.get_executor(), display.name());

  runAsync([&](asio::io_context&) -> asio::awaitable<void> {
    const auto displays = co_await manager.displays();
    CO_ASSERT_TRUE(displays.size() == 3 && displays[0].isMain);
    const auto id = [&](const std::string& name) {
      const auto found = std::ranges::find(displays, name, &DisplayInfo::name);
      return found == displays.end() ? 0 : found->id;
    };
    struct Case {
      std::uint32_t displayID;
      int maxWidth, width, height;
      std::vector<std::tuple<int, int, std::uint32_t>> colours;  // at points of the thumbnail
    };
    const Case cases[] = {
        {displays[0].id, 480, 480, 270, {{100, 135, kRed}, {380, 135, kBlue}}},
        {id("TOVU-RIGHT"), 480, 480, 540, {{10, 10, kBlue}, {470, 530, kBlue}}},
        {id("TOVU-RIGHT"), 1000, 640, 720, {{320, 360, kBlue}}},
        {id("TOVU-OVER"),
         480,
         480,
         540,
         {{100, 100, kBlue}, {360, 100, kBlack}, {100, 400, kBlack}}},
    };
    for (const Case& c : cases) {
      SCOPED_TRACE(testing::Message() << c.displayID << " at " << c.maxWidth);
      auto asking = thumbnails.thumbnail(c.displayID, c.maxWidth);
      const auto jpeg = co_await std::move(asking);
      CO_ASSERT_TRUE(jpeg.has_value());
      const Picture picture = decodeJpeg(*jpeg);
      EXPECT_TRUE(picture.width == c.width && picture.height == c.height)
          << picture.width << "x" << picture.height;
      if (picture.width != c.width || picture.height != c.height) continue;
      for (const auto& [x, y, colour] : c.colours) {
        EXPECT_TRUE(picture.is(x, y, colour)) << x << "," << y;
      }
    }

    std::uint32_t unknown = 1;
    while (std::ranges::find(displays, unknown, &DisplayInfo::id) != displays.end()) ++unknown;
    auto askingUnknown = thumbnails.thumbnail(unknown, 480);
    const auto none = co_await std::move(askingUnknown);
    auto askingNoWidth = thumbnails.thumbnail(displays[0].id, 0);
    const auto noWidth = co_await std::move(askingNoWidth);
    display.stopServer();
    auto askingGone = thumbnails.thumbnail(displays[0].id, 480);
    const auto gone = co_await std::move(askingGone);
    CO_ASSERT_TRUE(!none && !noWidth && !gone);
  });
}

}  // namespace
}  // namespace kelvaron::host
