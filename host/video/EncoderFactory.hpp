#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "host/video/VideoEncoder.hpp"
#include "kit/wire/WireTypes.hpp"

namespace kelvaron::host {

// What this computer's video encoders can really produce, and the encoders themselves.
class EncoderFactory {
 public:
  virtual ~EncoderFactory() = default;
  // In no particular order.
  virtual std::vector<CodecProfile> supportedProfiles() const = 0;
  virtual std::shared_ptr<VideoEncoder> makeEncoder(CodecProfile profile,
                                                    std::int64_t bitsPerSecond,
                                                    EncoderOutputHandler output) const = 0;
};

}  // namespace kelvaron::host
