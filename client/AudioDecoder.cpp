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

AudioDecoder::AudioDecoder(int sampleRate, int channels,
                           std::span<const std::uint8_t> magicCookie) {
  const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_AAC);
  context_ = codec ? avcodec_alloc_context3(codec) : nullptr;
  if (!context_) throw std::runtime_error("libavcodec has no AAC decoder");
  // The decoder reads the rate of an ELD configuration but leaves the context's at 0 unless told.
  context_->sample_rate = sampleRate;
  av_channel_layout_default(&context_->ch_layout, channels);
  context_->extradata =
      static_cast<std::uint8_t*>(av_mallocz(magicCookie.size() + AV_INPUT_BUFFER_PADDING_SIZE));
  if (context_->extradata && !magicCookie.empty()) {
    std::memcpy(context_->extradata, magicCookie.data(), magicCookie.size());
    context_->extradata_size = int(magicCookie.size());
  }
  if (!context_->extradata || avcodec_open2(context_, codec, nullptr) < 0) {
    avcodec_free_context(&context_);
    throw std::runtime_error("the AAC decoder refuses this stream's configuration");
  }
  frame_ = av_frame_alloc();
  packet_ = av_packet_alloc();
}

AudioDecoder::~AudioDecoder() {
  av_packet_free(&packet_);
  av_frame_free(&frame_);
  avcodec_free_context(&context_);
}

std::optional<std::vector<float>> AudioDecoder::decode(std::span<const std::uint8_t> packet) {
  if (packet.empty() || av_new_packet(packet_, int(packet.size())) < 0) return std::nullopt;
  std::copy(packet.begin(), packet.end(), packet_->data);
  const int sent = avcodec_send_packet(context_, packet_);
  av_packet_unref(packet_);
  if (sent < 0 || avcodec_receive_frame(context_, frame_) < 0) return std::nullopt;
  std::vector<float> samples = interleaved();
  av_frame_unref(frame_);
  if (samples.empty()) return std::nullopt;  // a sample format this client does not play
  return samples;
}

std::vector<float> AudioDecoder::interleaved() const {
  const auto channels = std::size_t(frame_->ch_layout.nb_channels);
  const auto frames = std::size_t(frame_->nb_samples);
  std::vector<float> samples(channels * frames);
  if (frame_->format == AV_SAMPLE_FMT_FLT) {
    const auto* data = reinterpret_cast<const float*>(frame_->data[0]);
    std::copy(data, data + samples.size(), samples.begin());
  } else if (frame_->format == AV_SAMPLE_FMT_FLTP) {
    for (std::size_t channel = 0; channel < channels; ++channel) {
      const auto* plane = reinterpret_cast<const float*>(frame_->extended_data[channel]);
      for (std::size_t i = 0; i < frames; ++i) samples[i * channels + channel] = plane[i];
    }
  } else {
    samples.clear();
  }
  return samples;
}

}  // namespace kelvaron::client
