#include "kit/media/HEVCBitstream.hpp"

#include <gtest/gtest.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/imgutils.h>
#include <libavutil/opt.h>
#include <libavutil/pixdesc.h>
}

#include <algorithm>
#include <array>
#include <bit>
#include <bitset>
#include <memory>
#include <string>

#include "kit/media/BitReader.hpp"

namespace kelvaron::hevc {
namespace {

TEST(BitReader, ReadsExpGolombCodesUpToTheLongestAndStopsAtTheEnd) {
  // 1 | 010 | 011 | 00100 | 0001000 | 0001001, then six zeros of a code that never ends.
  const Data bytes{0xA6, 0x41, 0x02, 0x40};
  BitReader codes(bytes);
  for (const std::uint32_t expected : {0u, 1u, 2u, 3u, 7u, 8u}) EXPECT_EQ(codes.ue(), expected);
  EXPECT_EQ(codes.ue(), std::nullopt);
  EXPECT_EQ(BitReader(Data{0b0110'0000}).se(), -1);  // code 2
  // 31 zeros, a one, 31 ones: 2^32 - 2, the largest a code may hold; one zero more is malformed.
  EXPECT_EQ(BitReader(Data{0, 0, 0, 1, 0xFF, 0xFF, 0xFF, 0xFE}).ue(), 0xFFFF'FFFEu);
  EXPECT_EQ(BitReader(Data{0, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}).ue(), std::nullopt);
}

std::vector<Data> owned(const std::vector<NALUnit>& units) {
  std::vector<Data> copies;
  for (const NALUnit unit : units) copies.emplace_back(unit.begin(), unit.end());
  return copies;
}

TEST(HEVCBitstream, SplitsAnnexBAndLengthPrefixedUnitsAndTellsTheirTypes) {
  const Data stream{0x00, 0x00, 0x00, 0x00, 0x01, 0x40, 0x01, 0x0C,        // 4-byte start code, VPS
                    0x00, 0x00, 0x01, 0x42, 0x01, 0x00, 0x00, 0x03, 0x01,  // SPS with an 03 inside
                    0x00, 0x00, 0x01, 0x00, 0x00, 0x01,                    // an empty unit
                    0x44, 0x01, 0xC1, 0x00, 0x00,                          // PPS, zeros after it
                    0x00, 0x00, 0x01, 0x26, 0x01, 0xAF, 0x80, 0x00, 0x00, 0x00};
  const std::vector<Data> units{{0x40, 0x01, 0x0C},
                                {0x42, 0x01, 0x00, 0x00, 0x03, 0x01},
                                {0x44, 0x01, 0xC1},
                                {0x26, 0x01, 0xAF, 0x80}};
  EXPECT_EQ(owned(splitAnnexB(stream)), units);
  EXPECT_EQ(owned(splitAnnexB(Data{0x26, 0x01, 0x00, 0x00, 0x01, 0x28, 0x01})),
            (std::vector<Data>{{0x28, 0x01}}));  // nothing before the first start code counts
  EXPECT_TRUE(splitAnnexB(Data{0x26, 0x01, 0xAF, 0x00, 0x00, 0x02}).empty());

  EXPECT_EQ(nalType(units[3]), 19);  // an IDR slice
  EXPECT_EQ(nalType(Data{0x40}), std::nullopt);
  // Their neighbours: a suffix SEI, an access unit delimiter, a non-key picture, a reserved type.
  EXPECT_TRUE(isParameterSet(kVPS) && isParameterSet(kPPS) && isRandomAccessPoint(16));
  EXPECT_FALSE(isParameterSet(31) || isParameterSet(35) || isRandomAccessPoint(15) ||
               isRandomAccessPoint(24));

  const Data payload = lengthPrefixed({units[0], units[3]});
  EXPECT_EQ(payload, (Data{0, 0, 0, 3, 0x40, 0x01, 0x0C, 0, 0, 0, 4, 0x26, 0x01, 0xAF, 0x80}));
  EXPECT_EQ(owned(splitLengthPrefixed(payload).value()), (std::vector<Data>{units[0], units[3]}));
  EXPECT_EQ(owned(splitLengthPrefixed(Data{0, 0, 0, 0}).value()), (std::vector<Data>{{}}));
  EXPECT_EQ(splitLengthPrefixed(std::span(payload).first(payload.size() - 1)), std::nullopt);
  EXPECT_EQ(splitLengthPrefixed(concat({payload, Data{0, 0, 1}})), std::nullopt);
  EXPECT_EQ(splitLengthPrefixed(Data{0xFF, 0xFF, 0xFF, 0xFF, 0x40}), std::nullopt);
}

// An SPS written bit by bit, with emulation prevention as an encoder writes it.
struct SPSFields {
  unsigned maxSubLayersMinus1 = 0, profileIdc = 1;
  std::uint32_t spsID = 0, chromaFormatIdc = 1;
  bool separateColourPlanes = false;
  std::uint32_t width = 64, height = 64, bitDepthLumaMinus8 = 0;
  std::optional<std::array<std::uint32_t, 4>> window;  // left, right, top, bottom
  std::string rest;  // the bits after the chroma bit depth; spaces only set fields apart
};

std::string ue(std::uint32_t value) {
  const std::uint64_t code = std::uint64_t{value} + 1;
  const auto length = static_cast<std::size_t>(std::bit_width(code));
  return std::string(length - 1, '0') + std::bitset<64>(code).to_string().substr(64 - length);
}

Data sps(const SPSFields& f) {
  const std::string profile =
      "000" + std::bitset<5>(f.profileIdc).to_string() + std::string(80, '0');
  const std::string level = "01011101";
  std::string bits =
      "0001" + std::bitset<3>(f.maxSubLayersMinus1).to_string() + "1" + profile + level;
  for (unsigned i = 0; i < f.maxSubLayersMinus1; ++i) bits += "11";  // profile and level present
  if (f.maxSubLayersMinus1 > 0) bits += std::string(2 * (8 - f.maxSubLayersMinus1), '0');
  for (unsigned i = 0; i < f.maxSubLayersMinus1; ++i) bits += profile + level;
  bits += ue(f.spsID) + ue(f.chromaFormatIdc);
  if (f.chromaFormatIdc == 3) bits += f.separateColourPlanes ? "1" : "0";
  bits += ue(f.width) + ue(f.height) + (f.window ? "1" : "0");
  if (f.window) {
    for (const auto offset : *f.window) bits += ue(offset);
  }
  bits += ue(f.bitDepthLumaMinus8) + ue(f.bitDepthLumaMinus8) + f.rest + "1";
  std::erase(bits, ' ');
  bits.append((8 - bits.size() % 8) % 8, '0');

  Data unit{0x42, 0x01};
  unsigned zeros = 0;
  for (std::size_t at = 0; at < bits.size(); at += 8) {
    const auto byte = static_cast<std::uint8_t>(std::stoul(bits.substr(at, 8), nullptr, 2));
    if (zeros >= 2 && byte <= 3) {
      unit.push_back(3);
      zeros = 0;
    }
    unit.push_back(byte);
    zeros = byte == 0 ? zeros + 1 : 0;
  }
  return unit;
}

std::optional<StreamFormat> formatOf(const SPSFields& fields) {
  return readStreamFormat(sps(fields));
}

TEST(HEVCBitstream, ReadsTheFormatPastSubLayersWindowsAndSeparatePlanesOrRefusesIt) {
  EXPECT_EQ(formatOf({.profileIdc = 2, .bitDepthLumaMinus8 = 2}), (StreamFormat{2, 1, 10}));
  EXPECT_EQ(formatOf({.maxSubLayersMinus1 = 2, .profileIdc = 2}), (StreamFormat{2, 1, 8}));
  EXPECT_EQ(formatOf({.maxSubLayersMinus1 = 6, .bitDepthLumaMinus8 = 4}), (StreamFormat{1, 1, 12}));
  EXPECT_EQ(formatOf({.profileIdc = 4,
                      .chromaFormatIdc = 3,
                      .separateColourPlanes = true,
                      .window = {{0, 40, 0, 8}}}),
            (StreamFormat{4, 3, 8}));
  // A 4:2:0 window counts chroma samples: 2 × 31 of 64 luma columns leaves a picture, 2 × 32 not.
  EXPECT_EQ(formatOf({.window = {{30, 1, 0, 31}}}), (StreamFormat{1, 1, 8}));
  EXPECT_EQ(formatOf({.window = {{30, 2, 0, 0}}}), std::nullopt);
  EXPECT_EQ(formatOf({.window = {{0, 0, 32, 0}}}), std::nullopt);

  EXPECT_EQ(formatOf({.spsID = 15, .width = 16888}), (StreamFormat{1, 1, 8}));  // the limits
  EXPECT_EQ(formatOf({.maxSubLayersMinus1 = 7}), std::nullopt);
  EXPECT_EQ(formatOf({.spsID = 16}), std::nullopt);
  EXPECT_EQ(formatOf({.chromaFormatIdc = 4}), std::nullopt);
  EXPECT_EQ(formatOf({.width = 0}), std::nullopt);
  EXPECT_EQ(formatOf({.width = 16889}), std::nullopt);
  EXPECT_EQ(formatOf({.height = 16889}), std::nullopt);
  EXPECT_EQ(formatOf({.bitDepthLumaMinus8 = 9}), std::nullopt);
  Data otherLayer = sps({});  // another layer's SPS is laid out otherwise
  otherLayer[1] |= 0x08;
  EXPECT_EQ(readStreamFormat(otherLayer), std::nullopt);
  EXPECT_EQ(readColourDescription(otherLayer), std::nullopt);
}

// Everything an SPS may hold before its VUI, each part in the forms that lay out differently.
TEST(HEVCBitstream, ReadsTheColourDescriptionPastEverythingBeforeIt) {
  // 8-bit POC LSBs, the sub-layers' ordering (of each, or of the highest only), block sizes.
  const auto limits = [](unsigned subLayers, bool forEach) {
    std::string bits = ue(4) + (forEach ? "1" : "0");
    for (unsigned i = 0; i < (forEach ? subLayers : 1); ++i) bits += ue(4) + ue(0) + ue(0);
    return bits + ue(0) + ue(3) + ue(0) + ue(3) + ue(0) + ue(0);
  };
  std::string scaling = "11";  // enabled, written here: each size's first list written out
  for (unsigned size = 0; size < 4; ++size) {
    for (unsigned matrix = 0; matrix < 6; matrix += size == 3 ? 3 : 1) {
      if (matrix > 0) {
        scaling += "0 " + ue(1);  // copied from the one before
        continue;
      }
      scaling += "1";
      const unsigned codes = std::min(64u, 1u << (4 + 2 * size)) + (size > 1 ? 1 : 0);
      for (unsigned i = 0; i < codes; ++i) scaling += ue(i % 5);
    }
  }
  const std::string tools = "1 1 1 0111 0111" + ue(0) + ue(1) + "0";  // AMP, SAO, PCM
  // Short-term sets: {-1, -3, +1} written out. Then predicted, moved by -1: the first kept, the
  // second dropped, the third now the current picture (never counted), the reference picture
  // itself kept: {-1, -2}. Then moved by +1 with all three kept: {-1, +1}. Counting a picture
  // wrongly would misread everything after.
  const std::string sets = ue(3) +                                                    // three
                           ue(2) + ue(1) + ue(0) + "1" + ue(1) + "1" + ue(0) + "1" +  // written out
                           "1 1" + ue(0) + "1 00 1 1" +                               // moved by -1
                           "1 0" + ue(0) + "1 1 1";                                   // moved by +1
  const std::string longTerm = "1 " + ue(2) + " 10100101 1 00000000 0";
  const std::string beforeVUI = limits(1, true) + scaling + tools + sets + longTerm + "11";
  // A sample aspect ratio written out (its zeros need emulation prevention), overscan, the signal
  // type: BT.2020 primaries and matrix, PQ transfer, full range.
  const std::string vui =
      "1 1 11111111 00000000 00000001 00000000 00000001 1 0"
      "1 101 1 1 00001001 00010000 00001001";
  const Data unit = sps({.rest = beforeVUI + vui});
  const ColourDescription colour{9, 16, 9, true};
  EXPECT_EQ(readColourDescription(unit), colour);
  const std::string afterLimits = beforeVUI.substr(limits(1, true).size()) + vui;
  for (const bool forEach : {true, false}) {
    EXPECT_EQ(readColourDescription(
                  sps({.maxSubLayersMinus1 = 2, .rest = limits(3, forEach) + afterLimits})),
              colour);
  }

  // No VUI, or one without a signal type: unspecified, limited range.
  EXPECT_EQ(readColourDescription(sps({.rest = beforeVUI + "0"})), ColourDescription{});
  EXPECT_EQ(readColourDescription(sps({.rest = beforeVUI + "1 0 0 0"})), ColourDescription{});
  // 17-bit POC LSBs, more than any stream may have.
  EXPECT_EQ(readColourDescription(sps({.rest = ue(13) + (beforeVUI + vui).substr(ue(4).size())})),
            std::nullopt);
}

// libx265 through libavcodec, as the host's software encoder runs it.
struct AVFree {
  void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
  void operator()(AVFrame* frame) const { av_frame_free(&frame); }
  void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};

const AVCodec* libx265() { return avcodec_find_encoder_by_name("libx265"); }

// The packet of one black square picture, its colour said to be BT.2020 PQ in full range: the
// parameter sets and an IDR, in Annex B. Empty if anything fails.
Data encodeOnePicture(AVPixelFormat format, int side) {
  std::unique_ptr<AVCodecContext, AVFree> context(avcodec_alloc_context3(libx265()));
  context->width = context->height = side;
  context->time_base = {1, 30};
  context->pix_fmt = format;
  context->color_primaries = AVCOL_PRI_BT2020;
  context->color_trc = AVCOL_TRC_SMPTE2084;
  context->colorspace = AVCOL_SPC_BT2020_NCL;
  context->color_range = AVCOL_RANGE_JPEG;
  av_opt_set(context->priv_data, "preset", "ultrafast", 0);
  av_opt_set(context->priv_data, "x265-params", "log-level=none", 0);
  std::unique_ptr<AVFrame, AVFree> frame(av_frame_alloc());
  frame->format = format;
  frame->width = frame->height = side;
  const bool opened = avcodec_open2(context.get(), libx265(), nullptr) >= 0;
  if (!opened || av_frame_get_buffer(frame.get(), 0) < 0) return {};
  const std::ptrdiff_t linesizes[4] = {frame->linesize[0], frame->linesize[1], frame->linesize[2]};
  av_image_fill_black(frame->data, linesizes, format, AVCOL_RANGE_MPEG, side, side);

  std::unique_ptr<AVPacket, AVFree> packet(av_packet_alloc());
  const bool sent = avcodec_send_frame(context.get(), frame.get()) >= 0 &&
                    avcodec_send_frame(context.get(), nullptr) >= 0;
  if (!sent || avcodec_receive_packet(context.get(), packet.get()) < 0) return {};
  return Data(packet->data, packet->data + packet->size);
}

void expectEncoderOutputReadsAs(AVPixelFormat format, int side, StreamFormat expected) {
  SCOPED_TRACE(std::string(av_get_pix_fmt_name(format)) + " " + std::to_string(side));
  const Data stream = encodeOnePicture(format, side);
  const auto units = splitAnnexB(stream);
  const auto sps = std::ranges::find(units, std::optional(kSPS), nalType);
  ASSERT_NE(sps, units.end()) << "libx265 made no packet with parameter sets";
  const ColourDescription colour{9, 16, 9, true};
  for (const NALUnit unit : units) {  // the SPS reads, the VPS, PPS and slices not
    const bool isSPS = unit.data() == sps->data();
    EXPECT_EQ(readStreamFormat(unit), isSPS ? std::optional(expected) : std::nullopt);
    EXPECT_EQ(readColourDescription(unit), isSPS ? std::optional(colour) : std::nullopt);
  }
  EXPECT_EQ(owned(splitLengthPrefixed(lengthPrefixed(units)).value()), owned(units));
}

// A side of 60, no multiple of the coding block, makes the encoder write a conformance window.
TEST(HEVCBitstream, ReadsTheFormatOfLibx265Output) {
  ASSERT_NE(libx265(), nullptr) << "libavcodec was built without libx265";
  expectEncoderOutputReadsAs(AV_PIX_FMT_YUV420P, 64, {1, 1, 8});
  expectEncoderOutputReadsAs(AV_PIX_FMT_YUV444P, 64, {4, 3, 8});
  expectEncoderOutputReadsAs(AV_PIX_FMT_YUV444P, 60, {4, 3, 8});
}

}  // namespace
}  // namespace kelvaron::hevc
