#pragma once

// How faithfully a picture the client's decoder shows matches the one the host captured, for tests
// that decode what the host encodes.

#include <libyuv/convert_argb.h>
#include <libyuv/convert_from_argb.h>

#include <cmath>
#include <cstdint>
#include <vector>

#include "client/VideoDecoder.hpp"
#include "host/video/CaptureSource.hpp"

namespace kelvaron::test {

// The luma of BGRA pixels, as the host's conversion makes it.
inline std::vector<std::uint8_t> lumaOf(const std::uint8_t* bgra, int stride, int width,
                                        int height) {
  std::vector<std::uint8_t> luma(std::size_t(width) * std::size_t(height));
  libyuv::ARGBToI400(bgra, stride, luma.data(), width, width, height);
  return luma;
}

// The peak signal-to-noise ratio in dB of the luma of `shown` against `captured`: infinite when
// they are equal, 0 when their sizes differ.
inline double psnr(const client::Picture& shown, const host::PixelBuffer& captured) {
  const int width = shown.width, height = shown.height;
  if (width != captured.width || height != captured.height) return 0;
  std::vector<std::uint8_t> bgra(shown.rgba.size());
  libyuv::ABGRToARGB(shown.rgba.data(), width * 4, bgra.data(), width * 4, width, height);
  const auto a = lumaOf(bgra.data(), width * 4, width, height);
  const auto b = lumaOf(captured.bytes.data(), captured.stride, width, height);
  double sum = 0;
  for (std::size_t i = 0; i < a.size(); ++i) {
    const double d = double(a[i]) - double(b[i]);
    sum += d * d;
  }
  if (sum == 0) return INFINITY;
  return 10 * std::log10(255.0 * 255.0 / (sum / double(a.size())));
}

}  // namespace kelvaron::test
