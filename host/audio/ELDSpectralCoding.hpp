#pragma once

#include <array>
#include <span>

#include "host/audio/BitWriter.hpp"
#include "host/audio/ELDTables.hpp"

namespace kelvaron::host::eld {

inline constexpr int kZeroCodebook = 0;
inline constexpr int kEscapeCodebook = 11;

// The first codebook that carries magnitudes up to `largest`: 0 for an all-zero band.
int smallestCodebook(int largest);

// What the quantised lines `values` of one band cost in `codebook`, and writing them.
int bandBits(int codebook, std::span<const int> values);
void writeBand(BitWriter& out, int codebook, std::span<const int> values);

// A codebook for each of the first `bandCount` bands, given each band's quantised lines and
// largest magnitude: the choice that costs the fewest bits counting the 9-bit header of every
// section, where a section is a run of bands in one codebook. All-zero bands get codebook 0.
struct CodebookChoice {
  std::array<int, kBandCount> codebooks{};
  int spectralBits = 0;  // of the bands, without the section headers
};
CodebookChoice chooseCodebooks(std::span<const int, kFrameLength> quantized,
                               std::span<const int, kBandCount> largest, int bandCount);

}  // namespace kelvaron::host::eld
