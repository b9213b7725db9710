// The host's gate against the client's handshake over an in-memory pair, with time driven by a
// manual clock.

#include "kit/security/HostAuthGate.hpp"

#include <gtest/gtest.h>

#include <asio/detached.hpp>

#include "kit/crypto/AuthCrypto.hpp"
#include "kit/security/ClientHandshake.hpp"
#include "kit/transport/InMemoryConnection.hpp"
#include "tests/support/AsyncTest.hpp"
#include "tests/support/ManualClock.hpp"

namespace kelvaron {
namespace {

using namespace test;
using namespace std::chrono_literals;
using Event = ClientHandshake::Event;
using Purpose = ClientHandshake::Purpose;

const Data kFingerprint(32, 0x5A);
const std::string kName = "Ann's iPad";
const Purpose kSignIn = Purpose::authenticate();
const Purpose kCompare = Purpose::pairByComparison();

// Answers the comparison prompt as told, and remembers what it was shown.
class TestConfirmer : public PairingConfirming {
 public:
  explicit TestConfirmer(ManualClock& clock) : clock_(clock) {}
  bool answer = true;
  std::chrono::seconds thinking{0};
  std::vector<std::pair<std::string, std::string>> shown;

  asio::awaitable<bool> confirm(std::string deviceName, std::string code) override {
    shown.emplace_back(deviceName, code);
    if (thinking.count() > 0) co_await clock_.sleep(thinking);
    co_return answer;
  }

 private:
  ManualClock& clock_;
};

struct Host {
  explicit Host(asio::io_context& context) : io(context) {}

  // One connection: the gate in front, driven the way the session drives it.
  struct Link {
    std::shared_ptr<InMemoryConnection> client;
    std::shared_ptr<HostAuthGate> gate;
    std::shared_ptr<std::vector<Message>> passed = std::make_shared<std::vector<Message>>();
  };

  Link connect() {
    auto [client, host] = InMemoryConnection::makePair();
    auto gate =
        HostAuthGate::make(io.get_executor(), host, service, AuthTimeouts{}, nullptr,
                           [this](std::chrono::duration<double> d) { return clock.sleep(d); });
    Link link{client, gate};
    asio::co_spawn(
        io,
        [](std::shared_ptr<InMemoryConnection> c, std::shared_ptr<HostAuthGate> g,
           std::shared_ptr<std::vector<Message>> passed) -> asio::awaitable<void> {
          co_await g->start();
          while (auto m = co_await c->messages().next()) {
            const auto verdict = co_await g->handle(*m);
            if (verdict == AuthGate::Verdict::proceed) passed->push_back(*m);
          }
          co_await g->connectionEnded();
        }(host, gate, link.passed),
        asio::detached);
    return link;
  }

  // GCC 12 destroys twice a temporary that lives across a suspension, so the arguments of these
  // are always named values.
  asio::awaitable<Event> handshake(const Link& link, const ClientIdentity& identity,
                                   const Purpose& purpose, const std::string& name = kName) {
    return ClientHandshake::run(
        link.client, identity, purpose, name, [] { return kFingerprint; }, 5s,
        [this](const std::string& code) { codes.push_back(code); });
  }
  asio::awaitable<Event> handshake(const ClientIdentity& identity, const Purpose& purpose,
                                   const std::string& name = kName) {
    return handshake(connect(), identity, purpose, name);
  }

  // Lets every sleeper on the manual clock finish, so that nothing waits after the test.
  ~Host() { clock.advance(std::chrono::hours(24)); }

