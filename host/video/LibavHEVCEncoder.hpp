#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <thread>

#include "host/video/VideoEncoder.hpp"
#include "kit/media/HEVCBitstream.hpp"

namespace kelvaron::host {

// An encoder of libavcodec, and how it is tuned for real time.
struct LibavBackend {
  std::string codecName;  // "libx265", "hevc_nvenc" …
  // Private options of the codec, e.g. {"preset", "ultrafast"}.
  std::vector<std::pair<std::string, std::string>> options;

  static LibavBackend libx265();
  // Hardware encoders that take frames from system memory, tried before libx265.
  static std::vector<LibavBackend> hardware();
};

// HEVC through libavcodec. A codec session is opened on the first frame of a size and re-opened
// when the size changes, and the first output of every session is checked against the profile
// asked for: an encoder that quietly produces something else falls back to `hevcMain` once.
//
// Encoding runs on a thread of its own, so that capture never waits. Only the newest frame waits
// there: when the encoder falls behind, a frame that was never encoded is replaced, which leaves no
// gap in the stream.
class LibavHEVCEncoder : public VideoEncoder {
 public:
  LibavHEVCEncoder(LibavBackend backend, CodecProfile profile, std::int64_t bitsPerSecond,
                   EncoderOutputHandler output);
  ~LibavHEVCEncoder() override;

  void encode(const CapturedFrame& frame, bool forceKeyframe, bool highQuality) override;
  void requestKeyframe() override;
  // libavcodec 5.1's libx265 takes a rate only when a codec session opens, and a session opens
  // with a key frame: the new rate comes with the next key frame that is due anyway, and at the
  // latest a second of stream time after the last one.
  void setBitrate(std::int64_t bitsPerSecond) override;
  void stop() override;

 private:
  class Core;
  // What the encoding thread works on. The thread holds it too: when the last owner lets go of
  // this object from an output handler, on that thread, the thread finishes on the core alone.
  std::shared_ptr<Core> core_;
  std::thread worker_;  // last: starts once the core is in place
};

// Whether the stream's sequence parameter set says what `profile` promises: profile, chroma
// format and luma depth. Encoders may accept a request and quietly produce something else.
bool matchesProfile(const std::vector<hevc::NALUnit>& units, CodecProfile profile);

}  // namespace kelvaron::host
