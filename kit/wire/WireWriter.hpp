#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "kit/wire/Bytes.hpp"

namespace kelvaron {

// The largest byte count a String can say.
inline constexpr std::size_t kMaxStringBytes = 65535;

// Length of the longest prefix of `text` that is at most `limit` bytes and does not end inside a
// UTF-8 character: the byte at `limit` and those before it are walked down past continuation
// bytes.
std::size_t utf8PrefixLength(std::string_view text, std::size_t limit);

// Appends primitives in the wire's encoding (big-endian, no padding) to a byte buffer. A writer
// never fails: an over-long String is cut on a character boundary.
class WireWriter {
 public:
  explicit WireWriter(Data& out) : out_(out) {}

  void u8(std::uint8_t v) { out_.push_back(v); }
  void u16(std::uint16_t v);
  void u32(std::uint32_t v);
  void u64(std::uint64_t v);
  void i32(std::int32_t v) { u32(static_cast<std::uint32_t>(v)); }
  void f32(float v);
  void boolean(bool v) { u8(v ? 1 : 0); }
  void string(std::string_view text);
  void data(std::span<const std::uint8_t> bytes);
  void uuid(const UUID& id) { raw(id.bytes); }
  void raw(std::span<const std::uint8_t> bytes) {
    out_.insert(out_.end(), bytes.begin(), bytes.end());
  }

  std::size_t size() const { return out_.size(); }
  // Overwrites four bytes already written at `offset` with `v` (for a length known only later).
  void patchU32(std::size_t offset, std::uint32_t v);

 private:
  Data& out_;
};

}  // namespace kelvaron
