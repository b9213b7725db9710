#pragma once

#include <array>
#include <span>

#include "host/audio/ELDTables.hpp"

struct AVTXContext;

namespace kelvaron::host {

// The low-delay analysis of one channel: each block of 512 new samples becomes 512 spectral
// values, which the decoder's synthesis turns back into the same samples 256 samples later.
// The window spans 1920 samples, so the last 1408 are kept between blocks.
class ELDAnalysis {
 public:
  ELDAnalysis();  // throws AACELDError when libavutil has no transform for it
  ~ELDAnalysis();
  ELDAnalysis(const ELDAnalysis&) = delete;
  ELDAnalysis& operator=(const ELDAnalysis&) = delete;

  // The spectrum after `block` (1.0 = full scale), valid until the next call. Its scale is the
  // one the quantiser's scalefactors are defined in: a full-scale sine gives about 1.7e7.
  std::span<const float, eld::kFrameLength> analyse(
      std::span<const float, eld::kFrameLength> block);

 private:
  using MDCT = void (*)(AVTXContext*, void*, void*, std::ptrdiff_t);

  void fold();

  std::array<float, eld::kWindowLength> history_{};  // oldest first
  alignas(64) std::array<float, 2 * eld::kFrameLength> folded_{};
  alignas(64) std::array<float, eld::kFrameLength> spectrum_{};
  AVTXContext* transform_ = nullptr;
  MDCT mdct_ = nullptr;
};

}  // namespace kelvaron::host
