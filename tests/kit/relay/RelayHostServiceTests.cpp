// The host's relay service and a client's link, against tovu-relay and tovu-coordinator as
// processes on loopback: each relayed client reaches the listener from a port of its own, nothing
// is bridged while there is no listener, a listener that moves takes the bridges with it, and a
// client whose first relay does not answer joins at the next.

#include <gtest/gtest.h>

#include <asio/ip/udp.hpp>
#include <set>

#include "kit/relay/RelayClientLink.hpp"
#include "kit/relay/RelayHostService.hpp"
#include "kit/relay/RelayJoinGrant.hpp"
#include "tests/support/AsyncTest.hpp"
#include "tests/support/CoordinatorProcess.hpp"
#include "tests/support/RelayProcess.hpp"
#include "tests/support/TempDirectory.hpp"

namespace kelvaron {
namespace {

using namespace std::chrono_literals;
using asio::ip::udp;

// A datagram's bytes and where it came from, or nothing within two seconds.
asio::awaitable<std::optional<std::pair<std::string, udp::endpoint>>> receive(udp::socket& socket) {
  using namespace asio::experimental::awaitable_operators;
  std::array<char, 2048> buffer;
  udp::endpoint from;
  asio::steady_timer timer(socket.get_executor(), 2s);
  auto got = co_await (socket.async_receive_from(asio::buffer(buffer), from, asio::use_awaitable) ||
                       timer.async_wait(asio::use_awaitable));
  if (got.index() != 0) co_return std::nullopt;
  co_return std::pair(std::string(buffer.data(), std::get<0>(got)), from);
}

TEST(RelayHostService, BridgesEachClientToTheListenerFromAPortOfItsOwnWhereverItListens) {
  const test::TempDirectory folder;
  const test::RelayProcess relay(TOVU_RELAY, folder.path());
  ASSERT_NE(relay.port(), 0);
  const test::CoordinatorProcess coordinator(TOVU_COORDINATOR, folder.path(),
                                             "sin:127.0.0.1:" + std::to_string(relay.port()));
  ASSERT_NE(coordinator.port(), 0);
  const auto host = std::make_shared<P256RelaySigner>(P256PrivateKey::generate());
  const auto http = std::make_shared<CurlHttpSession>(
      CurlHttpSession::Options{5s, 64 * 1024, coordinator.certificate()});
  const auto client = std::make_shared<CoordinatorClient>(
      "https://127.0.0.1:" + std::to_string(coordinator.port()), host, http);
  const auto ann = std::make_shared<P256RelaySigner>(P256PrivateKey::generate());
  const auto bob = std::make_shared<P256RelaySigner>(P256PrivateKey::generate());
  const auto grantFor = [&](const RelaySigner& device) {
    return RelayJoinGrant::issue(device.publicKeyX963(), *host, RelayJoinGrant::defaultLifetime,
                                 std::chrono::system_clock::now());
  };

  test::runAsync(
      [&](asio::io_context& io) -> asio::awaitable<void> {
        const std::string invite = coordinator.invite();
        const std::string account = co_await client->enroll(invite);
        RelayHostService::Options options;
        options.watchPath = false;
        const auto service = RelayHostService::make(io.get_executor(), client, host, {}, options);
        service->start();
        std::optional<RelayStatus> status;
        while ((status = co_await nextWithin(service->statuses(), 5s)) &&
               status->kind != RelayStatus::Kind::registered) {
        }
        CO_ASSERT_TRUE(status);
        EXPECT_EQ(status->text(), "Ready · Singapore");

        // Ann's first relay answers nothing; she joins at the second.
        const RelayEndpoint silent{"127.0.0.1", std::uint16_t(relay.port() ^ 1)};
        const RelayEndpoint live{"127.0.0.1", relay.port()};
        // Named before they are awaited with (GCC 12).
        const std::vector<RelayEndpoint> both{silent, live}, one{live};
        const Data annGrant = grantFor(*ann), bobGrant = grantFor(*bob);
        const auto annLink =
            co_await RelayClientLink::open(io.get_executor(), both, annGrant, ann, 1s);
        const auto bobLink =
            co_await RelayClientLink::open(io.get_executor(), one, bobGrant, bob, 5s);
        EXPECT_EQ(annLink->relay(), live);
        // Each device's QUIC stands for a socket sending to its link's local port.
        udp::socket annQUIC(io, udp::endpoint(asio::ip::address_v4::loopback(), 0));
        udp::socket bobQUIC(io, udp::endpoint(asio::ip::address_v4::loopback(), 0));
        const udp::endpoint annEnd(asio::ip::address_v4::loopback(), annLink->localPort());
        const udp::endpoint bobEnd(asio::ip::address_v4::loopback(), bobLink->localPort());
        udp::socket listener(io, udp::endpoint(asio::ip::address_v4::loopback(), 0));
        udp::socket moved(io, udp::endpoint(asio::ip::address_v4::loopback(), 0));

        annQUIC.send_to(asio::buffer(std::string("no listener yet")), annEnd);
        co_await sleepFor(300ms);
        service->setListenerPort(listener.local_endpoint().port());
        annQUIC.send_to(asio::buffer(std::string("ann")), annEnd);
        bobQUIC.send_to(asio::buffer(std::string("bob")), bobEnd);
        std::set<std::string> heard;
        std::set<std::uint16_t> ports;
        udp::endpoint annFlow;
        for (int i = 0; i < 2; ++i) {
          const auto got = co_await receive(listener);
          CO_ASSERT_TRUE(got);
          heard.insert(got->first);
          ports.insert(got->second.port());
          if (got->first == "ann") annFlow = got->second;
        }
        EXPECT_EQ(heard, (std::set<std::string>{"ann", "bob"}));
        EXPECT_EQ(ports.size(), 2u) << "the two devices share a port at the listener";

        // The listener's answer goes back to Ann alone.
        listener.send_to(asio::buffer(std::string("hello ann")), annFlow);
        const auto answer = co_await receive(annQUIC);
        EXPECT_TRUE(answer && answer->first == "hello ann");

        service->setListenerPort(moved.local_endpoint().port());
        annQUIC.send_to(asio::buffer(std::string("ann again")), annEnd);
        const auto followed = co_await receive(moved);
        EXPECT_TRUE(followed && followed->first == "ann again" && followed->second != annFlow);

        annLink->close();
        bobLink->close();
        service->stop();
        std::optional<RelayStatus> last;
        while (auto next = co_await nextWithin(service->statuses(), 2s)) last = next;
        EXPECT_EQ(last, RelayStatus::stopped());
      },
      30s);
}

// The first outcome stands, whether the waiter came before it or after.
TEST(OneShotGate, KeepsTheFirstOutcome) {
  test::runAsync([](asio::io_context&) -> asio::awaitable<void> {
    OneShotGate gate;
    gate.fail(RelayLinkError::unreachable("timed out"));
    gate.succeed();
    std::string words;
    try {
      co_await gate.wait();
    } catch (const RelayLinkError& error) {
      words = error.what();
    }
    EXPECT_EQ(words, "Couldn't reach the computer through the relay (timed out)");
  });
}

}  // namespace
}  // namespace kelvaron
