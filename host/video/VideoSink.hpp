#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

#include "kit/transport/Connection.hpp"

namespace kelvaron::host {

// Takes encoded frames to the connection. A refused frame leaves a gap that delta frames cannot
// bridge, so from then on only a key frame is offered, and one is asked for.
class VideoSink {
 public:
  struct Stats {
    std::int64_t framesSent = 0;
    std::int64_t framesDropped = 0;
    std::int64_t bytesSent = 0;
    std::optional<double> lastLatencyMs;
    bool waitingForKeyframe = false;
  };

  explicit VideoSink(std::shared_ptr<Connection> connection)
      : connection_(std::move(connection)) {}

  // From the encoder's thread.
  void handle(const VideoFrame& frame, double latencyMs);
  Stats stats() const;
  void setKeyframeRequester(std::function<void()> requester);

 private:
  std::shared_ptr<Connection> connection_;
  mutable std::mutex lock_;
  Stats stats_;
  std::function<void()> keyframeRequester_;
};

}  // namespace kelvaron::host
