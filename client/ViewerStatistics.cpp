#include "client/ViewerStatistics.hpp"

#include <algorithm>
#include <cstdio>
#include <utility>

namespace kelvaron::client {
namespace {

template <class... Values>
std::string formatted(const char* format, Values... values) {
  char text[128];
  const int length = std::snprintf(text, sizeof text, format, values...);
  return std::string(text, std::size_t(std::clamp(length, 0, int(sizeof text) - 1)));
}

}  // namespace

std::string statusLine(int second, const SecondOfVideo& figures,
                       const std::optional<SecondOfAudio>& audio, const SecondOfCursor& cursor) {
  const double decodeMs = figures.decoded ? figures.decodeMs / figures.decoded : 0;
  std::string line = formatted("[%3ds] %5.1f fps  %6.2f Mbit/s  decode %5.1f ms", second,
                               double(figures.frames), double(figures.bytes) * 8 / 1e6, decodeMs);
  if (figures.captureToPictureMs) {
    line += formatted("  capture to picture %5.1f ms", *figures.captureToPictureMs);
  }
  if (audio) {
    line += formatted("  audio %3u packets  %u errors", audio->packets, audio->decodeErrors);
    if (audio->captureToPlayMs)
      line += formatted("  capture to play %5.1f ms", *audio->captureToPlayMs);
  }
  if (cursor.positions + cursor.shapes > 0) {
    line += formatted("  cursor %3u positions  %u shapes", cursor.positions, cursor.shapes);
  }
  return line;
}

std::optional<Feedback> VideoStatistics::received(std::uint64_t frameNumber, std::size_t bytes) {
  ++second_.frames;
  second_.bytes += bytes;
  ++totalFrames_;
  const bool gap = lastFrameNumber_ && frameNumber != *lastFrameNumber_ + 1;
  lastFrameNumber_ = frameNumber;
  if (!gap) return std::nullopt;
  ++gaps_;
  return Feedback{second_.frames, 1, 0, true};
}

void VideoStatistics::decoded(double decodeMs, double sinceCaptureMs) {
  ++second_.decoded;
  ++totalDecoded_;
  second_.decodeMs += decodeMs;
  // The least: an idle refresh sends again a picture captured earlier.
  if (sinceCaptureMs >= 0 && sinceCaptureMs < 10000) {
    second_.captureToPictureMs =
        std::min(second_.captureToPictureMs.value_or(sinceCaptureMs), sinceCaptureMs);
  }
}

SecondOfVideo VideoStatistics::endSecond() { return std::exchange(second_, {}); }

std::string VideoStatistics::summary() const {
  return "Received " + std::to_string(totalFrames_) + " frames, " + std::to_string(totalDecoded_) +
         " decoded, " + std::to_string(gaps_) + " gaps";
}

void AudioStatistics::played(double sinceCaptureMs) {
  if (sinceCaptureMs < 0 || sinceCaptureMs >= 10000) return;
  latencySumMs_ += sinceCaptureMs;
  ++latencies_;
  second_.captureToPlayMs = latencySumMs_ / latencies_;
}

SecondOfAudio AudioStatistics::endSecond() {
  latencySumMs_ = 0;
  latencies_ = 0;
  return std::exchange(second_, {});
}

std::string AudioStatistics::summary() const {
  return "Received " + std::to_string(totalPackets_) + " audio packets, " +
         std::to_string(totalErrors_) + " decode errors";
}

std::string CursorStatistics::summary() const {
  return "Received " + std::to_string(totalPositions_) + " cursor positions and " +
         std::to_string(totalShapes_) + " shapes";
}

}  // namespace kelvaron::client
