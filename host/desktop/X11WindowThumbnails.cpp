#include "host/desktop/X11WindowThumbnails.hpp"

#include <libyuv/scale_argb.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <stdexcept>

#include "host/video/JpegEncoder.hpp"
#include "host/x11/X11Connection.hpp"
#include "host/x11/X11ConnectionKeeper.hpp"
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

}  // namespace

// Everything lives on `strand`.
struct X11WindowThumbnails::Core {
  Core(const Executor& executor, std::string name)
      : strand(makeStrand(executor)),
        link(strand, std::move(name), Logger("io.dovka.tovu.host", "windows"),
             "No window thumbnails", [this] { composer.reset(); }) {}

  std::map<std::uint32_t, Data> thumbnails(const std::vector<std::uint32_t>& ids, int width) {
    std::map<std::uint32_t, Data> made;
    if (width < 1 || ids.empty()) return made;
    X11Connection* const connection = link.ensure([this](X11Connection& fresh) {
      composer = std::make_unique<X11WindowComposer>(fresh.get(), fresh.screen(), false);
    });
    if (!connection) return made;
    width = std::min(width, kMaxWidth);
    const std::size_t count = std::min(ids.size(), kMaxWindows);
    for (std::size_t i = 0; i < count; ++i) {
      if (made.contains(ids[i])) continue;
      const std::optional<WindowPicture> picture = composer->readFrameOf(ids[i]);
      if (connection->broken()) {
        link.lose();
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
    link.succeeded();
    return made;
  }

  const Executor strand;
  X11ConnectionKeeper link;
  // Of the link's connection, made and let go with it; declared after it, so gone before it.
  std::unique_ptr<X11WindowComposer> composer;
  JpegEncoder jpeg;
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
                   core->link.fail(failure.what());
                   return {};
                 }
               });
}

}  // namespace kelvaron::host
