#include "host/video/XFixesCursorSource.hpp"

#include <xcb/xfixes.h>

#include <algorithm>
#include <bit>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <mutex>
#include <stdexcept>
#include <utility>
#include <vector>

#include "host/video/PngImage.hpp"
#include "host/x11/X11Connection.hpp"
#include "host/x11/X11ConnectionKeeper.hpp"
#include "kit/log/Logger.hpp"

namespace kelvaron::host {

namespace {

// A cursor larger than this many points on a side is shown at this size, in its proportions: the
// device needs no more to show a pointer, and the PNG stays small (at most 512x512 pixels) whatever
// an X client made its cursor. Pointers are 16 to 64 points; large accessibility themes stay well
// below this.
constexpr int kMaxSidePoints = 256;

// The cursor's image at twice its size in points, straight-alpha R, G, B, A.
struct CursorBitmap {
  int width = 0, height = 0;  // in pixels
  std::vector<std::uint8_t> rgba;
  double hotspotX = 0, hotspotY = 0;  // in points from the top left
  double pointWidth = 0, pointHeight = 0;
  bool visible = false;  // some pixel is not fully transparent
};

// Straight-alpha R, G, B, A of a premultiplied ARGB word.
void unpremultiply(std::uint32_t argb, std::uint8_t* rgba) {
  const unsigned a = argb >> 24;
  if (a == 0) {
    std::fill_n(rgba, 4, std::uint8_t{0});
    return;
  }
  const auto channel = [a](unsigned value) {
    return std::uint8_t(std::min(255u, (value * 255 + a / 2) / a));
  };
  rgba[0] = channel(argb >> 16 & 0xff);
  rgba[1] = channel(argb >> 8 & 0xff);
  rgba[2] = channel(argb & 0xff);
  rgba[3] = std::uint8_t(a);
}

// Each pixel of the output the mean of the source pixels whose centres fall in it, or of the one
// under it, per premultiplied channel, where averaging is right. At twice the size each pixel is
// doubled exactly, so the edges stay as sharp as the theme drew them; flat areas stay exactly
// what they were (libyuv's filters lose a bit or two there, and an opaque cursor would not stay
// opaque).
void resample(const std::uint32_t* from, int width, int height, std::uint32_t* to, int toWidth,
              int toHeight) {
  const auto span = [](int i, int size, int toSize) {
    const int first = int(std::int64_t(i) * size / toSize);
    return std::pair(first, std::max(first + 1, int(std::int64_t(i + 1) * size / toSize)));
  };
  for (int y = 0; y < toHeight; ++y) {
    const auto [top, bottom] = span(y, height, toHeight);
    for (int x = 0; x < toWidth; ++x) {
      const auto [left, right] = span(x, width, toWidth);
      std::uint64_t sums[4] = {};
      for (int sy = top; sy < bottom; ++sy) {
        for (int sx = left; sx < right; ++sx) {
          const std::uint32_t pixel = from[std::size_t(sy) * std::size_t(width) + std::size_t(sx)];
          for (int channel = 0; channel < 4; ++channel) {
            sums[channel] += pixel >> (8 * channel) & 0xff;
          }
        }
      }
      const std::uint64_t count = std::uint64_t(bottom - top) * std::uint64_t(right - left);
      std::uint32_t mean = 0;
      for (int channel = 0; channel < 4; ++channel) {
        mean |= std::uint32_t((sums[channel] + count / 2) / count) << (8 * channel);
      }
      to[std::size_t(y) * std::size_t(toWidth) + std::size_t(x)] = mean;
    }
  }
}

// Nothing for an image without pixels.
std::optional<CursorBitmap> cursorBitmap(const xcb_xfixes_get_cursor_image_reply_t& reply,
                                         const std::uint32_t* pixels) {
  const int width = reply.width, height = reply.height;
  if (width < 1 || height < 1) return std::nullopt;
  // Points are pixels here (see the class); the bound keeps the proportions.
  const double scale = std::min(1.0, double(kMaxSidePoints) / std::max(width, height));
  CursorBitmap bitmap;
  const int pointWidth = std::max(1, int(width * scale));
  const int pointHeight = std::max(1, int(height * scale));
  bitmap.pointWidth = pointWidth;
  bitmap.pointHeight = pointHeight;
  bitmap.hotspotX = reply.xhot * double(pointWidth) / width;
  bitmap.hotspotY = reply.yhot * double(pointHeight) / height;
  bitmap.width = 2 * pointWidth;
  bitmap.height = 2 * pointHeight;

  std::vector<std::uint32_t> doubled(std::size_t(bitmap.width) * std::size_t(bitmap.height));
  resample(pixels, width, height, doubled.data(), bitmap.width, bitmap.height);
  bitmap.rgba.resize(doubled.size() * 4);
  for (std::size_t i = 0; i < doubled.size(); ++i) {
    unpremultiply(doubled[i], &bitmap.rgba[i * 4]);
    bitmap.visible = bitmap.visible || bitmap.rgba[i * 4 + 3] != 0;
  }
  return bitmap;
}

// FNV-1a over the bitmap's bytes, then one step each for the hot spot and the size in points,
// each the bit pattern of a double.
std::uint64_t cursorToken(const CursorBitmap& bitmap) {
  std::uint64_t hash = fnv1a(bitmap.rgba);
  for (const double value :
       {bitmap.hotspotX, bitmap.hotspotY, bitmap.pointWidth, bitmap.pointHeight}) {
    hash = fnv1aStep(hash, std::bit_cast<std::uint64_t>(value));
  }
  return hash;
}

}  // namespace

// Everything lives on `strand`; the connection's own strand is made on it, so its events are
// handled in step with the polls.
struct XFixesCursorSource::Core : std::enable_shared_from_this<Core> {
  Core(const Executor& executor, std::string name)
      : strand(makeStrand(executor)),
        link(strand, std::move(name), Logger("io.dovka.tovu.host", "cursor"), "No cursor image",
             [this] { forget(); }) {}

