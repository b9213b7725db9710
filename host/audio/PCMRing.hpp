#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <span>
#include <vector>

namespace kelvaron::host {

// One second of captured sound between the sound server's thread, which only copies into it, and
// the drain on the capture thread. New sound always wins over old, and a drained batch is stamped
// from its position in the stream, so the device's clock decides, not the moment of draining.
class PCMRing {
 public:
  struct Batch {
    std::vector<float> samples;  // interleaved
    std::uint64_t timeNs = 0;
  };

  PCMRing(int channels, double sampleRate);

  int channels() const { return channels_; }
  int capacity() const { return capacity_; }

  // `hostTimeNs` is the time of the first frame written. Never allocates.
  void writeInterleaved(std::span<const float> samples, std::uint64_t hostTimeNs);
  // One plane per channel, each `frames` long.
  void writePlanar(std::span<const float* const> planes, std::size_t frames,
                   std::uint64_t hostTimeNs);

  // Silence in place of `frames` that the source reports lost.
  void writeSilence(std::size_t frames, std::uint64_t hostTimeNs);
  // Silence up to `hostTimeNs` when the stream's position has fallen more than `toleranceNs`
  // behind it: a source that delivered nothing for a while keeps its stream on the clock.
  void fillGapBefore(std::uint64_t hostTimeNs, std::uint64_t toleranceNs);

  // Everything held, oldest first, or nothing when empty.
  std::optional<Batch> drain();

 private:
  template <typename SampleAt>
  void write(std::size_t frames, std::uint64_t hostTimeNs, SampleAt sampleAt);
  std::uint64_t timeOfFrameNs(std::uint64_t frame) const;

  const int channels_;
  const int capacity_;
  const double sampleRate_;
  std::mutex lock_;
  std::vector<float> storage_;
  std::size_t head_ = 0;
  std::size_t count_ = 0;
  std::optional<std::uint64_t> anchorNs_;
  std::uint64_t framesRead_ = 0;
};

}  // namespace kelvaron::host
