#pragma once

#include <cstdint>
#include <memory>

#include "host/video/CaptureSource.hpp"

namespace kelvaron::test {

// A desktop-like picture: a gradient backdrop, a light window with lines of "text", a dark bar.
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

}  // namespace kelvaron::test
