#pragma once

#include <array>
#include <span>

#include "host/audio/ELDTables.hpp"
#include "kit/wire/Bytes.hpp"

namespace kelvaron::host::eld {

inline constexpr int kChannels = 2;  // one channel pair element per access unit

// One channel of an access unit, ready to be written. Bands at or above the access unit's band
// count are not written; within it, a band with codebook 0 has neither scalefactor nor lines.
struct ChannelFrame {
  std::array<int, kFrameLength> quantized{};
  std::array<int, kBandCount> scalefactors{};
  std::array<int, kBandCount> codebooks{};
};

using ChannelPair = std::array<ChannelFrame, kChannels>;

// What one channel costs besides its spectral lines: global gain, sections, scalefactors and the
// TNS flag. The scalefactors of coded bands must lie within 60 of one another.
int sideInfoBits(const ChannelFrame& channel, int bandCount);

// The pair's shared header (band count, M/S flag) in bits.
inline constexpr int kPairHeaderBits = 6 + 2;

// One raw access unit, padded with zero bits to a whole byte.
Data writeAccessUnit(const ChannelPair& channels, int bandCount);

// The AudioSpecificConfig of this stream: ER AAC-ELD, 48 kHz, stereo, 512-sample frames, no SBR.
Data audioSpecificConfig();

}  // namespace kelvaron::host::eld
