#include "kit/transport/QUICHostBrowser.hpp"

#include <gtest/gtest.h>

#include <optional>
#include <ostream>

#include "kit/transport/DNSSDAdvertiser.hpp"
#include "kit/transport/QUICHostListener.hpp"
#include "kit/transport/SelfSignedIdentity.hpp"
#include "tests/support/AsyncTest.hpp"
#include "tests/support/DiscoveryNetwork.hpp"

namespace kelvaron {

void PrintTo(const DiscoveredHost& host, std::ostream* out) {
  *out << "{" << host.id << ", " << host.name << ", "
       << (host.hostID ? host.hostID->string() : "no host ID") << "}";
}

namespace {

using namespace test;
using Hosts = std::vector<DiscoveredHost>;

const UUID kHostID = *UUID::parse("E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
const DiscoveredHost kTestHost{"Test Host._tovu._udp.local", "Test Host", kHostID, false};

std::vector<std::string> names(const Hosts& hosts) {
  std::vector<std::string> result;
  for (const auto& host : hosts) result.push_back(host.name);
  return result;
}

// Reads lists until one names the hosts `expected`; nothing if the lists end or none does in time.
asio::awaitable<std::optional<Hosts>> listWith(HostBrowser& browser,
                                               const std::vector<std::string>& expected) {
  const auto deadline = std::chrono::steady_clock::now() + 15s;
  while (std::chrono::steady_clock::now() < deadline) {
    const auto wait = deadline - std::chrono::steady_clock::now();
    auto hosts = co_await nextWithin(browser.hosts(), wait);
    if (!hosts) break;
    if (names(*hosts) == expected) co_return hosts;
  }
  co_return std::nullopt;
}

#define START_DISCOVERY_NETWORK(network) \
  DiscoveryNetwork network;              \
  if (!network.problem().empty()) GTEST_SKIP() << network.problem()

// Seen over IPv4 and IPv6 alike, the listener is listed once with its host ID; it is gone from
// the list when it stops advertising, while its connection goes on.
TEST(QUICHostBrowser, FindsTheListenerThatAdvertisesConnectsToItAndSeesItGo) {
  START_DISCOVERY_NETWORK(network);
  runAsync(
      [](asio::io_context& io) -> asio::awaitable<void> {
        const auto identity = SelfSignedIdentity::temporary("Test Host");
        auto listener = QUICHostListener::make(
            io.get_executor(), identity,
            {.hostName = "Test Host", .hostID = kHostID, .port = 0, .advertise = true});
        const auto browser = QUICHostBrowser::start(io.get_executor());
        const std::vector<std::string> testHost{"Test Host"}, nobody;
        const auto found = co_await listWith(*browser, testHost);
        CO_ASSERT_TRUE(found);
        EXPECT_EQ(*found, Hosts{kTestHost});

        const auto client =
            co_await browser->connect(kTestHost.id, ServerTrust::pinned(identity.fingerprint()));
        const auto host = co_await nextWithin(listener->connections(), 5s);
        CO_ASSERT_TRUE(host);
        (*host)->liftHandshakeLimits();  // as its gate would
        listener->stop();
        const auto gone = co_await listWith(*browser, nobody);
        EXPECT_TRUE(gone);
        client->send(msg::ping{4});
        const auto after = co_await nextWithin((*host)->messages(), 5s);
        EXPECT_EQ(after, Message(msg::ping{4}));
        client->close();
        browser->stop();
      },
      30s);
}

TEST(QUICHostBrowser, ListsEveryHostByNameIncludingOneThatGaveWayToAnother) {
  START_DISCOVERY_NETWORK(network);
  runAsync(
      [](asio::io_context& io) -> asio::awaitable<void> {
        const auto browser = QUICHostBrowser::start(io.get_executor());
        std::vector<std::unique_ptr<DNSSDAdvertiser>> advertisers;
        const std::vector<std::string> unsorted{"Zeta", "Test Host", "Alpha"};
        for (const auto& name : unsorted) {
          advertisers.push_back(std::make_unique<DNSSDAdvertiser>(makeStrand(io.get_executor()),
                                                                  name, 4433, std::nullopt));
        }
        const std::vector<std::string> threeNames{"Alpha", "Test Host", "Zeta"};
        const auto three = co_await listWith(*browser, threeNames);
        EXPECT_TRUE(three);
        advertisers.push_back(std::make_unique<DNSSDAdvertiser>(makeStrand(io.get_executor()),
                                                                "Test Host", 4434, kHostID));
        const std::vector<std::string> fourNames{"Alpha", "Test Host", "Test Host #2", "Zeta"};
        const auto four = co_await listWith(*browser, fourNames);
        CO_ASSERT_TRUE(four);
        EXPECT_EQ((*four)[2].id, "Test Host #2._tovu._udp.local");
        EXPECT_EQ((*four)[2].hostID, kHostID);
        EXPECT_EQ((*four)[1].hostID, std::nullopt);
        browser->stop();
      },
      30s);
}

TEST(QUICHostBrowser, ANewKindOfInterfaceEmptiesTheListAtOnceAndItFillsAgain) {
  START_DISCOVERY_NETWORK(network);
  if (!TunInterface::available()) GTEST_SKIP() << "no /dev/net/tun to make a tunnel with";
  runAsync(
      [](asio::io_context& io) -> asio::awaitable<void> {
        const auto browser = QUICHostBrowser::start(io.get_executor());
        DNSSDAdvertiser advertiser(makeStrand(io.get_executor()), "Test Host", 4433, kHostID);
        const std::vector<std::string> testHost{"Test Host"};
        const auto found = co_await listWith(*browser, testHost);
        CO_ASSERT_TRUE(found);
        // Another wired interface is no new kind; a tunnel is, and its quick removal right after
        // belongs to the same burst of changes.
        NetworkNamespace::addEthernet("tovu2", "tovu3", "10.79.0.1/24");
        std::optional<TunInterface> tunnel;
        tunnel.emplace("tovutun0");
        NetworkNamespace::ip({"address", "add", "10.78.0.1/24", "dev", "tovutun0"});
        NetworkNamespace::ip({"link", "set", "tovutun0", "up"});
        tunnel.reset();

        const auto emptied = co_await nextWithin(browser->hosts(), 10s);
        EXPECT_EQ(emptied, Hosts{});
        const auto refilled = co_await nextWithin(browser->hosts(), 10s);
        EXPECT_EQ(refilled, Hosts{kTestHost});
        browser->stop();
      },
      30s);
}

TEST(QUICHostBrowser, ARestartedDaemonEmptiesTheListAndItFillsAgain) {
  START_DISCOVERY_NETWORK(network);
  runAsync(
      [&network](asio::io_context& io) -> asio::awaitable<void> {
        const auto browser = QUICHostBrowser::start(io.get_executor());
        DNSSDAdvertiser advertiser(makeStrand(io.get_executor()), "Test Host", 4433, kHostID);
        const std::vector<std::string> testHost{"Test Host"}, nobody;
        const auto found = co_await listWith(*browser, testHost);
        CO_ASSERT_TRUE(found);
        network.stopAvahi();
        const auto gone = co_await listWith(*browser, nobody);
        EXPECT_TRUE(gone);
        network.startAvahi();
        CO_ASSERT_TRUE(network.problem().empty());
        const auto again = co_await listWith(*browser, testHost);
        CO_ASSERT_TRUE(again);
        EXPECT_EQ(*again, Hosts{kTestHost});
        browser->stop();
      },
      60s);
}

TEST(QUICHostBrowser, ConnectingToAHostNotListedFailsWithItsIDAndStopEndsTheList) {
  runAsync([](asio::io_context& io) -> asio::awaitable<void> {
    const auto browser = QUICHostBrowser::start(io.get_executor());
    try {
      auto dialing = browser->connect("Nobody._tovu._udp.local", ServerTrust::unpinned());
      [[maybe_unused]] const auto connection = co_await std::move(dialing);
      ADD_FAILURE() << "connected to a host that was never listed";
    } catch (const QUICError& error) {
      EXPECT_EQ(error.kind(), QUICError::Kind::failed);
      EXPECT_STREQ(error.what(), "unknown host Nobody._tovu._udp.local");
    }
    browser->stop();
    const auto after = co_await nextWithin(browser->hosts(), 10s);
    EXPECT_EQ(after, std::nullopt);
  });
}

}  // namespace
}  // namespace kelvaron
