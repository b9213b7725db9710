#pragma once

#include <asio/steady_timer.hpp>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>

#include "host/video/VideoEncoder.hpp"
#include "kit/async/Task.hpp"

namespace kelvaron::host {

// Takes captured frames into the encoder and, once the screen has been still for `idleDelay`,
// encodes the last frame once more at high quality: soft in motion, sharp at rest, without a new
// capture. The timer runs only while a refresh is due, so a still screen costs nothing here.
class VideoPipeline : public std::enable_shared_from_this<VideoPipeline> {
 public:
  static std::shared_ptr<VideoPipeline> make(const Executor& executor,
                                             std::shared_ptr<VideoEncoder> encoder,
                                             std::chrono::duration<double> idleDelay);

  // From the capture's thread; never blocks.
  void submit(const CapturedFrame& frame);
  void requestKeyframe() { encoder_->requestKeyframe(); }
  void setBitrate(std::int64_t bitsPerSecond) { encoder_->setBitrate(bitsPerSecond); }
  // Drops the retained frame and its pending refresh, so that nothing more goes out.
  void forgetRetainedFrame();
  // Ends the refresh and the encoder.
  void stop();

 private:
  using Clock = std::chrono::steady_clock;

  VideoPipeline(const Executor& executor, std::shared_ptr<VideoEncoder> encoder,
                std::chrono::duration<double> idleDelay);
  void armTimer(Clock::time_point at);
  void refreshIfIdle();

  Executor strand_;
  std::shared_ptr<VideoEncoder> encoder_;
  Clock::duration idleDelay_;
  asio::steady_timer timer_;  // touched on `strand_` only

  std::mutex lock_;
  std::optional<CapturedFrame> lastFrame_;
  Clock::time_point lastArrival_;
  bool dirty_ = false;
  bool timerArmed_ = false;
  bool stopped_ = false;
};

}  // namespace kelvaron::host
