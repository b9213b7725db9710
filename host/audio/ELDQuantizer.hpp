#pragma once

#include <span>

#include "host/audio/ELDTables.hpp"

namespace kelvaron::host::eld {

inline constexpr int kLargestScalefactor = 255;
inline constexpr int kLargestQuantized = 8191;  // the most the escape codebook can carry

using Spectrum = std::span<const float, kFrameLength>;
using Quantized = std::span<int, kFrameLength>;

// |x|^(3/4) of every line, once per frame: quantising at any scalefactor is then a multiplication.
void compand(Spectrum spectrum, std::span<float, kFrameLength> companded);

// Band `band` quantised at `scalefactor` into the same lines of `out`, which the decoder restores
// as sign(q) * |q|^(4/3) * 2^((scalefactor - 100) / 4). Returns the largest magnitude. A line
// beyond kLargestQuantized is held at it; the steps 128 kbit/s affords are far too coarse for
// any sound to get there.
int quantizeBand(Spectrum spectrum, Spectrum companded, int band, int scalefactor, Quantized out);

}  // namespace kelvaron::host::eld
