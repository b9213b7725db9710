#include "kit/wire/FileTransfer.hpp"

#include <gtest/gtest.h>

#include <limits>
#include <vector>

namespace kelvaron {
namespace {

TEST(FileTransfer, SizeTextRoundsLikeAPerson) {
  EXPECT_EQ(sizeText(1048576), "1 MB");
  EXPECT_EQ(sizeText(1572864), "1.5 MB");
  EXPECT_EQ(sizeText(20971520), "20 MB");
  EXPECT_EQ(sizeText(2048), "2 KB");
  EXPECT_EQ(sizeText(0), "0 KB");
  EXPECT_EQ(sizeText(10433332), "10 MB");  // 9.95 MiB rounds to one decimal as 10.0
  EXPECT_EQ(sizeText(15990000), "15 MB");  // 15.25 MiB: whole megabytes from ten on
}

TEST(FileTransfer, OffersAreCheckedBeforeTheyAreSent) {
  EXPECT_EQ(fileOfferProblem({}), "Nothing to send");
  EXPECT_EQ(fileOfferProblem(std::vector<std::uint64_t>(11, 1)), "Too many files: 11 (limit 10)");
  EXPECT_EQ(fileOfferProblem(std::vector<std::uint64_t>(10, 1)), std::nullopt);
  EXPECT_EQ(fileOfferProblem(std::vector<std::uint64_t>{104857600}), std::nullopt);
  EXPECT_EQ(fileOfferProblem(std::vector<std::uint64_t>{104857600, 1}),
            "Too large to send: 100 MB (limit 100 MB)");
  const auto max = std::numeric_limits<std::uint64_t>::max();
  EXPECT_EQ(fileOfferProblem(std::vector<std::uint64_t>{max, max}),
            "Too large to send: 17592186044416 MB (limit 100 MB)");
}

}  // namespace
}  // namespace kelvaron
