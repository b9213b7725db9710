#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <vector>

#include "client/LibavDecoding.hpp"
#include "kit/wire/MediaFrames.hpp"

namespace kelvaron::client {

// A decoded picture, 8-bit RGBA, rows `width * 4` bytes.
struct Picture {
  int width = 0;
  int height = 0;
  std::vector<std::uint8_t> rgba;
};

// HEVC frames as the host sends them (parameter sets raw, the picture length-prefixed) through
// libavcodec's decoder. A frame that does not decode costs only itself.
class VideoDecoder {
 public:
  VideoDecoder();  // throws std::runtime_error when libavcodec has no HEVC decoder

  // The picture of `frame`, or nothing when the decoder made none of it.
  std::optional<Picture> decode(const VideoFrame& frame);

 private:
  LibavDecoding decoder_;
};

// Writes `picture` as a PNG file; false when it cannot.
bool writePNG(const std::filesystem::path& file, const Picture& picture);

}  // namespace kelvaron::client
