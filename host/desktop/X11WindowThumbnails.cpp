#include "host/desktop/X11WindowThumbnails.hpp"

#include <libyuv/scale_argb.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <stdexcept>

#include "host/video/JpegEncoder.hpp"
#include "host/x11/X11Connection.hpp"
#include "host/x11/X11WindowComposer.hpp"
#include "kit/log/Logger.hpp"

namespace kelvaron::host {

namespace {

constexpr int kJpegQuality = 60;
constexpr int kMinHeight = 2;
// Far beyond a picker's tiles; a window thousands of times taller than wide stops here too.
constexpr int kMaxWidth = 2048;
constexpr int kMaxHeight = 4096;
// Windows answered per call: more than a window list holds.
constexpr std::size_t kMaxWindows = 256;
constexpr std::chrono::seconds kReconnectInterval{1};

}  // namespace

// Everything lives on `strand`.
struct X11WindowThumbnails::Core {
  Core(const Executor& executor, std::string name)
      : strand(makeStrand(executor)), displayName(std::move(name)) {}

  std::map<std::uint32_t, Data> thumbnails(const std::vector<std::uint32_t>& ids, int width) {
    std::map<std::uint32_t, Data> made;
    if (width < 1 || ids.empty() || !ensureConnected()) return made;
    width = std::min(width, kMaxWidth);
    const std::size_t count = std::min(ids.size(), kMaxWindows);
    for (std::size_t i = 0; i < count; ++i) {
      if (made.contains(ids[i])) continue;
      const std::optional<WindowPicture> picture = composer->readFrameOf(ids[i]);
      if (connection->broken()) {
        lose();
        return made;
      }
      if (!picture) continue;
      const double proportion = double(picture->height) / double(picture->width);
      const int height =
          int(std::clamp(std::round(width * proportion), double(kMinHeight), double(kMaxHeight)));
      std::vector<std::uint8_t> scaled(std::size_t(width) * std::size_t(height) * 4);
      libyuv::ARGBScale(picture->bgrx.data(), picture->width * 4, picture->width, picture->height,
                        scaled.data(), width * 4, width, height, libyuv::kFilterBox);
      made[ids[i]] = jpeg.encode(scaled.data(), width, height, width * 4, kJpegQuality);
    }
    failing = false;
    return made;
  }

  // A working connection whose windows can be read; a new one at most once a second.
  bool ensureConnected() {
    if (connection && !connection->broken()) return true;
    if (connection) lose();
    const auto now = std::chrono::steady_clock::now();
    if (lastAttempt && now - *lastAttempt < kReconnectInterval) return false;
    lastAttempt = now;
    try {
      auto candidate = X11Connection::open(strand, displayName);
      composer = std::make_unique<X11WindowComposer>(candidate->get(), candidate->screen(), false);
      connection = std::move(candidate);
    } catch (const std::exception& failure) {
      composer.reset();
      fail(failure.what());
      return false;
    }
    return true;
  }

  void lose() {
    const std::string reason = describeX11Error(xcb_connection_has_error(connection->get()));
    composer.reset();
    connection.reset();
    fail("lost the X display: " + reason);
  }

  // One log line for a run of failures.
  void fail(const std::string& reason) {
    if (!std::exchange(failing, true)) log.error("No window thumbnails: %s", reason.c_str());
  }

  const Executor strand;
  const std::string displayName;
  Logger log{"io.dovka.tovu.host", "windows"};

  std::shared_ptr<X11Connection> connection;
  std::unique_ptr<X11WindowComposer> composer;  // of `connection`, which outlives it
  std::optional<std::chrono::steady_clock::time_point> lastAttempt;
  JpegEncoder jpeg;
  bool failing = false;
};

X11WindowThumbnails::X11WindowThumbnails(const Executor& executor, std::string displayName)
    : core_(std::make_shared<Core>(executor, std::move(displayName))) {}

X11WindowThumbnails::~X11WindowThumbnails() = default;

asio::awaitable<std::map<std::uint32_t, Data>> X11WindowThumbnails::thumbnails(
    std::vector<std::uint32_t> ids, int width) {
  return runOn(core_->strand,
               [core = core_, ids = std::move(ids), width]() -> std::map<std::uint32_t, Data> {
                 try {
                   return core->thumbnails(ids, width);
                 } catch (const std::exception& failure) {
                   core->fail(failure.what());
                   return {};
                 }
               });
}

}  // namespace kelvaron::host
