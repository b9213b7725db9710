#include "kit/transport/DNSSDAdvertiser.hpp"

#include <gtest/gtest.h>

#include <optional>
#include <sstream>

#include "tests/support/AsyncTest.hpp"
#include "tests/support/DiscoveryNetwork.hpp"

namespace kelvaron {
namespace {

using namespace test;

const UUID kHostID = *UUID::parse("e621e1f8-c36c-495a-93fc-0c247a3e6e5f");
// Service names as avahi-browse prints them, with a space, say, as \032.
const std::string kTestHost = "Test\\032Host";
const std::string kAnonymous = "Anonymous";

// The resolved lines of `avahi-browse -rpt _tovu._udp`, an independent client of the same daemon:
// "=;interface;protocol;name;type;domain;host;address;port;txt".
std::vector<std::string> resolvedServices() {
  std::vector<std::string> lines;
  std::istringstream output(DiscoveryNetwork::browseWithAvahiUtils("_tovu._udp").output);
  for (std::string line; std::getline(output, line);) {
    if (line.starts_with("=;") && line.find(";IPv4;") != std::string::npos) lines.push_back(line);
  }
  return lines;
}

bool listsService(const std::vector<std::string>& lines, const std::string& escapedName) {
  return std::any_of(lines.begin(), lines.end(), [&](const std::string& line) {
    return line.find(";" + escapedName + ";_tovu._udp;local;") != std::string::npos;
  });
}

// Asks avahi-browse again and again, giving the advertiser time to run in between, until
// `wanted` holds of what it lists or ten seconds have passed.
asio::awaitable<std::vector<std::string>> browseUntil(
    const std::function<bool(const std::vector<std::string>&)>& wanted) {
  const auto deadline = std::chrono::steady_clock::now() + 10s;
  auto lines = resolvedServices();
  while (!wanted(lines) && std::chrono::steady_clock::now() < deadline) {
    co_await sleepFor(200ms);
    lines = resolvedServices();
  }
  co_return lines;
}

asio::awaitable<std::vector<std::string>> browseUntilListed(const std::string& escapedName) {
  const std::function<bool(const std::vector<std::string>&)> listed = [&](const auto& lines) {
    return listsService(lines, escapedName);
  };
  auto lines = co_await browseUntil(listed);
  co_return lines;
}

#define START_DISCOVERY_NETWORK(network, ...) \
  DiscoveryNetwork network{__VA_ARGS__};      \
  if (!network.problem().empty()) GTEST_SKIP() << network.problem()

// An independent client of the same daemon sees each service with its port and, if it has one,
// its host ID; a service is withdrawn with its advertiser. (The alternative name a second
// service of the same name takes is seen through QUICHostBrowser.)
TEST(DNSSDAdvertiser, AnotherClientSeesTheServiceWithItsPortAndHostID) {
  START_DISCOVERY_NETWORK(network);
  runAsync(
      [](asio::io_context& io) -> asio::awaitable<void> {
        auto advertiser = std::make_unique<DNSSDAdvertiser>(makeStrand(io.get_executor()),
                                                            "Test Host", 4433, kHostID);
        DNSSDAdvertiser anonymous(makeStrand(io.get_executor()), "Anonymous", 4434, std::nullopt);
        const std::function<bool(const std::vector<std::string>&)> both = [](const auto& lines) {
          return listsService(lines, kTestHost) && listsService(lines, kAnonymous);
        };
        const auto lines = co_await browseUntil(both);
        CO_ASSERT_TRUE(both(lines));
        for (const std::string& line : lines) {
          if (listsService({line}, kTestHost)) {
            EXPECT_NE(line.find(";10.77.0.1;4433;"), std::string::npos) << line;
            EXPECT_TRUE(line.ends_with(";\"id=E621E1F8-C36C-495A-93FC-0C247A3E6E5F\"")) << line;
          } else {
            EXPECT_TRUE(line.ends_with(";4434;")) << line;
          }
        }

        advertiser.reset();  // withdraws it
        const std::function<bool(const std::vector<std::string>&)> withdrawn =
            [](const auto& current) { return !listsService(current, kTestHost); };
        const auto after = co_await browseUntil(withdrawn);
        EXPECT_FALSE(listsService(after, kTestHost));
      },
      30s);
}

TEST(DNSSDAdvertiser, ADaemonThatComesLaterOrRestartsGetsTheService) {
  START_DISCOVERY_NETWORK(network, DiscoveryNetwork::Avahi::later);
  runAsync(
      [&network](asio::io_context& io) -> asio::awaitable<void> {
        DNSSDAdvertiser advertiser(makeStrand(io.get_executor()), "Test Host", 4433, kHostID);
        co_await sleepFor(100ms);  // the advertiser is waiting for a daemon by now
        network.startAvahi();
        CO_ASSERT_TRUE(network.problem().empty());
        const auto first = co_await browseUntilListed(kTestHost);
        EXPECT_TRUE(listsService(first, kTestHost));

        network.stopAvahi();
        co_await sleepFor(100ms);  // the advertiser sees its daemon go
        network.startAvahi();
        CO_ASSERT_TRUE(network.problem().empty());
        const auto again = co_await browseUntilListed(kTestHost);
        EXPECT_TRUE(listsService(again, kTestHost));
      },
      60s);
}

}  // namespace
}  // namespace kelvaron
