// tovu-relay as a process on loopback: a host's tunnel registers with a token the relay's own
// --dev-token minted, a client's tunnel joins with the host's grant, and data goes both ways.

#include <gtest/gtest.h>

#include <fstream>
#include <random>

#include "kit/relay/RelayJoinGrant.hpp"
#include "kit/relay/RelayTunnel.hpp"
#include "kit/wire/Hex.hpp"
#include "tests/support/AsyncTest.hpp"
#include "tests/support/RelayProcess.hpp"
#include "tests/support/TempDirectory.hpp"

namespace kelvaron {
namespace {

using namespace std::chrono_literals;
using test::RawRelayParty;
using test::RelayProcess;
using test::TempDirectory;

// Kilobytes the process holds in memory.
long residentKiB(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("VmRSS:")) return std::stol(line.substr(6));
  }
  return -1;
}

// 100,000 datagrams from 5,000 sources (more than the relay's error table holds): random bytes of
// any length up to 1,600 whose first byte is one of the packet types or next to them, a quarter
// of them asking for a cookie.
void flood(std::uint16_t port) {
  std::mt19937 random(11);
  for (int source = 0; source < 5'000; ++source) {
    const RawRelayParty stranger("127.0.0.1", port);
    for (int i = 0; i < 20; ++i) {
      Data datagram(random() % 1601);
      for (auto& b : datagram) b = std::uint8_t(random());
      if (i % 4 == 0) {
        datagram = encode({RelayPacketType::challengeRequest, 0, 0,
                           challengeRequestPayload(RelayPurpose(1 + random() % 3))});
      } else if (!datagram.empty()) {
        datagram[0] = std::uint8_t(random() % 18);
      }
      stranger.send(datagram);
    }
  }
}

// A flood of strangers' datagrams leaves the relay's memory as it was; then two tunnels, a host's
// and a client's, meet through it: registered, joined, the host told of its peer, data both ways,
// and their events end when they stop.
TEST(TovuRelay, AHostsTunnelAndAClientsTunnelTalkThroughTheRelay) {
  TempDirectory folder;
  const RelayProcess relay(TOVU_RELAY, folder.path());
  ASSERT_NE(relay.port(), 0) << "tovu-relay did not start";
  [[maybe_unused]] const long before = residentKiB(relay.pid());
  flood(relay.port());
  const auto host = std::make_shared<P256RelaySigner>(P256PrivateKey::generate());
  const auto client = std::make_shared<P256RelaySigner>(P256PrivateKey::generate());
  const Data token = relay.token(host->publicKeyX963());
  const Data grant =
      RelayJoinGrant::issue(client->publicKeyX963(), *host, RelayJoinGrant::defaultLifetime,
                            std::chrono::system_clock::now());
  test::runAsync([&](asio::io_context& io) -> asio::awaitable<void> {
    const auto tunnel = [&](RelayRole role, std::shared_ptr<const RelaySigner> signer, Data proof) {
      RelayTunnel::Options options;
      options.role = role;
      options.endpoint = {"127.0.0.1", relay.port()};
      options.signer = std::move(signer);
      options.credentials = [proof](bool) -> asio::awaitable<Data> { co_return proof; };
      options.watchPath = false;
      return RelayTunnel::make(io.get_executor(), std::move(options));
    };
    const auto hostTunnel = tunnel(RelayRole::host, host, token);
    const auto clientTunnel = tunnel(RelayRole::client, client, grant);
    hostTunnel->start();
    const auto registered = co_await nextWithin(hostTunnel->events(), 5s);
    CO_ASSERT_TRUE(registered && registered->kind == RelayTunnelEvent::Kind::registered);
    clientTunnel->start();
    const auto joined = co_await nextWithin(clientTunnel->events(), 5s);
    CO_ASSERT_TRUE(joined && joined->kind == RelayTunnelEvent::Kind::joined);
    CO_EXPECT_NEXT(hostTunnel->events(), RelayTunnelEvent::peerJoined(joined->peer));

    clientTunnel->send(0, Data{1, 2});
    CO_EXPECT_NEXT(hostTunnel->events(), RelayTunnelEvent::data(joined->peer, {1, 2}));
    hostTunnel->send(joined->peer, Data{3});
    CO_EXPECT_NEXT(clientTunnel->events(), RelayTunnelEvent::data(joined->peer, {3}));
    clientTunnel->stop();
    CO_EXPECT_NEXT(hostTunnel->events(), RelayTunnelEvent::peerClosed(joined->peer));
    hostTunnel->stop();
    CO_EXPECT_EQ(nextWithin(clientTunnel->events(), 5s), std::nullopt);
  });
#ifndef __SANITIZE_ADDRESS__  // which holds freed memory in quarantine: its size says nothing
  // What the relay keeps for strangers is bounded by its error table: a few hundred KiB.
  EXPECT_LT(residentKiB(relay.pid()) - before, 2048);
#endif
}

}  // namespace
}  // namespace kelvaron
