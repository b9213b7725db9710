#pragma once

#include <vector>

#include "kit/wire/WireTypes.hpp"

namespace kelvaron::host {

// What this computer's video encoders can really produce.
class EncoderFactory {
 public:
  virtual ~EncoderFactory() = default;
  // In no particular order.
  virtual std::vector<CodecProfile> supportedProfiles() const = 0;
};

}  // namespace kelvaron::host
