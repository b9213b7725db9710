#include "kit/wire/WireDecoder.hpp"

#include "kit/wire/WireCodec.hpp"

namespace kelvaron {

namespace {
// Capacity kept across frames; a larger buffer, grown for one big frame, is given back.
constexpr std::size_t kRetainedCapacity = 4 << 20;
// Consumed bytes are shifted out only past this much, so that small frames never cause a move.
constexpr std::size_t kCompactionThreshold = 65536;

std::uint32_t readU32(const std::uint8_t* p) {
  return std::uint32_t{p[0]} << 24 | std::uint32_t{p[1]} << 16 | std::uint32_t{p[2]} << 8 | p[3];
}
}  // namespace

void WireDecoder::append(std::span<const std::uint8_t> bytes) {
  if (poisoned_) return;
  buffer_.insert(buffer_.end(), bytes.begin(), bytes.end());
}

std::optional<SharedBytes> WireDecoder::decodeFrame() {
  if (poisoned_) throw *poisoned_;
  if (buffer_.size() - offset_ < 4) return std::nullopt;
  const std::uint32_t length = readU32(buffer_.data() + offset_);
  if (length > maxFrameLength_) {
    poisoned_ = WireError::frameTooLarge(length);
    buffer_ = Data();
    offset_ = 0;
    throw *poisoned_;
  }
  if (buffer_.size() - offset_ - 4 < length) return std::nullopt;
  SharedBytes frame = takeFrame(length);
  compact();
  if (length == 0) throw WireError::truncated();
  return frame;
}

// A frame leaves the buffer by the cheaper of two copies. A small one is copied out. One that
// makes up at least half of what is buffered takes the whole buffer with it, and the bytes behind
// it (at most the frame's size, usually a partial read) move to a new buffer instead: a large
// video frame then costs no copy beyond the one that received it.
SharedBytes WireDecoder::takeFrame(std::size_t length) {
  const std::size_t start = offset_ + 4;
  const std::size_t end = start + length;
  if (length < buffer_.size() / 2) {
    offset_ = end;
    return SharedBytes(Data(buffer_.begin() + static_cast<std::ptrdiff_t>(start),
                            buffer_.begin() + static_cast<std::ptrdiff_t>(end)));
  }
  auto owner = std::make_shared<const Data>(std::move(buffer_));
  buffer_ = Data();
  buffer_.reserve(std::min(owner->capacity(), kRetainedCapacity));
  buffer_.assign(owner->begin() + static_cast<std::ptrdiff_t>(end), owner->end());
  offset_ = 0;
  return SharedBytes(owner, std::span(*owner).subspan(start, length));
}

void WireDecoder::compact() {
  if (offset_ == buffer_.size()) {
    if (buffer_.capacity() > kRetainedCapacity) {
      buffer_ = Data();
    } else {
      buffer_.clear();
    }
    offset_ = 0;
  } else if (offset_ > kCompactionThreshold && offset_ > buffer_.size() / 2) {
    // Shifted in place: the capacity stays for the frame that is arriving.
    buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(offset_));
    offset_ = 0;
  }
}

std::optional<Message> WireDecoder::nextMessage() {
  auto frame = decodeFrame();
  if (!frame) return std::nullopt;
  return WireCodec::decodeMessage(std::move(*frame));
}

std::optional<VideoFrame> WireDecoder::nextVideoFrame() {
  auto frame = decodeFrame();
  if (!frame) return std::nullopt;
  return WireCodec::decodeVideoFrame(std::move(*frame));
}

std::optional<AudioPacket> WireDecoder::nextAudioPacket() {
  auto frame = decodeFrame();
  if (!frame) return std::nullopt;
  return WireCodec::decodeAudioPacket(std::move(*frame));
}

}  // namespace kelvaron
