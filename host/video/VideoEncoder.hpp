#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <variant>

#include "host/video/CaptureSource.hpp"
#include "kit/wire/MediaFrames.hpp"

namespace kelvaron::host {

// What an encoder hands out.
namespace encoderOutput {
struct frame {
  VideoFrame frame;
  double latencyMs = 0;  // from capture to the end of encoding
};
struct profileFallback {
  CodecProfile requested;
  CodecProfile to;
};
struct failed {
  std::string text;
};
}  // namespace encoderOutput
using EncoderOutput =
    std::variant<encoderOutput::frame, encoderOutput::profileFallback, encoderOutput::failed>;
using EncoderOutputHandler = std::function<void(EncoderOutput)>;

// Turns captured frames into HEVC. Every operation may be called from any thread and returns at
// once; results, and failures, arrive through the output handler given at creation.
class VideoEncoder {
 public:
  virtual ~VideoEncoder() = default;
  virtual void encode(const CapturedFrame& frame, bool forceKeyframe, bool highQuality) = 0;
  // The next frame is a key frame.
  virtual void requestKeyframe() = 0;
  virtual void setBitrate(std::int64_t bitsPerSecond) = 0;
  // Nothing is handed out after this returns.
  virtual void stop() = 0;
};

}  // namespace kelvaron::host
