#pragma once

#include <xcb/xcb.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "host/video/CaptureSource.hpp"
#include "kit/async/Task.hpp"
#include "kit/log/Logger.hpp"

namespace kelvaron::host {

// Captures one RANDR monitor of an X server through MIT-SHM, driven by DAMAGE: a picture is taken
// only when the screen changed since the last one, at most 60 times a second, so a still screen
// costs nothing. Each picture is scaled to the viewport's output size and tagged with the source
// rectangle that was in force when it was taken. In an `app` scope the picture holds only that
// application's windows, composed from their own pixels (host/x11/X11WindowComposer), black where
// none of them is; their drawing, even under other windows, and their mapping and moves count as
// changes too.
//
// A serial-executor object: its state lives on its own strand, where frames are also delivered.
// Each start opens a connection of its own to the display named at construction, whose events are
// handled in step with that strand. Replies are waited for in place: a round trip to the local
// server is far shorter than a frame, and the grab needs its reply before anything else can go on.
class X11CaptureSource : public CaptureSource,
                         public std::enable_shared_from_this<X11CaptureSource> {
 public:
  // `displayName` empty means $DISPLAY. Does no work until started.
  static std::shared_ptr<X11CaptureSource> make(const Executor& executor,
                                                std::string displayName = {});
  ~X11CaptureSource() override;
  X11CaptureSource(const X11CaptureSource&) = delete;
  X11CaptureSource& operator=(const X11CaptureSource&) = delete;

  // Any thread.
  void setScope(CaptureScope scope) override;
  // Fails with `CaptureError::displayNotFound` when no RANDR monitor has the display's ID, and
  // with a std::runtime_error when the X server cannot be reached or lacks MIT-SHM or DAMAGE.
  // A start while running replaces the running capture.
  asio::awaitable<void> start(DisplayInfo display, Viewport viewport, FrameHandler onFrame,
                              StopHandler onStopped) override;
  // Another display restarts the capture. Without a running capture (it stopped by itself, or the
  // last start failed) an update starts one with the handlers of the last start; after an explicit
  // stop, or before any start, it fails with `CaptureError::notStarted`. A failed update leaves
  // the old rectangle in force.
  asio::awaitable<void> update(DisplayInfo display, Viewport viewport) override;
  // Idempotent; once it returns, no frame is delivered until the next start.
  asio::awaitable<void> stop() override;
  // Any thread. False once an `app` scope fell back to the screen within its rectangle because
  // the server cannot compose windows from their own pixels (no Composite, or it refused).
  bool isolatesApps() const override { return isolates_; }

  const Executor& executor() const { return strand_; }

 private:
  struct Stream;

  X11CaptureSource(const Executor& executor, std::string displayName);

  void startOnStrand(const DisplayInfo& display, const Viewport& viewport);
  void updateOnStrand(const DisplayInfo& display, const Viewport& viewport);
  void stopOnStrand();
  CaptureScope requestedScope() const;

  void handleEvent(std::uint64_t generation, const xcb_generic_event_t& event);
  void handleClosed(std::uint64_t generation, const std::string& reason);
  void captureSoon();
  void captureNow(std::uint64_t generation);
  void deliver(Stream& stream, std::uint64_t captureTimeNs, const std::uint8_t* pixels);
  void followApp(Stream& stream);

  const Executor strand_;
  const std::string displayName_;
  mutable std::mutex scopeLock_;
  CaptureScope scope_;  // guarded by scopeLock_: the scope the next start or update applies
  std::atomic<bool> isolates_{true};

  // On the strand.
  std::unique_ptr<Stream> stream_;
  std::uint64_t generation_ = 0;  // tells a running capture's callbacks from a past one's
  FrameHandler onFrame_;
  StopHandler onStopped_;
  Logger log_{"io.dovka.tovu.host", "capture"};
};

}  // namespace kelvaron::host
