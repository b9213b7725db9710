#include "kit/transport/NetlinkPathMonitor.hpp"

#include <gtest/gtest.h>

#include <optional>

#include "tests/support/AsyncTest.hpp"
#include "tests/support/NetworkNamespace.hpp"

namespace kelvaron {
namespace {

using namespace test;

const NetworkPath kOffline{false, {}};
const NetworkPath kWired{true, {{"tovu0", "wiredEthernet"}}};

asio::awaitable<std::optional<NetworkPath>> nextPath(NetlinkPathMonitor& monitor) {
  return nextWithin(monitor.paths(), 10s);
}

// Each test runs in a network namespace of its own, where only "lo" is up to begin with.
#define ENTER_NETWORK_NAMESPACE(network) \
  NetworkNamespace network;              \
  if (!network.problem().empty()) GTEST_SKIP() << network.problem()

TEST(NetlinkPathMonitor, TheFirstPathIsTheNetworkAsItIsAndStopEndsThePaths) {
  ENTER_NETWORK_NAMESPACE(network);
  NetworkNamespace::addEthernet("tovu0", "tovu1", "10.77.0.1/24");
  runAsync([](asio::io_context& io) -> asio::awaitable<void> {
    NetlinkPathMonitor monitor(makeStrand(io.get_executor()));
    const auto first = co_await nextPath(monitor);
    EXPECT_EQ(first, kWired);  // never lists loopback
    monitor.stop();
    const auto after = co_await monitor.paths().next();
    EXPECT_EQ(after, std::nullopt);
  });
}

TEST(NetlinkPathMonitor, AnInterfaceAppearsOnceItIsUpWithAnAddressAndGoesWhenEitherGoes) {
  ENTER_NETWORK_NAMESPACE(network);
  runAsync([](asio::io_context& io) -> asio::awaitable<void> {
    NetlinkPathMonitor monitor(makeStrand(io.get_executor()));
    const auto first = co_await nextPath(monitor);
    EXPECT_EQ(first, kOffline);
    NetworkNamespace::addEthernet("tovu0", "tovu1", "");  // up, but without an address
    NetworkNamespace::ip({"address", "add", "10.77.0.1/24", "dev", "tovu0"});
    const auto addressed = co_await nextPath(monitor);
    EXPECT_EQ(addressed, kWired);
    NetworkNamespace::ip({"link", "set", "tovu0", "down"});
    const auto down = co_await nextPath(monitor);
    EXPECT_EQ(down, kOffline);
    NetworkNamespace::ip({"link", "set", "tovu0", "up"});
    const auto up = co_await nextPath(monitor);
    EXPECT_EQ(up, kWired);
    NetworkNamespace::ip({"address", "del", "10.77.0.1/24", "dev", "tovu0"});
    const auto unaddressed = co_await nextPath(monitor);
    EXPECT_EQ(unaddressed, kOffline);
    monitor.stop();
  });
}

TEST(NetlinkPathMonitor, AnInterfaceThatIsNeitherEthernetNorWifiIsOther) {
  ENTER_NETWORK_NAMESPACE(network);
  if (!TunInterface::available()) GTEST_SKIP() << "no /dev/net/tun to make a tunnel with";
  NetworkNamespace::addEthernet("tovu0", "tovu1", "10.77.0.1/24");
  runAsync([](asio::io_context& io) -> asio::awaitable<void> {
    NetlinkPathMonitor monitor(makeStrand(io.get_executor()));
    const auto first = co_await nextPath(monitor);
    EXPECT_EQ(first, kWired);
    std::optional<TunInterface> tunnel;
    tunnel.emplace("tovutun0");
    NetworkNamespace::ip({"address", "add", "10.78.0.1/24", "dev", "tovutun0"});
    NetworkNamespace::ip({"link", "set", "tovutun0", "up"});
    const auto withTunnel = co_await nextPath(monitor);
    EXPECT_EQ(withTunnel, (NetworkPath{true, {{"tovu0", "wiredEthernet"}, {"tovutun0", "other"}}}));
    tunnel.reset();  // the interface goes with its descriptor
    const auto without = co_await nextPath(monitor);
    EXPECT_EQ(without, kWired);
    monitor.stop();
  });
}

}  // namespace
}  // namespace kelvaron
