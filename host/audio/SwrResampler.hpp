#pragma once

#include <span>
#include <vector>

struct SwrContext;

namespace kelvaron::host {

// Interleaved float sound at any rate, mono or stereo, into 48 kHz stereo interleaved float
// through libswresample. Mono plays at its own level on both sides.
class SwrResampler {
 public:
  static constexpr int kOutputRate = 48000;
  static constexpr int kOutputChannels = 2;

  // Throws AACELDError::unsupportedInput("PCM format") when libswresample cannot convert it.
  SwrResampler(int inputRate, int inputChannels);
  ~SwrResampler();
  SwrResampler(const SwrResampler&) = delete;
  SwrResampler& operator=(const SwrResampler&) = delete;

  // What `interleaved` becomes, whole input frames only. The filter holds back a few samples,
  // which come out with the next call; nothing comes out when the conversion fails.
  std::vector<float> convert(std::span<const float> interleaved);

 private:
  SwrContext* context_ = nullptr;
  int inputChannels_;
};

}  // namespace kelvaron::host
