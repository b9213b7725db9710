#include "kit/transport/TransferPace.hpp"

#include <gtest/gtest.h>

namespace kelvaron {
namespace {

// Full at the start, refilled at its rate up to the burst, never more than asked; a clock that
// goes back gives nothing new.
TEST(TransferPace, GrantsItsRateAndNoMoreThanItsBurstAtOnce) {
  TransferPace pace(1000, 500);
  struct Step {
    std::size_t wanted;
    double now;
    std::size_t granted;
  };
  const Step steps[] = {{800, 10, 500}, {100, 10, 0}, {100, 10.05, 50}, {1000, 20, 500},
                        {10, 20, 0},    {300, 19, 0}, {300, 20.3, 300}};
  for (const Step& step : steps) {
    EXPECT_EQ(pace.grant(step.wanted, step.now), step.granted) << step.now;
  }
}

}  // namespace
}  // namespace kelvaron
