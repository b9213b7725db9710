#include "host/audio/AudioPipeline.hpp"

#include <utility>

namespace kelvaron::host {

AudioPipeline::AudioPipeline(AudioMode mode, std::shared_ptr<AudioCapturing> capture,
                             std::shared_ptr<const AudioEncoderFactory> encoders, AudioSink sink,
                             std::function<void(const std::string&)> onFailure)
    : mode_(mode),
      capture_(std::move(capture)),
      encoders_(std::move(encoders)),
      sink_(std::move(sink)),
      onFailure_(std::move(onFailure)) {}

void AudioPipeline::start() {
  const std::weak_ptr<AudioPipeline> weak = weak_from_this();
  const AudioFormat format = capture_->start(
      mode_ == AudioMode::phoneOnly,
      [weak](std::span<const float> samples, std::uint64_t ptsMicros) {
        if (const auto self = weak.lock()) self->encode(samples, ptsMicros);
      },
      [weak](const std::string& text) {
        if (const auto self = weak.lock()) self->onFailure_(text);
      });
  std::unique_ptr<AudioEncoding> encoder;
  try {
    encoder = encoders_->makeEncoder(format.sampleRate, format.channels);
  } catch (const std::exception& e) {
    capture_->stop();
    throw AudioCaptureError::failed(std::string("Audio encoder: ") + e.what());
  }
  const AudioStreamConfig config = encoder->config();
  {
    std::lock_guard guard(lock_);
    encoder_ = std::move(encoder);
  }
  sink_.config(config);
}

void AudioPipeline::stop() {
  capture_->stop();
  std::lock_guard guard(lock_);
  encoder_.reset();
}

AudioPipeline::Counts AudioPipeline::counts() const {
  std::lock_guard guard(lock_);
  return counts_;
}

void AudioPipeline::encode(std::span<const float> samples, std::uint64_t ptsMicros) {
  std::lock_guard guard(lock_);
  if (!encoder_) return;
  const std::uint64_t anchor = anchorMicros_.value_or(ptsMicros);
  anchorMicros_ = anchor;
  const std::uint64_t sampleRate = encoder_->config().sampleRate;
  for (Data& bytes : encoder_->encode(samples)) {
    // From the count each time, so that no rounding accumulates.
    const std::uint64_t pts = anchor + packetCount_ * 512'000'000 / sampleRate;
    ++packetCount_;
    if (sink_.packet(AudioPacket{pts, std::move(bytes)})) {
      ++counts_.sent;
    } else {
      ++counts_.dropped;
    }
  }
}

}  // namespace kelvaron::host
