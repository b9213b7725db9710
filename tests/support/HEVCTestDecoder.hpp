#pragma once

// Decodes `VideoFrame`s the way a client does (libavcodec's HEVC decoder), for tests that compare
// what comes out with what went in.

#include <libyuv/convert_from_argb.h>

#include <cmath>
#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <vector>

#include "host/video/CaptureSource.hpp"
#include "kit/media/HEVCBitstream.hpp"
#include "kit/wire/MediaFrames.hpp"

extern "C" {
#include <libavcodec/avcodec.h>
}

namespace kelvaron::test {

// The luma plane of a picture.
struct LumaPlane {
  int width = 0;
  int height = 0;
  std::vector<std::uint8_t> pixels;
};

class HEVCTestDecoder {
 public:
  HEVCTestDecoder() {
    const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_HEVC);
    context_ = avcodec_alloc_context3(codec);
    if (!codec || !context_ || avcodec_open2(context_, codec, nullptr) < 0) {
      throw std::runtime_error("no HEVC decoder");
    }
    frame_ = av_frame_alloc();
    packet_ = av_packet_alloc();
  }
  ~HEVCTestDecoder() {
    av_packet_free(&packet_);
    av_frame_free(&frame_);
    avcodec_free_context(&context_);
  }

  // The decoded luma, or nothing if the decoder produced no picture for this frame.
  std::optional<LumaPlane> decode(const VideoFrame& frame) {
    const auto annexB = hevc::annexBOf(frame);
    if (!annexB || av_new_packet(packet_, int(annexB->size())) < 0) return std::nullopt;
    std::copy(annexB->begin(), annexB->end(), packet_->data);
    const int sent = avcodec_send_packet(context_, packet_);
    av_packet_unref(packet_);
    if (sent < 0 || avcodec_receive_frame(context_, frame_) < 0) return std::nullopt;
    LumaPlane luma{frame_->width, frame_->height, {}};
    for (int y = 0; y < luma.height; ++y) {
      const std::uint8_t* row = frame_->data[0] + std::ptrdiff_t(y) * frame_->linesize[0];
      luma.pixels.insert(luma.pixels.end(), row, row + luma.width);
    }
    av_frame_unref(frame_);
    return luma;
  }

 private:
  AVCodecContext* context_ = nullptr;
  AVFrame* frame_ = nullptr;
  AVPacket* packet_ = nullptr;
};

// The luma of a BGRA picture, converted as the host converts it.
inline LumaPlane lumaOf(const host::PixelBuffer& picture) {
  LumaPlane luma{picture.width, picture.height,
                 std::vector<std::uint8_t>(std::size_t(picture.width) * picture.height)};
  std::vector<std::uint8_t> u(luma.pixels.size()), v(luma.pixels.size());
  libyuv::ARGBToI444(picture.bytes.data(), picture.stride, luma.pixels.data(), picture.width,
                     u.data(), picture.width, v.data(), picture.width, picture.width,
                     picture.height);
  return luma;
}

// Peak signal-to-noise ratio in dB; infinite for equal planes.
inline double psnr(const LumaPlane& a, const LumaPlane& b) {
  if (a.width != b.width || a.height != b.height) return 0;
  double sum = 0;
  for (std::size_t i = 0; i < a.pixels.size(); ++i) {
    const double d = double(a.pixels[i]) - double(b.pixels[i]);
    sum += d * d;
  }
  if (sum == 0) return INFINITY;
  return 10 * std::log10(255.0 * 255.0 / (sum / double(a.pixels.size())));
}

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
