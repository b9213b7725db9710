#include "client/LibavDecoding.hpp"

#include <algorithm>
#include <stdexcept>

extern "C" {
#include <libavcodec/avcodec.h>
}

namespace kelvaron::client {

LibavDecoding::LibavDecoding(int codecID, const std::function<void(AVCodecContext&)>& configure,
                             const char* refusal) {
  const AVCodec* codec = avcodec_find_decoder(AVCodecID(codecID));
  context_ = codec ? avcodec_alloc_context3(codec) : nullptr;
  if (context_) configure(*context_);
  if (!context_ || avcodec_open2(context_, codec, nullptr) < 0) {
    avcodec_free_context(&context_);
    throw std::runtime_error(refusal);
  }
  frame_ = av_frame_alloc();
  packet_ = av_packet_alloc();
}

LibavDecoding::~LibavDecoding() {
  av_packet_free(&packet_);
  av_frame_free(&frame_);
  avcodec_free_context(&context_);
}

const AVFrame* LibavDecoding::decode(std::span<const std::uint8_t> bytes) {
  av_frame_unref(frame_);
  if (bytes.empty() || av_new_packet(packet_, int(bytes.size())) < 0) return nullptr;
  std::copy(bytes.begin(), bytes.end(), packet_->data);
  const int sent = avcodec_send_packet(context_, packet_);
  av_packet_unref(packet_);
  if (sent < 0 || avcodec_receive_frame(context_, frame_) < 0) return nullptr;
  return frame_;
}

}  // namespace kelvaron::client
