#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "kit/wire/WireTypes.hpp"

namespace kelvaron::client {

// One second of sound as the client received and played it.
struct SecondOfAudio {
  std::uint32_t packets = 0;
  std::uint32_t decodeErrors = 0;
  std::optional<double> captureToPlayMs;  // the mean of the second
};

// One second of video as the client received it.
struct SecondOfVideo {
  std::uint32_t frames = 0;  // received
  std::uint32_t decoded = 0;
  std::size_t bytes = 0;
  double decodeMs = 0;                       // spent decoding, all of the second's frames together
  std::optional<double> captureToPictureMs;  // the least of the second
};

// The pointer's messages of one second.
struct SecondOfCursor {
  std::uint32_t positions = 0;
  std::uint32_t shapes = 0;
};

// "[  3s]  24.0 fps    1.52 Mbit/s  decode   4.1 ms  capture to picture  38.2 ms"; the decode time
// is the mean over the frames decoded. With sound, "  audio  94 packets  0 errors  capture to
// play  52.0 ms" follows, and "  cursor  12 positions  1 shapes" when the pointer was heard of.
std::string statusLine(int second, const SecondOfVideo& video,
                       const std::optional<SecondOfAudio>& audio = std::nullopt,
                       const SecondOfCursor& cursor = {});

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

// The sound as this client counts it.
class AudioStatistics {
 public:
  void received() { ++second_.packets, ++totalPackets_; }
  void failedToDecode() { ++second_.decodeErrors, ++totalErrors_; }
  // A packet captured `sinceCaptureMs` before it is heard. Like the picture's, that time means
  // something only when both share the machine's clock: outside 0 to 10 s it is left out.
  void played(double sinceCaptureMs);
  SecondOfAudio endSecond();

  std::uint64_t totalPackets() const { return totalPackets_; }
  // "Received 940 audio packets, 0 decode errors".
  std::string summary() const;

 private:
  SecondOfAudio second_;
  double latencySumMs_ = 0;
  std::uint32_t latencies_ = 0;
  std::uint64_t totalPackets_ = 0;
  std::uint64_t totalErrors_ = 0;
};

// The pointer's positions and images as this client received them.
class CursorStatistics {
 public:
  void position() { ++second_.positions, ++totalPositions_; }
  void shape() { ++second_.shapes, ++totalShapes_; }
  SecondOfCursor endSecond() { return std::exchange(second_, {}); }
  // "Received 340 cursor positions and 2 shapes".
  std::string summary() const;

 private:
  SecondOfCursor second_;
  std::uint64_t totalPositions_ = 0;
  std::uint64_t totalShapes_ = 0;
};

}  // namespace kelvaron::client
