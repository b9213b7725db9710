#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "client/LibavDecoding.hpp"

namespace kelvaron::client {

// The host's AAC packets (raw access units, the stream's AudioSpecificConfig sent apart as its
// magic cookie) through libavcodec's AAC decoder. A packet that does not decode costs only itself.
class AudioDecoder {
 public:
  // Throws std::runtime_error when libavcodec has no AAC decoder or refuses the configuration.
  AudioDecoder(int sampleRate, int channels, std::span<const std::uint8_t> magicCookie);

  // The samples of `packet`, interleaved, 1.0 = full scale; nothing when it does not decode.
  std::optional<std::vector<float>> decode(std::span<const std::uint8_t> packet);

 private:
  static std::vector<float> interleaved(const AVFrame& frame);

  LibavDecoding decoder_;
};

}  // namespace kelvaron::client
