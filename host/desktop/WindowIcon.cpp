#include "host/desktop/WindowIcon.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <tuple>
#include <utility>
#include <vector>

#include "host/video/PngImage.hpp"

namespace kelvaron::host {

namespace {

struct Image {
  std::size_t width = 0, height = 0;
  const std::uint32_t* argb = nullptr;
};

// Premultiplied R, G, B, A, so that averaging does not bleed the colour of transparent pixels.
std::array<double, 4> premultiplied(std::uint32_t argb) {
  const double a = double(argb >> 24) / 255.0;
  return {double(argb >> 16 & 0xff) * a, double(argb >> 8 & 0xff) * a, double(argb & 0xff) * a,
          double(argb >> 24)};
}

// Box average when shrinking (every source pixel whose centre falls in the target pixel), bilinear
// when growing.
std::array<double, 4> sample(const Image& image, double scale, int x, int y) {
  std::array<double, 4> sum{};
  const auto at = [&image](std::size_t sx, std::size_t sy) {
    return premultiplied(image.argb[sy * image.width + sx]);
  };
  if (scale < 1) {
    const auto span = [scale](int i, std::size_t size) {
      const auto first = std::min(size - 1, std::size_t(i / scale));
      return std::pair(first, std::clamp(std::size_t((i + 1) / scale), first + 1, size));
    };
    const auto [left, right] = span(x, image.width);
    const auto [top, bottom] = span(y, image.height);
    for (std::size_t sy = top; sy < bottom; ++sy) {
      for (std::size_t sx = left; sx < right; ++sx) {
        const auto pixel = at(sx, sy);
        for (int c = 0; c < 4; ++c) sum[c] += pixel[c];
      }
    }
    const double count = double((bottom - top) * (right - left));
    for (double& channel : sum) channel /= count;
    return sum;
  }
  const auto axis = [scale](int i, std::size_t size) {
    const double position = std::clamp((i + 0.5) / scale - 0.5, 0.0, double(size - 1));
    const auto low = std::size_t(position);
    return std::tuple(low, std::min(low + 1, size - 1), position - double(low));
  };
  const auto [x0, x1, fx] = axis(x, image.width);
  const auto [y0, y1, fy] = axis(y, image.height);
  const auto a = at(x0, y0), b = at(x1, y0), c = at(x0, y1), d = at(x1, y1);
  for (int i = 0; i < 4; ++i) {
    sum[i] = (a[i] * (1 - fx) + b[i] * fx) * (1 - fy) + (c[i] * (1 - fx) + d[i] * fx) * fy;
  }
  return sum;
}

}  // namespace

std::optional<Data> windowIconPng(std::span<const std::uint32_t> property, int side) {
  std::optional<Image> best;
  const auto distance = [side](const Image& image) {
    return std::abs(int(std::max(image.width, image.height)) - side);
  };
  for (std::size_t at = 0; property.size() - at >= 2;) {
    const std::size_t width = property[at], height = property[at + 1];
    at += 2;
    // Sizes beyond what the property holds end the list; they also keep the product in range.
    if (width == 0 || height == 0 || width > 4096 || height > 4096 ||
        width * height > property.size() - at) {
      break;
    }
    const Image image{width, height, property.data() + at};
    at += width * height;
    if (!best || distance(image) < distance(*best) ||
        (distance(image) == distance(*best) &&
         image.width * image.height > best->width * best->height)) {
      best = image;
    }
  }
  if (!best) return std::nullopt;

  const double scale = double(side) / double(std::max(best->width, best->height));
  const int width = std::max(1, int(std::lround(double(best->width) * scale)));
  const int height = std::max(1, int(std::lround(double(best->height) * scale)));
  const int left = (side - width) / 2, top = (side - height) / 2;
  std::vector<std::uint8_t> rgba(std::size_t(side) * std::size_t(side) * 4, 0);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const auto pixel = sample(*best, scale, x, y);
      std::uint8_t* out =
          &rgba[(std::size_t(top + y) * std::size_t(side) + std::size_t(left + x)) * 4];
      const double alpha = pixel[3];
      out[3] = std::uint8_t(std::lround(std::clamp(alpha, 0.0, 255.0)));
      if (out[3] == 0) continue;
      for (int c = 0; c < 3; ++c) {
        out[c] = std::uint8_t(std::lround(std::clamp(pixel[c] * 255.0 / alpha, 0.0, 255.0)));
      }
    }
  }
  return encodePng(rgba.data(), side, side);
}

}  // namespace kelvaron::host
