#include "client/VideoDecoder.hpp"

#include <libyuv/convert_argb.h>
#include <png.h>

#include <cstdio>
#include <stdexcept>

#include "kit/media/HEVCBitstream.hpp"

extern "C" {
#include <libavcodec/avcodec.h>
}

namespace kelvaron::client {

VideoDecoder::VideoDecoder() {
  const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_HEVC);
  context_ = codec ? avcodec_alloc_context3(codec) : nullptr;
  if (!context_ || avcodec_open2(context_, codec, nullptr) < 0) {
    avcodec_free_context(&context_);
    throw std::runtime_error("libavcodec has no HEVC decoder");
  }
  frame_ = av_frame_alloc();
  packet_ = av_packet_alloc();
}

VideoDecoder::~VideoDecoder() {
  av_packet_free(&packet_);
  av_frame_free(&frame_);
  avcodec_free_context(&context_);
}

std::optional<Picture> VideoDecoder::decode(const VideoFrame& frame) {
  const auto stream = hevc::annexBOf(frame);
  if (!stream) return std::nullopt;
  if (stream->empty() || av_new_packet(packet_, int(stream->size())) < 0) return std::nullopt;
  std::copy(stream->begin(), stream->end(), packet_->data);
  const int sent = avcodec_send_packet(context_, packet_);
  av_packet_unref(packet_);
  if (sent < 0 || avcodec_receive_frame(context_, frame_) < 0) return std::nullopt;

  Picture picture{frame_->width, frame_->height, {}};
  picture.rgba.resize(std::size_t(picture.width) * std::size_t(picture.height) * 4);
  const auto convert = frame_->format == AV_PIX_FMT_YUV444P   ? libyuv::I444ToARGBMatrix
                       : frame_->format == AV_PIX_FMT_YUV420P ? libyuv::I420ToARGBMatrix
                                                              : nullptr;
  // The matrix the stream states (our host's is BT.709), else BT.601. The constants for U and V
  // swapped, with the planes swapped too, make libyuv's ARGB writers write RGBA.
  const libyuv::YuvConstants* matrix = frame_->colorspace == AVCOL_SPC_BT709
                                           ? &libyuv::kYvuH709Constants
                                           : &libyuv::kYvuI601Constants;
  const bool converted =
      convert && convert(frame_->data[0], frame_->linesize[0], frame_->data[2], frame_->linesize[2],
                         frame_->data[1], frame_->linesize[1], picture.rgba.data(),
                         picture.width * 4, matrix, picture.width, picture.height) == 0;
  av_frame_unref(frame_);
  if (!converted) return std::nullopt;  // a format this client does not show (10-bit)
  return picture;
}

bool writePNG(const std::filesystem::path& file, const Picture& picture) {
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  image.width = png_uint_32(picture.width);
  image.height = png_uint_32(picture.height);
  image.format = PNG_FORMAT_RGBA;
  const int written = png_image_write_to_file(&image, file.c_str(), 0, picture.rgba.data(),
                                              picture.width * 4, nullptr);
  png_image_free(&image);
  return written != 0;
}

}  // namespace kelvaron::client
