#pragma once

#include <cstdint>
#include <functional>
#include <span>

struct AVCodecContext;
struct AVFrame;
struct AVPacket;

namespace kelvaron::client {

// One libavcodec decoder with its packet and frame: bytes in, at most one frame out.
class LibavDecoding {
 public:
  // The decoder of `codecID` (an AVCodecID), set up by `configure` before it opens; throws
  // std::runtime_error with `refusal` when there is none or it does not open.
  LibavDecoding(int codecID, const std::function<void(AVCodecContext&)>& configure,
                const char* refusal);
  ~LibavDecoding();
  LibavDecoding(const LibavDecoding&) = delete;
  LibavDecoding& operator=(const LibavDecoding&) = delete;

  // The frame `bytes` decoded to, valid until the next call; nothing when none came.
  const AVFrame* decode(std::span<const std::uint8_t> bytes);

 private:
  AVCodecContext* context_ = nullptr;
  AVFrame* frame_ = nullptr;
  AVPacket* packet_ = nullptr;
};

}  // namespace kelvaron::client
