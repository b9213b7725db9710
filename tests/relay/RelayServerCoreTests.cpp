#include "relay/RelayServerCore.hpp"

#include <gtest/gtest.h>

#include <random>

#include "kit/relay/RelayJoinGrant.hpp"
#include "kit/relay/RelayToken.hpp"
#include "kit/relay/RelayWire.hpp"

namespace kelvaron::relay {
namespace {

using Type = RelayPacketType;
constexpr std::uint64_t kWall = 1'800'000'000;  // now, for expiries

Address address(std::uint8_t last, std::uint16_t port = 4000) {
  Address a;
  a.ip[15] = last;
  a.port = port;
  return a;
}

// A relay, its coordinator, and parties that speak to it by the datagrams of the protocol.
struct Relay {
  P256RelaySigner coordinator{P256PrivateKey::generate()};
  std::mt19937 bytes{7};
  ServerLimits limits;
  std::unique_ptr<ServerCore> core;
  double now = 0;

  explicit Relay(ServerLimits l = {}) : limits(l) {
    core = std::make_unique<ServerCore>(
        coordinator.publicKeyX963(),
        [this](std::size_t n) {
          Data out(n);
          for (auto& b : out) b = std::uint8_t(bytes());
          return out;
        },
        limits);
  }

  std::vector<Outgoing> send(const Address& from, const RelayFrame& frame) {
    return core->receive(from, encode(frame), now, kWall);
  }
  // The frames that went to `to`.
  static std::vector<RelayFrame> to(const Address& to, const std::vector<Outgoing>& out) {
    std::vector<RelayFrame> frames;
    for (const Outgoing& o : out) {
      if (o.to == to) frames.push_back(decodeRelayFrame(o.datagram));
    }
    return frames;
  }
  Data cookie(const Address& from, RelayPurpose purpose) {
    const auto reply =
        to(from, send(from, {Type::challengeRequest, 0, 0, challengeRequestPayload(purpose)}));
    return challengeCookie(reply.at(0), purpose).value();
  }
  Data token(const RelaySigner& host, std::uint64_t expiresAt = kWall + 3600) {
    return RelayToken{host.publicKeyX963(), expiresAt}.signedBy(coordinator);
  }
  std::vector<Outgoing> registerHost(const Address& from, const RelaySigner& host,
                                     const Data& credential) {
    return send(from, registerProof(host, cookie(from, RelayPurpose::register_), credential));
  }
  std::vector<Outgoing> join(const Address& from, const RelaySigner& client, const Data& grant) {
    return send(from, joinProof(client, cookie(from, RelayPurpose::join), grant));
  }
};

Data grantFor(const RelaySigner& host, const RelaySigner& client, std::uint64_t expiresAt) {
  RelayJoinGrant grant{RelayWire::hkid(host.publicKeyX963()), client.publicKeyX963(), expiresAt};
  return grant.signedBy(host);
}

RelayFrame errorFrame(RelayErrorCode code, std::uint32_t session = 0) {
  return {Type::error, session, 0, {std::uint8_t(code)}};
}

// A host registers, a client joins with its grant; data goes both ways by address alone; a
// client whose address changed is told so, rebinds and goes on; the host's deny, a client's close
// and silence each end what they should, and the host hears it.
TEST(RelayServerCore, ForwardsBetweenASessionsPartiesAndFollowsThemAsTheyMove) {
  Relay relay;
  const P256RelaySigner host(P256PrivateKey::generate()), ann(P256PrivateKey::generate()),
      bob(P256PrivateKey::generate());
  const Address hostAt = address(1), annAt = address(2), annMoved = address(2, 5000),
                bobAt = address(3);
  const auto registered = Relay::to(hostAt, relay.registerHost(hostAt, host, relay.token(host)));
  ASSERT_EQ(registered.size(), 1u);
  EXPECT_EQ(registered[0].type, Type::registered);
  const std::uint32_t session = registered[0].session;
  // Handshakes repeated because their answers were lost keep what they made.
  EXPECT_EQ(Relay::to(hostAt, relay.registerHost(hostAt, host, relay.token(host))), registered);

  const auto joined = relay.join(annAt, ann, grantFor(host, ann, kWall + 60));
  ASSERT_EQ(Relay::to(annAt, joined).size(), 1u);
  const RelayFrame annJoined = Relay::to(annAt, joined)[0];
  EXPECT_EQ(std::tie(annJoined.type, annJoined.session), std::tuple(Type::joined, session));
  const std::uint32_t annPeer = annJoined.peer;
  EXPECT_EQ(relay.join(annAt, ann, grantFor(host, ann, kWall + 60)),
            (std::vector{Outgoing{annAt, encode(annJoined)}}));
  EXPECT_EQ(Relay::to(hostAt, joined),
            (std::vector{RelayFrame{Type::peerJoined, session, annPeer, {}}}));

  EXPECT_EQ(relay.send(annAt, {Type::data, session, annPeer, {1, 2}}),
            (std::vector{Outgoing{hostAt, encode({Type::data, session, annPeer, {1, 2}})}}));
  EXPECT_EQ(relay.send(hostAt, {Type::data, session, annPeer, {3}}),
            (std::vector{Outgoing{annAt, encode({Type::data, session, annPeer, {3}})}}));
  EXPECT_TRUE(relay.send(hostAt, {Type::data, session, 99, {3}}).empty());  // no such peer

  // Ann's NAT gives her another port: told, she rebinds over a new cookie (with her own key, not
  // another's), and goes on.
  EXPECT_EQ(Relay::to(annMoved, relay.send(annMoved, {Type::keepalive, session, annPeer, {0}})),
            std::vector{errorFrame(RelayErrorCode::addressNotOnRecord, session)});
  const Data c = relay.cookie(annMoved, RelayPurpose::rebind);
  EXPECT_EQ(Relay::to(annMoved, relay.send(annMoved, rebindProof(bob, c, session, annPeer))),
            (std::vector{errorFrame(RelayErrorCode::badSignature, session)}));
  const auto rebound = relay.send(annMoved, rebindProof(ann, c, session, annPeer));
  EXPECT_EQ(Relay::to(annMoved, rebound),
            (std::vector{RelayFrame{Type::rebound, session, annPeer, {}}}));
  EXPECT_EQ(Relay::to(annMoved, relay.send(hostAt, {Type::data, session, annPeer, {4}})).size(),
            1u);
  EXPECT_TRUE(Relay::to(annAt, relay.send(hostAt, {Type::data, session, annPeer, {4}})).empty());

  // Bob joins; the host denies him: he hears close, and cannot join again.
  const auto bobJoined = Relay::to(bobAt, relay.join(bobAt, bob, grantFor(host, bob, kWall + 60)));
  const std::uint32_t bobPeer = bobJoined.at(0).peer;
  const auto denied = relay.send(hostAt, {Type::deny, session, 0, bob.publicKeyX963()});
  EXPECT_EQ(Relay::to(bobAt, denied), (std::vector{RelayFrame{Type::close, session, bobPeer, {}}}));
  EXPECT_EQ(Relay::to(bobAt, relay.join(bobAt, bob, grantFor(host, bob, kWall + 60))),
            std::vector{errorFrame(RelayErrorCode::denied)});

  // Silence: after the idle time Ann is dropped and the host hears it; then the host itself.
  relay.now = 30;
  relay.send(hostAt, {Type::keepalive, session, 0, {0}});
  relay.now = 61;
  EXPECT_EQ(Relay::to(hostAt, relay.core->expire(relay.now)),
            (std::vector{RelayFrame{Type::close, session, annPeer, {}}}));
  relay.now = 91;
  relay.core->expire(relay.now);
  EXPECT_EQ(relay.core->sessionCount(), 0u);
  EXPECT_EQ(relay.core->partyCount(), 0u);
}

// Each handshake that should fail fails with its code, and admits nobody.
TEST(RelayServerCore, RefusesEachBadHandshakeWithItsCode) {
  const P256RelaySigner host(P256PrivateKey::generate()), other(P256PrivateKey::generate()),
      ann(P256PrivateKey::generate()), eve(P256PrivateKey::generate());
  const Address hostAt = address(1), annAt = address(2);
  struct Case {
    const char* name;
    std::function<std::vector<Outgoing>(Relay&)> act;
    RelayErrorCode code;
  };
  const auto stale = [&](Relay& relay, const Address& from) {
    const Data c = relay.cookie(from, RelayPurpose::join);
    relay.now += 121;  // two secrets later
    return c;
  };
  const std::vector<Case> cases = {
      {"token of another coordinator",
       [&](Relay& r) {
         return r.registerHost(address(9), other,
                               RelayToken{other.publicKeyX963(), kWall + 60}.signedBy(other));
       },
       RelayErrorCode::badToken},
      {"token for another host",
       [&](Relay& r) { return r.registerHost(address(9), other, r.token(host)); },
       RelayErrorCode::badToken},
      {"expired token",
       [&](Relay& r) { return r.registerHost(address(9), other, r.token(other, kWall - 1)); },
       RelayErrorCode::expired},
      {"forged grant (signed by another key)",
       [&](Relay& r) {
         RelayJoinGrant grant{RelayWire::hkid(host.publicKeyX963()), ann.publicKeyX963(),
                              kWall + 60};
         return r.join(annAt, ann, grant.signedBy(other));
       },
       RelayErrorCode::badToken},
      {"expired grant",
       [&](Relay& r) { return r.join(annAt, ann, grantFor(host, ann, kWall - 1)); },
       RelayErrorCode::expired},
      {"another client's grant",
       [&](Relay& r) { return r.join(annAt, eve, grantFor(host, ann, kWall + 60)); },
       RelayErrorCode::badSignature},
      {"a host not registered",
       [&](Relay& r) { return r.join(annAt, ann, grantFor(other, ann, kWall + 60)); },
       RelayErrorCode::unknownHost},
      {"a cookie of another address",
       [&](Relay& r) {
         return r.send(annAt, joinProof(ann, r.cookie(address(7), RelayPurpose::join),
                                        grantFor(host, ann, kWall + 60)));
       },
       RelayErrorCode::badCookie},
      {"a replayed handshake (its cookie two secrets old)",
       [&](Relay& r) {
         return r.send(annAt, joinProof(ann, stale(r, annAt), grantFor(host, ann, kWall + 60)));
       },
       RelayErrorCode::badCookie},
      {"a join cut short",
       [&](Relay& r) {
         return r.send(annAt, {Type::join, 0, 0, Data(100, 1)});
       },
       RelayErrorCode::malformed},
  };
  for (const Case& c : cases) {
    Relay relay;
    relay.registerHost(hostAt, host, relay.token(host));
    const auto before = relay.core->partyCount();
    const auto answer = c.act(relay);
    ASSERT_FALSE(answer.empty()) << c.name;
    EXPECT_EQ(decodeRelayFrame(answer.back().datagram), errorFrame(c.code)) << c.name;
    EXPECT_EQ(relay.core->partyCount(), before) << c.name;
  }

  // Quotas: registrations from one address, peers of one session.
  Relay crowded({.registrationsPerSource = 1, .peersPerSession = 1});
  crowded.registerHost(address(1), host, crowded.token(host));
  EXPECT_EQ(
      Relay::to(address(1, 9), crowded.registerHost(address(1, 9), other, crowded.token(other))),
      std::vector{errorFrame(RelayErrorCode::overQuota)});
  crowded.join(annAt, ann, grantFor(host, ann, kWall + 60));
  EXPECT_EQ(Relay::to(address(3), crowded.join(address(3), eve, grantFor(host, eve, kWall + 60))),
            std::vector{errorFrame(RelayErrorCode::overQuota)});
}

// 100,000 datagrams of every kind from 50,000 addresses: nothing admitted, the session untouched,
// and what the relay remembers for its error answers stays within its bound.
TEST(RelayServerCore, AFloodFromManySourcesCostsNoMemory) {
  Relay relay;
  const P256RelaySigner host(P256PrivateKey::generate());
  relay.registerHost(address(1), host, relay.token(host));
  std::mt19937 random(3);
  for (int i = 0; i < 100'000; ++i) {
    Data datagram(std::size_t(random() % 120));
    for (auto& b : datagram) b = std::uint8_t(random());
    if (!datagram.empty()) datagram[0] = std::uint8_t(random() % 18);
    Address from;
    from.ip[12] = std::uint8_t(i >> 8), from.ip[13] = std::uint8_t(i), from.port = 4000;
    relay.core->receive(from, datagram, i * 0.0001, kWall);
    ASSERT_LE(relay.core->errorSourceCount(), relay.limits.errorSources);
  }
  EXPECT_EQ(relay.core->sessionCount(), 1u);
  EXPECT_EQ(relay.core->partyCount(), 1u);
}

}  // namespace
}  // namespace kelvaron::relay
