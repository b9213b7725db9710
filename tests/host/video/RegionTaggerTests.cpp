// The pure geometry of capture: the viewport a client gets, rectangles from the network, and
// which rectangle a frame was taken with.

#include <gtest/gtest.h>

#include <limits>

#include "host/video/CaptureGeometry.hpp"
#include "host/video/RegionTagger.hpp"

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
DisplayInfo display(std::uint32_t width, std::uint32_t height) {
  return {7, "screen", true, width, height, {0, 0, float(width), float(height)}};
}

ClientCapabilities client(std::uint32_t width, std::uint32_t height) {
  return {{CodecProfile::hevcMain}, width, height, 2, "iPad", false};
}

TEST(CaptureGeometry, DefaultViewportFitsTheClientWithoutScalingUp) {
  const Viewport phone = defaultViewport(display(2560, 1600), client(1179, 2556));
  EXPECT_EQ(phone.displayID, 7u);
  EXPECT_EQ(phone.sourceRect, (NormalizedRect{0, 0, 1, 1}));
  EXPECT_EQ(phone.outputWidth, 1178u);  // 1179, made even
  EXPECT_EQ(phone.outputHeight, 736u);  // 736.875 rounds to 737, made even

  const Viewport small = defaultViewport(display(1280, 720), client(2048, 1536));
  EXPECT_EQ(small.outputWidth, 1280u);
  EXPECT_EQ(small.outputHeight, 720u);

  const Viewport empty = defaultViewport(display(0, 0), client(0, 0));
  EXPECT_EQ(empty.outputWidth, 2u);
  EXPECT_EQ(empty.outputHeight, 2u);
}

TEST(CaptureGeometry, NormalisesRectanglesFromTheNetwork) {
  const NormalizedRect edge = normalizedRect({0.9995f, 0, 0.5f, 1});
  EXPECT_FLOAT_EQ(edge.width, 0.001f);  // the minimal side, sticking out
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float inf = std::numeric_limits<float>::infinity();
  const NormalizedRect bad = normalizedRect({nan, -3, nan, inf});
  EXPECT_EQ(bad.x, 0);
  EXPECT_EQ(bad.y, 0);
  EXPECT_FLOAT_EQ(bad.width, 0.001f);
  EXPECT_FLOAT_EQ(bad.height, 1.0f);
}

TEST(CaptureGeometry, SourceOfADisplayAndOfARegion) {
  const DisplayInfo screen = display(1920, 1080);
  const auto whole =
      sourceGeometry(screen, {7, {0.5f, 0.5f, 0.5f, 0.5f}, 1, 9000}, scope::display{});
  EXPECT_EQ(whole.source, (Rect{960, 540, 960, 540}));
  EXPECT_EQ(whole.output, (PixelSize{2, 8192}));
  EXPECT_EQ(sourceGeometry(screen, {7, {0, 0, 1, 1}, 1001, 0}, scope::display{}).output,
            (PixelSize{1000, 2}));

  // A region renders at most at the display's own density.
  const scope::region region{{100, 200, 400, 300}};
  const auto zoomed = sourceGeometry(screen, {7, {0, 0, 0.5f, 0.5f}, 1600, 1200}, region);
  EXPECT_EQ(zoomed.source, (Rect{100, 200, 200, 150}));
  EXPECT_EQ(zoomed.output, (PixelSize{200, 150}));
  const auto shrunk = sourceGeometry(screen, {7, {0, 0, 1, 1}, 200, 200}, region);
  EXPECT_EQ(shrunk.output, (PixelSize{200, 150}));
}

}  // namespace
}  // namespace kelvaron::host
