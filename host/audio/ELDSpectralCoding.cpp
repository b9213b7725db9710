#include "host/audio/ELDSpectralCoding.hpp"

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <limits>
#include <utility>

namespace kelvaron::host::eld {

namespace {

constexpr int kSectionHeaderBits = 4 + 5;
constexpr int kUnreachable = std::numeric_limits<int>::max() / 4;
constexpr int kEscapeThreshold = 16;

// A magnitude of 16 or more after the escape codebook's codeword: as many 1s as it has bits
// beyond four, a 0, then those bits without the leading one.
template <typename Sink>
void writeEscape(Sink& out, int magnitude) {
  const int width = std::bit_width(unsigned(magnitude)) - 1;
  out.write((1u << (width - 4)) - 1, width - 4);
  out.write(0, 1);
  out.write(unsigned(magnitude) - (1u << width), width);
}

template <typename Sink>
void codeTuple(Sink& out, const SpectralCodebook& book, const int* values) {
  int index = 0;
  for (int d = 0; d < book.dimension; ++d) {
    const int digit =
        book.isSigned ? values[d] + book.offset : std::min(std::abs(values[d]), book.largest);
    index = index * book.radix + digit;
  }
  const Codeword codeword = book.codewords[index];
  out.write(codeword.code, codeword.length);
  if (book.isSigned) return;
  for (int d = 0; d < book.dimension; ++d)
    if (values[d] != 0) out.write(values[d] < 0 ? 1 : 0, 1);
  if (!book.escape) return;
  for (int d = 0; d < book.dimension; ++d)
    if (std::abs(values[d]) >= kEscapeThreshold) writeEscape(out, std::abs(values[d]));
}

template <typename Sink>
void codeBand(Sink& out, int codebook, std::span<const int> values) {
  const SpectralCodebook& book = kSpectralCodebooks[codebook - 1];
  for (std::size_t i = 0; i < values.size(); i += std::size_t(book.dimension))
    codeTuple(out, book, values.data() + i);
}

std::span<const int> bandLines(std::span<const int, kFrameLength> quantized, int band) {
  return quantized.subspan(kBandOffsets[band], kBandOffsets[band + 1] - kBandOffsets[band]);
}

// Beyond its own pair, a band may be cheaper in the next pair up when that joins it to a
// neighbour's section; further up it never is.
constexpr int kCandidatesPerBand = 4;

}  // namespace

int smallestCodebook(int largest) {
  constexpr std::array<std::pair<int, int>, 6> kLimits{
      {{0, 0}, {1, 1}, {2, 3}, {4, 5}, {7, 7}, {12, 9}}};
  for (const auto& [limit, codebook] : kLimits)
    if (largest <= limit) return codebook;
  return kEscapeCodebook;
}

int bandBits(int codebook, std::span<const int> values) {
  BitCounter counter;
  codeBand(counter, codebook, values);
  return counter.bits;
}

void writeBand(BitWriter& out, int codebook, std::span<const int> values) {
  codeBand(out, codebook, values);
}

// Shortest path through the bands with one state per codebook: staying in a codebook continues
// its section, changing it opens a section and pays its header.
CodebookChoice chooseCodebooks(std::span<const int, kFrameLength> quantized,
                               std::span<const int, kBandCount> largest, int bandCount) {
  constexpr int kStates = kSpectralCodebookCount + 1;
  std::array<std::array<int, kStates>, kBandCount> bandCost;
  std::array<std::array<int, kStates>, kBandCount> cameFrom;
  std::array<int, kStates> total;
  total.fill(kUnreachable);
  for (int band = 0; band < bandCount; ++band) {
    bandCost[band].fill(kUnreachable);
    const int first = smallestCodebook(largest[band]);
    const int last =
        first == kZeroCodebook ? first : std::min(first + kCandidatesPerBand - 1, kEscapeCodebook);
    for (int codebook = first; codebook <= last; ++codebook)
      bandCost[band][codebook] =
          codebook == kZeroCodebook ? 0 : bandBits(codebook, bandLines(quantized, band));

    const int cheapest = int(std::min_element(total.begin(), total.end()) - total.begin());
    const int opening = band == 0 ? 0 : total[cheapest];
    std::array<int, kStates> next;
    for (int state = 0; state < kStates; ++state) {
      next[state] = kUnreachable;
      if (bandCost[band][state] == kUnreachable) continue;
      const bool stays = band > 0 && total[state] <= opening + kSectionHeaderBits;
      cameFrom[band][state] = stays ? state : cheapest;
      next[state] = bandCost[band][state] + (stays ? total[state] : opening + kSectionHeaderBits);
    }
    total = next;
  }

  CodebookChoice choice;
  if (bandCount == 0) return choice;
  int state = int(std::min_element(total.begin(), total.end()) - total.begin());
  for (int band = bandCount - 1; band >= 0; --band) {
    choice.codebooks[band] = state;
    choice.spectralBits += bandCost[band][state];
    state = cameFrom[band][state];
  }
  return choice;
}

}  // namespace kelvaron::host::eld
