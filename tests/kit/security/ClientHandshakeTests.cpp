// The client's handshake against a host played by hand.

#include "kit/security/ClientHandshake.hpp"

#include <gtest/gtest.h>

#include "kit/crypto/AuthCrypto.hpp"
#include "kit/transport/InMemoryConnection.hpp"
#include "tests/support/AsyncTest.hpp"

namespace kelvaron {
namespace {

using namespace test;
using Event = ClientHandshake::Event;
using Purpose = ClientHandshake::Purpose;

const Data kFingerprint(32, 7);

struct Exchange {
  std::shared_ptr<InMemoryConnection> client, host;
  ClientIdentity identity{AuthCrypto::randomUUID(), P256PrivateKey::generate()};
  std::vector<Event> events;
  std::unique_ptr<ClientHandshake> handshake;

  explicit Exchange(Purpose purpose) {
    std::tie(client, host) = InMemoryConnection::makePair();
    handshake = std::make_unique<ClientHandshake>(
        client, identity, std::move(purpose), "iPad", [] { return kFingerprint; },
        [this](const Event& e) { events.push_back(e); });
  }
};

TEST(ClientHandshake, AnswersTheChallengeAndPairsWithATokenInTwoMessages) {
  runAsync([](asio::io_context&) -> asio::awaitable<void> {
    const Data token(16, 4);
    Exchange x(Purpose::pairWithToken(token));
    const Data nonce(32, 1);
    EXPECT_TRUE(x.handshake->handle(msg::authChallenge{nonce}));
    const auto response = std::get<msg::authResponse>((co_await x.host->messages().next()).value());
    EXPECT_EQ(response.deviceID, x.identity.deviceID);
    EXPECT_TRUE(AuthCrypto::verifyChallenge(response.signature, response.publicKey, nonce,
                                            kFingerprint, x.identity.deviceID, std::nullopt));
    EXPECT_TRUE(x.handshake->handle(msg::authResult{AuthResult::notPaired}));
    const auto request = std::get<msg::pairRequest>((co_await x.host->messages().next()).value());
    EXPECT_EQ(request.method, PairMethod::token);
    EXPECT_EQ(request.proof, AuthCrypto::pairingProof(token, kFingerprint, response.publicKey,
                                                      x.identity.deviceID));
    EXPECT_TRUE(x.handshake->handle(msg::pairResult{PairResult::accepted}));
    EXPECT_TRUE(
        x.handshake->handle(msg::authResult{AuthResult::denied}));  // after the end: swallowed
    EXPECT_FALSE(x.handshake->handle(msg::ping{1}));
    EXPECT_EQ(x.events, std::vector<Event>{Event::of(Event::Kind::authenticated)});
    EXPECT_EQ(x.host->messages().count(), 0u);
  });
}

TEST(ClientHandshake, EndsWithTheRightWordsWhenThingsGoWrong) {
  runAsync([](asio::io_context&) -> asio::awaitable<void> {
    Exchange signIn(Purpose::authenticate());
    signIn.handshake->handle(msg::pairNonce{Data(32)});
    EXPECT_EQ(signIn.events.at(0), Event::failed("unexpected pairNonce"));

    auto [client, host] = InMemoryConnection::makePair();
    const ClientIdentity identity{AuthCrypto::randomUUID(), P256PrivateKey::generate()};
    const auto noFingerprint =
        ClientHandshake(
            client, identity, Purpose::authenticate(), "x", [] { return std::optional<Data>(); },
            [](const Event& e) { EXPECT_EQ(e, Event::failed("no host fingerprint")); })
            .handle(msg::authChallenge{Data(32)});
    EXPECT_TRUE(noFingerprint);

    host->close();  // a host that hangs up in silence
    const auto closed = co_await ClientHandshake::run(
        client, identity, Purpose::authenticate(), "x", [] { return kFingerprint; }, 5s, nullptr);
    EXPECT_EQ(closed, Event::failed("connection closed"));

    auto [client2, host2] = InMemoryConnection::makePair();
    const auto silent = co_await ClientHandshake::run(
        client2, identity, Purpose::authenticate(), "x", [] { return kFingerprint; }, 0.1s,
        nullptr);
    EXPECT_EQ(silent, Event::failed("timed out"));
    client2->send(msg::ping{1});
    host2->send(msg::ping{2});
    const auto mine = co_await client2->messages().next();  // the caller reads on afterwards
    EXPECT_EQ(mine, Message(msg::ping{2}));
  });
}

}  // namespace
}  // namespace kelvaron
