#include "host/video/JpegEncoder.hpp"

#include <turbojpeg.h>

#include <stdexcept>
#include <string>

namespace kelvaron::host {

JpegEncoder::~JpegEncoder() {
  if (compressor_) tjDestroy(compressor_);
}

Data JpegEncoder::encode(const std::uint8_t* bgrx, int width, int height, int stride, int quality) {
  if (!compressor_ && !(compressor_ = tjInitCompress())) {
    throw std::runtime_error("TurboJPEG cannot start: out of memory");
  }
  unsigned char* out = nullptr;
  unsigned long size = 0;
  if (tjCompress2(compressor_, bgrx, width, stride, height, TJPF_BGRX, &out, &size, TJSAMP_420,
                  quality, 0) != 0) {
    tjFree(out);
    throw std::runtime_error(std::string("the picture could not be made a JPEG: ") +
                             tjGetErrorStr2(compressor_));
  }
  Data result(out, out + size);
  tjFree(out);
  return result;
}

}  // namespace kelvaron::host
