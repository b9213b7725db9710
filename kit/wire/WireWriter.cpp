#include "kit/wire/WireWriter.hpp"

#include "kit/wire/FrameReader.hpp"

#include <algorithm>
#include <bit>

namespace kelvaron {

namespace {
bool isContinuationByte(std::uint8_t b) { return (b & 0xC0) == 0x80; }
}  // namespace

std::size_t utf8PrefixLength(std::string_view text, std::size_t limit) {
  if (text.size() <= limit) return text.size();
  std::size_t end = limit;
  while (end > 0 && isContinuationByte(static_cast<std::uint8_t>(text[end]))) --end;
  return end;
}

void WireWriter::u16(std::uint16_t v) {
  u8(static_cast<std::uint8_t>(v >> 8));
  u8(static_cast<std::uint8_t>(v));
}

void WireWriter::u32(std::uint32_t v) {
  const std::uint8_t b[4] = {static_cast<std::uint8_t>(v >> 24), static_cast<std::uint8_t>(v >> 16),
                             static_cast<std::uint8_t>(v >> 8), static_cast<std::uint8_t>(v)};
  raw(b);
}

void WireWriter::u64(std::uint64_t v) {
  u32(static_cast<std::uint32_t>(v >> 32));
  u32(static_cast<std::uint32_t>(v));
}

void WireWriter::f32(float v) { u32(std::bit_cast<std::uint32_t>(v)); }

void WireWriter::string(std::string_view text) {
  // Nearly all text is well-formed and goes out as it is; only ill-formed text costs a copy.
  std::string repaired;
  if (!isValidUTF8({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()})) {
    repaired = validUTF8(text);
    text = repaired;
  }
  text = text.substr(0, utf8PrefixLength(text, kMaxStringBytes));
  u16(static_cast<std::uint16_t>(text.size()));
  raw({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
}

void WireWriter::data(std::span<const std::uint8_t> bytes) {
  bytes = bytes.first(std::min<std::size_t>(bytes.size(), UINT32_MAX));
  u32(static_cast<std::uint32_t>(bytes.size()));
  raw(bytes);
}

void WireWriter::patchU32(std::size_t offset, std::uint32_t v) {
  out_[offset] = static_cast<std::uint8_t>(v >> 24);
  out_[offset + 1] = static_cast<std::uint8_t>(v >> 16);
  out_[offset + 2] = static_cast<std::uint8_t>(v >> 8);
  out_[offset + 3] = static_cast<std::uint8_t>(v);
}

}  // namespace kelvaron
