// The pointer's image and the displays' thumbnails, read from real Xvfb servers.

#include <png.h>
#include <xcb/xfixes.h>

#include <gtest/gtest.h>
#include <asio/thread_pool.hpp>
#include <bit>
#include <map>

#include "host/video/RandrDisplayManager.hpp"
#include "host/video/X11Thumbnails.hpp"
#include "host/video/XFixesCursorSource.hpp"
#include "host/x11/X11Connection.hpp"
#include "tests/support/AsyncTest.hpp"
#include "tests/support/JpegPicture.hpp"
#include "tests/support/ScreenPainter.hpp"
#include "tests/support/VirtualDisplay.hpp"

namespace kelvaron::host {
namespace {

using namespace test;

using ServerCursor = XcbReply<xcb_xfixes_get_cursor_image_reply_t>;  // premultiplied ARGB

// The test's own X client, doing what a user's tools and any XFixes client would.
class PointerTool {
 public:
  explicit PointerTool(const std::string& displayName)
      : connection_(xcb_connect(displayName.c_str(), nullptr), xcb_disconnect),
        root_(xcb_setup_roots_iterator(xcb_get_setup(c_)).data->root) {
    std::free(xcb_xfixes_query_version_reply(c_, xcb_xfixes_query_version(c_, 5, 0), nullptr));
  }

  void moveTo(std::int16_t x, std::int16_t y) {
    xcb_warp_pointer(c_, XCB_NONE, root_, 0, 0, 0, 0, x, y);
    sync();
  }

  // A frameless 100x100 window whose cursor, hot spot in its middle, is a red rectangle, or has no
  // visible pixel at all, as a video player hides the pointer.
  void showWindowWithCursor(std::int16_t x, std::int16_t y, std::uint16_t width,
                            std::uint16_t height, bool drawn) {
    const xcb_pixmap_t bits = xcb_generate_id(c_);
    xcb_create_pixmap(c_, 1, bits, root_, width, height);
    const xcb_gcontext_t gc = xcb_generate_id(c_);
    const std::uint32_t value = drawn ? 1 : 0;
    xcb_create_gc(c_, gc, bits, XCB_GC_FOREGROUND, &value);
    const xcb_rectangle_t all{0, 0, width, height};
    xcb_poly_fill_rectangle(c_, bits, gc, 1, &all);
    const xcb_cursor_t cursor = xcb_generate_id(c_);
    xcb_create_cursor(c_, cursor, bits, bits, 0xffff, 0, 0, 0, 0, 0, width / 2, height / 2);
    const xcb_window_t window = xcb_generate_id(c_);
    const std::uint32_t values[] = {1, cursor};  // override-redirect: no frame
    xcb_create_window(c_, XCB_COPY_FROM_PARENT, window, root_, x, y, 100, 100, 0,
                      XCB_WINDOW_CLASS_INPUT_OUTPUT, XCB_COPY_FROM_PARENT,
                      XCB_CW_OVERRIDE_REDIRECT | XCB_CW_CURSOR, values);
    xcb_map_window(c_, window);
    sync();
  }

  ServerCursor cursor() {
    return ServerCursor(
        xcb_xfixes_get_cursor_image_reply(c_, xcb_xfixes_get_cursor_image(c_), nullptr));
  }

  // While the server is held it answers no other client: a poll that asked it anything would wait.
  void holdServer(bool hold) {
    hold ? xcb_grab_server(c_) : xcb_ungrab_server(c_);
    sync();
  }

 private:
  void sync() { std::free(xcb_get_input_focus_reply(c_, xcb_get_input_focus(c_), nullptr)); }

