#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "kit/wire/Bytes.hpp"
#include "kit/wire/MediaFrames.hpp"
#include "kit/wire/Message.hpp"
#include "kit/wire/WireError.hpp"

namespace kelvaron {

// The largest `length` a frame may declare (64 MiB).
inline constexpr std::uint32_t kMaxFrameLength = 0x4000000;

// Cuts one direction of one stream into frames. Partial frames wait for more bytes; a frame whose
// content fails to decode costs only itself; a length above the limit poisons the decoder for
// good, because the stream can no longer be followed, and it takes no more bytes from then on.
class WireDecoder {
 public:
  // A stream whose peer is not yet trusted gets a lower limit, raised once it is.
  void setMaxFrameLength(std::uint32_t length) { maxFrameLength_ = length; }
  void append(std::span<const std::uint8_t> bytes);

  // The next complete frame, type byte first, in a buffer of its own; nothing if no whole frame
  // is there. Throws `WireError`.
  std::optional<SharedBytes> decodeFrame();

  std::optional<Message> nextMessage();
  std::optional<VideoFrame> nextVideoFrame();
  std::optional<AudioPacket> nextAudioPacket();

  const std::optional<WireError>& poisoned() const { return poisoned_; }
  // Bytes held, including those of frames already consumed but not yet compacted away.
  std::size_t bufferedBytes() const { return buffer_.size(); }
  std::size_t offset() const { return offset_; }

 private:
  SharedBytes takeFrame(std::size_t length);
  void compact();

  Data buffer_;
  std::size_t offset_ = 0;
  std::uint32_t maxFrameLength_ = kMaxFrameLength;
  std::optional<WireError> poisoned_;
};

}  // namespace kelvaron
