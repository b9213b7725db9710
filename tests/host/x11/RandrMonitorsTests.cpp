#include "host/x11/RandrMonitors.hpp"

#include <gtest/gtest.h>

namespace kelvaron::host {
namespace {

// Without a primary monitor, main is the first at the root's origin, else the first; a primary
// one is main and first even when its ID is the higher.
TEST(RandrMonitors, ChoosesTheMainDisplayAndMeasuresFromIt) {
  const auto noOrigin =
      displayListFromMonitors({{"B", false, 100, 50, 800, 600}, {"C", false, 900, 0, 400, 300}});
  ASSERT_EQ(noOrigin.size(), 2u);
  EXPECT_TRUE(noOrigin[0].isMain && noOrigin[0].name == "B" && !noOrigin[1].isMain);
  EXPECT_EQ(noOrigin[1].frame, (DisplayFrame{800, -50, 400, 300}));

  const bool leftIsHigher = displayIDForMonitorName("L") > displayIDForMonitorName("R");
  const auto withPrimary = displayListFromMonitors({{"X", false, 0, 0, 10, 10},
                                                    {"L", leftIsHigher, 10, 0, 10, 10},
                                                    {"R", !leftIsHigher, 20, 0, 10, 10}});
  ASSERT_EQ(withPrimary.size(), 3u);
  EXPECT_EQ(withPrimary[0].name, leftIsHigher ? "L" : "R");
  EXPECT_TRUE(withPrimary[0].isMain && !withPrimary[1].isMain && !withPrimary[2].isMain);
  EXPECT_LT(withPrimary[1].id, withPrimary[2].id);
  EXPECT_EQ(withPrimary[0].frame.x, 0);
}

}  // namespace
}  // namespace kelvaron::host
