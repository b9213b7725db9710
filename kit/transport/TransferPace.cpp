#include "kit/transport/TransferPace.hpp"

#include <algorithm>

namespace kelvaron {

TransferPace::TransferPace(double bytesPerSecond, double burst)
    : rate_(bytesPerSecond), burst_(burst), tokens_(burst) {}

std::size_t TransferPace::grant(std::size_t wanted, double now) {
  if (started_ && now > last_) tokens_ = std::min(burst_, tokens_ + (now - last_) * rate_);
  if (!started_ || now > last_) last_ = now;
  started_ = true;
  const auto granted = std::min(wanted, static_cast<std::size_t>(tokens_));
  tokens_ -= static_cast<double>(granted);
  return granted;
}

}  // namespace kelvaron
