#include "host/video/X11CaptureSource.hpp"

#include <libyuv/planar_functions.h>
#include <libyuv/scale_argb.h>
#include <xcb/damage.h>
#include <xcb/randr.h>
#include <xcb/shm.h>

#include <algorithm>
#include <asio/steady_timer.hpp>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "host/video/RegionTagger.hpp"
#include "host/x11/RandrMonitors.hpp"
#include "host/x11/X11Connection.hpp"
#include "host/x11/X11SharedMemory.hpp"
#include "host/x11/X11WindowComposer.hpp"
#include "kit/media/CaptureClock.hpp"

namespace kelvaron::host {

namespace {

// At most 60 pictures a second.
constexpr std::chrono::nanoseconds kMinFrameInterval{1'000'000'000 / 60};
// The encoder, the pipeline's retained frame and one in flight: when the consumers hold more than
// this, they are behind, and a picture is better taken later than a buffer allocated.
constexpr std::size_t kPoolLimit = 6;
constexpr int kBytesPerPixel = 4;
// Far beyond any X screen (coordinates there are 16-bit), and safe to round to an integer.
constexpr double kCoordinateLimit = 1 << 20;

// A rectangle of whole pixels on the root window; right and bottom are exclusive.
struct PixelRect {
  std::int64_t left = 0, top = 0, right = 0, bottom = 0;
  std::int64_t width() const { return right - left; }
  std::int64_t height() const { return bottom - top; }
  bool empty() const { return width() <= 0 || height() <= 0; }
  friend bool operator==(const PixelRect&, const PixelRect&) = default;
};

PixelRect intersection(const PixelRect& a, const PixelRect& b) {
  const PixelRect result{std::max(a.left, b.left), std::max(a.top, b.top),
                         std::min(a.right, b.right), std::min(a.bottom, b.bottom)};
  return result.empty() ? PixelRect{} : result;
}

// What one picture takes from the root window and where it goes in the output.
struct GrabPlan {
  PixelRect wanted;  // the source rectangle in root pixels
  PixelRect area;    // the part of it on the root window; empty when there is none
  PixelSize output;
  PixelRect placement;  // where `area` lands in the output
  // In an `app` scope, the process whose windows alone are shown, where they can be told apart.
  std::optional<std::int32_t> appPid;

  bool clipped() const { return area != wanted; }
  std::size_t bytes() const {
    return std::size_t(area.width()) * std::size_t(area.height()) * kBytesPerPixel;
  }
};

// Part of the source may lie off the screen (a monitor that shrank or went away under a running
// capture): only the part on it is grabbed, and it keeps its place in the picture.
GrabPlan clipToRoot(const PixelRect& wanted, PixelSize output, PixelSize root) {
  GrabPlan plan{wanted, intersection(wanted, {0, 0, root.width, root.height}), output, {}};
  if (plan.area.empty()) return plan;
  const double scaleX = double(output.width) / double(wanted.width());
  const double scaleY = double(output.height) / double(wanted.height());
  const auto scaled = [](std::int64_t offset, double scale, std::uint32_t limit) {
    return std::clamp<std::int64_t>(std::llround(double(offset) * scale), 0, limit);
  };
  PixelRect& placed = plan.placement;
  placed.left = scaled(plan.area.left - wanted.left, scaleX, output.width - 1);
  placed.top = scaled(plan.area.top - wanted.top, scaleY, output.height - 1);
  placed.right =
      std::max(scaled(plan.area.right - wanted.left, scaleX, output.width), placed.left + 1);
  placed.bottom =
      std::max(scaled(plan.area.bottom - wanted.top, scaleY, output.height), placed.top + 1);
  return plan;
}

PixelRect wholePixels(const Rect& rect) {
  const bool finite = std::isfinite(rect.x) && std::isfinite(rect.y) && std::isfinite(rect.width) &&
                      std::isfinite(rect.height);
  if (!finite || !(rect.width > 0) || !(rect.height > 0)) {
    throw std::invalid_argument("The capture region is not a valid rectangle.");
  }
  const auto edge = [](double value) {
    return std::llround(std::clamp(value, -kCoordinateLimit, kCoordinateLimit));
  };
  PixelRect result{edge(rect.x), edge(rect.y), edge(rect.x + rect.width),
                   edge(rect.y + rect.height)};
  result.right = std::max(result.right, result.left + 1);
  result.bottom = std::max(result.bottom, result.top + 1);
  return result;
}

// Where a display's top left corner lies on the root window now. On X11 a point is a pixel.
struct RootPlacement {
  double displayX = 0, displayY = 0;
};

// Nothing when no monitor has `displayID`, which the display list made, clashes and all.
std::optional<RootPlacement> placeOnRoot(X11Connection& connection, MonitorNames& names,
                                         std::uint32_t displayID) {
  const std::vector<RandrMonitor> monitors =
      queryNamedMonitors(connection.get(), connection.root(), names);
  const std::vector<DisplayInfo> displays = displayListFromMonitors(monitors);
  const auto display = std::ranges::find(displays, displayID, &DisplayInfo::id);
  if (display == displays.end()) return std::nullopt;
  const auto monitor = std::ranges::find(monitors, display->name, &RandrMonitor::name);
  return RootPlacement{double(monitor->x), double(monitor->y)};
}

PixelSize rootSize(X11Connection& connection) {
  xcb_connection_t* c = connection.get();
  const XcbReply<xcb_get_geometry_reply_t> geometry(
      xcb_get_geometry_reply(c, xcb_get_geometry(c, connection.root()), nullptr));
  if (!geometry) throw std::runtime_error("The X server did not tell the size of its screen.");
  return {geometry->width, geometry->height};
}

// The source rectangle, in points of the display for every scope, in root pixels.
Rect onRoot(Rect source, const RootPlacement& place) {
  source.x += place.displayX;
  source.y += place.displayY;
  return source;
}

GrabPlan planGrab(X11Connection& connection, MonitorNames& names, const DisplayInfo& display,
                  const Viewport& viewport, const CaptureScope& scope) {
  const auto place = placeOnRoot(connection, names, display.id);
  if (!place) throw CaptureError::displayNotFound(display.id);
  const SourceGeometry geometry = sourceGeometry(display, viewport, scope);
  const PixelRect wanted = wholePixels(onRoot(geometry.source, *place));
  GrabPlan plan = clipToRoot(wanted, geometry.output, rootSize(connection));
  if (const auto* app = std::get_if<scope::app>(&scope)) plan.appPid = app->pid;
  return plan;
}

// The picture as B, G, R, X bytes: straight from the screen when the sizes agree, else scaled.
// Box filtering costs the same as bilinear here (about 0.73 ms from 1920x1080 to 1280x720 on one
// core) and keeps fine text legible when scaling down.
void render(const std::uint8_t* pixels, const GrabPlan& plan, PixelBuffer& buffer) {
  if (plan.clipped()) {
    libyuv::ARGBRect(buffer.bytes.data(), buffer.stride, 0, 0, buffer.width, buffer.height, 0);
  }
  const PixelRect& to = plan.placement;
  std::uint8_t* destination =
      buffer.bytes.data() + to.top * buffer.stride + to.left * kBytesPerPixel;
  const int width = int(plan.area.width());
  const int height = int(plan.area.height());
  if (width == to.width() && height == to.height()) {
    libyuv::ARGBCopy(pixels, width * kBytesPerPixel, destination, buffer.stride, width, height);
    return;
  }
  libyuv::ARGBScale(pixels, width * kBytesPerPixel, width, height, destination, buffer.stride,
                    int(to.width()), int(to.height()), libyuv::kFilterBox);
}

// A few pixel buffers that go round: a buffer comes back to the pool when its last holder lets go
// of it, on whatever thread, and is written again, so steady capture allocates no pixels (only
// the handle's small control block). The lock orders the last holder's reads before the next
// writes, in a way the thread sanitizer follows.
class PixelBufferPool {
 public:
  // Nothing when the consumers hold every buffer the pool may have.
  std::shared_ptr<PixelBuffer> take(PixelSize size) {
    std::unique_ptr<PixelBuffer> buffer = reuse(size);
    if (!buffer) return nullptr;
    buffer->width = int(size.width);
    buffer->height = int(size.height);
    buffer->stride = buffer->width * kBytesPerPixel;
    buffer->bytes.resize(std::size_t(buffer->stride) * std::size_t(buffer->height));
    return {buffer.release(), [shelf = shelf_](PixelBuffer* returned) {
              std::lock_guard guard(shelf->lock);
              shelf->free.emplace_back(returned);
            }};
  }

 private:
  struct Shelf {
    std::mutex lock;
    std::vector<std::unique_ptr<PixelBuffer>> free;
    std::size_t made = 0;
  };

  // A free buffer, one of the size asked for if there is one; a new one while the pool may grow.
  std::unique_ptr<PixelBuffer> reuse(PixelSize size) {
    std::lock_guard guard(shelf_->lock);
    auto& free = shelf_->free;
    auto chosen = std::find_if(free.begin(), free.end(), [&](const auto& buffer) {
      return buffer->width == int(size.width) && buffer->height == int(size.height);
    });
    if (chosen == free.end()) chosen = free.begin();
    if (chosen != free.end()) {
      auto buffer = std::move(*chosen);
      free.erase(chosen);
      return buffer;
    }
    if (shelf_->made == kPoolLimit) return nullptr;
    ++shelf_->made;
    return std::make_unique<PixelBuffer>();
  }

  const std::shared_ptr<Shelf> shelf_ = std::make_shared<Shelf>();
};

// Pictures are copied from the server's memory as 32-bit B, G, R, X pixels.
void requirePixelFormat(const X11Connection& connection) {
  if (!hasBGRXPixels(connection)) {
    throw std::runtime_error(
        "Screen capture needs an X screen of 24-bit colour with 32-bit little-endian pixels.");
  }
}

void requireExtensions(X11Connection& connection, const std::string& displayName) {
  xcb_connection_t* c = connection.get();
  const auto missing = [&](const char* what) {
    const std::string where = displayName.empty() ? "The X server" : "The X server " + displayName;
    return std::runtime_error(where + " lacks " + what + ", which screen capture needs.");
  };
  xcb_prefetch_extension_data(c, &xcb_shm_id);
  xcb_prefetch_extension_data(c, &xcb_damage_id);
  xcb_prefetch_extension_data(c, &xcb_randr_id);
  const auto present = [c](xcb_extension_t* extension) {
    const xcb_query_extension_reply_t* data = xcb_get_extension_data(c, extension);
    return data && data->present;
  };
  if (!present(&xcb_shm_id)) throw missing("the MIT-SHM extension");
  if (!present(&xcb_damage_id)) throw missing("the DAMAGE extension");
  if (!present(&xcb_randr_id)) throw missing("the RANDR extension");
  // DAMAGE must be told the client's version before use; monitors came with RANDR 1.5.
  const auto damageCookie = xcb_damage_query_version(c, 1, 1);
  const auto randrCookie = xcb_randr_query_version(c, 1, 5);
  const XcbReply<xcb_damage_query_version_reply_t> damage(
      xcb_damage_query_version_reply(c, damageCookie, nullptr));
  const XcbReply<xcb_randr_query_version_reply_t> randr(
      xcb_randr_query_version_reply(c, randrCookie, nullptr));
  if (!damage) throw missing("a working DAMAGE extension");
  if (!randr || (randr->major_version == 1 && randr->minor_version < 5)) {
    throw missing("RANDR 1.5 (monitors)");
  }
}

// Hands xcb's queued events to the connection's handler when a scope that read replies ends.
class DispatchQueuedEvents {
 public:
  explicit DispatchQueuedEvents(std::shared_ptr<X11Connection> connection)
      : connection_(std::move(connection)) {}
  ~DispatchQueuedEvents() { connection_->dispatchQueuedEvents(); }
  DispatchQueuedEvents(const DispatchQueuedEvents&) = delete;
  DispatchQueuedEvents& operator=(const DispatchQueuedEvents&) = delete;

 private:
  // Held, so that a handler that ends the capture cannot end the connection under the dispatch.
  std::shared_ptr<X11Connection> connection_;
};

}  // namespace

// Everything that lives from a start to a stop.
struct X11CaptureSource::Stream {
  Stream(std::shared_ptr<X11Connection> shared, const Executor& strand)
      : connection(std::move(shared)), image(connection->get()), timer(strand) {}

