#include "host/video/X11Thumbnails.hpp"

#include <libyuv/scale_argb.h>
#include <xcb/randr.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <stdexcept>
#include <vector>

#include "host/video/JpegEncoder.hpp"
#include "host/x11/RandrMonitors.hpp"
#include "host/x11/X11Connection.hpp"
#include "host/x11/X11ConnectionKeeper.hpp"
#include "kit/log/Logger.hpp"

namespace kelvaron::host {

namespace {

constexpr int kJpegQuality = 60;
constexpr int kMinHeight = 2;

// A rectangle of whole pixels on the root window; right and bottom are exclusive.
struct PixelRect {
  std::int64_t left = 0, top = 0, right = 0, bottom = 0;
  std::int64_t width() const { return right - left; }
  std::int64_t height() const { return bottom - top; }
  bool empty() const { return width() <= 0 || height() <= 0; }
  friend bool operator==(const PixelRect&, const PixelRect&) = default;
};

// Pictures are read from the server as 32-bit B, G, R, X pixels.
void requirePixelFormat(const X11Connection& connection) {
  if (!hasBGRXPixels(connection)) {
    throw std::runtime_error(
        "thumbnails need an X screen of 24-bit colour with 32-bit little-endian pixels");
  }
}

// The size of the thumbnail of a display `width` by `height` pixels: `maxWidth` wide, or the
// display's own width when it is narrower, and the display's proportions, rounded down.
std::pair<int, int> thumbnailSize(std::int64_t width, std::int64_t height, int maxWidth) {
  const std::int64_t outWidth = std::min<std::int64_t>(maxWidth, width);
  const std::int64_t outHeight = std::max<std::int64_t>(kMinHeight, outWidth * height / width);
  return {int(outWidth), int(outHeight)};
}

}  // namespace

// Everything lives on `strand`.
struct X11Thumbnails::Core {
  Core(const Executor& executor, std::string name)
      : strand(makeStrand(executor)),
        link(strand, std::move(name), Logger("io.dovka.tovu.host", "display"), "No thumbnail",
             [this] { monitorNames = {}; }) {}
  Core(const Core&) = delete;
  Core& operator=(const Core&) = delete;

  std::optional<Data> thumbnail(std::uint32_t displayID, int maxWidth) {
    if (maxWidth < 1) return std::nullopt;
    X11Connection* const connection = link.ensure([](X11Connection& fresh) {
      requirePixelFormat(fresh);
      requireMonitors(fresh.get(), 5);
    });
    if (!connection) return std::nullopt;
    xcb_connection_t* c = connection->get();
    const auto geometryCookie = xcb_get_geometry(c, connection->root());
    const std::vector<RandrMonitor> monitors =
        queryNamedMonitors(c, connection->root(), monitorNames);
    xcb_generic_error_t* geometryError = nullptr;
    const XcbReply<xcb_get_geometry_reply_t> root(
        xcb_get_geometry_reply(c, geometryCookie, &geometryError));
    std::free(geometryError);
    if (connection->broken()) return link.lose();
    if (!root) return fail("the X server did not tell the size of its screen");

    // The display as the display list names it, clashes of IDs settled the same way.
    const std::vector<DisplayInfo> displays = displayListFromMonitors(monitors);
    const auto display = std::ranges::find(displays, displayID, &DisplayInfo::id);
    if (display == displays.end()) return std::nullopt;
    const auto monitor = std::ranges::find(monitors, display->name, &RandrMonitor::name);
    const PixelRect wanted{monitor->x, monitor->y, monitor->x + std::int64_t{monitor->width},
                           monitor->y + std::int64_t{monitor->height}};
    if (wanted.empty()) return std::nullopt;
    // A monitor may reach beyond the screen: the part on it is read, the rest stays black.
    const PixelRect area{std::max<std::int64_t>(wanted.left, 0),
                         std::max<std::int64_t>(wanted.top, 0),
                         std::min<std::int64_t>(wanted.right, root->width),
                         std::min<std::int64_t>(wanted.bottom, root->height)};
    if (area.empty()) return std::nullopt;

    xcb_generic_error_t* error = nullptr;
    const XcbReply<xcb_get_image_reply_t> image(xcb_get_image_reply(
        c,
        xcb_get_image(c, XCB_IMAGE_FORMAT_Z_PIXMAP, connection->root(), std::int16_t(area.left),
                      std::int16_t(area.top), std::uint16_t(area.width()),
                      std::uint16_t(area.height()), ~0u),
        &error));
    const XcbReply<xcb_generic_error_t> refused(error);
    if (!image) {
      if (connection->broken()) return link.lose();
      // The screen may have shrunk since its size was read: the next thumbnail reads it again.
      return fail("the X server refused to read the screen (X error " +
                  std::to_string(refused ? refused->error_code : 0) + ")");
    }
    const std::size_t bytes = std::size_t(area.width()) * std::size_t(area.height()) * 4;
    if (std::size_t(xcb_get_image_data_length(image.get())) < bytes) {
      return fail("the X server's picture of the screen is shorter than its size");
    }

    const auto [width, height] = thumbnailSize(wanted.width(), wanted.height(), maxWidth);
    std::vector<std::uint8_t> pixels(std::size_t(width) * std::size_t(height) * 4);
    // Where the part read lands in the thumbnail: all of it unless the monitor overhangs.
    const double scaleX = double(width) / double(wanted.width());
    const double scaleY = double(height) / double(wanted.height());
    const auto place = [](std::int64_t offset, double scale, int limit) {
      return std::clamp<std::int64_t>(std::llround(double(offset) * scale), 0, limit);
    };
    const std::int64_t left = place(area.left - wanted.left, scaleX, width - 1);
    const std::int64_t top = place(area.top - wanted.top, scaleY, height - 1);
    const std::int64_t right = std::max(place(area.right - wanted.left, scaleX, width), left + 1);
    const std::int64_t bottom = std::max(place(area.bottom - wanted.top, scaleY, height), top + 1);
    libyuv::ARGBScale(xcb_get_image_data(image.get()), int(area.width()) * 4, int(area.width()),
                      int(area.height()), &pixels[std::size_t(top * width + left) * 4], width * 4,
                      int(right - left), int(bottom - top), libyuv::kFilterBox);
    Data jpegData = jpeg.encode(pixels.data(), width, height, width * 4, kJpegQuality);
    link.succeeded();
    return jpegData;
  }

  std::nullopt_t fail(const std::string& reason) { return link.fail(reason); }

  const Executor strand;
  X11ConnectionKeeper link;
  MonitorNames monitorNames;  // of the connection's server
  JpegEncoder jpeg;
};

X11Thumbnails::X11Thumbnails(const Executor& executor, std::string displayName)
    : core_(std::make_shared<Core>(executor, std::move(displayName))) {}

X11Thumbnails::~X11Thumbnails() = default;

asio::awaitable<std::optional<Data>> X11Thumbnails::thumbnail(std::uint32_t displayID,
                                                              int maxWidth) {
  return runOn(core_->strand, [core = core_, displayID, maxWidth]() -> std::optional<Data> {
    try {
      return core->thumbnail(displayID, maxWidth);
    } catch (const std::exception& failure) {
      return core->fail(failure.what());
    }
  });
}

}  // namespace kelvaron::host
