#pragma once

#include <asio/awaitable.hpp>
#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "host/video/CaptureGeometry.hpp"
#include "kit/wire/WireTypes.hpp"

namespace kelvaron::host {

// A captured picture: 32-bit pixels, bytes B, G, R, X in memory, rows `stride` bytes apart.
// Shared and never written once handed out, so a stage may keep it without a copy.
struct PixelBuffer {
  int width = 0;
  int height = 0;
  int stride = 0;
  std::vector<std::uint8_t> bytes;
};
using PixelBufferRef = std::shared_ptr<const PixelBuffer>;

struct CapturedFrame {
  PixelBufferRef pixelBuffer;
  std::uint32_t displayID = 0;
  // The part of the source really shown, as it was in force when the picture was taken.
  NormalizedRect sourceRect;
  std::uint64_t captureTimeNs = 0;  // monotonic-raw nanoseconds
};

class CaptureError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
  static CaptureError displayNotFound(std::uint32_t id) {
    return CaptureError("Display " + std::to_string(id) + " is not available for capture.");
  }
  static CaptureError appNotFound(std::int32_t) {
    return CaptureError("The app has no capturable windows.");
  }
  static CaptureError notStarted() { return CaptureError("Capture has not been started."); }
};

// Produces `CapturedFrame`s of one display at a time. Start and update fail by throwing a
// `CaptureError` or another `std::exception` whose text is for a person; stop never fails.
class CaptureSource {
 public:
  using FrameHandler = std::function<void(CapturedFrame)>;
  // Called once if capture ends by itself (the display server went away), with the reason.
  using StopHandler = std::function<void(std::string reason)>;

  virtual ~CaptureSource() = default;
  // The scope the next start or update applies.
  virtual void setScope(CaptureScope scope) = 0;
  virtual asio::awaitable<void> start(DisplayInfo display, Viewport viewport,
                                      FrameHandler onFrame, StopHandler onStopped) = 0;
  // Applied to the running capture; another display restarts it.
  virtual asio::awaitable<void> update(DisplayInfo display, Viewport viewport) = 0;
  virtual asio::awaitable<void> stop() = 0;
  // True when an `app` scope shows only that application's windows; false when it falls back to
  // a crop of the screen.
  virtual bool isolatesApps() const = 0;
};

using CaptureFactory = std::function<std::shared_ptr<CaptureSource>()>;

}  // namespace kelvaron::host
