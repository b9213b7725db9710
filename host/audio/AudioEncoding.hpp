#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "kit/wire/Bytes.hpp"
#include "kit/wire/WireTypes.hpp"

namespace kelvaron::host {

// What the client needs to decode the stream: it travels in `message::audioConfig`.
struct AudioStreamConfig {
  std::uint32_t sampleRate = 0;
  std::uint8_t channels = 0;
  AudioCodec codec = AudioCodec::aacELD;
  Data magicCookie;  // the decoder's configuration as the codec defines it
  friend bool operator==(const AudioStreamConfig&, const AudioStreamConfig&) = default;
};

// Captured sound in, encoded packets out. Not thread-safe: one capture thread feeds it.
class AudioEncoding {
 public:
  virtual ~AudioEncoding() = default;
  // The stream this encoder produces, which may differ from what it is fed.
  virtual AudioStreamConfig config() const = 0;
  // Interleaved samples at the rate and channel count the encoder was made for (1.0 = full
  // scale); gives the packets completed by them, each one access unit, possibly none.
  virtual std::vector<Data> encode(std::span<const float> interleaved) = 0;
};

class AudioEncoderFactory {
 public:
  virtual ~AudioEncoderFactory() = default;
  // An encoder fed at `sampleRate` with `channels` channels; throws when it cannot be made.
  virtual std::unique_ptr<AudioEncoding> makeEncoder(double sampleRate, int channels) const = 0;
};

// Makes AACELDEncoder: 48 kHz stereo AAC-ELD whatever it is fed, converted when it must be.
class AACELDEncoderFactory : public AudioEncoderFactory {
 public:
  std::unique_ptr<AudioEncoding> makeEncoder(double sampleRate, int channels) const override;
};

class AACELDError : public std::runtime_error {
 public:
  enum class Kind { unsupportedInput, libraryFailed };

  // Sound the encoder cannot take: "3 channels at 48000 Hz", or "PCM format".
  static AACELDError unsupportedInput(std::string_view what);
  // "av_tx_init failed (Out of memory)".
  static AACELDError libraryFailed(std::string_view what, std::string_view error);

  Kind kind() const { return kind_; }

 private:
  AACELDError(Kind kind, const std::string& text) : std::runtime_error(text), kind_(kind) {}

  Kind kind_;
};

}  // namespace kelvaron::host
