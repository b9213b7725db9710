// The pure logic of the video path: the bit-rate controller, the viewport a client gets,
// rectangles from the network, and which rectangle a frame was taken with.

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "host/video/BitrateController.hpp"
#include "host/video/CaptureGeometry.hpp"
#include "host/video/RegionTagger.hpp"

namespace kelvaron::host {
namespace {

const Feedback kClean{60, 0, 5.0f, false};
const Feedback kDropped{59, 1, 5.0f, false};

TEST(BitrateController, CutsAtOnceButAtMostTwiceASecond) {
  BitrateController controller;
  controller.cleanSince = 0.0;
  EXPECT_EQ(controller.update(kDropped, 10.0), 11200000);
  EXPECT_EQ(controller.update(kDropped, 10.3), std::nullopt);  // within the cooldown
  EXPECT_FALSE(controller.cleanSince);
  EXPECT_EQ(controller.update(kDropped, 10.5), 7839999);  // truncated, as doubles give it
  // High jitter is congestion too; exactly the threshold is not, nor is no reading.
  EXPECT_EQ(controller.update({60, 0, 30.5f, false}, 11.0), 5487999);
  EXPECT_EQ(controller.update({60, 0, 30.0f, false}, 11.6), std::nullopt);
  EXPECT_EQ(controller.update({60, 0, NAN, false}, 11.7), std::nullopt);
  EXPECT_EQ(controller.cleanSince, 11.6);
}

TEST(BitrateController, RaisesAfterEachCleanIntervalWithinItsBounds) {
  BitrateController controller;
  EXPECT_EQ(controller.update(kClean, 0.0), std::nullopt);
  EXPECT_EQ(controller.update(kClean, 1.0), std::nullopt);
  EXPECT_EQ(controller.update(kClean, 2.0), 17600000);
  EXPECT_EQ(controller.update(kClean, 3.0), std::nullopt);
  EXPECT_EQ(controller.update(kClean, 4.0), 19360000);

  BitrateController low;
  low.bitrate = BitrateController::kMinimum;
  EXPECT_EQ(low.update(kDropped, 1.0), std::nullopt);
  EXPECT_EQ(low.bitrate, BitrateController::kMinimum);
  EXPECT_EQ(low.lastDecrease, 1.0);  // the cut still counts for the cooldown
  BitrateController high;
  high.bitrate = BitrateController::kMaximum;
  EXPECT_EQ(high.update(kClean, 0.0), std::nullopt);
  EXPECT_EQ(high.update(kClean, 2.0), std::nullopt);
  EXPECT_EQ(high.cleanSince, 2.0);  // moves on, yielding nothing
}

const NormalizedRect kWhole{0, 0, 1, 1};
const NormalizedRect kLeftHalf{0, 0, 0.5f, 1};
const NormalizedRect kCorner{0.5f, 0.5f, 0.5f, 0.5f};
constexpr std::uint64_t kSecond = 1'000'000'000;
using Stamp = std::optional<std::uint64_t>;

// Frames stamped before a change keep the old rectangle, frames from the request to the
// confirmation are dropped (nothing), later ones get the new rectangle; unstamped frames get the
// rectangle in force unless a change is pending.
TEST(RegionTagger, AttributesEachFrameToTheRectangleItWasTakenWith) {
  struct Step {
    std::optional<NormalizedRect> requested;  // a confirmation when none
    std::uint64_t at;
  };
  struct Case {
    const char* changes;
    std::vector<Step> steps;
    std::vector<std::pair<Stamp, std::optional<NormalizedRect>>> expected;
  };
  const std::vector<Case> cases = {
      {"none", {{{}, 7 * kSecond}}, {{{}, kCorner}, {5 * kSecond, kCorner}}},
      {"pending",
       {{kLeftHalf, 100}},
       {{0, kCorner}, {99, kCorner}, {100, {}}, {250, {}}, {{}, {}}}},
      {"confirmed",
       {{kLeftHalf, 100}, {{}, 200}},
       {{99, kCorner}, {100, {}}, {200, {}}, {201, kLeftHalf}, {{}, kLeftHalf}}},
      {"confirmed before it was asked for: a gap of that instant",
       {{kLeftHalf, 500}, {{}, 400}},
       {{500, {}}, {501, kLeftHalf}}},
      {"two pending", {{kLeftHalf, 100}, {kWhole, 150}}, {{99, kCorner}, {120, {}}}},
      {"two, the first confirmed",
       {{kLeftHalf, 100}, {kWhole, 150}, {{}, 200}},
       {{99, kCorner}, {250, {}}, {{}, {}}}},
      {"two confirmed",
       {{kLeftHalf, 100}, {kWhole, 150}, {{}, 200}, {{}, 300}},
       {{99, kCorner}, {250, {}}, {301, kWhole}, {{}, kWhole}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.changes);
    RegionTagger tagger;
    NormalizedRect inForce = kCorner;
    for (const Step& step : c.steps) {
      if (!step.requested) {
        tagger.confirm(step.at);
        continue;
      }
      tagger.request(inForce, *step.requested, step.at);
      inForce = *step.requested;
    }
    for (const auto& [stamp, rect] : c.expected) {
      EXPECT_EQ(tagger.attribute(stamp, inForce), rect) << (stamp ? *stamp : 0);
    }
  }
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

// The client's screen, never scaled up, each side even and at least 2.
TEST(CaptureGeometry, DefaultViewportFitsTheClientWithoutScalingUp) {
  const auto viewport = [](DisplayInfo shown, std::uint32_t width, std::uint32_t height) {
    const Viewport v =
        defaultViewport(shown, {{CodecProfile::hevcMain}, width, height, 2, "", false});
    EXPECT_EQ(v.displayID, 7u);
    EXPECT_EQ(v.sourceRect, kWhole);
    return PixelSize{v.outputWidth, v.outputHeight};
  };
  EXPECT_EQ(viewport(display(2560, 1600), 1179, 2556), (PixelSize{1178, 736}));  // 736.875
  EXPECT_EQ(viewport(display(1280, 720), 2048, 1536), (PixelSize{1280, 720}));
  EXPECT_EQ(viewport(display(0, 0), 0, 0), (PixelSize{2, 2}));
}

TEST(CaptureGeometry, NormalisesRectanglesAndRendersRegionsAtMostAtTheDisplaysDensity) {
  EXPECT_FLOAT_EQ(normalizedRect({0.9995f, 0, 0.5f, 1}).width, 0.001f);  // minimal, sticking out
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const NormalizedRect bad = normalizedRect({nan, -3, nan, INFINITY});
  EXPECT_EQ(bad, (NormalizedRect{0, 0, 0.001f, 1}));

  const DisplayInfo screen = display(1920, 1080);
  EXPECT_EQ(sourceGeometry(screen, {7, kCorner, 1, 9000}, scope::display{}),
            (SourceGeometry{{960, 540, 960, 540}, {2, 8192}}));
  EXPECT_EQ(sourceGeometry(screen, {7, kWhole, 1001, 0}, scope::display{}).output,
            (PixelSize{1000, 2}));
  const scope::region region{{100, 200, 400, 300}};
  EXPECT_EQ(sourceGeometry(screen, {7, {0, 0, 0.5f, 0.5f}, 1600, 1200}, region),
            (SourceGeometry{{100, 200, 200, 150}, {200, 150}}));
  EXPECT_EQ(sourceGeometry(screen, {7, kWhole, 200, 200}, region).output, (PixelSize{200, 150}));
}

}  // namespace
}  // namespace kelvaron::host
