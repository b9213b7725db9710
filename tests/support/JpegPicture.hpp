#pragma once

// A JPEG decoded to R, G, B bytes, and its colours within JPEG's error.

#include <turbojpeg.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <vector>

#include "kit/wire/Bytes.hpp"

namespace kelvaron::test {

struct JpegPicture {
  int width = 0, height = 0;
  std::vector<std::uint8_t> rgb;  // empty when the JPEG was none

  // Whether the pixel at (x, y) is `colour` (0xRRGGBB), each channel within `tolerance`.
  bool is(int x, int y, std::uint32_t colour, int tolerance = 25) const {
    if (x >= width || y >= height) return false;
    return near(&rgb[std::size_t(y * width + x) * 3], colour, tolerance);
  }
  // The share of pixels that are `colour`, each channel within `tolerance`.
  double share(std::uint32_t colour, int tolerance = 40) const {
    int found = 0;
    for (std::size_t i = 0; i + 2 < rgb.size(); i += 3) found += near(&rgb[i], colour, tolerance);
    return rgb.empty() ? 0 : double(found) / double(rgb.size() / 3);
  }

 private:
  static bool near(const std::uint8_t* p, std::uint32_t colour, int tolerance) {
    for (int c = 0; c < 3; ++c) {
      if (std::abs(p[c] - int(colour >> (16 - 8 * c) & 0xff)) >= tolerance) return false;
    }
    return true;
  }
};

inline JpegPicture decodeJpeg(const Data& jpeg) {
  JpegPicture picture;
  const std::unique_ptr<void, int (*)(tjhandle)> decoder(tjInitDecompress(), tjDestroy);
  int subsampling = 0, colourspace = 0;
  if (tjDecompressHeader3(decoder.get(), jpeg.data(), jpeg.size(), &picture.width, &picture.height,
                          &subsampling, &colourspace) != 0)
    return {};
  picture.rgb.resize(std::size_t(picture.width) * std::size_t(picture.height) * 3);
  const bool decoded = tjDecompress2(decoder.get(), jpeg.data(), jpeg.size(), picture.rgb.data(),
                                     picture.width, 0, picture.height, TJPF_RGB, 0) == 0;
  return decoded ? picture : JpegPicture{};
}

}  // namespace kelvaron::test
