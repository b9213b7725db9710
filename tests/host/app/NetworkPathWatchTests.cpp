#include "host/app/NetworkPathWatch.hpp"

#include <gtest/gtest.h>

#include "tests/support/AsyncTest.hpp"

namespace kelvaron::host {
namespace {

using namespace test;

const NetworkInterface kWired{"eth0", "wiredEthernet"};
const NetworkInterface kWifi{"wlan0", "wifi"};
const NetworkInterface kSecondWired{"eth1", "wiredEthernet"};

asio::awaitable<void> settle() { co_await sleepFor(10ms); }

TEST(NetworkPathWatch, ThePathIsJudgedByTheSortedNamesOfItsInterfaces) {
  EXPECT_EQ(networkPathSignature({true, {kWifi, kWired}}),
            (NetworkPathSignature{true, {"eth0", "wlan0"}}));
  EXPECT_EQ(networkPathSignature({false, {}}), (NetworkPathSignature{false, {}}));
}

TEST(NetworkPathWatch, RestartsTheListenerWhenTheNetworkComesBackOrItsInterfacesChange) {
  runAsync([](asio::io_context& io) -> asio::awaitable<void> {
    auto paths = std::make_shared<AsyncQueue<NetworkPath>>();
    int restarts = 0;
    NetworkPathWatch watch(io.get_executor(), paths, [&] { ++restarts; });

    paths->push({true, {kWired, kWifi}});  // the first path only sets the scene
    paths->push({true, {kWifi, kWired}});  // the same interfaces
    paths->push({false, {}});              // going offline restarts nothing
    co_await settle();
    EXPECT_EQ(restarts, 0);

    paths->push({true, {kWired}});  // back online
    co_await settle();
    EXPECT_EQ(restarts, 1);

    paths->push({true, {kWired, kSecondWired}});  // another interface, even of a kind already there
    co_await settle();
    EXPECT_EQ(restarts, 2);

    watch.stop();
    paths->push({false, {}});
    paths->push({true, {kWifi}});
    co_await settle();
    EXPECT_EQ(restarts, 2);
  });
}

}  // namespace
}  // namespace kelvaron::host
