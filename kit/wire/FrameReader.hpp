#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "kit/wire/Bytes.hpp"

namespace kelvaron {

// True if `bytes` are well-formed UTF-8: no overlong forms, no surrogates, nothing above U+10FFFF.
bool isValidUTF8(std::span<const std::uint8_t> bytes);
// `text` as well-formed UTF-8: each ill-formed part becomes U+FFFD, as a reader of the wire
// accepts nothing else.
std::string validUTF8(std::string_view text);

// A cursor over the bytes of one frame. Every read fails with `WireError::truncated` when it
// would run past the end; nothing is allocated before the bytes it describes are known to be
// there.
class FrameReader {
 public:
  explicit FrameReader(SharedBytes bytes) : bytes_(std::move(bytes)) {}

  std::span<const std::uint8_t> take(std::size_t count);
  bool isAtEnd() const { return index_ == bytes_.size(); }
  std::size_t remaining() const { return bytes_.size() - index_; }

  std::uint8_t u8() { return take(1)[0]; }
  std::uint16_t u16();
  std::uint32_t u32();
  std::uint64_t u64();
  std::int32_t i32() { return static_cast<std::int32_t>(u32()); }
  float f32();
  bool boolean();
  std::string string();
  Data data();
  // A `Data` field as a slice of the frame itself, without a copy.
  SharedBytes sharedData();
  UUID uuid();

 private:
  SharedBytes bytes_;
  std::size_t index_ = 0;
};

}  // namespace kelvaron