  const std::unique_ptr<xcb_connection_t, void (*)(xcb_connection_t*)> connection_;
  xcb_connection_t* const c_ = connection_.get();
  const xcb_window_t root_;
};

// The PNG is the server's image at twice its size in points, each pixel the straight-alpha form of
// the server's premultiplied one, no chunk before the pixels but IHDR; the hot spot is in points.
// The token is FNV-1a over the PNG's pixels, then the hot spot and the size in points as doubles.
void expectShapeOf(const ServerCursor& server, const CursorPoll& poll, int pointWidth,
                   int pointHeight) {
  const CursorShapeData& shape = *poll.shape;
  png_image png{};
  png.version = PNG_IMAGE_VERSION;
  ASSERT_TRUE(png_image_begin_read_from_memory(&png, shape.png.data(), shape.png.size()));
  png.format = PNG_FORMAT_RGBA;
  std::vector<std::uint8_t> rgba(PNG_IMAGE_SIZE(png));
  ASSERT_TRUE(png_image_finish_read(&png, nullptr, rgba.data(), 0, nullptr));
  EXPECT_EQ(std::string(&shape.png[37], &shape.png[41]), "IDAT");  // past signature and IHDR
  const int width = int(png.width), height = int(png.height);
  ASSERT_TRUE(width == 2 * pointWidth && height == 2 * pointHeight) << width << "x" << height;
  EXPECT_FLOAT_EQ(shape.hotspotX, float(server->xhot * pointWidth) / float(server->width));
  EXPECT_FLOAT_EQ(shape.hotspotY, float(server->yhot * pointHeight) / float(server->height));
  EXPECT_EQ(shape.pointSize, pointWidth);

  const std::uint32_t* serverPixels = xcb_xfixes_get_cursor_image_cursor_image(server.get());
  int mismatches = 0;
  for (int i = 0; i < width * height; ++i) {
    const std::uint8_t* p = &rgba[std::size_t(i) * 4];
    const auto times = [a = p[3]](std::uint8_t c) { return std::uint32_t((c * a + 127) / 255); };
    const std::uint32_t argb =
        std::uint32_t(p[3]) << 24 | times(p[0]) << 16 | times(p[1]) << 8 | times(p[2]);
    const int serverX = i % width * server->width / width;
    const int serverY = i / width * server->height / height;
    const std::uint32_t expected = serverPixels[serverY * server->width + serverX];
    mismatches += argb != expected || (expected == 0 && (p[0] | p[1] | p[2]) != 0);
  }
  EXPECT_EQ(mismatches, 0);

  std::uint64_t token = 0xcbf29ce484222325;
  const auto step = [&token](std::uint64_t value) { token = (token ^ value) * 0x100000001b3; };
  for (const std::uint8_t byte : rgba) step(byte);
  for (const double value : {shape.hotspotX, shape.hotspotY, float(pointWidth), float(pointHeight)})
    step(std::bit_cast<std::uint64_t>(value));
  EXPECT_EQ(poll.token, token);
}

asio::awaitable<std::optional<CursorPoll>> pollCursor(XFixesCursorSource& source,
                                                      std::optional<std::uint64_t> token) {
  auto polling = source.poll(token);
  co_return co_await std::move(polling);
}

// The root's pointer, a cursor far too large (brought down to 256 points) and a hidden one come
// with their own tokens and PNGs of the server's images. The same image, asked for with its token,
// is answered while the server is held; a change is told by the server, and an image seen before
// comes back with its token. Without a server, even a lost one, a poll gives nothing.
TEST(XFixesCursorSource, SendsEachPointerImageOnceAndAsksTheServerOnlyAfterAChange) {
  VirtualDisplay display;
  SKIP_WITHOUT_DISPLAY(display);
  PointerTool tool(display.name());
  tool.showWindowWithCursor(700, 20, 600, 300, true);
  tool.showWindowWithCursor(1000, 50, 1, 1, false);
  asio::thread_pool pool(1);
  XFixesCursorSource source(pool.get_executor(), display.name());
  XFixesCursorSource nowhere(pool.get_executor(), ":987");

  struct Place {
    const char* name;
    std::int16_t x, y;
    bool visible;
    int pointWidth = 0, pointHeight = 0;  // 0: the server's
  };
  const Place places[] = {
      {"root", 1200, 650, true}, {"large", 750, 70, true, 256, 128}, {"hidden", 1050, 100, false}};
  std::vector<CursorPoll> seen;
  runAsync([&](asio::io_context& io) -> asio::awaitable<void> {
    for (const Place& place : places) {
      SCOPED_TRACE(place.name);
      tool.moveTo(place.x, place.y);
      const auto poll = co_await pollCursor(source, std::nullopt);
      const ServerCursor server = tool.cursor();
      CO_ASSERT_TRUE(poll && poll->shape && server);
      EXPECT_EQ(poll->visible, place.visible);
      expectShapeOf(server, *poll, place.pointWidth ? place.pointWidth : server->width,
                    place.pointHeight ? place.pointHeight : server->height);
      for (const CursorPoll& before : seen) EXPECT_NE(poll->token, before.token);
      seen.push_back(*poll);
    }

    const std::uint64_t hidden = seen.back().token;
    auto answers = std::make_shared<AsyncQueue<std::optional<CursorPoll>>>();
    tool.holdServer(true);
    asio::co_spawn(io, pollCursor(source, hidden),
                   [answers](std::exception_ptr, auto poll) { answers->push(std::move(poll)); });
    const auto whileHeld = co_await nextWithin(*answers, 5s);
    tool.holdServer(false);
    const auto same = whileHeld.value_or(std::nullopt);
    CO_ASSERT_TRUE(same && same->token == hidden && !same->visible && !same->shape);

    // Until the server's notification of the change has come; runAsync's deadline bounds the wait.
    tool.moveTo(1200, 650);
    std::optional<CursorPoll> back;
    asio::steady_timer pause(io);
    while ((back = co_await pollCursor(source, hidden)) && back->token == hidden) {
      pause.expires_after(10ms);
      co_await pause.async_wait(asio::use_awaitable);
    }
    CO_ASSERT_TRUE(back && back->token == seen[0].token && back->shape == seen[0].shape);

    display.stopServer();
    const auto gone = co_await pollCursor(source, seen[0].token);
    const auto stillGone = co_await pollCursor(source, std::nullopt);
    const auto none = co_await pollCursor(nowhere, std::nullopt);
    CO_ASSERT_TRUE(!gone && !stillGone && !none);
  });
}

constexpr std::uint32_t kRed = 0xff0000, kBlue = 0x0000ff, kBlack = 0;

// A display's thumbnail is a JPEG as wide as asked, never wider than the display, in its
// proportions (a monitor's part beyond the screen black); an unknown display, no width or no
// server: nothing.
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
    std::map<std::string, std::uint32_t> id;
    for (const DisplayInfo& each : displays) id[each.name] = each.id;
    const std::uint32_t main = displays[0].id, right = id["TOVU-RIGHT"], over = id["TOVU-OVER"];
    const std::uint32_t unknown = std::ranges::max(displays, {}, &DisplayInfo::id).id + 1;
    struct Case {
      std::uint32_t displayID;
      int maxWidth, width, height;                               // width 0: no thumbnail
      std::vector<std::tuple<int, int, std::uint32_t>> colours;  // at points of the thumbnail
    };
    const Case cases[] = {
        {main, 480, 480, 270, {{100, 135, kRed}, {380, 135, kBlue}}},
        {right, 480, 480, 540, {{10, 10, kBlue}, {470, 530, kBlue}}},
        {right, 1000, 640, 720, {{320, 360, kBlue}}},
        {over, 480, 480, 540, {{100, 100, kBlue}, {360, 100, kBlack}, {100, 400, kBlack}}},
        {unknown, 480, 0, 0, {}},
        {main, 0, 0, 0, {}},
    };
    for (const Case& c : cases) {
      SCOPED_TRACE(testing::Message() << c.displayID << " at " << c.maxWidth);
      auto asking = thumbnails.thumbnail(c.displayID, c.maxWidth);
      const auto jpeg = co_await std::move(asking);
      EXPECT_EQ(jpeg.has_value(), c.width > 0);
      if (!jpeg || c.width == 0) continue;
      const JpegPicture picture = decodeJpeg(*jpeg);
      EXPECT_EQ(std::pair(picture.width, picture.height), std::pair(c.width, c.height));
      for (const auto& [x, y, rgb] : c.colours) EXPECT_TRUE(picture.is(x, y, rgb)) << x << "," << y;
    }

    display.stopServer();
    auto askingGone = thumbnails.thumbnail(main, 480);
    const auto gone = co_await std::move(askingGone);
    CO_ASSERT_TRUE(!gone);
  });
}

}  // namespace
}  // namespace kelvaron::host
