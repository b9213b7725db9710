#include "kit/transport/PathChangeDetector.hpp"

#include <gtest/gtest.h>

namespace kelvaron {
namespace {

const NetworkInterface kWired{"eth0", "wiredEthernet"};
const NetworkInterface kSecondWired{"eth1", "wiredEthernet"};
const NetworkInterface kWifi{"wlan0", "wifi"};

PathChangeDetector::Signature signature(bool satisfied, std::vector<NetworkInterface> interfaces) {
  return PathChangeDetector::signature({satisfied, std::move(interfaces)});
}

// A restart is called for by a kind of interface that comes or goes, or by going offline or
// coming back; not by the first path, the order, or more of a kind already there.
TEST(PathChangeDetector, OnlyAChangeOfKindsOrOfReachabilityCallsForARestart) {
  const std::pair<PathChangeDetector::Signature, bool> steps[] = {
      {signature(true, {kWired}), false},
      {signature(true, {kWired, kWifi}), true},
      {signature(true, {kWifi, kWired}), false},
      {signature(true, {kWifi, kSecondWired, kWired}), false},
      {signature(true, {kWifi}), true},
      {signature(false, {}), true},
      {signature(true, {kWifi}), true},
  };
  PathChangeDetector detector;
  for (std::size_t i = 0; i < std::size(steps); ++i) {
    EXPECT_EQ(detector.update(steps[i].first), steps[i].second) << "step " << i;
    EXPECT_EQ(detector.last(), steps[i].first);
  }
}

}  // namespace
}  // namespace kelvaron
