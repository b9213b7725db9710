#include "kit/media/BitReader.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

namespace kelvaron::hevc {
namespace {

TEST(BitReader, ReadsFieldsMostSignificantBitFirstAcrossBytes) {
  const std::vector<std::uint8_t> bytes{0b1011'0011, 0b0101'0101};
  BitReader reader(bytes);
  EXPECT_EQ(reader.bits(3), 0b101u);
  EXPECT_EQ(reader.bits(7), 0b10011'01u);
  EXPECT_EQ(reader.flag(), false);
  EXPECT_EQ(reader.bits(6), std::nullopt);  // one more than there is, and nothing is consumed
  EXPECT_FALSE(reader.skip(6));
  EXPECT_EQ(reader.bits(5), 0b10101u);
  EXPECT_EQ(reader.flag(), std::nullopt);
}

TEST(BitReader, ReadsExpGolombCodesAndStopsAtTheEnd) {
  // 1 | 010 | 011 | 00100 | 0001000 | 0001001, then six zeros of a code that never ends.
  const std::vector<std::uint8_t> bytes{0xA6, 0x41, 0x02, 0x40};
  BitReader unsignedCodes(bytes);
  for (const std::uint32_t expected : {0u, 1u, 2u, 3u, 7u, 8u})
    EXPECT_EQ(unsignedCodes.ue(), expected);
  EXPECT_EQ(unsignedCodes.ue(), std::nullopt);

  BitReader signedCodes(bytes);
  for (const std::int32_t expected : {0, 1, -1, 2, 4, -4}) EXPECT_EQ(signedCodes.se(), expected);
  EXPECT_EQ(signedCodes.se(), std::nullopt);

  const std::vector<std::uint8_t> cutInSuffix{0b0000'0001};  // seven suffix bits wanted, none there
  EXPECT_EQ(BitReader(cutInSuffix).ue(), std::nullopt);
}

TEST(BitReader, TakesTheLongestCodeButNotOneBeyond) {
  // 31 zeros, the one, 31 ones: 2^32 - 2, the largest value a code may have.
  const std::vector<std::uint8_t> longest{0x00, 0x00, 0x00, 0x01, 0xFF, 0xFF, 0xFF, 0xFE};
  EXPECT_EQ(BitReader(longest).ue(), 0xFFFF'FFFEu);
  EXPECT_EQ(BitReader(longest).se(), -0x7FFF'FFFF);  // an even code: negative

  const std::vector<std::uint8_t> tooLong{0x00, 0x00, 0x00, 0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
  EXPECT_EQ(BitReader(tooLong).ue(), std::nullopt);
  EXPECT_EQ(BitReader(tooLong).se(), std::nullopt);
}

}  // namespace
}  // namespace kelvaron::hevc
