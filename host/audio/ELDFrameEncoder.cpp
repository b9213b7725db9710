#include "host/audio/ELDFrameEncoder.hpp"

#include <algorithm>
#include <cmath>

namespace kelvaron::host {

namespace {

// The bitstream has room for far louder values, but the decoder's output is heard through
// something that clips at full scale anyway; bounding them here bounds every spectral value.
float sanitized(float sample) {
  return std::isnan(sample) ? 0.0f : std::clamp(sample, -1.0f, 1.0f);
}

}  // namespace

Data ELDFrameEncoder::encode(std::span<const float, kSamplesPerAccessUnit> interleaved) {
  const std::array<eld::Spectrum, eld::kChannels> spectra{analyseChannel(interleaved, 0),
                                                          analyseChannel(interleaved, 1)};
  const eld::CodedFrame& frame = rateLoop_.code(spectra, reservoir_.frameBudgetBits());
  Data accessUnit = eld::writeAccessUnit(frame.channels, frame.bandCount);
  reservoir_.spend(int(accessUnit.size()) * 8);
  return accessUnit;
}

eld::Spectrum ELDFrameEncoder::analyseChannel(
    std::span<const float, kSamplesPerAccessUnit> interleaved, int channel) {
  std::array<float, eld::kFrameLength> block;
  for (int i = 0; i < eld::kFrameLength; ++i)
    block[i] = sanitized(interleaved[i * eld::kChannels + channel]);
  return analysis_[channel].analyse(block);
}

}  // namespace kelvaron::host