  std::optional<CursorPoll> poll(std::optional<std::uint64_t> token) {
    X11Connection* const connection = link.ensure([this](X11Connection& fresh) { ready(fresh); });
    if (!connection) return std::nullopt;
    // The notifications that came since the last poll, read without a round trip.
    connection->dispatchQueuedEvents();
    if (connection->broken()) return link.lose();
    xcb_connection_t* const c = connection->get();
    const bool unchanged = last && (!shownSerial || *shownSerial == last->serial);
    if (unchanged && token == last->token) {
      settle();
      return CursorPoll{last->token, last->visible, {}};
    }

    xcb_generic_error_t* error = nullptr;
    const XcbReply<xcb_xfixes_get_cursor_image_reply_t> reply(
        xcb_xfixes_get_cursor_image_reply(c, xcb_xfixes_get_cursor_image(c), &error));
    const XcbReply<xcb_generic_error_t> refused(error);
    // Notifications that came while the reply was read; those before it are in the image.
    connection->dispatchQueuedEvents();
    if (!reply) {
      if (connection->broken()) return link.lose();
      return fail("the X server refused the cursor's image (X error " +
                  std::to_string(refused ? refused->error_code : 0) + ")");
    }
    // The reply's own length bounds what is read of it, whatever its sizes say.
    if (std::size_t{reply->length} < std::size_t{reply->width} * reply->height) {
      return fail("the X server's cursor image is shorter than its size");
    }
    const auto bitmap = cursorBitmap(*reply, xcb_xfixes_get_cursor_image_cursor_image(reply.get()));
    if (!bitmap) return fail("the X server's cursor image has no pixels");
    const std::uint64_t imageToken = cursorToken(*bitmap);
    last = Seen{reply->cursor_serial, imageToken, bitmap->visible};
    if (!shownSerial || *shownSerial == last->serial) settle();

    CursorPoll result{imageToken, bitmap->visible, {}};
    if (token != imageToken) {
      CursorShapeData shape;
      auto png = encodePng(bitmap->rgba.data(), bitmap->width, bitmap->height);
      if (!png) return fail("the cursor's image could not be made a PNG");
      shape.png = std::move(*png);
      shape.hotspotX = float(bitmap->hotspotX);
      shape.hotspotY = float(bitmap->hotspotY);
      shape.pointSize = float(bitmap->pointWidth);
      result.shape = std::move(shape);
    }
    link.succeeded();
    return result;
  }

