// Arbitrary bytes as the samples of a 48 kHz stereo stream, NaN, infinities, huge and tiny values
// included: every access unit must stay within the encoder's largest size and begin with a band
// count the decoder accepts. The input is fed several times over, so that the filterbank's
// history and the bit reservoir carry from frame to frame.

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "host/audio/ELDFrameEncoder.hpp"

namespace {

using kelvaron::host::ELDFrameEncoder;

constexpr int kAccessUnits = 4;

void check(bool condition) {
  if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  const std::size_t count = size / sizeof(float);
  std::vector<float> samples(std::max<std::size_t>(count, 1));  // too short for one: silence
  if (count > 0) std::memcpy(samples.data(), bytes, count * sizeof(float));
  ELDFrameEncoder encoder;
  std::array<float, ELDFrameEncoder::kSamplesPerAccessUnit> block;
  std::size_t next = 0;
  for (int unit = 0; unit < kAccessUnits; ++unit) {
    for (float& sample : block) sample = samples[next++ % samples.size()];
    const kelvaron::Data accessUnit = encoder.encode(block);
    check(!accessUnit.empty() && accessUnit.size() <= ELDFrameEncoder::kMaxAccessUnitBytes);
    check((accessUnit[0] >> 2) <= kelvaron::host::eld::kBandCount);
  }
  return 0;
}
