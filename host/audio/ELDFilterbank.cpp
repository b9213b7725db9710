#include "host/audio/ELDFilterbank.hpp"

#include <algorithm>

#include "host/audio/AudioEncoding.hpp"

extern "C" {
#include <libavutil/error.h>
#include <libavutil/tx.h>
}

namespace kelvaron::host {

namespace {

constexpr int N = eld::kFrameLength;
// The decoder's synthesis divides by 32768 * 512 and sums two halves: this factor makes the
// round trip unity. The sign is the decoder's, whose coefficients are the negated values.
constexpr float kAnalysisScale = -65536.0f;

// Sample i of the history (oldest first) weighted by the window, which runs backwards in time.
float windowed(const std::array<float, eld::kWindowLength>& history, int i) {
  return history[i] * eld::kWindow[eld::kWindowLength - 1 - i];
}

}  // namespace

ELDAnalysis::ELDAnalysis() {
  const float scale = kAnalysisScale;
  const int result = av_tx_init(&transform_, &mdct_, AV_TX_FLOAT_MDCT, 0, N, &scale, 0);
  if (result < 0) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(result, text, sizeof text);
    throw AACELDError::libraryFailed("av_tx_init", text);
  }
}

ELDAnalysis::~ELDAnalysis() { av_tx_uninit(&transform_); }

std::span<const float, eld::kFrameLength> ELDAnalysis::analyse(
    std::span<const float, eld::kFrameLength> block) {
  std::copy(history_.begin() + N, history_.end(), history_.begin());
  std::copy(block.begin(), block.end(), history_.end() - N);
  fold();
  mdct_(transform_, spectrum_.data(), folded_.data(), sizeof(float));
  return spectrum_;
}

// The 1920 windowed samples folded onto the 1024 an ordinary MDCT takes: the window is 3.75
// blocks long where an MDCT's is 2, and the overlapping parts add with alternating signs.
void ELDAnalysis::fold() {
  for (int v = 0; v < 3 * N / 4; ++v)
    folded_[v] = windowed(history_, v + 3 * N) - windowed(history_, v + N);
  for (int v = 3 * N / 4; v < N; ++v) folded_[v] = -windowed(history_, v + N);
  for (int v = N; v < 2 * N; ++v)
    folded_[v] = windowed(history_, v - N) - windowed(history_, v + N);
}

}  // namespace kelvaron::host
