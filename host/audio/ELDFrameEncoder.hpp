#pragma once

#include <array>
#include <cstddef>
#include <span>

#include "host/audio/ELDFilterbank.hpp"
#include "host/audio/ELDRateControl.hpp"
#include "kit/wire/Bytes.hpp"

namespace kelvaron::host {

// 48 kHz stereo into ER AAC-ELD access units at about 128 kbit/s, one per 512 frames. No I/O,
// and deterministic: the same samples give the same bytes.
class ELDFrameEncoder {
 public:
  static constexpr int kSamplesPerAccessUnit = eld::kChannels * eld::kFrameLength;  // interleaved
  static constexpr std::size_t kMaxAccessUnitBytes = eld::kLargestFrameBits / 8;
  // A decoded sample is the input sample this many frames earlier.
  static constexpr int kDecoderDelayFrames = eld::kFrameLength / 2;

  // Any values at all: NaN counts as silence and whatever lies beyond full scale is clipped.
  Data encode(std::span<const float, kSamplesPerAccessUnit> interleaved);

 private:
  eld::Spectrum analyseChannel(std::span<const float, kSamplesPerAccessUnit> interleaved,
                               int channel);

  std::array<ELDAnalysis, eld::kChannels> analysis_;
  eld::RateLoop rateLoop_;
  eld::BitReservoir reservoir_;
};

}  // namespace kelvaron::host
