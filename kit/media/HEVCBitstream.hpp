#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "kit/wire/Bytes.hpp"
#include "kit/wire/MediaFrames.hpp"

// What the encoder needs to know of the HEVC bytes an encoder library hands back: where the NAL
// units are, which are parameter sets and key pictures, how to lay them out for the client, and
// what format the stream really has. Everything here reads untrusted bytes and is fuzzed.
namespace kelvaron::hevc {

// One NAL unit with its 2-byte header, no start code. It points into the bytes it was split from.
using NALUnit = std::span<const std::uint8_t>;

// The NAL units of an Annex B byte stream (start codes 00 00 01 or 00 00 00 01). Bytes before the
// first start code, zeros trailing a unit, and empty units are dropped.
std::vector<NALUnit> splitAnnexB(std::span<const std::uint8_t> stream);

// The unit's type (bits 1..6 of its first byte); nothing for a unit shorter than its header.
std::optional<std::uint8_t> nalType(NALUnit unit);

inline constexpr std::uint8_t kVPS = 32, kSPS = 33, kPPS = 34;

bool isParameterSet(std::uint8_t type);
// IRAP, a picture decoding can start at: BLA, IDR, CRA and the reserved IRAP types (16...23).
bool isRandomAccessPoint(std::uint8_t type);

// The units, each after a 4-byte big-endian length: the access-unit layout the client's decoder
// takes.
Data lengthPrefixed(const std::vector<NALUnit>& units);

// The inverse, for checks and for a client: nothing if a length, or the unit it announces, runs
// past the end. A zero length gives an empty unit, as it was written.
std::optional<std::vector<NALUnit>> splitLengthPrefixed(std::span<const std::uint8_t> payload);

// A frame as a decoder's byte stream (Annex B): its parameter sets, then its units, each after a
// start code. Nothing if its payload does not split.
std::optional<Data> annexBOf(const VideoFrame& frame);

// What the first output of an encoder session is checked against.
struct StreamFormat {
  std::uint8_t profileIdc = 0;       // general_profile_idc: 1 Main, 2 Main 10, 4 range extensions
  std::uint8_t chromaFormatIdc = 0;  // 1 = 4:2:0, 3 = 4:4:4
  std::uint8_t bitDepthLuma = 0;     // 8, 10 …
  friend bool operator==(const StreamFormat&, const StreamFormat&) = default;
};

// Read from a base-layer SPS unit (header included). Nothing if the unit is not such an SPS, is
// cut short, or holds a value no stream may have (an identifier, chroma format or bit depth out of
// range, an empty picture, a conformance window wider than the picture).
std::optional<StreamFormat> readStreamFormat(NALUnit sps);

// How the stream's samples are to be turned into colours (its VUI), as ITU-T H.273 code points:
// 1 is BT.709, 2 unspecified, which is what a stream that says nothing means.
struct ColourDescription {
  std::uint8_t colourPrimaries = 2;
  std::uint8_t transferCharacteristics = 2;
  std::uint8_t matrixCoefficients = 2;
  bool fullRange = false;
  friend bool operator==(const ColourDescription&, const ColourDescription&) = default;
};

// Read from a base-layer SPS unit through everything before its VUI. Nothing where
// `readStreamFormat` gives nothing, or if the rest is cut short or holds a count out of range.
std::optional<ColourDescription> readColourDescription(NALUnit sps);

}  // namespace kelvaron::hevc
