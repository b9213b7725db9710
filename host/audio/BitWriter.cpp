#include "host/audio/BitWriter.hpp"

namespace kelvaron::host {

void BitWriter::write(std::uint32_t value, int count) {
  const std::uint64_t mask = (std::uint64_t{1} << count) - 1;
  pending_ = (pending_ << count) | (value & mask);
  pendingCount_ += count;
  bitCount_ += count;
  while (pendingCount_ >= 8) {
    pendingCount_ -= 8;
    bytes_.push_back(static_cast<std::uint8_t>(pending_ >> pendingCount_));
  }
  pending_ &= (std::uint64_t{1} << pendingCount_) - 1;
}

Data BitWriter::finish() && {
  if (pendingCount_ > 0)
    bytes_.push_back(static_cast<std::uint8_t>(pending_ << (8 - pendingCount_)));
  return std::move(bytes_);
}

}  // namespace kelvaron::host
