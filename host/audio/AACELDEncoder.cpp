#include "host/audio/AACELDEncoder.hpp"

#include <charconv>
#include <cmath>
#include <string>

#include "host/audio/ELDAccessUnit.hpp"

namespace kelvaron::host {

namespace {

// "2 channels at 44100 Hz", the rate in its shortest exact form.
std::string describeInput(double sampleRate, int channels) {
  char rate[32];
  const auto written = std::to_chars(rate, rate + sizeof rate, sampleRate);
  return std::to_string(channels) + " channels at " + std::string(rate, written.ptr) + " Hz";
}

bool isStreamFormat(double sampleRate, int channels) {
  return sampleRate == eld::kSampleRate && channels == eld::kChannels;
}

}  // namespace

std::unique_ptr<AudioEncoding> AACELDEncoderFactory::makeEncoder(double sampleRate,
                                                                 int channels) const {
  return std::make_unique<AACELDEncoder>(sampleRate, channels);
}

AACELDEncoder::AACELDEncoder(double sampleRate, int channels)
    : channels_(channels), magicCookie_(eld::audioSpecificConfig()) {
  const bool supported =
      (channels == 1 || channels == 2) && sampleRate >= kLowestRate && sampleRate <= kHighestRate;
  if (!supported) throw AACELDError::unsupportedInput(describeInput(sampleRate, channels));
  if (!isStreamFormat(sampleRate, channels))
    resampler_.emplace(int(std::lround(sampleRate)), channels);
}

AudioStreamConfig AACELDEncoder::config() const {
  return {eld::kSampleRate, eld::kChannels, AudioCodec::aacELD, magicCookie_};
}

std::vector<Data> AACELDEncoder::encode(std::span<const float> interleaved) {
  const auto channels = std::size_t(channels_);
  take(interleaved.first(interleaved.size() / channels * channels));
  constexpr auto kBlock = std::size_t(ELDFrameEncoder::kSamplesPerAccessUnit);
  std::vector<Data> packets;
  std::size_t read = 0;
  for (; pending_.size() - read >= kBlock; read += kBlock)
    packets.push_back(encoder_.encode(std::span(pending_).subspan(read).first<kBlock>()));
  pending_.erase(pending_.begin(), pending_.begin() + std::ptrdiff_t(read));
  return packets;
}

void AACELDEncoder::take(std::span<const float> interleaved) {
  if (interleaved.empty()) return;
  if (!resampler_) {
    pending_.insert(pending_.end(), interleaved.begin(), interleaved.end());
    return;
  }
  const std::vector<float> converted = resampler_->convert(interleaved);
  pending_.insert(pending_.end(), converted.begin(), converted.end());
}

}  // namespace kelvaron::host
