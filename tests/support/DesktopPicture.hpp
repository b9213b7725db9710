#pragma once

// Pictures for tests of the video path: a desktop-like one to capture and encode, and how
// faithfully a picture the client's decoder shows matches the one the host captured.

#include <libyuv/convert_argb.h>
#include <libyuv/convert_from_argb.h>

#include <cmath>
#include <cstdint>
#include <memory>
#include <vector>

#include "client/VideoDecoder.hpp"
#include "host/video/CaptureSource.hpp"

namespace kelvaron::test {

// A gradient backdrop, a light window with lines of "text", a dark bar.
inline host::PixelBufferRef desktopPicture(int width, int height, int shift = 0) {
  auto picture = std::make_shared<host::PixelBuffer>();
  picture->width = width;
  picture->height = height;
  picture->stride = width * 4;
  picture->bytes.resize(std::size_t(picture->stride) * height);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      std::uint8_t* p = &picture->bytes[std::size_t(y) * picture->stride + std::size_t(x) * 4];
      std::uint8_t b = std::uint8_t(x * 255 / width), g = std::uint8_t(y * 255 / height), r = 90;
      const bool inWindow = x > width / 8 + shift && x < width * 3 / 4 + shift && y > height / 6 &&
                            y < height * 5 / 6;
      if (inWindow) {
        const bool text = (y / 6) % 3 == 0 && ((x + y * 7) / 5) % 4 != 0;
        b = g = r = text ? 30 : 235;
      }
      if (y < height / 20) b = g = r = 40;
      p[0] = b, p[1] = g, p[2] = r, p[3] = 255;
    }
  }
  return picture;
}

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
// The same for what `decoder` shows of `frame`; 0 when it shows nothing.
inline double psnr(client::VideoDecoder& decoder, const VideoFrame& frame,
                   const host::PixelBuffer& captured) {
  const auto shown = decoder.decode(frame);
  return shown ? psnr(*shown, captured) : 0;
}

}  // namespace kelvaron::test
