#include "host/audio/PCMRing.hpp"

#include <algorithm>

namespace kelvaron::host {

PCMRing::PCMRing(int channels, double sampleRate)
    : channels_(channels),
      capacity_(static_cast<int>(sampleRate)),
      sampleRate_(sampleRate),
      storage_(static_cast<std::size_t>(capacity_) * static_cast<std::size_t>(channels)) {}

template <typename SampleAt>
void PCMRing::write(std::size_t frames, std::uint64_t hostTimeNs, SampleAt sampleAt) {
  const auto capacity = static_cast<std::size_t>(capacity_);
  const auto channels = static_cast<std::size_t>(channels_);
  std::lock_guard guard(lock_);
  if (!anchorNs_) anchorNs_ = hostTimeNs;
  // Of a write larger than the ring, the older part is what is lost.
  const std::size_t keep = std::min(frames, capacity);
  const std::size_t skip = frames - keep;
  framesRead_ += skip;
  if (count_ + keep > capacity) {
    const std::size_t overflow = count_ + keep - capacity;
    head_ = (head_ + overflow) % capacity;
    count_ -= overflow;
    framesRead_ += overflow;
  }
  std::size_t slot = (head_ + count_) % capacity;
  for (std::size_t frame = 0; frame < keep; ++frame) {
    for (std::size_t channel = 0; channel < channels; ++channel)
      storage_[slot * channels + channel] = sampleAt(skip + frame, channel);
    slot = slot + 1 == capacity ? 0 : slot + 1;
  }
  count_ += keep;
}

void PCMRing::writeInterleaved(std::span<const float> samples, std::uint64_t hostTimeNs) {
  const auto channels = static_cast<std::size_t>(channels_);
  write(samples.size() / channels, hostTimeNs, [&](std::size_t frame, std::size_t channel) {
    return samples[frame * channels + channel];
  });
}

void PCMRing::writePlanar(std::span<const float* const> planes, std::size_t frames,
                          std::uint64_t hostTimeNs) {
  if (planes.size() < static_cast<std::size_t>(channels_)) return;
  write(frames, hostTimeNs,
        [&](std::size_t frame, std::size_t channel) { return planes[channel][frame]; });
}

void PCMRing::writeSilence(std::size_t frames, std::uint64_t hostTimeNs) {
  write(frames, hostTimeNs, [](std::size_t, std::size_t) { return 0.0f; });
}

void PCMRing::fillGapBefore(std::uint64_t hostTimeNs, std::uint64_t toleranceNs) {
  std::uint64_t endNs = 0;
  {
    std::lock_guard guard(lock_);
    if (!anchorNs_) return;
    endNs = timeOfFrameNs(framesRead_ + count_);
  }
  if (hostTimeNs <= endNs + toleranceNs) return;
  const double gapFrames = static_cast<double>(hostTimeNs - endNs) / 1e9 * sampleRate_;
  writeSilence(static_cast<std::size_t>(gapFrames + 0.5), endNs);
}

std::uint64_t PCMRing::timeOfFrameNs(std::uint64_t frame) const {
  return *anchorNs_ +
         static_cast<std::uint64_t>(static_cast<double>(frame) / sampleRate_ * 1'000'000'000.0);
}

std::optional<PCMRing::Batch> PCMRing::drain() {
  const auto capacity = static_cast<std::size_t>(capacity_);
  const auto channels = static_cast<std::size_t>(channels_);
  std::lock_guard guard(lock_);
  if (count_ < 1 || !anchorNs_) return std::nullopt;
  Batch batch;
  batch.samples.reserve(count_ * channels);
  const std::size_t firstPiece = std::min(count_, capacity - head_);
  const auto begin = storage_.begin() + static_cast<std::ptrdiff_t>(head_ * channels);
  batch.samples.insert(batch.samples.end(), begin,
                       begin + static_cast<std::ptrdiff_t>(firstPiece * channels));
  batch.samples.insert(
      batch.samples.end(), storage_.begin(),
      storage_.begin() + static_cast<std::ptrdiff_t>((count_ - firstPiece) * channels));
  batch.timeNs = timeOfFrameNs(framesRead_);
  framesRead_ += count_;
  head_ = (head_ + count_) % capacity;
  count_ = 0;
  return batch;
}

}  // namespace kelvaron::host