  // Tells of its events from now on.
  void ready(X11Connection& fresh) {
    cursorNotify = prepare(fresh);
    fresh.startEvents(
        [weak = weak_from_this()](const xcb_generic_event_t& event) {
          if (const auto self = weak.lock()) self->handleEvent(event);
        },
        // Found broken by the next poll, which lets go of it and says so.
        [weak = weak_from_this()](std::string) {
          if (const auto self = weak.lock()) self->unsettle();
        });
  }

  // Checks for XFixes and asks for every change of the cursor shown; gives the response type of
  // its notification. Throws with a text for a person.
  static std::uint8_t prepare(X11Connection& x) {
    xcb_connection_t* c = x.get();
    const auto* extension = xcb_get_extension_data(c, &xcb_xfixes_id);
    if (!extension || !extension->present) {
      throw std::runtime_error("the X server has no XFixes extension");
    }
    // XFixes must be told the client's version before use.
    xcb_generic_error_t* error = nullptr;
    const XcbReply<xcb_xfixes_query_version_reply_t> version(xcb_xfixes_query_version_reply(
        c, xcb_xfixes_query_version(c, XCB_XFIXES_MAJOR_VERSION, XCB_XFIXES_MINOR_VERSION),
        &error));
    std::free(error);
    if (!version) throw std::runtime_error("the X server did not tell its XFixes version");
    xcb_xfixes_select_cursor_input(c, x.root(), XCB_XFIXES_CURSOR_NOTIFY_MASK_DISPLAY_CURSOR);
    xcb_flush(c);
    return std::uint8_t(extension->first_event + XCB_XFIXES_CURSOR_NOTIFY);
  }

  // On the connection's strand, which runs in step with `strand`.
  void handleEvent(const xcb_generic_event_t& event) {
    if (event.response_type == 0) {
      const auto& error = reinterpret_cast<const xcb_generic_error_t&>(event);
      link.log().error("The X server refused a cursor request: error %u, request %u.%u",
                       error.error_code, error.major_code, error.minor_code);
      return;
    }
    if ((event.response_type & 0x7f) != cursorNotify) return;
    shownSerial = reinterpret_cast<const xcb_xfixes_cursor_notify_event_t&>(event).cursor_serial;
    if (!last || *shownSerial != last->serial) unsettle();
  }

  // What a poll given `token` finds while the server has told of no change since the last image
  // was read: answered on the caller's thread, without a hop to the strand.
  std::optional<CursorPoll> settledPoll(std::optional<std::uint64_t> token) {
    std::lock_guard lock(settledLock);
    if (!settled || token != settled->token) return std::nullopt;
    return CursorPoll{settled->token, settled->visible, {}};
  }

  void settle() {
    std::lock_guard lock(settledLock);
    settled = last;
  }

  void unsettle() {
    std::lock_guard lock(settledLock);
    settled.reset();
  }

  std::nullopt_t fail(const std::string& reason) { return link.fail(reason); }

  // Serials belong to one server: what was seen there means nothing on the next.
  void forget() {
    unsettle();
    last.reset();
    shownSerial.reset();
  }

  // The last image read: its cursor, token and visibility.
  struct Seen {
    std::uint32_t serial = 0;
    std::uint64_t token = 0;
    bool visible = true;
  };

  const Executor strand;
  X11ConnectionKeeper link;
  std::uint8_t cursorNotify = 0;             // the response type of XFixes' cursor notification
  std::optional<std::uint32_t> shownSerial;  // the cursor shown, as the last notification told
  std::optional<Seen> last;
  std::mutex settledLock;
  std::optional<Seen> settled;  // `last` while it is the cursor shown, for polls on any thread
};

XFixesCursorSource::XFixesCursorSource(const Executor& executor, std::string displayName)
    : core_(std::make_shared<Core>(executor, std::move(displayName))) {}

XFixesCursorSource::~XFixesCursorSource() = default;

asio::awaitable<std::optional<CursorPoll>> XFixesCursorSource::poll(
    std::optional<std::uint64_t> token) {
  if (auto known = core_->settledPoll(token)) co_return known;
  auto work = runOn(core_->strand, [core = core_, token]() -> std::optional<CursorPoll> {
    try {
      return core->poll(token);
    } catch (const std::exception& failure) {
      return core->fail(failure.what());
    }
  });
  co_return co_await std::move(work);
}

}  // namespace kelvaron::host
