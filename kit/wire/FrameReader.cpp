#include "kit/wire/FrameReader.hpp"

#include <algorithm>
#include <bit>

#include "kit/wire/WireError.hpp"

namespace kelvaron {

namespace {

// How many bytes of the character at `i` are well-formed: all of them (`whole` set), or the
// longest start of one that could still have been completed, at least 1.
struct UTF8Run {
  std::size_t length;
  bool whole;
};

UTF8Run utf8Run(std::span<const std::uint8_t> s, std::size_t i) {
  const std::uint8_t b = s[i];
  if (b < 0x80) return {1, true};
  std::size_t extra;
  std::uint8_t lo = 0x80, hi = 0xBF;  // the range of the byte after the lead
  if (b >= 0xC2 && b <= 0xDF) {
    extra = 1;
  } else if (b >= 0xE0 && b <= 0xEF) {
    extra = 2;
    if (b == 0xE0) lo = 0xA0;  // overlong
    if (b == 0xED) hi = 0x9F;  // surrogates
  } else if (b >= 0xF0 && b <= 0xF4) {
    extra = 3;
    if (b == 0xF0) lo = 0x90;  // overlong
    if (b == 0xF4) hi = 0x8F;  // above U+10FFFF
  } else {
    return {1, false};
  }
  std::size_t k = 1;
  for (; k <= extra && i + k < s.size(); ++k) {
    const std::uint8_t c = s[i + k];
    if (k == 1 ? (c < lo || c > hi) : (c & 0xC0) != 0x80) break;
  }
  return {k, k == extra + 1};
}

}  // namespace

bool isValidUTF8(std::span<const std::uint8_t> s) {
  for (std::size_t i = 0; i < s.size();) {
    const UTF8Run run = utf8Run(s, i);
    if (!run.whole) return false;
    i += run.length;
  }
  return true;
}

std::string validUTF8(std::string_view text) {
  const std::span bytes(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
  if (isValidUTF8(bytes)) return std::string(text);
  std::string repaired;
  for (std::size_t i = 0; i < bytes.size();) {
    const UTF8Run run = utf8Run(bytes, i);
    repaired += run.whole ? text.substr(i, run.length) : "\uFFFD";
    i += run.length;
  }
  return repaired;
}

std::span<const std::uint8_t> FrameReader::take(std::size_t count) {
  if (count > remaining()) throw WireError::truncated();
  auto bytes = bytes_.span().subspan(index_, count);
  index_ += count;
  return bytes;
}

std::uint16_t FrameReader::u16() {
  auto b = take(2);
  return static_cast<std::uint16_t>(b[0] << 8 | b[1]);
}

std::uint32_t FrameReader::u32() {
  auto b = take(4);
  return std::uint32_t{b[0]} << 24 | std::uint32_t{b[1]} << 16 | std::uint32_t{b[2]} << 8 | b[3];
}

std::uint64_t FrameReader::u64() {
  const std::uint64_t high = u32();
  return high << 32 | u32();
}

float FrameReader::f32() { return std::bit_cast<float>(u32()); }

bool FrameReader::boolean() {
  const std::uint8_t b = u8();
  if (b > 1) throw WireError::invalidByte("bool ", b);
  return b == 1;
}

std::string FrameReader::string() {
  auto bytes = take(u16());
  if (!isValidUTF8(bytes)) throw WireError::invalidValue("invalid UTF-8");
  return std::string(bytes.begin(), bytes.end());
}

Data FrameReader::data() {
  auto bytes = take(u32());
  return Data(bytes.begin(), bytes.end());
}

SharedBytes FrameReader::sharedData() {
  auto bytes = take(u32());
  return bytes_.slice(static_cast<std::size_t>(bytes.data() - bytes_.data()), bytes.size());
}

UUID FrameReader::uuid() {
  UUID id;
  std::ranges::copy(take(16), id.bytes.begin());
  return id;
}

}  // namespace kelvaron
