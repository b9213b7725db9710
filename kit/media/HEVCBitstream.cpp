#include "kit/media/HEVCBitstream.hpp"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <utility>

#include "kit/media/BitReader.hpp"
#include "kit/wire/WireWriter.hpp"

namespace kelvaron::hevc {

namespace {

constexpr std::size_t kStartCodeSize = 3;  // 00 00 01; a 4-byte start code is a zero before it
constexpr std::size_t kHeaderSize = 2;
constexpr std::size_t kLengthSize = 4;

// Where the next start code begins at or after `from`, or the stream's size.
std::size_t findStartCode(std::span<const std::uint8_t> stream, std::size_t from) {
  for (std::size_t i = from; i + kStartCodeSize <= stream.size();) {
    if (stream[i + 2] > 1) {
      i += 3;  // no start code can begin at i, i + 1 or i + 2: each would need this byte 0 or 1
    } else if (stream[i] == 0 && stream[i + 1] == 0 && stream[i + 2] == 1) {
      return i;
    } else {
      ++i;
    }
  }
  return stream.size();
}

// A unit never ends in a zero (its last byte holds the stop bit, or an encoder's 03), so zeros at
// its end are the first byte of a 4-byte start code or padding between units.
NALUnit withoutTrailingZeros(NALUnit unit) {
  while (!unit.empty() && unit.back() == 0) unit = unit.first(unit.size() - 1);
  return unit;
}

std::uint32_t bigEndianU32(std::span<const std::uint8_t, kLengthSize> bytes) {
  return std::uint32_t{bytes[0]} << 24 | std::uint32_t{bytes[1]} << 16 |
         std::uint32_t{bytes[2]} << 8 | bytes[3];
}

// The forbidden bit clear and layer 0: units of other layers lay out their SPS differently, and
// our encoders make a single layer.
bool isSoundBaseLayerHeader(NALUnit unit) {
  const bool forbiddenBit = (unit[0] & 0x80) != 0;
  const unsigned layerID = (unit[0] & 0x01) << 5 | unit[1] >> 3;
  return !forbiddenBit && layerID == 0;
}

// The unit's payload as the syntax is written: an encoder puts 03 after every two zeros that
// would otherwise be followed by 00...03, so that nothing inside a unit looks like a start code.
Data withoutEmulationPrevention(std::span<const std::uint8_t> payload) {
  Data rbsp;
  rbsp.reserve(payload.size());
  unsigned zeros = 0;
  for (const std::uint8_t byte : payload) {
    if (zeros >= 2 && byte == 0x03) {
      zeros = 0;
      continue;
    }
    zeros = byte == 0 ? zeros + 1 : 0;
    rbsp.push_back(byte);
  }
  return rbsp;
}

// Fixed-width fields of profile_tier_level.
constexpr unsigned kProfileSpaceAndTierBits = 3;
constexpr unsigned kProfileIdcBits = 5;
// Compatibility flags, source flags, constraint flags and the in-band flag after the idc.
constexpr unsigned kProfileFlagsBits = 32 + 4 + 43 + 1;
constexpr unsigned kProfileBits = kProfileSpaceAndTierBits + kProfileIdcBits + kProfileFlagsBits;
constexpr unsigned kLevelBits = 8;
constexpr unsigned kMaxSubLayersMinus1 = 6;  // 7 is reserved
constexpr unsigned kSubLayerSlots = 8;       // present flags are padded to 8 pairs

// The general profile idc, leaving the reader after the whole profile_tier_level with the parts
// of its sub-layers.
std::optional<std::uint8_t> readProfileTierLevel(BitReader& reader, unsigned maxSubLayersMinus1) {
  if (!reader.skip(kProfileSpaceAndTierBits)) return std::nullopt;
  const auto profileIdc = reader.bits(kProfileIdcBits);
  if (!profileIdc || !reader.skip(kProfileFlagsBits + kLevelBits)) return std::nullopt;

  std::size_t subLayerBits = 0;
  for (unsigned i = 0; i < maxSubLayersMinus1; ++i) {
    const auto profilePresent = reader.flag();
    const auto levelPresent = reader.flag();
    if (!profilePresent || !levelPresent) return std::nullopt;
    subLayerBits += (*profilePresent ? kProfileBits : 0) + (*levelPresent ? kLevelBits : 0);
  }
  if (maxSubLayersMinus1 > 0) subLayerBits += 2 * (kSubLayerSlots - maxSubLayersMinus1);
  if (!reader.skip(subLayerBits)) return std::nullopt;
  return static_cast<std::uint8_t>(*profileIdc);
}

constexpr std::uint32_t kMaxSPSID = 15;
constexpr std::uint32_t kMaxChromaFormatIdc = 3;
constexpr std::uint32_t kChroma420 = 1, kChroma422 = 2, kChroma444 = 3;
// The longest side any level allows (the square root of eight times its largest picture).
constexpr std::uint32_t kMaxPictureSide = 16888;
constexpr std::uint32_t kMaxBitDepthMinus8 = 8;

struct PictureShape {
  std::uint32_t chromaFormatIdc = 0;
  bool separateColourPlanes = false;
  std::uint32_t width = 0, height = 0;
};

std::optional<PictureShape> readPictureShape(BitReader& reader) {
  PictureShape shape;
  const auto chroma = reader.ue();
  if (!chroma || *chroma > kMaxChromaFormatIdc) return std::nullopt;
  shape.chromaFormatIdc = *chroma;
  if (*chroma == kChroma444) {
    const auto separate = reader.flag();
    if (!separate) return std::nullopt;
    shape.separateColourPlanes = *separate;
  }
  const auto width = reader.ue();
  const auto height = reader.ue();
  if (!width || !height) return std::nullopt;
  if (*width == 0 || *height == 0 || *width > kMaxPictureSide || *height > kMaxPictureSide) {
    return std::nullopt;
  }
  shape.width = *width;
  shape.height = *height;
  return shape;
}

// Reads past the conformance window; false if it is cut short or leaves nothing of the picture.
// Its offsets count chroma samples, so they are scaled to luma samples before the comparison.
bool skipConformanceWindow(BitReader& reader, const PictureShape& shape) {
  const auto present = reader.flag();
  if (!present) return false;
  if (!*present) return true;
  std::array<std::uint64_t, 4> offsets{};  // left, right, top, bottom
  for (auto& offset : offsets) {
    const auto value = reader.ue();
    if (!value) return false;
    offset = *value;
  }
  const bool subsampled = !shape.separateColourPlanes;
  const std::uint64_t subWidth =
      subsampled && (shape.chromaFormatIdc == kChroma420 || shape.chromaFormatIdc == kChroma422)
          ? 2
          : 1;
  const std::uint64_t subHeight = subsampled && shape.chromaFormatIdc == kChroma420 ? 2 : 1;
  return subWidth * (offsets[0] + offsets[1]) < shape.width &&
         subHeight * (offsets[2] + offsets[3]) < shape.height;
}

}  // namespace

std::vector<NALUnit> splitAnnexB(std::span<const std::uint8_t> stream) {
  std::vector<NALUnit> units;
  for (std::size_t start = findStartCode(stream, 0); start < stream.size();) {
    const std::size_t begin = start + kStartCodeSize;
    const std::size_t next = findStartCode(stream, begin);
    const NALUnit unit = withoutTrailingZeros(stream.subspan(begin, next - begin));
    if (!unit.empty()) units.push_back(unit);
    start = next;
  }
  return units;
}

std::optional<std::uint8_t> nalType(NALUnit unit) {
  if (unit.size() < kHeaderSize) return std::nullopt;
  return static_cast<std::uint8_t>(unit[0] >> 1 & 0x3F);
}

bool isParameterSet(std::uint8_t type) { return type >= kVPS && type <= kPPS; }

bool isRandomAccessPoint(std::uint8_t type) { return type >= 16 && type <= 23; }

Data lengthPrefixed(const std::vector<NALUnit>& units) {
  std::size_t size = 0;
  for (const NALUnit unit : units) size += kLengthSize + unit.size();
  Data out;
  out.reserve(size);
  WireWriter writer(out);
  for (const NALUnit unit : units) {
    writer.u32(static_cast<std::uint32_t>(unit.size()));  // an encoder's unit is far below 4 GiB
    writer.raw(unit);
  }
  return out;
}

std::optional<Data> annexBOf(const VideoFrame& frame) {
  const auto units = splitLengthPrefixed(frame.payload.span());
  if (!units) return std::nullopt;
  Data stream;
  auto append = [&stream](std::span<const std::uint8_t> unit) {
    stream.insert(stream.end(), {0, 0, 0, 1});
    stream.insert(stream.end(), unit.begin(), unit.end());
  };
  for (const auto& set : frame.parameterSets) append(set.span());
  for (const auto unit : *units) append(unit);
  return stream;
}

std::optional<std::vector<NALUnit>> splitLengthPrefixed(std::span<const std::uint8_t> payload) {
  std::vector<NALUnit> units;
  while (!payload.empty()) {
    if (payload.size() < kLengthSize) return std::nullopt;
    const std::uint32_t length = bigEndianU32(payload.first<kLengthSize>());
    payload = payload.subspan(kLengthSize);
    if (length > payload.size()) return std::nullopt;
    units.push_back(payload.first(length));
    payload = payload.subspan(length);
  }
  return units;
}

namespace {

struct SPSHead {
  StreamFormat format;
  std::uint32_t maxSubLayersMinus1 = 0;
};

// The unit's payload if it is a base-layer SPS.
std::optional<Data> spsPayload(NALUnit unit) {
  if (nalType(unit) != kSPS || !isSoundBaseLayerHeader(unit)) return std::nullopt;
  return withoutEmulationPrevention(unit.subspan(kHeaderSize));
}

// An SPS up to the luma bit depth, which is all the format needs.
std::optional<SPSHead> readSPSHead(BitReader& reader) {
  // sps_video_parameter_set_id, sps_max_sub_layers_minus1, sps_temporal_id_nesting_flag
  const auto maxSubLayersMinus1 = reader.skip(4) ? reader.bits(3) : std::nullopt;
  if (!maxSubLayersMinus1 || *maxSubLayersMinus1 > kMaxSubLayersMinus1 || !reader.skip(1)) {
    return std::nullopt;
  }
  const auto profileIdc = readProfileTierLevel(reader, *maxSubLayersMinus1);
  if (!profileIdc) return std::nullopt;

  const auto spsID = reader.ue();
  if (!spsID || *spsID > kMaxSPSID) return std::nullopt;
  const auto shape = readPictureShape(reader);
  if (!shape || !skipConformanceWindow(reader, *shape)) return std::nullopt;
  const auto bitDepthLumaMinus8 = reader.ue();
  if (!bitDepthLumaMinus8 || *bitDepthLumaMinus8 > kMaxBitDepthMinus8) return std::nullopt;

  const StreamFormat format{.profileIdc = *profileIdc,
                            .chromaFormatIdc = static_cast<std::uint8_t>(shape->chromaFormatIdc),
                            .bitDepthLuma = static_cast<std::uint8_t>(8 + *bitDepthLumaMinus8)};
  return SPSHead{format, *maxSubLayersMinus1};
}

bool skipCodes(BitReader& reader, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    if (!reader.ue()) return false;
  }
  return true;
}

constexpr std::uint32_t kMaxPOCLsbBitsMinus4 = 12;
constexpr std::size_t kBlockSizeCodes = 6;  // coding and transform block sizes, transform depths

// From bit_depth_chroma_minus8 to the block sizes; gives the bits of a POC's least significant
// part, which long-term pictures are written with.
std::optional<unsigned> skipSequenceLimits(BitReader& reader, std::uint32_t maxSubLayersMinus1) {
  const auto bitDepthChromaMinus8 = reader.ue();
  const auto pocLsbBitsMinus4 = reader.ue();
  const auto orderingForEachLayer = reader.flag();
  if (!bitDepthChromaMinus8 || *bitDepthChromaMinus8 > kMaxBitDepthMinus8 || !pocLsbBitsMinus4 ||
      *pocLsbBitsMinus4 > kMaxPOCLsbBitsMinus4 || !orderingForEachLayer) {
    return std::nullopt;
  }
  // Picture buffering, reordering and latency of each sub-layer, or of the highest only.
  const std::size_t layers = *orderingForEachLayer ? maxSubLayersMinus1 + 1 : 1;
  if (!skipCodes(reader, 3 * layers + kBlockSizeCodes)) return std::nullopt;
  return *pocLsbBitsMinus4 + 4;
}

constexpr unsigned kScalingListSizes = 4, kScalingListMatrices = 6;
constexpr unsigned kMaxScalingCoefficients = 64;

// scaling_list_enabled_flag, and the lists when the SPS carries them. A list is either copied
// from another (one code) or written out: its coefficients, and a DC coefficient for 16×16 and
// 32×32. Signed codes are as long as unsigned ones, so all are skipped alike.
bool skipScalingLists(BitReader& reader) {
  const auto enabled = reader.flag();
  if (!enabled || !*enabled) return enabled.has_value();
  const auto present = reader.flag();
  if (!present || !*present) return present.has_value();
  for (unsigned size = 0; size < kScalingListSizes; ++size) {
    const unsigned step = size == kScalingListSizes - 1 ? 3 : 1;  // 32×32: luma lists only
    for (unsigned matrix = 0; matrix < kScalingListMatrices; matrix += step) {
      const auto writtenOut = reader.flag();
      if (!writtenOut) return false;
      const unsigned coefficients = std::min(kMaxScalingCoefficients, 1u << (4 + 2 * size));
      const std::size_t codes = *writtenOut ? coefficients + (size > 1 ? 1 : 0) : 1;
      if (!skipCodes(reader, codes)) return false;
    }
  }
  return true;
}

// amp_enabled_flag, sample_adaptive_offset_enabled_flag, and PCM with its parameters.
bool skipCodingTools(BitReader& reader) {
  const auto pcm = reader.skip(2) ? reader.flag() : std::nullopt;
  if (!pcm || !*pcm) return pcm.has_value();
  // Luma and chroma sample depths (4 bits each), two block sizes, the loop filter flag.
  return reader.skip(8) && skipCodes(reader, 2) && reader.skip(1);
}

// The POC distances of a short-term reference picture set: the earlier pictures nearest first,
// then the later ones nearest first. A later set may be written as a change of the one before it,
// so each set is kept until the next is read.
using DeltaPOCs = std::vector<std::int32_t>;

constexpr std::uint32_t kMaxShortTermSets = 64;
constexpr std::size_t kMaxDeltaPOCs = 16;  // a decoded picture buffer holds 16 pictures at most
constexpr std::uint32_t kMaxDeltaPOCMinus1 = 32767;

std::optional<DeltaPOCs> readExplicitSet(BitReader& reader) {
  const auto earlier = reader.ue();
  const auto later = reader.ue();
  if (!earlier || !later || std::uint64_t{*earlier} + *later > kMaxDeltaPOCs) return std::nullopt;
  DeltaPOCs deltas;
  for (const auto& [count, sign] : {std::pair{*earlier, -1}, std::pair{*later, 1}}) {
    std::int32_t poc = 0;
    for (std::uint32_t i = 0; i < count; ++i) {
      const auto stepMinus1 = reader.ue();
      if (!stepMinus1 || *stepMinus1 > kMaxDeltaPOCMinus1 || !reader.skip(1)) return std::nullopt;
      poc += sign * static_cast<std::int32_t>(*stepMinus1 + 1);  // used_by_curr_pic_flag skipped
      deltas.push_back(poc);
    }
  }
  return deltas;
}

// A set predicted from `reference`: each of its pictures, and the reference picture itself, moved
// by one distance, and kept or not; a distance of 0 (the current picture) never counts.
std::optional<DeltaPOCs> readPredictedSet(BitReader& reader, const DeltaPOCs& reference) {
  const auto negative = reader.flag();
  const auto magnitudeMinus1 = reader.ue();
  if (!negative || !magnitudeMinus1 || *magnitudeMinus1 > kMaxDeltaPOCMinus1) return std::nullopt;
  const std::int32_t shift = (*negative ? -1 : 1) * static_cast<std::int32_t>(*magnitudeMinus1 + 1);
  DeltaPOCs deltas;
  for (std::size_t j = 0; j <= reference.size(); ++j) {
    const auto usedNow = reader.flag();
    const auto kept = usedNow && !*usedNow ? reader.flag() : usedNow;  // use_delta_flag
    if (!kept) return std::nullopt;
    const std::int32_t poc = (j < reference.size() ? reference[j] : 0) + shift;
    if (*kept && poc != 0) deltas.push_back(poc);
  }
  if (deltas.size() > kMaxDeltaPOCs) return std::nullopt;
  std::ranges::sort(deltas, {}, [](std::int32_t poc) { return std::pair(poc > 0, std::abs(poc)); });
  return deltas;
}

bool skipShortTermSets(BitReader& reader) {
  const auto count = reader.ue();
  if (!count || *count > kMaxShortTermSets) return false;
  DeltaPOCs previous;
  for (std::uint32_t i = 0; i < *count; ++i) {
    const auto predicted = i == 0 ? std::optional(false) : reader.flag();
    if (!predicted) return false;
    auto set = *predicted ? readPredictedSet(reader, previous) : readExplicitSet(reader);
    if (!set) return false;
    previous = std::move(*set);
  }
  return true;
}

constexpr std::uint32_t kMaxLongTermPictures = 32;

// The long-term pictures the SPS lists: each a POC's least significant bits and a used flag.
bool skipLongTermPictures(BitReader& reader, unsigned pocLsbBits) {
  const auto present = reader.flag();
  if (!present || !*present) return present.has_value();
  const auto count = reader.ue();
  return count && *count <= kMaxLongTermPictures && reader.skip(*count * (pocLsbBits + 1));
}

constexpr std::uint32_t kExtendedSAR = 255;  // aspect_ratio_idc followed by the ratio itself

// The VUI up to its colour description; without a VUI or a signal type, what a stream without
// them means.
std::optional<ColourDescription> readVUIColour(BitReader& reader) {
  ColourDescription colour;
  const auto present = reader.flag();
  if (!present || !*present) return present ? std::optional(colour) : std::nullopt;
  const auto aspectRatio = reader.flag();
  if (!aspectRatio) return std::nullopt;
  if (*aspectRatio) {
    const auto idc = reader.bits(8);
    if (!idc || (*idc == kExtendedSAR && !reader.skip(32))) return std::nullopt;
  }
  const auto overscan = reader.flag();
  if (!overscan || (*overscan && !reader.skip(1))) return std::nullopt;
  const auto signalType = reader.flag();
  if (!signalType || !*signalType) return signalType ? std::optional(colour) : std::nullopt;
  const auto fullRange = reader.skip(3) ? reader.flag() : std::nullopt;  // after video_format
  const auto described = reader.flag();
  if (!fullRange || !described) return std::nullopt;
  colour.fullRange = *fullRange;
  if (!*described) return colour;
  const auto primaries = reader.bits(8);
  const auto transfer = reader.bits(8);
  const auto matrix = reader.bits(8);
  if (!primaries || !transfer || !matrix) return std::nullopt;
  colour.colourPrimaries = static_cast<std::uint8_t>(*primaries);
  colour.transferCharacteristics = static_cast<std::uint8_t>(*transfer);
  colour.matrixCoefficients = static_cast<std::uint8_t>(*matrix);
  return colour;
}

}  // namespace

std::optional<StreamFormat> readStreamFormat(NALUnit sps) {
  const auto rbsp = spsPayload(sps);
  if (!rbsp) return std::nullopt;
  BitReader reader(*rbsp);
  const auto head = readSPSHead(reader);
  if (!head) return std::nullopt;
  return head->format;
}

std::optional<ColourDescription> readColourDescription(NALUnit sps) {
  const auto rbsp = spsPayload(sps);
  if (!rbsp) return std::nullopt;
  BitReader reader(*rbsp);
  const auto head = readSPSHead(reader);
  const auto pocLsbBits =
      head ? skipSequenceLimits(reader, head->maxSubLayersMinus1) : std::nullopt;
  // ... then sps_temporal_mvp_enabled_flag and strong_intra_smoothing_enabled_flag
  if (!pocLsbBits || !skipScalingLists(reader) || !skipCodingTools(reader) ||
      !skipShortTermSets(reader) || !skipLongTermPictures(reader, *pocLsbBits) || !reader.skip(2)) {
    return std::nullopt;
  }
  return readVUIColour(reader);
}

}  // namespace kelvaron::hevc
