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

VideoDecoder::VideoDecoder()
    : decoder_(
          AV_CODEC_ID_HEVC, [](AVCodecContext&) {}, "libavcodec has no HEVC decoder") {}

std::optional<Picture> VideoDecoder::decode(const VideoFrame& frame) {
  const auto stream = hevc::annexBOf(frame);
  if (!stream) return std::nullopt;
  const AVFrame* decoded = decoder_.decode(*stream);
  if (!decoded) return std::nullopt;

  Picture picture{decoded->width, decoded->height, {}};
  picture.rgba.resize(std::size_t(picture.width) * std::size_t(picture.height) * 4);
  const auto convert = decoded->format == AV_PIX_FMT_YUV444P   ? libyuv::I444ToARGBMatrix
                       : decoded->format == AV_PIX_FMT_YUV420P ? libyuv::I420ToARGBMatrix
                                                               : nullptr;
  // The matrix the stream states (our host's is BT.709), else BT.601. The constants for U and V
  // swapped, with the planes swapped too, make libyuv's ARGB writers write RGBA.
  const libyuv::YuvConstants* matrix = decoded->colorspace == AVCOL_SPC_BT709
                                           ? &libyuv::kYvuH709Constants
                                           : &libyuv::kYvuI601Constants;
  const bool converted =
      convert &&
      convert(decoded->data[0], decoded->linesize[0], decoded->data[2], decoded->linesize[2],
              decoded->data[1], decoded->linesize[1], picture.rgba.data(), picture.width * 4,
              matrix, picture.width, picture.height) == 0;
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
