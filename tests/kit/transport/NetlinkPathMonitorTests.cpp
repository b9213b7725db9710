#include "kit/transport/NetlinkPathMonitor.hpp"

#include <gtest/gtest.h>

#include <optional>

#include "tests/support/AsyncTest.hpp"
#include "tests/support/NetworkNamespace.hpp"

namespace kelvaron {
namespace {

using namespace test;

// In a network namespace of the test's own, where only "lo" is up to begin with, the first path is
// the network as it is; an interface is listed once it is up with an address, and goes when
// either goes. (That a tunnel is of the kind "other" the browser's test sees.)
TEST(NetlinkPathMonitor, AnInterfaceIsListedWhileItIsUpWithAnAddressAndStopEndsThePaths) {
  NetworkNamespace network;
  if (!network.problem().empty()) GTEST_SKIP() << network.problem();
  NetworkNamespace::addEthernet("tovu0", "tovu1", "10.77.0.1/24");
  runAsync([](asio::io_context& io) -> asio::awaitable<void> {
    const NetworkPath offline{false, {}}, wired{true, {{"tovu0", "wiredEthernet"}}};
    NetlinkPathMonitor monitor(makeStrand(io.get_executor()));
    const std::pair<std::vector<std::string>, NetworkPath> steps[] = {
        {{}, wired},  // never lists loopback
        {{"address", "del", "10.77.0.1/24", "dev", "tovu0"}, offline},
        {{"address", "add", "10.77.0.1/24", "dev", "tovu0"}, wired},
        {{"link", "set", "tovu0", "down"}, offline},
        {{"link", "set", "tovu0", "up"}, wired},
    };
    for (const auto& [command, path] : steps) {
      if (!command.empty()) NetworkNamespace::ip(command);
      const auto next = co_await nextWithin(monitor.paths(), 10s);
      EXPECT_EQ(next, path) << testing::PrintToString(command);
    }
    monitor.stop();
    const auto after = co_await monitor.paths().next();
    EXPECT_EQ(after, std::nullopt);
  });
}

}  // namespace
}  // namespace kelvaron
