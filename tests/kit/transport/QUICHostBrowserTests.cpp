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
using Names = std::vector<std::string>;

const UUID kHostID = *UUID::parse("E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
const DiscoveredHost kTestHost{"Test Host._tovu._udp.local", "Test Host", kHostID, false};
const Names kTestHostOnly{"Test Host"}, kNobody;

// Reads lists until one names the hosts `expected`; nothing if the lists end or none does in time.
asio::awaitable<std::optional<Hosts>> listWith(HostBrowser& browser, const Names& expected) {
  const auto deadline = std::chrono::steady_clock::now() + 15s;
  while (std::chrono::steady_clock::now() < deadline) {
    auto hosts = co_await nextWithin(browser.hosts(), deadline - std::chrono::steady_clock::now());
    if (!hosts) break;
    Names names;
    for (const auto& host : *hosts) names.push_back(host.name);
    if (names == expected) co_return hosts;
  }
  co_return std::nullopt;
}

std::unique_ptr<DNSSDAdvertiser> advertise(asio::io_context& io, const std::string& name,
                                           std::uint16_t port, std::optional<UUID> hostID) {
  return std::make_unique<DNSSDAdvertiser>(makeStrand(io.get_executor()), name, port, hostID);
}

// The listener is listed once with its host ID, whether seen over IPv4 or IPv6, among the others
// by name, and a second service of its name under the name it gave way to; it is gone from the
// list when it stops advertising, while its connection goes on. A host not listed cannot be
// connected to, and stop ends the lists.
TEST(QUICHostBrowser, ListsEveryHostByNameConnectsOnlyToThoseAndSeesTheListenerGo) {
  START_DISCOVERY_NETWORK(network);
  runAsync(
      [](asio::io_context& io) -> asio::awaitable<void> {
        const auto identity = SelfSignedIdentity::temporary("Test Host");
        auto listener = QUICHostListener::make(
            io.get_executor(), identity,
            {.hostName = "Test Host", .hostID = kHostID, .port = 0, .advertise = true});
        const auto browser = QUICHostBrowser::start(io.get_executor());
        const auto found = co_await listWith(*browser, kTestHostOnly);
        CO_ASSERT_TRUE(found);
        EXPECT_EQ(*found, Hosts{kTestHost});
        const auto zeta = advertise(io, "Zeta", 4433, std::nullopt);
        const auto alpha = advertise(io, "Alpha", 4433, std::nullopt);
        const auto second = advertise(io, "Test Host", 4434, std::nullopt);
        const Names four{"Alpha", "Test Host", "Test Host #2", "Zeta"};
        const auto all = co_await listWith(*browser, four);
        CO_ASSERT_TRUE(all);
        EXPECT_EQ((*all)[1], kTestHost);
        EXPECT_EQ((*all)[2].id, "Test Host #2._tovu._udp.local");
        EXPECT_EQ((*all)[2].hostID, std::nullopt);

        const auto client =
            co_await browser->connect(kTestHost.id, ServerTrust::pinned(identity.fingerprint()));
        const auto host = co_await nextWithin(listener->connections(), 5s);
        CO_ASSERT_TRUE(host);
        (*host)->liftHandshakeLimits();  // as its gate would
        listener->stop();
        const Names without{"Alpha", "Test Host #2", "Zeta"};
        const auto gone = co_await listWith(*browser, without);
        EXPECT_TRUE(gone);
        client->send(msg::ping{4});
        const auto after = co_await nextWithin((*host)->messages(), 5s);
        EXPECT_EQ(after, Message(msg::ping{4}));
        client->close();

        try {
          auto dialing = browser->connect("Nobody._tovu._udp.local", ServerTrust::unpinned());
          [[maybe_unused]] const auto connection = co_await std::move(dialing);
          ADD_FAILURE() << "connected to a host that was never listed";
        } catch (const QUICError& error) {
          EXPECT_EQ(error.kind(), QUICError::Kind::failed);
          EXPECT_STREQ(error.what(), "unknown host Nobody._tovu._udp.local");
        }
        browser->stop();
        const auto ended = co_await nextWithin(browser->hosts(), 10s);
        EXPECT_EQ(ended, std::nullopt);
      },
      30s);
}

TEST(QUICHostBrowser, ANewKindOfInterfaceEmptiesTheListAtOnceAndItFillsAgain) {
  START_DISCOVERY_NETWORK(network);
  if (!TunInterface::available()) GTEST_SKIP() << "no /dev/net/tun to make a tunnel with";
  runAsync(
      [](asio::io_context& io) -> asio::awaitable<void> {
        const auto browser = QUICHostBrowser::start(io.get_executor());
        const auto advertiser = advertise(io, "Test Host", 4433, kHostID);
        const auto found = co_await listWith(*browser, kTestHostOnly);
        CO_ASSERT_TRUE(found);
        // Another wired interface is no new kind; a tunnel is, and its quick removal right after
        // belongs to the same burst of changes.
        NetworkNamespace::addEthernet("tovu2", "tovu3", "10.79.0.1/24");
        {
          TunInterface tunnel("tovutun0");
          NetworkNamespace::ip({"address", "add", "10.78.0.1/24", "dev", "tovutun0"});
          NetworkNamespace::ip({"link", "set", "tovutun0", "up"});
        }
        const auto emptied = co_await nextWithin(browser->hosts(), 10s);
        EXPECT_EQ(emptied, Hosts{});
        const auto refilled = co_await nextWithin(browser->hosts(), 10s);
        EXPECT_EQ(refilled, Hosts{kTestHost});
        browser->stop();
      },
      30s);
}

// Browser and advertiser alike wait for a daemon that is not there yet, and find it again when
// it restarts.
TEST(QUICHostBrowser, ADaemonThatComesLaterOrRestartsFillsTheListAgain) {
  START_DISCOVERY_NETWORK(network, DiscoveryNetwork::Avahi::later);
  runAsync(
      [&network](asio::io_context& io) -> asio::awaitable<void> {
        const auto browser = QUICHostBrowser::start(io.get_executor());
        const auto advertiser = advertise(io, "Test Host", 4433, kHostID);
        co_await sleepFor(100ms);  // both are waiting for a daemon by now
        network.startAvahi();
        CO_ASSERT_TRUE(network.problem().empty());
        const auto found = co_await listWith(*browser, kTestHostOnly);
        EXPECT_TRUE(found);
        network.stopAvahi();
        const auto gone = co_await listWith(*browser, kNobody);
        EXPECT_TRUE(gone);
        network.startAvahi();
        CO_ASSERT_TRUE(network.problem().empty());
        const auto again = co_await listWith(*browser, kTestHostOnly);
        CO_ASSERT_TRUE(again);
        EXPECT_EQ(*again, Hosts{kTestHost});
        browser->stop();
      },
      60s);
}

}  // namespace
}  // namespace kelvaron
