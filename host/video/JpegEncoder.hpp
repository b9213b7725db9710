#pragma once

#include <cstdint>

#include "kit/wire/Bytes.hpp"

namespace kelvaron::host {

// Makes JPEGs of B, G, R, X pictures with TurboJPEG (4:2:0), keeping its compressor from one
// picture to the next. Not thread-safe: one user at a time.
class JpegEncoder {
 public:
  JpegEncoder() = default;
  ~JpegEncoder();
  JpegEncoder(const JpegEncoder&) = delete;
  JpegEncoder& operator=(const JpegEncoder&) = delete;

  // `stride` bytes between rows; `quality` 1 to 100. Throws std::runtime_error with a text for a
  // person when TurboJPEG cannot start or refuses the picture.
  Data encode(const std::uint8_t* bgrx, int width, int height, int stride, int quality);

 private:
  void* compressor_ = nullptr;  // a tjhandle, made at the first picture
};

}  // namespace kelvaron::host
