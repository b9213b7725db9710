#include "kit/transport/InFlightBudget.hpp"

#include <gtest/gtest.h>

namespace kelvaron {
namespace {

TEST(InFlightBudget, MediaIsRefusedBeyondItsLimitsAndTransfersWaitUnlessIdle) {
  InFlightBudget budget({.maxVideoFramesInFlight = 2,
                         .maxVideoBytesInFlight = 1000,
                         .maxAudioPacketsInFlight = 1,
                         .maxTransferBytesInFlight = 500});
  // Video: by count, and by bytes before the frame, so that one large frame still goes alone.
  EXPECT_TRUE(budget.admit(StreamKind::video, 5000));
  EXPECT_FALSE(budget.admit(StreamKind::video, 1));
  budget.sent(StreamKind::video, 5000);
  EXPECT_TRUE(budget.admit(StreamKind::video, 100));
  EXPECT_TRUE(budget.admit(StreamKind::video, 100));
  EXPECT_FALSE(budget.admit(StreamKind::video, 100));  // two in flight
  budget.sent(StreamKind::video, 100);
  EXPECT_TRUE(budget.admit(StreamKind::video, 100));

  // Audio has its own count; messages are never refused.
  EXPECT_TRUE(budget.admit(StreamKind::audio, 10));
  EXPECT_FALSE(budget.admit(StreamKind::audio, 10));
  for (int i = 0; i < 100; ++i) EXPECT_TRUE(budget.admit(StreamKind::control, 1 << 20));
  budget.sent(StreamKind::control, 1 << 20);
  EXPECT_TRUE(budget.admit(StreamKind::input, 1 << 20));

  // Transfers: anything when idle, else only what fits.
  EXPECT_TRUE(budget.admit(StreamKind::transfer, 800));
  EXPECT_FALSE(budget.admit(StreamKind::transfer, 1));
  budget.sent(StreamKind::transfer, 800);
  EXPECT_TRUE(budget.admit(StreamKind::transfer, 300));
  EXPECT_TRUE(budget.admit(StreamKind::transfer, 200));
  EXPECT_FALSE(budget.admit(StreamKind::transfer, 1));
}

}  // namespace
}  // namespace kelvaron
