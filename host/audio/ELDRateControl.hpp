#pragma once

#include <array>

#include "host/audio/ELDAccessUnit.hpp"
#include "host/audio/ELDQuantizer.hpp"

namespace kelvaron::host::eld {

inline constexpr int kSampleRate = 48000;
inline constexpr int kBitsPerSecond = 128000;
inline constexpr double kMeanFrameBits = double(kBitsPerSecond) * kFrameLength / kSampleRate;
// Three frames' worth: enough for an attack after quiet, little enough that a stream sent at a
// steady rate never runs 32 ms behind.
inline constexpr int kReservoirBits = 4096;
inline constexpr int kLargestFrameBits = int(kMeanFrameBits) + kReservoirBits;

// Bits that frames needing less than the mean leave for frames needing more.
class BitReservoir {
 public:
  // What the next frame may use: the mean and a share of the savings, in whole bytes.
  int frameBudgetBits() const;
  void spend(int bits);

 private:
  double level_ = kReservoirBits;  // full at the start: the first sound is an onset
};

struct CodedFrame {
  ChannelPair channels;
  int bandCount = 0;
};

// Finds, for a pair of spectra, the finest quantisation that fits a budget. Each band's
// scalefactor is a global gain plus an offset that follows a quarter of the band's level in dB
// (quiet bands get less noise than loud ones, but not in proportion), so one number moves the
// whole frame between finer and coarser.
class RateLoop {
 public:
  const CodedFrame& code(const std::array<Spectrum, kChannels>& spectra, int budgetBits);

 private:
  void shapeNoise(const std::array<Spectrum, kChannels>& spectra);
  // The frame at `gain` into `frame`; whether it fits the budget.
  bool quantizeAt(const std::array<Spectrum, kChannels>& spectra, int gain, int budgetBits,
                  CodedFrame& frame);

  std::array<std::array<float, kFrameLength>, kChannels> companded_{};
  std::array<std::array<int, kBandCount>, kChannels> offsets_{};
  CodedFrame fitting_;
  CodedFrame trial_;
};

}  // namespace kelvaron::host::eld
