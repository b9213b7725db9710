#include "host/video/VideoPipeline.hpp"

#include <asio/post.hpp>

namespace kelvaron::host {

std::shared_ptr<VideoPipeline> VideoPipeline::make(const Executor& executor,
                                                   std::shared_ptr<VideoEncoder> encoder,
                                                   std::chrono::duration<double> idleDelay) {
  return std::shared_ptr<VideoPipeline>(new VideoPipeline(executor, std::move(encoder), idleDelay));
}

VideoPipeline::VideoPipeline(const Executor& executor, std::shared_ptr<VideoEncoder> encoder,
                             std::chrono::duration<double> idleDelay)
    : strand_(makeStrand(executor)),
      encoder_(std::move(encoder)),
      idleDelay_(std::chrono::duration_cast<Clock::duration>(idleDelay)),
      timer_(strand_) {}

void VideoPipeline::submit(const CapturedFrame& frame) {
  bool arm = false;
  Clock::time_point due;
  {
    std::lock_guard guard(lock_);
    if (stopped_) return;
    lastFrame_ = frame;
    lastArrival_ = Clock::now();
    dirty_ = true;
    // While the timer runs it re-reads the arrival time itself; moving it per frame would cost a
    // system call per frame.
    arm = !timerArmed_;
    timerArmed_ = true;
    due = lastArrival_ + idleDelay_;
  }
  if (arm) asio::post(strand_, [self = shared_from_this(), due] { self->armTimer(due); });
  encoder_->encode(frame, false, false);
}

void VideoPipeline::armTimer(Clock::time_point at) {
  timer_.expires_at(at);
  timer_.async_wait([weak = weak_from_this()](const asio::error_code& error) {
    auto self = weak.lock();
    if (!error && self) self->refreshIfIdle();
  });
}

void VideoPipeline::refreshIfIdle() {
  std::optional<CapturedFrame> frame;
  std::optional<Clock::time_point> notYet;
  {
    std::lock_guard guard(lock_);
    if (stopped_ || !dirty_ || !lastFrame_) {
      timerArmed_ = false;
      return;
    }
    const auto due = lastArrival_ + idleDelay_;
    if (Clock::now() < due) {
      notYet = due;
    } else {
      dirty_ = false;
      timerArmed_ = false;
      frame = lastFrame_;
    }
  }
  if (notYet) {
    armTimer(*notYet);
    return;
  }
  encoder_->encode(*frame, false, true);
}

void VideoPipeline::forgetRetainedFrame() {
  std::lock_guard guard(lock_);
  lastFrame_.reset();
  dirty_ = false;
}

void VideoPipeline::stop() {
  {
    std::lock_guard guard(lock_);
    if (stopped_) return;
    stopped_ = true;
    lastFrame_.reset();
  }
  asio::post(strand_, [self = shared_from_this()] { self->timer_.cancel(); });
  encoder_->stop();
}

}  // namespace kelvaron::host
