#include "client/AudioDecoder.hpp"

#include <algorithm>
#include <cstring>
#include <stdexcept>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/channel_layout.h>
#include <libavutil/mem.h>
}

namespace kelvaron::client {

// The decoder reads the rate of an ELD configuration but leaves the context's at 0 unless told.
AudioDecoder::AudioDecoder(int sampleRate, int channels, std::span<const std::uint8_t> magicCookie)
    : decoder_(
          AV_CODEC_ID_AAC,
          [&](AVCodecContext& context) {
            context.sample_rate = sampleRate;
            av_channel_layout_default(&context.ch_layout, channels);
            context.extradata = static_cast<std::uint8_t*>(
                av_mallocz(magicCookie.size() + AV_INPUT_BUFFER_PADDING_SIZE));
            if (context.extradata && !magicCookie.empty()) {
              std::memcpy(context.extradata, magicCookie.data(), magicCookie.size());
              context.extradata_size = int(magicCookie.size());
            }
          },
          "the AAC decoder refuses this stream's configuration") {}

std::optional<std::vector<float>> AudioDecoder::decode(std::span<const std::uint8_t> packet) {
  const AVFrame* frame = decoder_.decode(packet);
  if (!frame) return std::nullopt;
  std::vector<float> samples = interleaved(*frame);
  if (samples.empty()) return std::nullopt;  // a sample format this client does not play
  return samples;
}

std::vector<float> AudioDecoder::interleaved(const AVFrame& frame) {
  const auto channels = std::size_t(frame.ch_layout.nb_channels);
  const auto frames = std::size_t(frame.nb_samples);
  std::vector<float> samples(channels * frames);
  if (frame.format == AV_SAMPLE_FMT_FLT) {
    const auto* data = reinterpret_cast<const float*>(frame.data[0]);
    std::copy(data, data + samples.size(), samples.begin());
  } else if (frame.format == AV_SAMPLE_FMT_FLTP) {
    for (std::size_t channel = 0; channel < channels; ++channel) {
      const auto* plane = reinterpret_cast<const float*>(frame.extended_data[channel]);
      for (std::size_t i = 0; i < frames; ++i) samples[i * channels + channel] = plane[i];
    }
  } else {
    samples.clear();
  }
  return samples;
}

}  // namespace kelvaron::client