  asio::io_context& io;
  ManualClock clock;
  std::shared_ptr<PairedDeviceStore> store = std::make_shared<PairedDeviceStore>(std::nullopt);
  std::shared_ptr<TestConfirmer> confirmer = std::make_shared<TestConfirmer>(clock);
  std::shared_ptr<HostPairingService> service = std::make_shared<HostPairingService>(
      UUID{{1}}, "studio", kFingerprint, store, confirmer, [this] { return clock.now(); });
  std::vector<std::string> codes;
};

ClientIdentity newIdentity() { return {AuthCrypto::randomUUID(), P256PrivateKey::generate()}; }

// Lets posted work run; the clock does not move.
asio::awaitable<void> settle() { co_await sleepFor(20ms); }

TEST(HostAuthGate, ANewDevicePairsByTokenAndThenSignsInBySignatureAlone) {
  runAsync([](asio::io_context& io) -> asio::awaitable<void> {
    Host host(io);
    const auto device = newIdentity();
    const auto token = host.service->issueToken();
    const auto link = host.connect();
    const auto withToken = Purpose::pairWithToken(token.value);
    const std::string spaced = "  Ann's iPad\n";
    const auto paired = co_await host.handshake(link, device, withToken, spaced);
    EXPECT_EQ(paired, Event::of(Event::Kind::authenticated));
    const auto stored = host.store->device(device.deviceID);
    CO_ASSERT_TRUE(stored);
    EXPECT_EQ(stored->name, "Ann's iPad");
    EXPECT_EQ(stored->publicKey, device.privateKey.publicKey());
    EXPECT_EQ(stored->lastSeen, host.clock.now());
    EXPECT_EQ(link.gate->authenticatedDeviceID(), device.deviceID);
    // The successful attempt gave its slot back.
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(host.service->beginAttempt());

    // Authenticated: authentication messages stay with the gate, the rest passes.
    link.client->send(msg::pairResult{PairResult::accepted});
    link.client->send(msg::hello{});
    co_await settle();
    EXPECT_EQ(link.passed->size(), 1u);
    EXPECT_TRUE(std::holds_alternative<msg::hello>(link.passed->at(0)));

    const auto again = host.connect();
    const auto signedIn = co_await host.handshake(again, device, kSignIn);
    EXPECT_EQ(signedIn, Event::of(Event::Kind::authenticated));
    EXPECT_EQ(host.service->connectedDeviceIDs().count(device.deviceID), 1u);
  });
}

TEST(HostAuthGate, PairingByComparisonShowsTheSameCodeOnBothSides) {
  runAsync([](asio::io_context& io) -> asio::awaitable<void> {
    Host host(io);
    const auto device = newIdentity();
    const std::string blank = "   ";
    const auto accepted = co_await host.handshake(device, kCompare, blank);
    EXPECT_EQ(accepted, Event::of(Event::Kind::authenticated));
    CO_ASSERT_TRUE(host.codes.size() == 1 && host.confirmer->shown.size() == 1);
    EXPECT_EQ(host.confirmer->shown[0], std::pair(std::string("Unknown device"), host.codes[0]));
    EXPECT_EQ(host.store->device(device.deviceID)->name, "Unknown device");

    host.confirmer->answer = false;
    const auto other = newIdentity();
    const auto declined = co_await host.handshake(other, kCompare);
    EXPECT_EQ(declined, Event::pairingFailed(PairResult::denied));
    EXPECT_FALSE(host.store->device(other.deviceID));
  });
}

TEST(HostAuthGate, AnotherKeyOrABadSignatureIsDenied) {
  runAsync([](asio::io_context& io) -> asio::awaitable<void> {
    Host host(io);
    const auto device = newIdentity();
    const PairedDevice record{device.deviceID, "iPad", device.privateKey.publicKey(),
                              host.clock.now(), std::nullopt};
    host.store->add(record);
    const ClientIdentity impostor{device.deviceID, P256PrivateKey::generate()};
    const auto denied = co_await host.handshake(impostor, kSignIn);
    EXPECT_EQ(denied, Event::of(Event::Kind::denied));
    EXPECT_EQ(host.store->device(device.deviceID), record);  // untouched

    // An unknown device whose signature is bad never learns that it is unknown.
    const auto link = host.connect();
    const auto challenge = co_await link.client->messages().next();
    EXPECT_TRUE(challenge && std::holds_alternative<msg::authChallenge>(*challenge));
    const auto stranger = newIdentity();
    link.client->send(
        msg::authResponse{stranger.deviceID, stranger.privateKey.publicKey(), Data(64, 1)});
    const auto answer = co_await link.client->messages().next();
    EXPECT_EQ(answer, Message(msg::authResult{AuthResult::denied}));
    host.clock.advance(0.2s);  // the flush delay: then the connection closes
    const auto end = co_await nextWithin(link.client->messages(), 2s);
    EXPECT_FALSE(end);
    EXPECT_TRUE(link.client->messages().isFinished());

    const auto notPaired = co_await host.handshake(stranger, kSignIn);
    EXPECT_EQ(notPaired, Event::of(Event::Kind::notPaired));
  });
}

TEST(HostAuthGate, WrongTokensAreRateLimitedHostWide) {
  runAsync([](asio::io_context& io) -> asio::awaitable<void> {
    Host host(io);
    const auto token = host.service->issueToken();
    const auto wrongToken = Purpose::pairWithToken(Data(16, 0));
    const auto rightToken = Purpose::pairWithToken(token.value);
    for (int i = 0; i < 3; ++i) {
      const auto guesser = newIdentity();
      const auto wrong = co_await host.handshake(guesser, wrongToken);
      EXPECT_EQ(wrong, Event::pairingFailed(PairResult::invalidToken));
    }
    const auto device = newIdentity();
    const auto limited = co_await host.handshake(device, rightToken);
    EXPECT_EQ(limited, Event::pairingFailed(PairResult::rateLimited));
    host.clock.advance(60s);
    const auto paired = co_await host.handshake(device, rightToken);
    EXPECT_EQ(paired, Event::of(Event::Kind::authenticated));
    const auto latecomer = newIdentity();
    const auto reused = co_await host.handshake(latecomer, rightToken);
    EXPECT_EQ(reused, Event::pairingFailed(PairResult::invalidToken));

    const auto late = host.service->issueToken();
    host.clock.advance(300s);
    const auto lateToken = Purpose::pairWithToken(late.value);
    const auto expired = co_await host.handshake(latecomer, lateToken);
    EXPECT_EQ(expired, Event::pairingFailed(PairResult::expiredToken));
  });
}

// Reads the challenge of `link` and answers it as `device`.
asio::awaitable<void> respond(const Host::Link& link, const ClientIdentity& device) {
  const auto challenge = co_await link.client->messages().next();
  const auto nonce = std::get<msg::authChallenge>(challenge.value()).nonce;
  link.client->send(
      msg::authResponse{device.deviceID, device.privateKey.publicKey(),
                        AuthCrypto::signChallenge(nonce, kFingerprint, device.deviceID,
                                                  std::nullopt, device.privateKey)});
}

TEST(HostAuthGate, DeadlinesCloseSilentlyAndALateAnswerIsDropped) {
  runAsync([](asio::io_context& io) -> asio::awaitable<void> {
    Host host(io);
    // No response: the challenge, then silence, then the end after 10 s. Out-of-turn messages
    // neither pass nor fail anything.
    const auto quiet = host.connect();
    co_await quiet.client->messages().next();  // the challenge
    quiet.client->send(msg::hello{});
    quiet.client->send(msg::pairRequest{});
    co_await settle();
    EXPECT_TRUE(quiet.passed->empty());
    host.clock.advance(9.9s);
    co_await settle();
    EXPECT_FALSE(quiet.client->messages().isFinished());
    host.clock.advance(0.1s);
    const auto closed = co_await nextWithin(quiet.client->messages(), 2s);
    EXPECT_FALSE(closed);
    EXPECT_TRUE(quiet.client->messages().isFinished());

    // A response that arrives as the first deadline fires: whichever comes first wins, and a
    // gate that said "not paired" is not closed by the old deadline.
    const auto racer = newIdentity();
    const auto race = host.connect();
    co_await respond(race, racer);
    host.clock.advance(10s);
    const auto raceAnswer = co_await nextWithin(race.client->messages(), 2s);
    co_await settle();
    if (raceAnswer) {
      EXPECT_EQ(*raceAnswer, Message(msg::authResult{AuthResult::notPaired}));
      EXPECT_EQ(race.gate->phase(), HostAuthGate::Phase::pairingOnly);
    }

    // The person accepts 121 s after "not paired": the pairing deadline closed the gate at 120 s
    // and the answer is dropped. Nothing is stored.
    const auto device = newIdentity();
    const auto link = host.connect();
    co_await respond(link, device);
    const auto notPaired = co_await link.client->messages().next();
    EXPECT_EQ(notPaired, Message(msg::authResult{AuthResult::notPaired}));
    host.clock.advance(100s);
    const Data clientNonce(32, 3);
    link.client->send(
        msg::pairRequest{PairMethod::compare, "iPad", AuthCrypto::commitment(clientNonce)});
    co_await link.client->messages().next();  // the host's nonce
    host.confirmer->thinking = 21s;
    link.client->send(msg::pairReveal{clientNonce});
    for (int i = 0; i < 100 && host.confirmer->shown.empty(); ++i) co_await settle();
    EXPECT_EQ(link.gate->phase(), HostAuthGate::Phase::awaitingUser);
    host.clock.advance(20s);  // 120 s
    const auto end = co_await nextWithin(link.client->messages(), 2s);
    EXPECT_FALSE(end);       // closed without a word
    host.clock.advance(1s);  // the answer comes
    co_await settle();
    EXPECT_EQ(link.gate->phase(), HostAuthGate::Phase::closed);
    EXPECT_FALSE(host.store->device(device.deviceID));
  });
}

TEST(HostAuthGate, ThePromptGivesUpAfterAMinute) {
  runAsync([](asio::io_context& io) -> asio::awaitable<void> {
    Host host(io);
    host.confirmer->thinking = 100s;
    const auto device = newIdentity();
    const auto link = host.connect();
    auto event = std::make_shared<std::optional<Event>>();
    asio::co_spawn(
        io,
        [](Host& h, Host::Link l, const ClientIdentity& d,
           std::shared_ptr<std::optional<Event>> out) -> asio::awaitable<void> {
          *out = co_await h.handshake(l, d, kCompare);
        }(host, link, device, event),
        asio::detached);
    for (int i = 0; i < 100 && host.confirmer->shown.empty(); ++i) co_await settle();
    host.clock.advance(59s);
    co_await settle();
    EXPECT_EQ(link.gate->phase(), HostAuthGate::Phase::awaitingUser);
    host.clock.advance(1s);
    for (int i = 0; i < 100 && !*event; ++i) co_await settle();
    EXPECT_EQ(*event, Event::pairingFailed(PairResult::denied));
    EXPECT_FALSE(host.store->device(device.deviceID));
  });
}

TEST(HostAuthGate, AWrongRevealFailsWithoutAPrompt) {
  runAsync([](asio::io_context& io) -> asio::awaitable<void> {
    Host host(io);
    const auto device = newIdentity();
    const auto link = host.connect();
    co_await respond(link, device);
    const Data key = device.privateKey.publicKey();
    link.client->send(msg::authResponse{device.deviceID, key, Data(64)});  // a second: dropped
    const auto notPaired = co_await link.client->messages().next();
    EXPECT_EQ(notPaired, Message(msg::authResult{AuthResult::notPaired}));
    link.client->send(msg::pairRequest{PairMethod::compare, std::string(100, 'x'),
                                       AuthCrypto::commitment(Data(32, 1))});
    const auto hostNonce = co_await link.client->messages().next();
    EXPECT_TRUE(hostNonce && std::holds_alternative<msg::pairNonce>(*hostNonce));
    link.client->send(msg::pairReveal{Data(32, 2)});
    const auto failed = co_await link.client->messages().next();
    EXPECT_EQ(failed, Message(msg::pairResult{PairResult::failed}));
    EXPECT_TRUE(host.confirmer->shown.empty());
  });
}

TEST(HostAuthGate, DeviceNamesAreCleaned) {
  EXPECT_EQ(cleanDeviceName(" \t\n "), "Unknown device");
  EXPECT_EQ(cleanDeviceName(std::string(100, 'a')), std::string(64, 'a'));
  EXPECT_EQ(cleanDeviceName("  Ann’s iPad \n"), "Ann’s iPad");
  std::string accents;
  for (int i = 0; i < 70; ++i) accents += "e\xCC\x81";  // e and a combining acute: one character
  EXPECT_EQ(cleanDeviceName(accents).size(), 64u * 3);
}

}  // namespace
}  // namespace kelvaron
