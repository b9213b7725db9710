#include "host/video/VideoSink.hpp"

namespace kelvaron::host {

void VideoSink::handle(const VideoFrame& frame, double latencyMs) {
  {
    std::lock_guard guard(lock_);
    if (stats_.waitingForKeyframe && !frame.isKeyframe) {
      ++stats_.framesDropped;
      return;
    }
  }
  const bool taken = connection_->sendVideo(frame);
  std::function<void()> requester;
  {
    std::lock_guard guard(lock_);
    if (taken) {
      if (frame.isKeyframe) stats_.waitingForKeyframe = false;
      ++stats_.framesSent;
      stats_.bytesSent += std::int64_t(frame.payload.size());
      stats_.lastLatencyMs = latencyMs;
      return;
    }
    ++stats_.framesDropped;
    stats_.waitingForKeyframe = true;
    requester = keyframeRequester_;
  }
  if (requester) requester();
}

VideoSink::Stats VideoSink::stats() const {
  std::lock_guard guard(lock_);
  return stats_;
}

void VideoSink::setKeyframeRequester(std::function<void()> requester) {
  std::lock_guard guard(lock_);
  keyframeRequester_ = std::move(requester);
}

}  // namespace kelvaron::host
