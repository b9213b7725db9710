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
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace kelvaron::hevc {
namespace {

std::vector<Data> owned(const std::vector<NALUnit>& units) {
  std::vector<Data> copies;
  for (const NALUnit unit : units) copies.emplace_back(unit.begin(), unit.end());
  return copies;
}

TEST(HEVCBitstream, SplitsAnAnnexBStreamAtThreeAndFourByteStartCodes) {
  const Data stream{0x00, 0x00, 0x00, 0x00, 0x01, 0x40, 0x01, 0x0C,        // 4-byte start code, VPS
                    0x00, 0x00, 0x01, 0x42, 0x01, 0x00, 0x00, 0x03, 0x01,  // SPS with an 03 inside
                    0x00, 0x00, 0x01, 0x00, 0x00, 0x01,                    // an empty unit
                    0x44, 0x01, 0xC1, 0x00, 0x00,                          // PPS, zeros after it
                    0x00, 0x00, 0x01, 0x26, 0x01, 0xAF, 0x80, 0x00, 0x00, 0x00};
  EXPECT_EQ(owned(splitAnnexB(stream)), (std::vector<Data>{{0x40, 0x01, 0x0C},
                                                           {0x42, 0x01, 0x00, 0x00, 0x03, 0x01},
                                                           {0x44, 0x01, 0xC1},
                                                           {0x26, 0x01, 0xAF, 0x80}}));

  EXPECT_EQ(owned(splitAnnexB(Data{0x26, 0x01, 0x00, 0x00, 0x01, 0x28, 0x01})),
            (std::vector<Data>{{0x28, 0x01}}));  // nothing before the first start code counts
  EXPECT_TRUE(splitAnnexB(Data{0x26, 0x01, 0xAF, 0x00, 0x00, 0x02}).empty());
  EXPECT_TRUE(splitAnnexB(Data{0x00, 0x00, 0x01}).empty());
}

TEST(HEVCBitstream, TellsTypesAndTheirKinds) {
  EXPECT_EQ(nalType(Data{0x26, 0x01}), 19);  // an IDR slice
  EXPECT_EQ(nalType(Data{0x40}), std::nullopt);
  EXPECT_TRUE(isParameterSet(kVPS) && isParameterSet(kPPS) && isRandomAccessPoint(16));
  // Neighbours: a suffix SEI, an access unit delimiter, a non-key picture, a reserved type.
  EXPECT_FALSE(isParameterSet(31) || isParameterSet(35) || isRandomAccessPoint(15) ||
               isRandomAccessPoint(24));
}

TEST(HEVCBitstream, LengthPrefixesUnitsAndReadsThemBack) {
  const Data vps{0x40, 0x01, 0x0C}, slice{0x26, 0x01, 0xAF, 0x80};
  const Data payload = lengthPrefixed({vps, slice});
  EXPECT_EQ(payload, (Data{0, 0, 0, 3, 0x40, 0x01, 0x0C, 0, 0, 0, 4, 0x26, 0x01, 0xAF, 0x80}));
  EXPECT_EQ(owned(splitLengthPrefixed(payload).value()), (std::vector<Data>{vps, slice}));
  EXPECT_EQ(owned(splitLengthPrefixed(Data{0, 0, 0, 0}).value()), (std::vector<Data>{{}}));
  EXPECT_EQ(owned(splitLengthPrefixed(Data{}).value()), (std::vector<Data>{}));

  EXPECT_EQ(splitLengthPrefixed(std::span(payload).first(payload.size() - 1)), std::nullopt);
  EXPECT_EQ(splitLengthPrefixed(concat({payload, Data{0, 0, 1}})), std::nullopt);
  EXPECT_EQ(splitLengthPrefixed(Data{0xFF, 0xFF, 0xFF, 0xFF, 0x40}), std::nullopt);
}

// An SPS written bit by bit, with emulation prevention as an encoder writes it.
struct SPSFields {
  unsigned maxSubLayersMinus1 = 0;
  unsigned profileIdc = 1;
  std::uint32_t spsID = 0, chromaFormatIdc = 1;
  bool separateColourPlanes = false;
  std::uint32_t width = 64, height = 64;
  std::optional<std::array<std::uint32_t, 4>> window;  // left, right, top, bottom
  std::uint32_t bitDepthLumaMinus8 = 0;
  std::string rest;  // the bits after the chroma bit depth
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

TEST(HEVCBitstream, ReadsTheFormatPastSubLayersWindowsAndSeparatePlanes) {
  EXPECT_EQ(readStreamFormat(sps({.profileIdc = 2, .bitDepthLumaMinus8 = 2})),
            (StreamFormat{2, 1, 10}));
  EXPECT_EQ(readStreamFormat(sps({.maxSubLayersMinus1 = 2, .profileIdc = 2})),
            (StreamFormat{2, 1, 8}));
  EXPECT_EQ(readStreamFormat(sps({.maxSubLayersMinus1 = 6, .bitDepthLumaMinus8 = 4})),
            (StreamFormat{1, 1, 12}));
  EXPECT_EQ(readStreamFormat(sps({.profileIdc = 4,
                                  .chromaFormatIdc = 3,
                                  .separateColourPlanes = true,
                                  .window = {{0, 40, 0, 8}}})),
            (StreamFormat{4, 3, 8}));
  // A 4:2:0 window counts chroma samples: 2 × 31 of 64 luma columns leaves a picture, 2 × 32 not.
  EXPECT_EQ(readStreamFormat(sps({.window = {{30, 1, 0, 31}}})), (StreamFormat{1, 1, 8}));
  EXPECT_EQ(readStreamFormat(sps({.window = {{30, 2, 0, 0}}})), std::nullopt);
  EXPECT_EQ(readStreamFormat(sps({.window = {{0, 0, 32, 0}}})), std::nullopt);
}

TEST(HEVCBitstream, RejectsValuesOutOfRange) {
  EXPECT_NE(readStreamFormat(sps({.spsID = 15, .width = 16888})), std::nullopt);  // the limits
  EXPECT_EQ(readStreamFormat(sps({.maxSubLayersMinus1 = 7})), std::nullopt);
  EXPECT_EQ(readStreamFormat(sps({.spsID = 16})), std::nullopt);
  EXPECT_EQ(readStreamFormat(sps({.chromaFormatIdc = 4})), std::nullopt);
  EXPECT_EQ(readStreamFormat(sps({.width = 0})), std::nullopt);
  EXPECT_EQ(readStreamFormat(sps({.width = 16889})), std::nullopt);
  EXPECT_EQ(readStreamFormat(sps({.height = 16889})), std::nullopt);
  EXPECT_EQ(readStreamFormat(sps({.bitDepthLumaMinus8 = 9})), std::nullopt);
}

// Fixed-width fields written apart for reading, "1 0111" for "10111".
std::string fields(std::string_view spaced) {
  std::string bits;
  std::ranges::copy_if(spaced, std::back_inserter(bits), [](char c) { return c != ' '; });
  return bits;
}

// Everything an SPS may hold between the bit depths and the VUI, each part in the forms that lay
// out differently.
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
        scaling += fields("0") + ue(1);  // copied from the one before
        continue;
      }
      scaling += "1";
      const unsigned codes = std::min(64u, 1u << (4 + 2 * size)) + (size > 1 ? 1 : 0);
      for (unsigned i = 0; i < codes; ++i) scaling += ue(i % 5);
    }
  }
  const std::string tools = fields("1 1 1 0111 0111") + ue(0) + ue(1) + "0";  // AMP, SAO, PCM
  // Short-term sets: {-1, -3, +1} written out. Then predicted, moved by -1: the first kept, the
  // second dropped, the third now the current picture (never counted), the reference picture
  // itself kept: {-1, -2}. Then moved by +1 with all three kept: {-1, +1}. Counting a picture
  // wrongly would misread everything after.
  const std::string sets = ue(3) +                                                    // three
                           ue(2) + ue(1) + ue(0) + "1" + ue(1) + "1" + ue(0) + "1" +  // written out
                           fields("1 1") + ue(0) + fields("1 00 1 1") +               // moved by -1
                           fields("1 0") + ue(0) + fields("1 1 1");                   // moved by +1
  const std::string longTerm = fields("1") + ue(2) + fields("10100101 1 00000000 0");
  const std::string beforeVUI = limits(1, true) + scaling + tools + sets + longTerm + "11";
  // A sample aspect ratio written out (its zeros need emulation prevention), overscan, the signal
  // type: BT.2020 primaries and matrix, PQ transfer, full range.
  const std::string vui = fields("1 1 11111111 00000000 00000001 00000000 00000001 1 0") +
                          fields("1 101 1 1 00001001 00010000 00001001");
  const Data unit = sps({.rest = beforeVUI + vui});
  const ColourDescription colour{9, 16, 9, true};
  EXPECT_EQ(readColourDescription(unit), colour);
  EXPECT_EQ(readStreamFormat(unit), (StreamFormat{1, 1, 8}));
  const std::string afterLimits = beforeVUI.substr(limits(1, true).size()) + vui;
  EXPECT_EQ(
      readColourDescription(sps({.maxSubLayersMinus1 = 2, .rest = limits(3, true) + afterLimits})),
      colour);
  EXPECT_EQ(
      readColourDescription(sps({.maxSubLayersMinus1 = 2, .rest = limits(3, false) + afterLimits})),
      colour);
  EXPECT_EQ(readColourDescription(std::span(unit).first(unit.size() / 2)), std::nullopt);
  EXPECT_EQ(readColourDescription(std::span(unit).first(unit.size() - 3)), std::nullopt);

  // No VUI, or one without a signal type: unspecified, limited range.
  EXPECT_EQ(readColourDescription(sps({.rest = beforeVUI + "0"})), ColourDescription{});
  EXPECT_EQ(readColourDescription(sps({.rest = beforeVUI + fields("1 0 0 0")})),
            ColourDescription{});
  // Counts beyond what any stream may have: 65 short-term sets (empty ones), 17-bit POC LSBs.
  std::string tooManySets = ue(65) + "11";
  for (int i = 1; i < 65; ++i) tooManySets += "011";
  EXPECT_EQ(readColourDescription(sps(
                {.rest = limits(1, true) + scaling + tools + tooManySets + longTerm + "11" + vui})),
            std::nullopt);
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

