// tovu-relay as a process on loopback: a host's tunnel registers with a token the relay's own
// --dev-token minted, a client's tunnel joins with the host's grant, and data goes both ways.

#include <gtest/gtest.h>

#include <fstream>
#include <thread>

#include "kit/relay/RelayJoinGrant.hpp"
#include "kit/relay/RelayTunnel.hpp"
#include "kit/wire/Hex.hpp"
#include "tests/support/AsyncTest.hpp"
#include "tests/support/ChildProcess.hpp"
#include "tests/support/TempDirectory.hpp"

namespace kelvaron {
namespace {

using namespace std::chrono_literals;
using test::ChildProcess;
using test::runCommand;
using test::TempDirectory;

// tovu-relay on a free port with a development coordinator key in `folder`; the port stays
// empty when it did not start.
struct RelayProcess {
  explicit RelayProcess(const std::filesystem::path& folder)
      : key(folder / "coordinator.key"),
        process({TOVU_RELAY, "--port", "0", "--dev-key", key.string()}, folder / "relay.log") {
    for (int i = 0; i < 100 && port == 0; ++i) {
      std::ifstream in(folder / "relay.log");
      std::string word;
      while (in >> word) {
        if (word == "port") in >> port;
      }
      if (port == 0) std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
  }
  // A token of the relay's coordinator for `host`.
  Data token(const RelaySigner& host) const {
    const auto minted = runCommand(
        {TOVU_RELAY, "--dev-key", key.string(), "--dev-token", hexText(host.publicKeyX963())});
    return hexBytes(minted.output.substr(0, minted.output.find('\n'))).value_or(Data{});
  }

  std::filesystem::path key;
  ChildProcess process;
  std::uint16_t port = 0;
};

// Two tunnels, a host's and a client's, meet through the process: registered, joined, the host
// told of its peer, data both ways, and their events end when they stop.
TEST(TovuRelay, AHostsTunnelAndAClientsTunnelTalkThroughTheRelay) {
  TempDirectory folder;
  const RelayProcess relay(folder.path());
  ASSERT_NE(relay.port, 0) << "tovu-relay did not start";
  const auto host = std::make_shared<P256RelaySigner>(P256PrivateKey::generate());
  const auto client = std::make_shared<P256RelaySigner>(P256PrivateKey::generate());
  const Data token = relay.token(*host);
  const Data grant =
      RelayJoinGrant::issue(client->publicKeyX963(), *host, RelayJoinGrant::defaultLifetime,
                            std::chrono::system_clock::now());
  test::runAsync([&](asio::io_context& io) -> asio::awaitable<void> {
    const auto tunnel = [&](RelayRole role, std::shared_ptr<const RelaySigner> signer, Data proof) {
      RelayTunnel::Options options;
      options.role = role;
      options.endpoint = {"127.0.0.1", relay.port};
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
}

}  // namespace
}  // namespace kelvaron
