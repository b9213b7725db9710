#include "host/video/BitrateController.hpp"

#include <gtest/gtest.h>

#include <cmath>

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
  // High jitter is congestion too; exactly the threshold is not.
  EXPECT_EQ(controller.update({60, 0, 30.5f, false}, 11.0), 5487999);
  EXPECT_EQ(controller.update({60, 0, 30.0f, false}, 11.6), std::nullopt);
  EXPECT_EQ(controller.cleanSince, 11.6);
  EXPECT_EQ(controller.update({60, 0, NAN, false}, 11.7), std::nullopt);
  EXPECT_EQ(controller.cleanSince, 11.6);
}

TEST(BitrateController, StaysWithinItsBounds) {
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

TEST(BitrateController, RaisesAfterEachCleanInterval) {
  BitrateController controller;
  EXPECT_EQ(controller.update(kClean, 0.0), std::nullopt);
  EXPECT_EQ(controller.update(kClean, 1.0), std::nullopt);
  EXPECT_EQ(controller.update(kClean, 2.0), 17600000);
  EXPECT_EQ(controller.update(kClean, 3.0), std::nullopt);
  EXPECT_EQ(controller.update(kClean, 4.0), 19360000);
}

}  // namespace
}  // namespace kelvaron::host