bool libx265Takes(AVPixelFormat format) {
  const AVCodec* codec = libx265();
  if (!codec || !codec->pix_fmts) return false;
  for (const AVPixelFormat* each = codec->pix_fmts; *each != AV_PIX_FMT_NONE; ++each) {
    if (*each == format) return true;
  }
  return false;
}

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
  if (avcodec_open2(context.get(), libx265(), nullptr) < 0) return {};

  std::unique_ptr<AVFrame, AVFree> frame(av_frame_alloc());
  frame->format = format;
  frame->width = frame->height = side;
  if (av_frame_get_buffer(frame.get(), 0) < 0) return {};
  const std::ptrdiff_t linesizes[4] = {frame->linesize[0], frame->linesize[1], frame->linesize[2]};
  av_image_fill_black(frame->data, linesizes, format, AVCOL_RANGE_MPEG, side, side);

  std::unique_ptr<AVPacket, AVFree> packet(av_packet_alloc());
  if (avcodec_send_frame(context.get(), frame.get()) < 0 ||
      avcodec_send_frame(context.get(), nullptr) < 0 ||
      avcodec_receive_packet(context.get(), packet.get()) < 0) {
    return {};
  }
  return Data(packet->data, packet->data + packet->size);
}

NALUnit onlyUnitOf(const std::vector<NALUnit>& units, std::uint8_t type) {
  const auto ofType = [&](NALUnit unit) { return nalType(unit) == type; };
  EXPECT_EQ(std::ranges::count_if(units, ofType), 1) << "units of type " << int{type};
  const auto found = std::ranges::find_if(units, ofType);
  return found == units.end() ? NALUnit{} : *found;
}

