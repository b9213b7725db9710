// Arbitrary bytes as what an encoder library hands back: an Annex B stream, a length-prefixed
// access unit, and a single NAL unit. Splitting must lose nothing and invent nothing, and whatever
// format an SPS yields must be one a stream can have, and its colour found only behind it.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <span>

#include "kit/media/HEVCBitstream.hpp"

namespace hevc = kelvaron::hevc;

namespace {

void check(bool condition) {
  if (!condition) std::abort();
}

void readFormat(hevc::NALUnit unit) {
  const auto format = hevc::readStreamFormat(unit);
  const auto colour = hevc::readColourDescription(unit);
  check(format || !colour);  // the colour description lies behind the format
  if (!format) return;
  check(hevc::nalType(unit) == hevc::kSPS);
  check(format->profileIdc < 32 && format->chromaFormatIdc <= 3);
  check(format->bitDepthLuma >= 8 && format->bitDepthLuma <= 16);
}

bool sameUnits(const std::vector<hevc::NALUnit>& a, const std::vector<hevc::NALUnit>& b) {
  return std::ranges::equal(
      a, b, [](hevc::NALUnit x, hevc::NALUnit y) { return std::ranges::equal(x, y); });
}

// Units lie inside the stream, one after the other, and none is empty or ends in a zero.
void checkAnnexB(std::span<const std::uint8_t> stream) {
  const auto units = hevc::splitAnnexB(stream);
  const std::uint8_t* after = stream.data();
  for (const hevc::NALUnit unit : units) {
    check(!unit.empty() && unit.back() != 0);
    check(unit.data() >= after && unit.data() + unit.size() <= stream.data() + stream.size());
    after = unit.data() + unit.size();
    if (const auto type = hevc::nalType(unit)) {
      (void)hevc::isParameterSet(*type);
      (void)hevc::isRandomAccessPoint(*type);
    }
    readFormat(unit);
  }
  check(sameUnits(hevc::splitLengthPrefixed(hevc::lengthPrefixed(units)).value(), units));
}

// What splits must be written back byte for byte.
void checkLengthPrefixed(std::span<const std::uint8_t> payload) {
  const auto units = hevc::splitLengthPrefixed(payload);
  if (!units) return;
  for (const hevc::NALUnit unit : *units) readFormat(unit);
  check(std::ranges::equal(hevc::lengthPrefixed(*units), payload));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  const std::span<const std::uint8_t> input(bytes, size);
  checkAnnexB(input);
  checkLengthPrefixed(input);
  readFormat(input);
  return 0;
}
