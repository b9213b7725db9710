#include "host/video/RegionTagger.hpp"

#include <gtest/gtest.h>

namespace kelvaron::host {
namespace {

const NormalizedRect kWhole{0, 0, 1, 1};
const NormalizedRect kLeftHalf{0, 0, 0.5f, 1};
const NormalizedRect kCorner{0.5f, 0.5f, 0.5f, 0.5f};
constexpr std::uint64_t kSecond = 1'000'000'000;

TEST(RegionTagger, WithoutChangesEveryFrameGetsTheRectangleInForce) {
  RegionTagger tagger;
  EXPECT_EQ(tagger.attribute(std::nullopt, kWhole), kWhole);
  EXPECT_EQ(tagger.attribute(5 * kSecond, kCorner), kCorner);
  tagger.confirm(7 * kSecond);  // nothing pending: nothing happens
  EXPECT_TRUE(tagger.segments().empty());
  EXPECT_TRUE(tagger.gaps().empty());
}

TEST(RegionTagger, APendingChangeKeepsOlderFramesAndDropsNewerOnes) {
  RegionTagger tagger;
  tagger.request(kWhole, kLeftHalf, 100);
  // The caller's rectangle in force is already the new one; history still knows the old.
  EXPECT_EQ(tagger.attribute(99, kLeftHalf), kWhole);
  EXPECT_EQ(tagger.attribute(0, kLeftHalf), kWhole);
  EXPECT_EQ(tagger.attribute(100, kLeftHalf), std::nullopt);
  EXPECT_EQ(tagger.attribute(250, kLeftHalf), std::nullopt);
  EXPECT_EQ(tagger.attribute(std::nullopt, kLeftHalf), std::nullopt);
}

TEST(RegionTagger, AfterConfirmationTheGapIsDroppedAndLaterFramesGetTheNewRectangle) {
  RegionTagger tagger;
  tagger.request(kWhole, kLeftHalf, 100);
  tagger.confirm(200);
  EXPECT_EQ(tagger.attribute(99, kLeftHalf), kWhole);
  EXPECT_EQ(tagger.attribute(100, kLeftHalf), std::nullopt);
  EXPECT_EQ(tagger.attribute(150, kLeftHalf), std::nullopt);
  EXPECT_EQ(tagger.attribute(200, kLeftHalf), std::nullopt);
  EXPECT_EQ(tagger.attribute(201, kLeftHalf), kLeftHalf);
  EXPECT_EQ(tagger.attribute(std::nullopt, kLeftHalf), kLeftHalf);

  // A confirmation stamped before its request leaves a gap of that instant only.
  RegionTagger early;
  early.request(kWhole, kCorner, 500);
  early.confirm(400);
  EXPECT_EQ(early.gaps(), (std::vector<RegionTagger::Gap>{{500, 500}}));
  EXPECT_EQ(early.attribute(500, kCorner), std::nullopt);
  EXPECT_EQ(early.attribute(501, kCorner), kCorner);
}

TEST(RegionTagger, TwoQuickChangesAreConfirmedInOrderEachWithItsOwnGap) {
  RegionTagger tagger;
  tagger.request(kWhole, kLeftHalf, 100);
  tagger.request(kLeftHalf, kCorner, 150);
  EXPECT_EQ(tagger.attribute(120, kCorner), std::nullopt);  // at or after the first request

  tagger.confirm(200);
  EXPECT_EQ(tagger.pending(), (std::vector<RegionTagger::Pending>{{kCorner, 150}}));
  EXPECT_EQ(tagger.attribute(99, kCorner), kWhole);
  EXPECT_EQ(tagger.attribute(250, kCorner), std::nullopt);  // the second is still pending
  EXPECT_EQ(tagger.attribute(std::nullopt, kCorner), std::nullopt);
  tagger.confirm(300);
  EXPECT_EQ(tagger.gaps(), (std::vector<RegionTagger::Gap>{{100, 200}, {150, 300}}));
  EXPECT_EQ(tagger.attribute(99, kCorner), kWhole);
  EXPECT_EQ(tagger.attribute(250, kCorner), std::nullopt);
  EXPECT_EQ(tagger.attribute(301, kCorner), kCorner);
  EXPECT_TRUE(tagger.pending().empty());
}

TEST(RegionTagger, AFailedChangeRestoresThePreviousRectangleAndFramesFlowAgain) {
  RegionTagger tagger;
  EXPECT_EQ(tagger.rollback(), std::nullopt);  // nothing known yet

  tagger.request(kWhole, kLeftHalf, 100);
  tagger.request(kLeftHalf, kCorner, 150);
  EXPECT_EQ(tagger.rollback(), kLeftHalf);  // the earlier change is still on its way
  EXPECT_EQ(tagger.rollback(), kWhole);     // back to what was in force before both
  EXPECT_EQ(tagger.rollback(), kWhole);
  EXPECT_TRUE(tagger.pending().empty());
  EXPECT_EQ(tagger.attribute(500, kWhole), kWhole);
  EXPECT_EQ(tagger.attribute(std::nullopt, kWhole), kWhole);
}

TEST(RegionTagger, HistoryOlderThanASecondIsForgotten) {
  RegionTagger tagger;
  tagger.request(kWhole, kLeftHalf, 100);
  tagger.confirm(200);  // a cutoff below zero counts as zero: the first segment stays
  EXPECT_EQ(tagger.segments().size(), 2u);

  tagger.request(kLeftHalf, kCorner, 3 * kSecond);
  tagger.confirm(3 * kSecond + 10);
  // Only the segment in force at the cutoff and the newer one remain, and the old gap is gone.
  EXPECT_EQ(tagger.segments(),
            (std::vector<RegionTagger::Segment>{{kLeftHalf, 200}, {kCorner, 3 * kSecond + 10}}));
  EXPECT_EQ(tagger.gaps(), (std::vector<RegionTagger::Gap>{{3 * kSecond, 3 * kSecond + 10}}));
  EXPECT_EQ(tagger.attribute(150, kCorner), kCorner);  // older than all history: the fallback
  EXPECT_EQ(tagger.attribute(2 * kSecond, kCorner), kLeftHalf);

  // A gap ending exactly at the cutoff is still kept.
  tagger.request(kCorner, kWhole, 4 * kSecond + 10);
  tagger.confirm(4 * kSecond + 10);
  EXPECT_EQ(tagger.gaps().front(), (RegionTagger::Gap{3 * kSecond, 3 * kSecond + 10}));
}

}  // namespace
}  // namespace kelvaron::host
