#pragma once

#include <cstdint>

#include "kit/wire/Bytes.hpp"

namespace kelvaron::host {

// Bits into bytes, most significant first, as AAC's syntax is written.
class BitWriter {
 public:
  // The low `count` bits of `value` (count 0..32).
  void write(std::uint32_t value, int count);
  std::int64_t bitCount() const { return bitCount_; }
  // The bytes written, the last one padded with zero bits.
  Data finish() &&;

 private:
  Data bytes_;
  std::uint64_t pending_ = 0;  // bits not yet in a whole byte, in the low `pendingCount_` bits
  int pendingCount_ = 0;
  std::int64_t bitCount_ = 0;
};

// Counts what a BitWriter would write, where only the length matters.
struct BitCounter {
  int bits = 0;
  void write(std::uint32_t, int count) { bits += count; }
};

}  // namespace kelvaron::host