// A side that is no multiple of the coding block makes the encoder write a conformance window.
constexpr int kAlignedSide = 64, kCroppedSide = 60;

void expectEncoderOutputReadsAs(AVPixelFormat format, int side, StreamFormat expected) {
  SCOPED_TRACE(std::string(av_get_pix_fmt_name(format)) + " " + std::to_string(side));
  const Data stream = encodeOnePicture(format, side);
  ASSERT_FALSE(stream.empty()) << "libx265 made no packet";
  const auto units = splitAnnexB(stream);
  ASSERT_GE(units.size(), 4u);
  const NALUnit vps = onlyUnitOf(units, kVPS), sps = onlyUnitOf(units, kSPS);
  const NALUnit pps = onlyUnitOf(units, kPPS);
  EXPECT_TRUE(std::ranges::any_of(units, [](NALUnit unit) {
    const auto type = nalType(unit);
    return type && isRandomAccessPoint(*type);
  }));

  EXPECT_EQ(readStreamFormat(sps), expected);
  const ColourDescription colour{9, 16, 9, true};
  EXPECT_EQ(readColourDescription(sps), colour);
  for (const NALUnit other : {vps, pps, units.back()}) {
    EXPECT_EQ(readStreamFormat(other), std::nullopt);
    EXPECT_EQ(readColourDescription(other), std::nullopt);
  }
  // Every prefix of the SPS is cut short before the bit depth, or still reads the same.
  for (std::size_t size = 0; size < sps.size(); ++size) {
    const auto read = readStreamFormat(sps.first(size));
    if (size < 16) {
      EXPECT_EQ(read, std::nullopt) << size << " bytes";
    } else if (read) {
      EXPECT_EQ(*read, expected) << size << " bytes";
    }
    const auto readColour = readColourDescription(sps.first(size));
    if (readColour) {
      EXPECT_EQ(*readColour, colour) << size << " bytes";
    }
  }
  // Another layer's SPS is laid out otherwise.
  Data otherLayer(sps.begin(), sps.end());
  otherLayer[1] |= 0x08;
  EXPECT_EQ(readStreamFormat(otherLayer), std::nullopt);
  EXPECT_EQ(readColourDescription(otherLayer), std::nullopt);

  EXPECT_EQ(owned(splitLengthPrefixed(lengthPrefixed(units)).value()), owned(units));
}

TEST(HEVCBitstream, ReadsTheFormatOfLibx265Output) {
  ASSERT_NE(libx265(), nullptr) << "libavcodec was built without libx265";
  expectEncoderOutputReadsAs(AV_PIX_FMT_YUV420P, kAlignedSide, {1, 1, 8});
  expectEncoderOutputReadsAs(AV_PIX_FMT_YUV444P, kAlignedSide, {4, 3, 8});
  expectEncoderOutputReadsAs(AV_PIX_FMT_YUV444P, kCroppedSide, {4, 3, 8});
}

TEST(HEVCBitstream, ReadsTheFormatOfLibx265TenBitOutput) {
  if (!libx265Takes(AV_PIX_FMT_YUV420P10LE)) {
    GTEST_SKIP() << "this libx265 was built without 10-bit support";
  }
  expectEncoderOutputReadsAs(AV_PIX_FMT_YUV420P10LE, kCroppedSide, {2, 1, 10});
  expectEncoderOutputReadsAs(AV_PIX_FMT_YUV444P10LE, kCroppedSide, {4, 3, 10});
}

}  // namespace
}  // namespace kelvaron::hevc
