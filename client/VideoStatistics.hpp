#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "kit/wire/WireTypes.hpp"

namespace kelvaron::client {

// One second of video as the client received it.
struct SecondOfVideo {
  std::uint32_t frames = 0;  // received
  std::uint32_t decoded = 0;
  std::size_t bytes = 0;
  double decodeMs = 0;                       // spent decoding, all of the second's frames together
  std::optional<double> captureToPictureMs;  // the least of the second
};

// "[  3s]  24.0 fps    1.52 Mbit/s  decode   4.1 ms  capture to picture  38.2 ms"; the decode time
// is the mean over the frames decoded.
std::string statusLine(int second, const SecondOfVideo& figures);

// The video as this client counts it: the running second and the totals. A jump in frame numbers
// is a gap, which only a key frame mends.
class VideoStatistics {
 public:
  // Counts a frame as it arrives; after a gap, the feedback that asks the host for a key frame.
  std::optional<Feedback> received(std::uint64_t frameNumber, std::size_t bytes);
  // Counts a frame decoded in `decodeMs` whose picture came `sinceCaptureMs` after the host
  // captured it. That time means something only when both share the machine's clock: outside
  // 0 to 10 s it is left out.
  void decoded(double decodeMs, double sinceCaptureMs);
  // The running second's figures; the next second starts from none.
  SecondOfVideo endSecond();

  std::uint64_t totalFrames() const { return totalFrames_; }
  // "Received 120 frames, 118 decoded, 1 gaps".
  std::string summary() const;

 private:
  SecondOfVideo second_;
  std::optional<std::uint64_t> lastFrameNumber_;
  std::uint64_t totalFrames_ = 0;
  std::uint64_t totalDecoded_ = 0;
  std::uint64_t gaps_ = 0;
};

}  // namespace kelvaron::client
