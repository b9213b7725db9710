#include "host/audio/ELDQuantizer.hpp"

#include <algorithm>
#include <array>
#include <cmath>

namespace kelvaron::host::eld {

namespace {

// Rounds companded values slightly down, which lowers the error after expansion by 4/3.
constexpr float kRounding = 0.4054f;
constexpr int kUnityScalefactor = 100;

// 2^(-3 (sf - 100) / 16): the companded step of each scalefactor, inverted.
const std::array<float, kLargestScalefactor + 1> kInverseSteps = [] {
  std::array<float, kLargestScalefactor + 1> steps{};
  for (int sf = 0; sf <= kLargestScalefactor; ++sf)
    steps[sf] = std::exp2(-3.0f * float(sf - kUnityScalefactor) / 16.0f);
  return steps;
}();

}  // namespace

void compand(Spectrum spectrum, std::span<float, kFrameLength> companded) {
  for (int i = 0; i < kFrameLength; ++i) companded[i] = std::pow(std::fabs(spectrum[i]), 0.75f);
}

int quantizeBand(Spectrum spectrum, Spectrum companded, int band, int scalefactor, Quantized out) {
  const float inverseStep = kInverseSteps[scalefactor];
  int largest = 0;
  for (int i = kBandOffsets[band]; i < kBandOffsets[band + 1]; ++i) {
    // Bounded before the conversion, so that no value can overflow the integer.
    const int q = int(std::min(companded[i] * inverseStep + kRounding, float(kLargestQuantized)));
    out[i] = spectrum[i] < 0 ? -q : q;
    largest = std::max(largest, q);
  }
  return largest;
}

}  // namespace kelvaron::host::eld
