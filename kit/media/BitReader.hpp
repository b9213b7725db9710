#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace kelvaron::hevc {

// Reads the syntax elements of a parameter set (emulation prevention already removed): fixed-width
// fields most significant bit first, and exp-Golomb codes. A read that would run past the end
// gives nothing, so a unit cut short can never be read beyond its bytes.
class BitReader {
 public:
  explicit BitReader(std::span<const std::uint8_t> bytes) : bytes_(bytes) {}

  std::size_t bitsLeft() const { return bytes_.size() * 8 - position_; }

  bool skip(std::size_t count) {
    if (count > bitsLeft()) return false;
    position_ += count;
    return true;
  }

  // The next `count` bits (at most 32) as an unsigned number.
  std::optional<std::uint32_t> bits(unsigned count) {
    if (count > 32 || count > bitsLeft()) return std::nullopt;
    std::uint64_t value = 0;
    for (unsigned i = 0; i < count; ++i) value = value << 1 | nextBit();
    return static_cast<std::uint32_t>(value);
  }

  std::optional<bool> flag() {
    if (bitsLeft() == 0) return std::nullopt;
    return nextBit() == 1;
  }

  // ue(v): as many zeros as the suffix has bits, a one, the suffix. Values stop at 2^32 - 2 (31
  // zeros), so a longer run of zeros is malformed rather than a number we could not hold.
  std::optional<std::uint32_t> ue() {
    unsigned zeros = 0;
    while (true) {
      const auto bit = flag();
      if (!bit) return std::nullopt;
      if (*bit) break;
      if (++zeros > kMaxLeadingZeros) return std::nullopt;
    }
    const auto suffix = bits(zeros);
    if (!suffix) return std::nullopt;
    return static_cast<std::uint32_t>((std::uint64_t{1} << zeros) - 1 + *suffix);
  }

  // se(v): ue(v) codes 1, 2, 3, 4 … stand for 1, -1, 2, -2 …
  std::optional<std::int32_t> se() {
    const auto code = ue();
    if (!code) return std::nullopt;
    const auto magnitude = static_cast<std::int32_t>((*code + std::uint64_t{1}) / 2);
    return *code % 2 == 1 ? magnitude : -magnitude;
  }

 private:
  static constexpr unsigned kMaxLeadingZeros = 31;

  unsigned nextBit() {
    const unsigned bit = bytes_[position_ / 8] >> (7 - position_ % 8) & 1;
    ++position_;
    return bit;
  }

  std::span<const std::uint8_t> bytes_;
  std::size_t position_ = 0;
};

}  // namespace kelvaron::hevc
