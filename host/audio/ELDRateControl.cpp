#include "host/audio/ELDRateControl.hpp"

#include <algorithm>
#include <cmath>
#include <utility>

#include "host/audio/ELDSpectralCoding.hpp"

namespace kelvaron::host::eld {

namespace {

// Quantisation noise at this scalefactor lies near the last bit of 16-bit sound: finer would
// spend bits on nothing anyone hears.
constexpr int kFinestScalefactor = 124;
// Scalefactors of coded bands may differ by at most 60 within a channel.
constexpr int kWidestOffset = 60;
// How much of a band's level its noise follows: 0 would make the noise white (the most SNR for
// the bits), 1 would give every band the same SNR. Half keeps quiet high bands cleaner beside a
// loud bass but costs tones in noise 9 dB of SNR at this rate; a quarter costs 3 dB.
constexpr double kNoiseFollowsLevel = 0.25;
// The share of the reservoir one frame may take.
constexpr double kReservoirShare = 0.25;

std::array<double, kBandCount> bandEnergies(Spectrum spectrum) {
  std::array<double, kBandCount> energies{};
  for (int band = 0; band < kBandCount; ++band) {
    for (int i = kBandOffsets[band]; i < kBandOffsets[band + 1]; ++i)
      energies[band] += double(spectrum[i]) * double(spectrum[i]);
    energies[band] /= kBandOffsets[band + 1] - kBandOffsets[band];
  }
  return energies;
}

}  // namespace

int BitReservoir::frameBudgetBits() const {
  const double budget =
      std::min(kMeanFrameBits + kReservoirShare * level_, double(kLargestFrameBits));
  return int(budget) / 8 * 8;
}

void BitReservoir::spend(int bits) {
  level_ = std::clamp(level_ + kMeanFrameBits - bits, 0.0, double(kReservoirBits));
}

const CodedFrame& RateLoop::code(const std::array<Spectrum, kChannels>& spectra, int budgetBits) {
  for (int channel = 0; channel < kChannels; ++channel)
    compand(spectra[channel], std::span(companded_[channel]));
  shapeNoise(spectra);
  if (quantizeAt(spectra, kFinestScalefactor, budgetBits, fitting_)) return fitting_;
  // Halve the gap between a gain too fine for the budget and one that fits. The gain past the
  // largest stands for silence, which always fits.
  constexpr int kSilence = kLargestScalefactor + 1;
  int tooFine = kFinestScalefactor;
  int fits = kSilence;
  while (fits - tooFine > 1) {
    const int gain = (tooFine + fits) / 2;
    if (quantizeAt(spectra, gain, budgetBits, trial_)) {
      std::swap(fitting_, trial_);
      fits = gain;
    } else {
      tooFine = gain;
    }
  }
  if (fits == kSilence) fitting_.bandCount = 0;
  return fitting_;
}

// Each band's offset from the global gain, in scalefactor steps of 1.5 dB: a share of how far the
// band lies below the loudest band of the pair. Bands with nothing in them get the widest.
void RateLoop::shapeNoise(const std::array<Spectrum, kChannels>& spectra) {
  std::array<std::array<double, kBandCount>, kChannels> energies;
  double loudest = 0;
  for (int channel = 0; channel < kChannels; ++channel) {
    energies[channel] = bandEnergies(spectra[channel]);
    loudest =
        std::max(loudest, *std::max_element(energies[channel].begin(), energies[channel].end()));
  }
  for (int channel = 0; channel < kChannels; ++channel) {
    for (int band = 0; band < kBandCount; ++band) {
      const double energy = energies[channel][band];
      const double offset = energy > 0
                                ? std::round(kNoiseFollowsLevel * 2 * std::log2(energy / loudest))
                                : -kWidestOffset;
      offsets_[channel][band] = int(std::max(offset, double(-kWidestOffset)));
    }
  }
}

bool RateLoop::quantizeAt(const std::array<Spectrum, kChannels>& spectra, int gain, int budgetBits,
                          CodedFrame& frame) {
  std::array<std::array<int, kBandCount>, kChannels> largest;
  frame.bandCount = 0;
  for (int channel = 0; channel < kChannels; ++channel) {
    ChannelFrame& coded = frame.channels[channel];
    for (int band = 0; band < kBandCount; ++band) {
      const int scalefactor = std::max(gain + offsets_[channel][band], kFinestScalefactor);
      coded.scalefactors[band] = scalefactor;
      largest[channel][band] =
          quantizeBand(spectra[channel], companded_[channel], band, scalefactor, coded.quantized);
      if (largest[channel][band] > 0) frame.bandCount = std::max(frame.bandCount, band + 1);
    }
  }
  int bits = kPairHeaderBits;
  for (int channel = 0; channel < kChannels; ++channel) {
    ChannelFrame& coded = frame.channels[channel];
    const CodebookChoice choice =
        chooseCodebooks(coded.quantized, largest[channel], frame.bandCount);
    coded.codebooks = choice.codebooks;
    bits += choice.spectralBits + sideInfoBits(coded, frame.bandCount);
  }
  return bits <= budgetBits;
}

}  // namespace kelvaron::host::eld
