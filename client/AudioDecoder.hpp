#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

struct AVCodecContext;
struct AVFrame;
struct AVPacket;

namespace kelvaron::client {

// The host's AAC packets (raw access units, the stream's AudioSpecificConfig sent apart as its
// magic cookie) through libavcodec's AAC decoder. A packet that does not decode costs only itself.
class AudioDecoder {
 public:
  // Throws std::runtime_error when libavcodec has no AAC decoder or refuses the configuration.
  AudioDecoder(int sampleRate, int channels, std::span<const std::uint8_t> magicCookie);
  ~AudioDecoder();
  AudioDecoder(const AudioDecoder&) = delete;
  AudioDecoder& operator=(const AudioDecoder&) = delete;

  // The samples of `packet`, interleaved, 1.0 = full scale; nothing when it does not decode.
  std::optional<std::vector<float>> decode(std::span<const std::uint8_t> packet);

 private:
  std::vector<float> interleaved() const;

  AVCodecContext* context_ = nullptr;
  AVFrame* frame_ = nullptr;
  AVPacket* packet_ = nullptr;
};

}  // namespace kelvaron::client
