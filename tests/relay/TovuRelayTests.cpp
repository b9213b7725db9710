// tovu-relay as a process on loopback, spoken to over UDP: a host registers with a token the
// relay's own --dev-token minted, a client joins with the host's grant, and data goes both ways.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <fstream>
#include <thread>

#include "kit/relay/RelayFrame.hpp"
#include "kit/relay/RelayJoinGrant.hpp"
#include "kit/relay/RelayToken.hpp"
#include "kit/relay/RelayTunnel.hpp"
#include "kit/relay/RelayWire.hpp"
#include "kit/wire/Hex.hpp"
#include "tests/support/AsyncTest.hpp"
#include "tests/support/ChildProcess.hpp"
#include "tests/support/TempDirectory.hpp"

namespace kelvaron {
namespace {

using namespace std::chrono_literals;
using Type = RelayPacketType;
using test::ChildProcess;
using test::runCommand;
using test::TempDirectory;

// A UDP socket on loopback, connected to the relay, that waits at most two seconds for an answer.
class Party {
 public:
  explicit Party(std::uint16_t relayPort) : fd_(::socket(AF_INET, SOCK_DGRAM, 0)) {
    sockaddr_in relay{};
    relay.sin_family = AF_INET;
    relay.sin_port = htons(relayPort);
    relay.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::connect(fd_, reinterpret_cast<sockaddr*>(&relay), sizeof relay);
    const timeval wait{2, 0};
    ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
  }
  ~Party() { ::close(fd_); }

  void send(const RelayFrame& frame) {
    const Data bytes = encode(frame);
    ::send(fd_, bytes.data(), bytes.size(), 0);
  }
  std::optional<RelayFrame> next() {
    Data bytes(RelayLimits::maxDatagramBytes);
    const ssize_t got = ::recv(fd_, bytes.data(), bytes.size(), 0);
    if (got < 0) return std::nullopt;
    bytes.resize(std::size_t(got));
    return decodeRelayFrame(bytes);
  }
  Data cookie(RelayPurpose purpose) {
    send({Type::challengeRequest, 0, 0, challengeRequestPayload(purpose)});
    const auto challenge = next();
    if (!challenge) return {};
    return Data(challenge->payload.begin() + 1, challenge->payload.end());
  }

 private:
  int fd_;
};

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

TEST(TovuRelay, AHostAndAClientMeetThroughTheRelayProcess) {
  TempDirectory folder;
  const RelayProcess relay(folder.path());
  ASSERT_NE(relay.port, 0) << "tovu-relay did not start";
  const P256RelaySigner host(P256PrivateKey::generate()), client(P256PrivateKey::generate());
  const Data token = relay.token(host);
  ASSERT_EQ(token.size(), RelayToken::size);

  Party hostSide(relay.port), clientSide(relay.port);
  const Data& hostKey = host.publicKeyX963();
  Data c = hostSide.cookie(RelayPurpose::register_);
  hostSide.send({Type::register_, 0, 0,
                 registerPayload(hostKey, c, token,
                                 host.sign(RelayWire::registerMessage(c, token, hostKey)))});
  const auto registered = hostSide.next();
  ASSERT_TRUE(registered && registered->type == Type::registered);

  const Data grant =
      RelayJoinGrant::issue(client.publicKeyX963(), host, RelayJoinGrant::defaultLifetime,
                            std::chrono::system_clock::now());
  c = clientSide.cookie(RelayPurpose::join);
  clientSide.send(
      {Type::join, 0, 0, joinPayload(c, grant, client.sign(RelayWire::joinMessage(c, grant)))});
  const auto joined = clientSide.next();
  ASSERT_TRUE(joined && joined->type == Type::joined);
  EXPECT_EQ(hostSide.next(), (RelayFrame{Type::peerJoined, registered->session, joined->peer, {}}));

  clientSide.send({Type::data, joined->session, joined->peer, {1, 2, 3}});
  EXPECT_EQ(hostSide.next(), (RelayFrame{Type::data, joined->session, joined->peer, {1, 2, 3}}));
  hostSide.send({Type::data, joined->session, joined->peer, {4}});
  EXPECT_EQ(clientSide.next(), (RelayFrame{Type::data, joined->session, joined->peer, {4}}));
}

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
