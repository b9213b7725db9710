#include "host/audio/ELDAccessUnit.hpp"

#include "host/audio/BitWriter.hpp"
#include "host/audio/ELDSpectralCoding.hpp"

namespace kelvaron::host::eld {

namespace {

constexpr std::uint32_t kObjectTypeEscape = 31;  // the 5-bit field's escape to a 6-bit extension
constexpr std::uint32_t kObjectTypeELD = 39;
constexpr std::uint32_t kSamplingFrequencyIndex48k = 3;
constexpr std::uint32_t kChannelConfigurationStereo = 2;
constexpr int kLongestSectionField = 31;  // a section length field of 31 means "and more follows"
constexpr int kScalefactorDifferenceZero = 60;

// The first coded band's scalefactor: the chain of differences starts from it.
int globalGain(const ChannelFrame& channel, int bandCount) {
  for (int band = 0; band < bandCount; ++band)
    if (channel.codebooks[band] != kZeroCodebook) return channel.scalefactors[band];
  return 0;
}

template <typename Sink>
void writeSections(Sink& out, const ChannelFrame& channel, int bandCount) {
  for (int band = 0; band < bandCount;) {
    const int codebook = channel.codebooks[band];
    int length = 1;
    while (band + length < bandCount && channel.codebooks[band + length] == codebook) ++length;
    out.write(std::uint32_t(codebook), 4);
    int rest = length;
    for (; rest >= kLongestSectionField; rest -= kLongestSectionField)
      out.write(kLongestSectionField, 5);
    out.write(std::uint32_t(rest), 5);
    band += length;
  }
}

template <typename Sink>
void writeScalefactors(Sink& out, const ChannelFrame& channel, int bandCount) {
  int previous = globalGain(channel, bandCount);
  for (int band = 0; band < bandCount; ++band) {
    if (channel.codebooks[band] == kZeroCodebook) continue;
    const int scalefactor = channel.scalefactors[band];
    const Codeword codeword =
        kScalefactorCodewords[scalefactor - previous + kScalefactorDifferenceZero];
    out.write(codeword.code, codeword.length);
    previous = scalefactor;
  }
}

template <typename Sink>
void writeSideInfo(Sink& out, const ChannelFrame& channel, int bandCount) {
  out.write(std::uint32_t(globalGain(channel, bandCount)), 8);
  writeSections(out, channel, bandCount);
  writeScalefactors(out, channel, bandCount);
  out.write(0, 1);  // no TNS
}

void writeSpectrum(BitWriter& out, const ChannelFrame& channel, int bandCount) {
  for (int band = 0; band < bandCount; ++band) {
    if (channel.codebooks[band] == kZeroCodebook) continue;
    const auto lines =
        std::span(channel.quantized)
            .subspan(kBandOffsets[band], kBandOffsets[band + 1] - kBandOffsets[band]);
    writeBand(out, channel.codebooks[band], lines);
  }
}

}  // namespace

int sideInfoBits(const ChannelFrame& channel, int bandCount) {
  BitCounter counter;
  writeSideInfo(counter, channel, bandCount);
  return counter.bits;
}

Data writeAccessUnit(const ChannelPair& channels, int bandCount) {
  BitWriter out;
  out.write(std::uint32_t(bandCount), 6);
  out.write(0, 2);  // no M/S
  for (const ChannelFrame& channel : channels) {
    writeSideInfo(out, channel, bandCount);
    writeSpectrum(out, channel, bandCount);
  }
  return std::move(out).finish();
}

Data audioSpecificConfig() {
  BitWriter out;
  out.write(kObjectTypeEscape, 5);
  out.write(kObjectTypeELD - 32, 6);
  out.write(kSamplingFrequencyIndex48k, 4);
  out.write(kChannelConfigurationStereo, 4);
  out.write(0, 1);  // 512-sample frames
  out.write(0, 3);  // no error resilience in sections, scalefactors or lines
  out.write(0, 1);  // no SBR
  out.write(0, 4);  // no extensions: the list ends at once
  out.write(0, 2);  // no error protection
  return std::move(out).finish();
}

}  // namespace kelvaron::host::eld
