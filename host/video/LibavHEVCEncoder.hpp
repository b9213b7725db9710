#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <thread>

#include "host/video/VideoEncoder.hpp"
#include "kit/log/Logger.hpp"
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
  // libavcodec 5.1 cannot change a running encoder's rate, so the new rate takes effect with the
  // next key frame, which then opens a new codec session. A drop, the usual cause of a lower rate,
  // brings that key frame anyway.
  void setBitrate(std::int64_t bitsPerSecond) override;
  void stop() override;

 private:
  struct Job {
    CapturedFrame frame;
    bool forceKeyframe = false;
    bool highQuality = false;
  };
  // A frame handed to the codec, until its packet comes back.
  struct Pending {
    std::uint64_t pts = 0;
    std::uint64_t number = 0;
    Job job;
  };
  class Session;

  void run();
  void process(const Job& job);
  bool ensureSession(int width, int height, bool keyframeDue);
  void deliver(const Pending& frame, std::span<const std::uint8_t> bytes, bool keyframe);
  bool verify(const Job& job, std::span<const std::uint8_t> packet);
  void fallBack(const Job& job, CodecProfile from);
  void emit(EncoderOutput output);
  bool takeForceNext();
  std::int64_t currentBitrate();

  const LibavBackend backend_;
  const EncoderOutputHandler output_;
  Logger log_{"io.dovka.tovu.host", "encoder"};

  // Shared with the callers' threads.
  std::mutex lock_;
  std::condition_variable wake_;
  std::optional<Job> pending_;
  bool stopped_ = false;
  bool forceNext_ = true;
  std::int64_t bitrate_;

  // The encoding thread's own.
  CodecProfile activeProfile_;
  std::unique_ptr<Session> session_;
  std::optional<std::string> sessionError_;
  bool verified_ = false;
  std::uint64_t frameNumber_ = 0;
  std::uint64_t lastPTS_ = 0;
  int lastQP_ = 0;

  std::thread worker_;  // last: starts once everything above is in place
};

// Whether the stream's sequence parameter set says what `profile` promises: profile, chroma
// format and luma depth. Encoders may accept a request and quietly produce something else.
bool matchesProfile(const std::vector<hevc::NALUnit>& units, CodecProfile profile);

}  // namespace kelvaron::host
