// tovu-relay in a public network namespace, a host and a client each at home behind its own
// address-translating router, the homes unable to reach each other (scripts/nat-network.sh).

#include <gtest/gtest.h>

#include "kit/relay/RelayJoinGrant.hpp"
#include "kit/relay/RelayTunnel.hpp"
#include "tests/support/AsyncTest.hpp"
#include "tests/support/NatNetwork.hpp"
#include "tests/support/RelayProcess.hpp"
#include "tests/support/TempDirectory.hpp"

namespace kelvaron {
namespace {

using namespace std::chrono_literals;
using Kind = RelayTunnelEvent::Kind;
using test::InNamespace;
using test::NamespaceThread;
using test::NatNetwork;
using test::RawRelayParty;
using test::RelayProcess;

constexpr std::uint16_t kPort = 4433;

struct Internet {
  NatNetwork network{TOVU_NAT_NETWORK};
  test::TempDirectory folder;
  std::optional<RelayProcess> relay;

  void startRelay() { relay.emplace(TOVU_RELAY, folder.path(), kPort, network.netns("public")); }
  // A raw party whose socket lives in the home `place`.
  std::unique_ptr<RawRelayParty> partyAt(const std::string& place) const {
    const InNamespace inside(network.netns(place));
    return std::make_unique<RawRelayParty>(NatNetwork::publicAddress, kPort);
  }
};

// The next event of `kind`, passing over others (a relay that went away makes a party say so on
// its way back).
asio::awaitable<std::optional<RelayTunnelEvent>> nextOfKind(AsyncQueue<RelayTunnelEvent>& events,
                                                            Kind kind) {
  for (;;) {
    auto event = co_await nextWithin(events, 10s);
    if (!event || event->kind == kind) co_return event;
  }
}

// A host's tunnel and a client's meet through the relay from behind their routers and exchange
// full datagrams byte for byte; the client's router changes its mapping, so the relay refuses its
// next datagram, it rebinds and both ways work again; the relay restarts with nothing of them,
// and the retries bring the host's registration and the client's session back.
TEST(RelayBehindNat, PartiesMeetRebindWhenTheirMappingChangesAndOutliveARestart) {
  Internet internet;
  if (!internet.network.problem().empty()) GTEST_SKIP() << internet.network.problem();
  internet.startRelay();
  ASSERT_EQ(internet.relay->port(), kPort) << "tovu-relay did not start";
  const auto host = std::make_shared<P256RelaySigner>(P256PrivateKey::generate());
  const auto client = std::make_shared<P256RelaySigner>(P256PrivateKey::generate());
  const Data token = internet.relay->token(host->publicKeyX963());
  const Data grant =
      RelayJoinGrant::issue(client->publicKeyX963(), *host, RelayJoinGrant::defaultLifetime,
                            std::chrono::system_clock::now());
  Data full(RelayLimits::maxPayloadBytes);
  for (std::size_t i = 0; i < full.size(); ++i) full[i] = std::uint8_t(i * 7);

  test::runAsync(
      [&](asio::io_context&) -> asio::awaitable<void> {
        // The tunnels' threads end with this body, before the test's own executor, whose readers
        // they wake.
        NamespaceThread home(internet.network.netns("host")),
            away(internet.network.netns("client"));
        const auto tunnel = [&](NamespaceThread& thread, RelayRole role,
                                std::shared_ptr<const RelaySigner> signer, Data proof) {
          RelayTunnel::Options options;
          options.role = role;
          options.endpoint = {NatNetwork::publicAddress, kPort};
          options.signer = std::move(signer);
          options.credentials = [proof](bool) -> asio::awaitable<Data> { co_return proof; };
          // The host's keepalives find the restarted relay; the client's stay out of the way so
          // that its first datagram after the remapping is the one the relay refuses.
          if (role == RelayRole::host) options.keepaliveInterval = 1s;
          options.retryInterval = 0.5s;
          return RelayTunnel::make(thread.executor(), std::move(options));
        };
        const auto hostTunnel = tunnel(home, RelayRole::host, host, token);
        const auto clientTunnel = tunnel(away, RelayRole::client, client, grant);
        auto& hostEvents = hostTunnel->events();
        auto& clientEvents = clientTunnel->events();
        const auto meet = [&]() -> asio::awaitable<std::uint32_t> {
          const auto joined = co_await nextOfKind(clientEvents, Kind::joined);
          if (!joined) co_return 0;
          const auto told = co_await nextOfKind(hostEvents, Kind::peerJoined);
          co_return told && told->peer == joined->peer ? joined->peer : 0;
        };

        hostTunnel->start();
        const auto registered = co_await nextOfKind(hostEvents, Kind::registered);
        CO_ASSERT_TRUE(registered);
        clientTunnel->start();
        std::uint32_t peer = co_await meet();
        CO_ASSERT_TRUE(peer != 0);
        clientTunnel->send(0, full);
        CO_EXPECT_NEXT(hostEvents, RelayTunnelEvent::data(peer, full));
        hostTunnel->send(peer, full);
        CO_EXPECT_NEXT(clientEvents, RelayTunnelEvent::data(peer, full));

        internet.network.remapClient();
        clientTunnel->send(0, Data{1});
        CO_EXPECT_EQ(nextWithin(hostEvents, 500ms), std::nullopt);  // from an address not on record
        clientTunnel->send(0, Data{2});
        CO_EXPECT_NEXT(hostEvents, RelayTunnelEvent::data(peer, {2}));
        hostTunnel->send(peer, Data{3});
        CO_EXPECT_NEXT(clientEvents, RelayTunnelEvent::data(peer, {3}));

        internet.relay.reset();
        internet.startRelay();
        CO_ASSERT_TRUE(internet.relay->port() == kPort);
        const auto registeredAgain = co_await nextOfKind(hostEvents, Kind::registered);
        CO_ASSERT_TRUE(registeredAgain);
        clientTunnel->send(0, Data{4});  // the relay knows no session of its: it joins anew
        peer = co_await meet();
        CO_ASSERT_TRUE(peer != 0);
        clientTunnel->send(0, Data{5});
        CO_EXPECT_EQ(nextOfKind(hostEvents, Kind::data), RelayTunnelEvent::data(peer, {5}));
        hostTunnel->send(peer, Data{6});
        CO_EXPECT_EQ(nextOfKind(clientEvents, Kind::data), RelayTunnelEvent::data(peer, {6}));
        clientTunnel->stop();
        hostTunnel->stop();
      },
      30s);
}

RelayFrame errorFrame(RelayErrorCode code, std::uint32_t session = 0) {
  return {RelayPacketType::error, session, 0, {std::uint8_t(code)}};
}

// Each bad proof from behind the client's router is refused with its code, a join replayed from
// another home gets nothing, and datagrams that are not the protocol's, or not the sender's, are
// dropped or answered as the protocol says while the session goes on.
TEST(RelayBehindNat, BadProofsAndStrangersDatagramsAreRefusedAndTheSessionGoesOn) {
  Internet internet;
  if (!internet.network.problem().empty()) GTEST_SKIP() << internet.network.problem();
  internet.startRelay();
  ASSERT_EQ(internet.relay->port(), kPort) << "tovu-relay did not start";
  const P256RelaySigner host(P256PrivateKey::generate()), ann(P256PrivateKey::generate()),
      eve(P256PrivateKey::generate());
  const auto now = std::chrono::system_clock::now();
  const auto grant = [&](const RelaySigner& signer, const RelaySigner& client,
                         std::chrono::system_clock::time_point at) {
    return RelayJoinGrant::issue(client.publicKeyX963(), signer, RelayJoinGrant::defaultLifetime,
                                 at);
  };
  const auto hostParty = internet.partyAt("host");
  const auto registered = hostParty->handshake(RelayPurpose::register_, host,
                                               internet.relay->token(host.publicKeyX963()));
  ASSERT_TRUE(registered && registered->type == RelayPacketType::registered);
  const std::uint32_t session = registered->session;

  const Data forged = [&] {
    Data bytes = grant(host, ann, now);
    bytes.back() ^= 1;
    return bytes;
  }();
  const struct {
    const char* name;
    const RelaySigner& client;
    Data grant;
    RelayErrorCode code;
  } refused[] = {
      {"a grant whose signature is not the host's", ann, forged, RelayErrorCode::badToken},
      {"an expired grant", ann, grant(host, ann, now - RelayJoinGrant::defaultLifetime - 1h),
       RelayErrorCode::expired},
      {"another client's grant", eve, grant(host, ann, now), RelayErrorCode::badSignature},
  };
  for (const auto& c : refused) {
    const auto answer =
        internet.partyAt("client")->handshake(RelayPurpose::join, c.client, c.grant);
    EXPECT_EQ(answer, errorFrame(c.code)) << c.name;
  }

  const auto annParty = internet.partyAt("client");
  const auto joined = annParty->handshake(RelayPurpose::join, ann, grant(host, ann, now));
  ASSERT_TRUE(joined && joined->type == RelayPacketType::joined);
  const std::uint32_t peer = joined->peer;
  ASSERT_EQ(hostParty->receive(2s), (RelayFrame{RelayPacketType::peerJoined, session, peer, {}}));
  // Someone who saw Ann's join sends it again from elsewhere: its cookie is not theirs.
  const auto eavesdropper = internet.partyAt("host");
  eavesdropper->send(annParty->proof);
  EXPECT_EQ(eavesdropper->receive(2s), errorFrame(RelayErrorCode::badCookie));

  const auto frame = [](RelayPacketType type, std::uint32_t s, Data payload) {
    return encode({type, s, 0, std::move(payload)});
  };
  const struct {
    const char* name;
    Data datagram;
    std::optional<RelayFrame> answer;
  } strangers[] = {
      {"nothing", {}, std::nullopt},
      {"8 bytes", Data(8, 0), std::nullopt},
      {"a header alone", frame(RelayPacketType::data, session, {}), std::nullopt},
      {"1,501 bytes", Data(1501, 4), std::nullopt},
      {"an unknown type", Data{0x7f, 0, 0, 0, 1, 0, 0, 0, 0, 1}, std::nullopt},
      {"a purpose that is none", frame(RelayPacketType::challengeRequest, 0, Data(17, 9)),
       std::nullopt},
      {"data on Ann's session", frame(RelayPacketType::data, session, {1}),
       errorFrame(RelayErrorCode::addressNotOnRecord, session)},
      {"a keepalive of no session", frame(RelayPacketType::keepalive, session + 1, {0}),
       errorFrame(RelayErrorCode::unknownSession, session + 1)},
  };
  const auto stranger = internet.partyAt("client");
  for (const auto& s : strangers) {
    stranger->send(s.datagram);
    const auto answer = stranger->receiveBytes(300ms);
    EXPECT_EQ(answer ? std::optional(decodeRelayFrame(*answer)) : std::nullopt, s.answer) << s.name;
  }
  EXPECT_EQ(hostParty->receive(100ms), std::nullopt) << "a stranger's datagram reached the host";
  annParty->send({RelayPacketType::data, session, peer, {7}});
  EXPECT_EQ(hostParty->receive(2s), (RelayFrame{RelayPacketType::data, session, peer, {7}}));
  hostParty->send({RelayPacketType::data, session, peer, {8}});
  EXPECT_EQ(annParty->receive(2s), (RelayFrame{RelayPacketType::data, session, peer, {8}}));
}

}  // namespace
}  // namespace kelvaron