  // The server forgets both with the connection too, but the connection may outlive this.
  ~Stream() {
    if (damage != XCB_NONE) xcb_damage_destroy(connection->get(), damage);
    image.release();
    xcb_flush(connection->get());
  }

  std::shared_ptr<X11Connection> connection;  // first, so that it outlives what uses it
  MonitorNames monitorNames;                  // of `connection`'s server
  std::uint64_t generation = 0;
  std::uint32_t displayID = 0;
  xcb_damage_damage_t damage = XCB_NONE;
  std::uint8_t damageNotify = 0;  // the response type of DAMAGE's notify event
  // The request that last emptied the damage region: damage reported before it is in the next
  // picture already, and asks for no other.
  std::uint32_t subtractSequence = 0;
  X11SharedMemory image;
  // In an `app` scope: the application's windows, composed from their own pixels into `composed`.
  std::unique_ptr<X11WindowComposer> composer;
  bool composerRefused = false;  // the server cannot do it: the screen is cropped instead
  std::vector<std::uint8_t> composed;
  PixelBufferPool pool;
  GrabPlan plan;
  // The rectangle in force and its history. Updates and grabs both run on the strand, so nothing
  // else guards them.
  NormalizedRect sourceRect;
  RegionTagger tagger;
  asio::steady_timer timer;                        // armed only while a picture is due
  std::chrono::steady_clock::time_point lastGrab;  // the clock's epoch: long ago
  bool damaged = false;
  bool captureScheduled = false;
};

std::shared_ptr<X11CaptureSource> X11CaptureSource::make(const Executor& executor,
                                                         std::string displayName) {
  return std::shared_ptr<X11CaptureSource>(new X11CaptureSource(executor, std::move(displayName)));
}

X11CaptureSource::X11CaptureSource(const Executor& executor, std::string displayName)
    : strand_(makeStrand(executor)), displayName_(std::move(displayName)) {}

X11CaptureSource::~X11CaptureSource() = default;

void X11CaptureSource::setScope(CaptureScope scope) {
  std::lock_guard lock(scopeLock_);
  scope_ = std::move(scope);
}

CaptureScope X11CaptureSource::requestedScope() const {
  std::lock_guard lock(scopeLock_);
  return scope_;
}

asio::awaitable<void> X11CaptureSource::start(DisplayInfo display, Viewport viewport,
                                              FrameHandler onFrame, StopHandler onStopped) {
  return runOn(strand_, [self = shared_from_this(), display = std::move(display), viewport,
                         onFrame = std::move(onFrame), onStopped = std::move(onStopped)] {
    self->onFrame_ = onFrame;
    self->onStopped_ = onStopped;
    self->startOnStrand(display, viewport);
  });
}

asio::awaitable<void> X11CaptureSource::update(DisplayInfo display, Viewport viewport) {
  return runOn(strand_, [self = shared_from_this(), display = std::move(display), viewport] {
    self->updateOnStrand(display, viewport);
  });
}

asio::awaitable<void> X11CaptureSource::stop() {
  return runOn(strand_, [self = shared_from_this()] {
    self->stopOnStrand();
    self->onFrame_ = nullptr;
    self->onStopped_ = nullptr;
  });
}

void X11CaptureSource::startOnStrand(const DisplayInfo& display, const Viewport& viewport) {
  stream_.reset();
  auto connection = X11Connection::open(strand_, displayName_);
  requireExtensions(*connection, displayName_);
  requirePixelFormat(*connection);
  xcb_connection_t* c = connection->get();

  auto stream = std::make_unique<Stream>(connection, strand_);
  stream->generation = ++generation_;
  stream->displayID = display.id;
  stream->sourceRect = normalizedRect(viewport.sourceRect);
  stream->plan = planGrab(*connection, stream->monitorNames, display, viewport, requestedScope());
  stream->image.reserve(stream->plan.bytes());
  followApp(*stream);
  stream->damageNotify = xcb_get_extension_data(c, &xcb_damage_id)->first_event + XCB_DAMAGE_NOTIFY;
  const xcb_damage_damage_t damage = xcb_generate_id(c);
  const XcbReply<xcb_generic_error_t> refused(xcb_request_check(
      c,
      xcb_damage_create_checked(c, damage, connection->root(), XCB_DAMAGE_REPORT_LEVEL_NON_EMPTY)));
  if (refused || connection->broken()) {
    throw std::runtime_error("The X server refused to report changes of the screen.");
  }
  stream->damage = damage;
  stream_ = std::move(stream);

  const auto generation = generation_;
  connection->startEvents(
      [weak = weak_from_this(), generation](const xcb_generic_event_t& event) {
        if (const auto self = weak.lock()) self->handleEvent(generation, event);
      },
      [weak = weak_from_this(), generation](std::string reason) {
        if (const auto self = weak.lock()) self->handleClosed(generation, reason);
      });
  captureSoon();  // the client gets a picture without waiting for a change
}

void X11CaptureSource::updateOnStrand(const DisplayInfo& display, const Viewport& viewport) {
  if (!onFrame_) throw CaptureError::notStarted();
  if (!stream_ || stream_->displayID != display.id) return startOnStrand(display, viewport);

  Stream& stream = *stream_;
  const DispatchQueuedEvents dispatchAfterwards(stream.connection);
  const NormalizedRect rect = normalizedRect(viewport.sourceRect);
  stream.tagger.request(stream.sourceRect, rect, monotonicRawNs());
  stream.sourceRect = rect;
  try {
    // The next grab on this strand takes the new plan: nothing can be captured in between.
    GrabPlan plan =
        planGrab(*stream.connection, stream.monitorNames, display, viewport, requestedScope());
    stream.image.reserve(plan.bytes());
    stream.plan = plan;
  } catch (...) {
    if (const auto previous = stream.tagger.rollback()) stream.sourceRect = *previous;
    throw;
  }
  followApp(stream);
  stream.tagger.confirm(monotonicRawNs());
  captureSoon();  // a new rectangle shows without waiting for a change
}

void X11CaptureSource::stopOnStrand() { stream_.reset(); }

void X11CaptureSource::followApp(Stream& stream) {
  if (!stream.plan.appPid) {
    // The redirection costs the server a pixmap per window: it lasts only as long as it serves.
    stream.composer.reset();
    stream.composed = {};
    return;
  }
  if (stream.composer || stream.composerRefused) return;
  try {
    stream.composer = std::make_unique<X11WindowComposer>(stream.connection->get(),
                                                          stream.connection->screen(), true);
    isolates_ = true;
  } catch (const X11WindowComposer::Unavailable& failure) {
    stream.composerRefused = true;
    isolates_ = false;
    log_.error("An application's windows cannot be shown alone (%s); its capture shows the screen",
               failure.what());
  }
}

void X11CaptureSource::handleEvent(std::uint64_t generation, const xcb_generic_event_t& event) {
  if (!stream_ || stream_->generation != generation) return;
  if (stream_->composer && stream_->composer->handleEvent(event)) return captureSoon();
  if (event.response_type == 0) {
    const auto& error = reinterpret_cast<const xcb_generic_error_t&>(event);
    log_.error("The X server reported error %u for request %u.%u", error.error_code,
               error.major_code, error.minor_code);
    return;
  }
  if ((event.response_type & 0x7f) != stream_->damageNotify) return;
  // Sequence numbers are 16-bit in events: a negative distance means before the subtraction.
  const auto sinceSubtract =
      std::int16_t(event.sequence - std::uint16_t(stream_->subtractSequence));
  if (sinceSubtract < 0) return;
  captureSoon();
}

void X11CaptureSource::handleClosed(std::uint64_t generation, const std::string& reason) {
  if (!stream_ || stream_->generation != generation) return;
  stream_.reset();
  log_.error("Tovu capture stopped: %s", reason.c_str());
  // A copy: the handler stays for a restart by a later update.
  const StopHandler onStopped = onStopped_;
  if (!onStopped) return;
  try {
    onStopped(reason);
  } catch (const std::exception& failure) {
    log_.error("The capture's stop handler failed: %s", failure.what());
  }
}

void X11CaptureSource::captureSoon() {
  Stream& stream = *stream_;
  stream.damaged = true;
  if (stream.captureScheduled) return;
  stream.captureScheduled = true;
  stream.timer.expires_at(stream.lastGrab + kMinFrameInterval);
  stream.timer.async_wait(
      [weak = weak_from_this(), generation = stream.generation](const asio::error_code& error) {
        const auto self = weak.lock();
        if (self && !error) self->captureNow(generation);
      });
}

void X11CaptureSource::captureNow(std::uint64_t generation) {
  if (!stream_ || stream_->generation != generation) return;
  Stream& stream = *stream_;
  stream.captureScheduled = false;
  if (!stream.damaged) return;
  stream.damaged = false;
  stream.lastGrab = std::chrono::steady_clock::now();
  if (stream.plan.area.empty()) return;  // the display lies off the screen now

  // Declared before the work, so it runs last: a closed connection found there ends `stream`.
  const DispatchQueuedEvents dispatchAfterwards(stream.connection);
  xcb_connection_t* c = stream.connection->get();
  stream.subtractSequence = xcb_damage_subtract(c, stream.damage, XCB_NONE, XCB_NONE).sequence;
  const std::uint64_t captureTimeNs = monotonicRawNs();
  const PixelRect& area = stream.plan.area;
  if (stream.composer && stream.plan.appPid) {
    stream.composed.resize(stream.plan.bytes());
    const RootRect rect{std::int32_t(area.left), std::int32_t(area.top), std::int32_t(area.width()),
                        std::int32_t(area.height())};
    try {
      stream.composer->composeApplication(*stream.plan.appPid, rect, stream.composed.data(),
                                          int(area.width()) * kBytesPerPixel);
    } catch (const std::exception& failure) {
      log_.error("Composing the application's windows failed: %s", failure.what());
      return;
    }
    if (stream.connection->broken()) return;  // reported by the dispatch
    return deliver(stream, captureTimeNs, stream.composed.data());
  }
  xcb_generic_error_t* error = nullptr;
  const XcbReply<xcb_shm_get_image_reply_t> image(xcb_shm_get_image_reply(
      c,
      xcb_shm_get_image(c, stream.connection->root(), std::int16_t(area.left),
                        std::int16_t(area.top), std::uint16_t(area.width()),
                        std::uint16_t(area.height()), ~0u, XCB_IMAGE_FORMAT_Z_PIXMAP,
                        stream.image.segment(), 0),
      &error));
  const XcbReply<xcb_generic_error_t> refused(error);
  if (image) return deliver(stream, captureTimeNs, stream.image.data());
  if (stream.connection->broken()) return;  // reported by the dispatch
  // The screen shrank under the plan: grab what is left of it from now on.
  log_.error("Grabbing the screen failed (X error %u); fitting the capture to the screen",
             refused ? refused->error_code : 0u);
  try {
    const auto appPid = stream.plan.appPid;
    stream.plan = clipToRoot(stream.plan.wanted, stream.plan.output, rootSize(*stream.connection));
    stream.plan.appPid = appPid;
  } catch (const std::exception& failure) {
    log_.error("%s", failure.what());
  }
}

void X11CaptureSource::deliver(Stream& stream, std::uint64_t captureTimeNs,
                               const std::uint8_t* pixels) {
  const auto rect = stream.tagger.attribute(captureTimeNs, stream.sourceRect);
  if (!rect) return;  // taken while the rectangle was changing: its rectangle is unknown
  const auto buffer = stream.pool.take(stream.plan.output);
  if (!buffer) {
    captureSoon();  // the consumers are behind; the change must still reach them
    return;
  }
  render(pixels, stream.plan, *buffer);
  if (onFrame_) onFrame_(CapturedFrame{buffer, stream.displayID, *rect, captureTimeNs});
}

}  // namespace kelvaron::host
