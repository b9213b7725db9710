#pragma once

#include <optional>
#include <span>
#include <vector>

#include "host/audio/AudioEncoding.hpp"
#include "host/audio/ELDFrameEncoder.hpp"
#include "host/audio/SwrResampler.hpp"

namespace kelvaron::host {

// ER AAC-ELD at 48 kHz stereo, about 128 kbit/s, one raw access unit per 512 frames, whatever
// rate and channel count it is fed: other formats go through a resampler first.
class AACELDEncoder : public AudioEncoding {
 public:
  static constexpr double kLowestRate = 8000;
  static constexpr double kHighestRate = 768000;  // the most a sound server offers

  // Mono or stereo between the two rates; throws AACELDError::unsupportedInput otherwise.
  AACELDEncoder(double sampleRate, int channels);

  AudioStreamConfig config() const override;
  // A trailing part of a frame is dropped: it would shift every later sample into the wrong
  // channel. Samples short of a whole access unit wait for the next call.
  std::vector<Data> encode(std::span<const float> interleaved) override;

 private:
  void take(std::span<const float> interleaved);

  int channels_;
  std::optional<SwrResampler> resampler_;  // none when fed 48 kHz stereo
  ELDFrameEncoder encoder_;
  std::vector<float> pending_;  // 48 kHz stereo, less than one access unit between calls
  Data magicCookie_;
};

}  // namespace kelvaron::host
