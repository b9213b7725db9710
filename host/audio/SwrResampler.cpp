#include "host/audio/SwrResampler.hpp"

#include <algorithm>
#include <array>
#include <cstdint>

#include "host/audio/AudioEncoding.hpp"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libswresample/swresample.h>
}

namespace kelvaron::host {

namespace {

// Frames per call into libswresample, whose counts are ints.
constexpr std::size_t kLargestPiece = 1 << 16;

}  // namespace

SwrResampler::SwrResampler(int inputRate, int inputChannels) : inputChannels_(inputChannels) {
  AVChannelLayout input{}, output{};
  av_channel_layout_default(&input, inputChannels);
  av_channel_layout_default(&output, kOutputChannels);
  // Mono into both sides at full level, where libswresample's default would lower each by 3 dB.
  constexpr std::array<double, kOutputChannels> kMonoToStereo{1.0, 1.0};
  const bool made =
      swr_alloc_set_opts2(&context_, &output, AV_SAMPLE_FMT_FLT, kOutputRate, &input,
                          AV_SAMPLE_FMT_FLT, inputRate, 0, nullptr) >= 0 &&
      (inputChannels != 1 || swr_set_matrix(context_, kMonoToStereo.data(), 1) >= 0) &&
      swr_init(context_) >= 0;
  if (!made) {
    swr_free(&context_);
    throw AACELDError::unsupportedInput("PCM format");
  }
}

SwrResampler::~SwrResampler() { swr_free(&context_); }

std::vector<float> SwrResampler::convert(std::span<const float> interleaved) {
  const auto channels = std::size_t(inputChannels_);
  std::vector<float> converted;
  for (std::size_t frame = 0, frames = interleaved.size() / channels; frame < frames;) {
    const std::size_t piece = std::min(frames - frame, kLargestPiece);
    const int room = swr_get_out_samples(context_, int(piece));
    if (room < 0) return {};
    const std::size_t start = converted.size();
    converted.resize(start + std::size_t(room) * kOutputChannels);
    auto* out = reinterpret_cast<std::uint8_t*>(converted.data() + start);
    const auto* in = reinterpret_cast<const std::uint8_t*>(interleaved.data() + frame * channels);
    const int made = swr_convert(context_, &out, room, &in, int(piece));
    if (made < 0) return {};
    converted.resize(start + std::size_t(made) * kOutputChannels);
    frame += piece;
  }
  return converted;
}

}  // namespace kelvaron::host
