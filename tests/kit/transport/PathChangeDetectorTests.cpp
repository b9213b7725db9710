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

TEST(PathChangeDetector, TheFirstPathOnlySetsTheScene) {
  PathChangeDetector detector;
  EXPECT_FALSE(detector.update(signature(true, {kWired})));
  EXPECT_EQ(detector.last(), signature(true, {kWired}));
}

TEST(PathChangeDetector, TheOrderOfInterfacesAndMoreOfAKindAlreadyThereChangeNothing) {
  PathChangeDetector detector;
  detector.update(signature(true, {kWired, kWifi}));
  EXPECT_FALSE(detector.update(signature(true, {kWifi, kWired})));
  EXPECT_FALSE(detector.update(signature(true, {kWifi, kSecondWired, kWired})));
}

TEST(PathChangeDetector, ANewKindOfInterfaceOrOneGoneCallsForARestart) {
  PathChangeDetector detector;
  detector.update(signature(true, {kWired}));
  EXPECT_TRUE(detector.update(signature(true, {kWired, kWifi})));
  EXPECT_FALSE(detector.update(signature(true, {kWired, kWifi})));
  EXPECT_TRUE(detector.update(signature(true, {kWifi})));
}

TEST(PathChangeDetector, GoingOfflineAndComingBackEachCallForARestart) {
  PathChangeDetector detector;
  detector.update(signature(true, {kWired}));
  EXPECT_TRUE(detector.update(signature(false, {})));
  EXPECT_TRUE(detector.update(signature(true, {kWired})));
}

}  // namespace
}  // namespace kelvaron
