#include "kit/relay/RelayTunnelMachine.hpp"

#include <gtest/gtest.h>

#include "kit/crypto/AuthCrypto.hpp"
#include "kit/relay/RelayJoinGrant.hpp"
#include "kit/relay/RelayWire.hpp"

namespace kelvaron {
namespace {

using namespace tunnelAction;
using Type = RelayPacketType;

// The frames a list of actions sends, decoded.
std::vector<RelayFrame> sent(const TunnelActions& actions) {
  std::vector<RelayFrame> frames;
  for (const TunnelAction& action : actions) {
    if (const auto* s = std::get_if<tunnelAction::send>(&action)) {
      frames.push_back(decodeRelayFrame(s->datagram));
    } else if (const auto* last = std::get_if<sendThenClose>(&action)) {
      frames.push_back(decodeRelayFrame(last->datagram));
    }
  }
  return frames;
}

std::vector<RelayTunnelEvent> events(const TunnelActions& actions) {
  std::vector<RelayTunnelEvent> out;
  for (const TunnelAction& action : actions) {
    if (const auto* e = std::get_if<emit>(&action)) out.push_back(e->event);
  }
  return out;
}

template <class Action>
bool has(const TunnelActions& actions, const Action& wanted) {
  for (const TunnelAction& action : actions) {
    if (const auto* a = std::get_if<Action>(&action); a && *a == wanted) return true;
  }
  return false;
}

std::vector<RelayFrame> only(Type type, std::uint32_t session, std::uint32_t peer,
                             Data payload = {}) {
  return {RelayFrame{type, session, peer, std::move(payload)}};
}

Data datagram(Type type, std::uint32_t session, std::uint32_t peer, Data payload = {}) {
  return encode({type, session, peer, std::move(payload)});
}

Data challenge(RelayPurpose purpose, std::uint8_t cookieByte = 0xc0) {
  return datagram(Type::challenge, 0, 0, challengePayload(purpose, Data(16, cookieByte)));
}

Data relayError(RelayErrorCode code, std::uint32_t session = 0) {
  return datagram(Type::error, session, 0, {std::uint8_t(code)});
}

// A host registers with its token over the relay's cookie, sends its denied list once live, hears
// its clients, keeps alive, registers anew after a path change (not the first), and closes once.
TEST(RelayTunnelMachine, AHostRegistersServesItsPeersAndClosesOnce) {
  const P256RelaySigner signer(P256PrivateKey::generate());
  RelayTunnelMachine host(RelayRole::host, signer);
  host.setDenied({Data(32, 0xdd)});
  const TunnelActions started = host.start();
  EXPECT_EQ(started, (TunnelActions{openSocket{1}, cancelKeepalive{}, cancelRetry{},
                                    fetchCredential{false, 1}}));
  EXPECT_TRUE(host.datagram(1, challenge(RelayPurpose::register_)).empty());  // nothing asked yet
  const Data token{'t', 'o', 'k'};
  const auto asking = host.credential(1, token);
  ASSERT_EQ(sent(asking),
            only(Type::challengeRequest, 0, 0, challengeRequestPayload(RelayPurpose::register_)));
  EXPECT_TRUE(has(asking, armRetry{1}));
  EXPECT_TRUE(host.datagram(1, challenge(RelayPurpose::join)).empty());  // another purpose's

  const auto proving = sent(host.datagram(1, challenge(RelayPurpose::register_)));
  ASSERT_EQ(proving.size(), 1u);
  const Data cookie(16, 0xc0);
  const Data& key = signer.publicKeyX963();
  const Data& payload = proving[0].payload;
  ASSERT_EQ(payload.size(), 65 + 16 + 2 + token.size() + 64);
  EXPECT_EQ(Data(payload.begin(), payload.end() - 64), concat({key, cookie, Data{0, 3}, token}));
  EXPECT_TRUE(verifyDigest(key, Data(payload.end() - 64, payload.end()),
                           AuthCrypto::sha256(RelayWire::registerMessage(cookie, token, key))));
  // A lost reply: the tick sends the same proof again.
  EXPECT_EQ(sent(host.retryTick(1)), proving);

  const auto live = host.datagram(1, datagram(Type::registered, 7, 0));
  EXPECT_EQ(sent(live), only(Type::deny, 7, 0, Data(32, 0xdd)));
  EXPECT_EQ(events(live), std::vector<RelayTunnelEvent>{RelayTunnelEvent::registered(7)});
  EXPECT_TRUE(has(live, armKeepalive{}) && has(live, cancelRetry{}));
  EXPECT_TRUE(host.retryTick(1).empty());  // the handshake is over

  EXPECT_EQ(events(host.datagram(1, datagram(Type::peerJoined, 7, 42))),
            std::vector<RelayTunnelEvent>{RelayTunnelEvent::peerJoined(42)});
  EXPECT_TRUE(host.datagram(1, datagram(Type::data, 8, 42, {1})).empty());  // not our session
  EXPECT_TRUE(host.datagram(2, datagram(Type::data, 7, 42, {1})).empty());  // not our socket
  EXPECT_EQ(events(host.datagram(1, datagram(Type::data, 7, 42, {1, 2}))),
            std::vector<RelayTunnelEvent>{RelayTunnelEvent::data(42, {1, 2})});
  EXPECT_EQ(sent(host.send(42, Data{9})), only(Type::data, 7, 42, {9}));
  EXPECT_EQ(sent(host.keepaliveTick()), only(Type::keepalive, 7, 0, {0}));
  EXPECT_EQ(events(host.datagram(1, datagram(Type::close, 7, 42))),
            std::vector<RelayTunnelEvent>{RelayTunnelEvent::peerClosed(42)});

  EXPECT_TRUE(host.pathChanged(1).empty());  // the first is the socket's own start
  EXPECT_TRUE(has(host.pathChanged(1), fetchCredential{false, 2}));
  EXPECT_FALSE(host.established());
  EXPECT_TRUE(host.send(42, Data{9}).empty());
  host.credential(2, token);
  host.datagram(1, challenge(RelayPurpose::register_));
  host.datagram(1, datagram(Type::registered, 9, 0));
  const auto stopped = host.stop();
  EXPECT_EQ(sent(stopped), only(Type::close, 9, 0, {}));
  EXPECT_TRUE(has(stopped, endEvents{}));
  EXPECT_TRUE(host.stop().empty());
}

// A client joins with its grant, rebinds after a path change and falls back to a new join when
// the rebind goes unanswered; the relay's refusals as the table of the relay's errors says.
TEST(RelayTunnelMachine, AClientJoinsRebindsAndAnswersTheRelaysRefusals) {
  const P256RelaySigner signer(P256PrivateKey::generate());
  RelayTunnelMachine client(RelayRole::client, signer);
  const Data grant(170, 0x6a);
  const auto join = [&](RelayTunnelMachine& machine, std::uint64_t flow, std::uint32_t session) {
    machine.credential(flow, grant);
    const auto proof = sent(machine.datagram(1, challenge(RelayPurpose::join)));
    EXPECT_EQ(proof.at(0).type, Type::join);
    EXPECT_EQ(proof.at(0).payload.size(), 16 + 170 + 64u);
    return machine.datagram(1, datagram(Type::joined, session, 3));
  };
  client.start();
  EXPECT_TRUE(client.send(3, Data{1}).empty());  // nothing before the session
  EXPECT_EQ(events(join(client, 1, 5)),
            std::vector<RelayTunnelEvent>{RelayTunnelEvent::joined(5, 3)});
  EXPECT_EQ(sent(client.send(99, Data{1})), only(Type::data, 5, 3, {1}));

  // A path change: a rebind signed over the cookie, session and peer; then its answer.
  client.pathChanged(1);
  const auto rebinding = client.pathChanged(1);
  EXPECT_EQ(sent(rebinding),
            only(Type::challengeRequest, 0, 0, challengeRequestPayload(RelayPurpose::rebind)));
  const auto rebind = sent(client.datagram(1, challenge(RelayPurpose::rebind, 0x11)));
  ASSERT_EQ(rebind.size(), 1u);
  EXPECT_EQ(std::tie(rebind[0].type, rebind[0].session, rebind[0].peer),
            std::tuple(Type::rebind, 5u, 3u));
  EXPECT_TRUE(verifyDigest(signer.publicKeyX963(),
                           Data(rebind[0].payload.begin() + 16, rebind[0].payload.end()),
                           AuthCrypto::sha256(RelayWire::rebindMessage(Data(16, 0x11), 5, 3))));
  EXPECT_TRUE(client.datagram(1, datagram(Type::rebound, 5, 4)).empty());  // another peer's
  EXPECT_TRUE(has(client.datagram(1, datagram(Type::rebound, 5, 3)), cancelRetry{}));

  // Another path change, and the relay does not answer: eight ticks, then a join anew.
  client.pathChanged(1);
  TunnelActions last;
  for (int tick = 1; tick <= 8; ++tick) last = client.retryTick(3);
  EXPECT_TRUE(has(last, fetchCredential{false, 4}));
  EXPECT_TRUE(events(last).empty());
  EXPECT_EQ(events(join(client, 4, 6)),
            std::vector<RelayTunnelEvent>{RelayTunnelEvent::joined(6, 3)});

  struct Case {
    const char* name;
    Data reply;
    std::vector<RelayTunnelEvent> events;
    bool rejoins, rebinds;
  };
  const std::vector<Case> cases = {
      {"the host not registered again yet",
       relayError(RelayErrorCode::unknownHost),
       {},
       false,
       false},
      {"the session lost", relayError(RelayErrorCode::unknownSession), {}, true, false},
      {"the address unknown", relayError(RelayErrorCode::addressNotOnRecord, 6), {}, false, true},
      {"the address unknown, another session",
       relayError(RelayErrorCode::addressNotOnRecord, 7),
       {},
       false,
       false},
      {"a denied client",
       relayError(RelayErrorCode::denied),
       {RelayTunnelEvent::error(RelayErrorCode::denied)},
       false,
       false},
      {"the session closed",
       datagram(Type::close, 6, 3),
       {RelayTunnelEvent::sessionClosed()},
       false,
       false},
  };
  for (const Case& c : cases) {
    RelayTunnelMachine live(RelayRole::client, signer);
    live.start();
    join(live, 1, 6);
    const auto reply = live.datagram(1, c.reply);
    EXPECT_EQ(events(reply), c.events) << c.name;
    EXPECT_EQ(has(reply, fetchCredential{false, 2}), c.rejoins) << c.name;
    EXPECT_EQ(sent(reply).size() == 1 && sent(reply)[0].type == Type::challengeRequest, c.rebinds)
        << c.name;
  }
}

// The handshake's limits: eight unanswered ticks, a fourth bad cookie, a credential that does not
// come, a stale credential or tick.
TEST(RelayTunnelMachine, AHandshakeGivesUpWithItsReason) {
  const P256RelaySigner signer(P256PrivateKey::generate());
  RelayTunnelMachine host(RelayRole::host, signer);
  host.start();
  host.credential(1, Data{1});
  for (int tick = 1; tick <= 7; ++tick) EXPECT_EQ(sent(host.retryTick(1)).size(), 1u);
  const TunnelActions last = host.retryTick(1);
  EXPECT_EQ(events(last),
            std::vector<RelayTunnelEvent>{RelayTunnelEvent::unavailable("no reply from relay")});

  RelayTunnelMachine cookies(RelayRole::host, signer);
  cookies.start();
  cookies.credential(1, Data{1});
  for (int bad = 1; bad <= 3; ++bad) {
    EXPECT_EQ(sent(cookies.datagram(1, relayError(RelayErrorCode::badCookie))).at(0).type,
              Type::challengeRequest);
  }
  EXPECT_EQ(events(cookies.datagram(1, relayError(RelayErrorCode::badCookie))),
            std::vector<RelayTunnelEvent>{RelayTunnelEvent::error(RelayErrorCode::badCookie)});

  RelayTunnelMachine waiting(RelayRole::host, signer);
  waiting.start();
  EXPECT_TRUE(waiting.credential(7, Data{1}).empty());  // another handshake's
  EXPECT_EQ(events(waiting.credentialFailed(1, "no token")),
            std::vector<RelayTunnelEvent>{RelayTunnelEvent::unavailable("credential: no token")});
  EXPECT_TRUE(has(waiting.socketFailed(1), reopenLater{1}));
  EXPECT_TRUE(has(waiting.reopen(1), openSocket{2}));
  EXPECT_TRUE(waiting.datagram(1, challenge(RelayPurpose::register_)).empty());  // the old socket
}

}  // namespace
}  // namespace kelvaron
