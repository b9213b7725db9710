#include "client/ViewerStatistics.hpp"

#include <gtest/gtest.h>

namespace kelvaron::client {
namespace {

TEST(VideoStatistics, AsksForAKeyFrameAfterEveryJumpInFrameNumbers) {
  struct Arrival {
    std::uint64_t frameNumber;
    bool asksForKeyFrame;
  };
  // The first frame of all is no gap, whatever its number; a number going back is one.
  const Arrival arrivals[] = {{7, false}, {8, false},  {11, true}, {12, false},
                              {12, true}, {13, false}, {2, true}};
  VideoStatistics statistics;
  std::uint32_t frames = 0;
  for (const Arrival& arrival : arrivals) {
    const auto feedback = statistics.received(arrival.frameNumber, 1000);
    ++frames;
    EXPECT_EQ(feedback.has_value(), arrival.asksForKeyFrame) << arrival.frameNumber;
    if (feedback) {
      EXPECT_TRUE(feedback->requestKeyframe);
      EXPECT_EQ(feedback->framesReceived, frames);
      EXPECT_NE(feedback->framesDropped, 0u);  // what tells the host's rate control
    }
  }
  EXPECT_EQ(statistics.summary(), "Received 7 frames, 0 decoded, 3 gaps");
}

TEST(VideoStatistics, EachSecondShowsItsMeanDecodeTimeAndItsLeastTimeFromCapture) {
  VideoStatistics statistics;
  for (std::uint64_t n = 1; n <= 4; ++n) statistics.received(n, 250000);
  statistics.decoded(3, 41.5);
  statistics.decoded(5, 30);
  statistics.decoded(4, -2);     // clocks of two machines: left out
  statistics.decoded(4, 12000);  // likewise
  EXPECT_EQ(statusLine(1, statistics.endSecond()),
            "[  1s]   4.0 fps    8.00 Mbit/s  decode   4.0 ms  capture to picture  30.0 ms");
  // A second without frames starts from nothing.
  EXPECT_EQ(statusLine(2, statistics.endSecond()),
            "[  2s]   0.0 fps    0.00 Mbit/s  decode   0.0 ms");
  EXPECT_EQ(statistics.summary(), "Received 4 frames, 4 decoded, 0 gaps");
}

}  // namespace
}  // namespace kelvaron::client
