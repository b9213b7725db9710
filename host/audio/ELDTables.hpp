#pragma once

// The fixed numbers of ER AAC-ELD at 48 kHz with 512-sample frames: the low-delay window, the
// scalefactor band edges and the Huffman codebooks. ELDTables.cpp is written by
// scripts/generate-eld-tables.py.

#include <array>
#include <cstdint>
#include <span>

namespace kelvaron::host::eld {

inline constexpr int kFrameLength = 512;
inline constexpr int kWindowLength = 1920;  // 3.75 frames: the decoder treats the rest as zero
inline constexpr int kBandCount = 36;
inline constexpr int kScalefactorCodewordCount = 121;
inline constexpr int kSpectralCodebookCount = 11;

// Written as the low `length` bits of `code`, most significant first.
struct Codeword {
  std::uint32_t code;
  std::uint8_t length;
};

// How a spectral codebook packs values: a tuple of `dimension` values is one codeword whose index
// is the tuple read as digits of `radix`, each digit the value plus `offset`. Unsigned books carry
// magnitudes, and a sign bit follows for each value that is not zero.
struct SpectralCodebook {
  int dimension;
  bool isSigned;
  int largest;  // the largest magnitude; in the escape book, 16 stands for anything from 16 up
  int radix;
  int offset;
  bool escape;
  std::span<const Codeword> codewords;
};

// The window in the order the decoder applies it to its newest frame first.
extern const std::array<float, kWindowLength> kWindow;
// Band b holds spectral lines kBandOffsets[b] .. kBandOffsets[b + 1] - 1.
extern const std::array<int, kBandCount + 1> kBandOffsets;
// Indexed by the difference to the previous scalefactor plus 60.
extern const std::array<Codeword, kScalefactorCodewordCount> kScalefactorCodewords;
// Codebook n (1..11) at index n - 1.
extern const std::array<SpectralCodebook, kSpectralCodebookCount> kSpectralCodebooks;

}  // namespace kelvaron::host::eld
