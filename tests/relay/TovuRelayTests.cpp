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
#include "kit/relay/RelayWire.hpp"
#include "kit/wire/Hex.hpp"
#include "tests/support/ChildProcess.hpp"
#include "tests/support/TempDirectory.hpp"

namespace kelvaron {
namespace {

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

TEST(TovuRelay, AHostAndAClientMeetThroughTheRelayProcess) {
  TempDirectory folder;
  const auto key = folder.path() / "coordinator.key";
  const auto log = folder.path() / "relay.log";
  ChildProcess relay({TOVU_RELAY, "--port", "0", "--dev-key", key.string()}, log);
  std::string port;
  for (int i = 0; i < 100 && port.empty(); ++i) {
    std::ifstream in(log);
    std::string word;
    while (in >> word) {
      if (word == "port") in >> port;
    }
    if (port.empty()) std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  ASSERT_FALSE(port.empty()) << "tovu-relay did not start";

  const P256RelaySigner host(P256PrivateKey::generate()), client(P256PrivateKey::generate());
  const auto minted = runCommand(
      {TOVU_RELAY, "--dev-key", key.string(), "--dev-token", hexText(host.publicKeyX963())});
  ASSERT_TRUE(minted.succeeded()) << minted.output;
  const Data token = hexBytes(minted.output.substr(0, minted.output.find('\n'))).value();

  Party hostSide(std::uint16_t(std::stoi(port))), clientSide(std::uint16_t(std::stoi(port)));
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

}  // namespace
}  // namespace kelvaron
