#include "kit/transport/DNSSDAdvertiser.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <ranges>
#include <sstream>

#include "tests/support/AsyncTest.hpp"
#include "tests/support/DiscoveryNetwork.hpp"

namespace kelvaron {
namespace {

using namespace test;
using Services = std::map<std::string, std::string>;

// What `avahi-browse -rpt`, an independent client of the same daemon, resolves over IPv4: each
// service's line "=;interface;protocol;name;type;domain;host;address;port;txt" by its name as
// avahi-browse prints it (a space, say, as \032).
Services resolvedServices() {
  Services services;
  std::istringstream output(runCommand({"avahi-browse", "-rpt", "_tovu._udp"}).output);
  for (std::string line; std::getline(output, line);) {
    std::vector<std::string> fields;
    std::istringstream parts(line);
    for (std::string field; std::getline(parts, field, ';');) fields.push_back(field);
    if (fields.size() > 3 && fields[0] == "=" && fields[2] == "IPv4") services[fields[3]] = line;
  }
  return services;
}

bool listsExactly(const Services& services, const std::vector<std::string>& names) {
  return std::ranges::equal(services | std::views::keys, names);
}

// Asks avahi-browse again and again, giving the advertisers time to run in between, until it
// lists the services `names` or ten seconds have passed.
asio::awaitable<Services> browseUntil(const std::vector<std::string>& names) {
  const auto deadline = std::chrono::steady_clock::now() + 10s;
  auto services = resolvedServices();
  while (!listsExactly(services, names) && std::chrono::steady_clock::now() < deadline) {
    co_await sleepFor(200ms);
    services = resolvedServices();
  }
  co_return services;
}

// Each service is seen with its address, its port and, if it has one, its host ID; a service is
// withdrawn with its advertiser. (A daemon that comes later or restarts, and the alternative name
// a second service of the same name takes, are seen through QUICHostBrowser.)
TEST(DNSSDAdvertiser, AnotherClientSeesTheServiceWithItsPortAndHostID) {
  START_DISCOVERY_NETWORK(network);
  runAsync(
      [](asio::io_context& io) -> asio::awaitable<void> {
        const auto hostID = UUID::parse("e621e1f8-c36c-495a-93fc-0c247a3e6e5f");
        auto advertiser = std::make_unique<DNSSDAdvertiser>(makeStrand(io.get_executor()),
                                                            "Test Host", 4433, hostID);
        DNSSDAdvertiser anonymous(makeStrand(io.get_executor()), "Anonymous", 4434, std::nullopt);
        const std::vector<std::string> both{"Anonymous", "Test\\032Host"}, one{"Anonymous"};
        auto services = co_await browseUntil(both);
        CO_ASSERT_TRUE(listsExactly(services, both));
        const std::string named = services["Test\\032Host"], anonymousLine = services["Anonymous"];
        EXPECT_NE(named.find(";10.77.0.1;4433;"), std::string::npos) << named;
        EXPECT_TRUE(named.ends_with(";\"id=E621E1F8-C36C-495A-93FC-0C247A3E6E5F\"")) << named;
        EXPECT_TRUE(anonymousLine.ends_with(";4434;")) << anonymousLine;

        advertiser.reset();  // withdraws it
        services = co_await browseUntil(one);
        EXPECT_TRUE(listsExactly(services, one));
      },
      30s);
}

}  // namespace
}  // namespace kelvaron
