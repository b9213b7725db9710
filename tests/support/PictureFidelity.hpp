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

// The peak signal-to-noise ratio in dB of the luma of `shown` against `captured`, each made as the
// host's conversion makes it: infinite when they are equal, 0 when their sizes differ.
inline double psnr(const client::Picture& shown, const host::PixelBuffer& captured) {
  const int width = shown.width, height = shown.height;
  if (width != captured.width || height != captured.height) return 0;
  std::vector<std::uint8_t> bgra(shown.rgba.size()), a(std::size_t(width) * height), b(a.size());
  libyuv::ABGRToARGB(shown.rgba.data(), width * 4, bgra.data(), width * 4, width, height);
  libyuv::ARGBToI400(bgra.data(), width * 4, a.data(), width, width, height);
  libyuv::ARGBToI400(captured.bytes.data(), captured.stride, b.data(), width, width, height);
  double sum = 0;
  for (std::size_t i = 0; i < a.size(); ++i) sum += (double(a[i]) - b[i]) * (double(a[i]) - b[i]);
  if (sum == 0) return INFINITY;
  return 10 * std::log10(255.0 * 255.0 / (sum / double(a.size())));
}

}  // namespace kelvaron::test
