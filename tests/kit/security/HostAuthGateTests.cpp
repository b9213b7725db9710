// The host's gate against the client's handshake over an in-memory pair, and the host-wide pairing
// service behind the gate, with time driven by a manual clock.

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
using Event = ClientHandshake::Event;
using Purpose = ClientHandshake::Purpose;

const Data kFingerprint(32, 0x5A);
const std::string kName = "Ann's iPad";
const Purpose kSignIn = Purpose::authenticate();
const Purpose kCompare = Purpose::pairByComparison();
const Event kAuthenticated = Event::of(Event::Kind::authenticated);

// Answers the comparison prompt as told, and remembers what it was shown.
struct TestConfirmer : PairingConfirming {
  explicit TestConfirmer(ManualClock& hostClock) : clock(hostClock) {}
  ManualClock& clock;
  bool answer = true;
  std::chrono::seconds thinking{0};
  std::vector<std::pair<std::string, std::string>> shown;

  asio::awaitable<bool> confirm(std::string deviceName, std::string code) override {
    shown.emplace_back(deviceName, code);
    if (thinking.count() > 0) co_await clock.sleep(thinking);
    co_return answer;
  }
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
    auto gate = HostAuthGate::make(io.get_executor(), host, service, AuthTimeouts{}, nullptr,
                                   [this](auto d) { return clock.sleep(d); });
    Link link{client, gate};
    links.push_back(link);
    asio::co_spawn(
        io,
        [](auto c, auto g, auto passed) -> asio::awaitable<void> {
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

  // A whole handshake on a new connection. GCC 12 destroys twice a temporary that lives across a
  // suspension, so the arguments are always named values.
  asio::awaitable<Event> handshake(const ClientIdentity& identity, const Purpose& purpose,
                                   const std::string& name = kName) {
    return ClientHandshake::run(
        connect().client, identity, purpose, name, [] { return kFingerprint; }, 5s,
        [this](const std::string& code) { codes.push_back(code); });
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
  std::vector<Link> links;
};

ClientIdentity newIdentity() { return {AuthCrypto::randomUUID(), P256PrivateKey::generate()}; }

// Lets posted work run; the clock does not move.
asio::awaitable<void> settle() { co_await sleepFor(20ms); }

// Reads the challenge of `link` and answers it as `device`, signed for `fingerprint`.
asio::awaitable<void> respond(const Host::Link& link, const ClientIdentity& device,
                              const Data& fingerprint = kFingerprint) {
  const auto challenge = co_await link.client->messages().next();
  const auto nonce = std::get<msg::authChallenge>(challenge.value()).nonce;
  link.client->send(msg::authResponse{device.deviceID, device.privateKey.publicKey(),
                                      AuthCrypto::signChallenge(nonce, fingerprint, device.deviceID,
                                                                std::nullopt, device.privateKey)});
}

// Signs in as a new device, waits `pause`, asks to pair by comparison with a commitment to
// `nonce`, and reads the host's nonce.
asio::awaitable<void> requestComparison(Host& host, const Host::Link& link, const Data& nonce,
                                        std::chrono::seconds pause = 0s) {
  const auto device = newIdentity();
  co_await respond(link, device);
  co_await link.client->messages().next();  // "not paired"
  host.clock.advance(pause);
  link.client->send(msg::pairRequest{PairMethod::compare, kName, AuthCrypto::commitment(nonce)});
  co_await link.client->messages().next();  // the host's nonce
}

// As `requestComparison`, then reveals `nonce` and waits until the person at the host is asked.
asio::awaitable<void> comparisonUntilPrompt(Host& host, const Host::Link& link, const Data& nonce,
                                            std::chrono::seconds pause = 0s) {
  co_await requestComparison(host, link, nonce, pause);
  link.client->send(msg::pairReveal{nonce});
  EXPECT_TRUE(
      co_await pollUntil([&] { return link.gate->phase() == HostAuthGate::Phase::awaitingUser; }));
}

TEST(HostAuthGate, ANewDevicePairsByTokenSignsInBySignatureAloneAndCanBeRevoked) {
  runAsync([](asio::io_context& io) -> asio::awaitable<void> {
    Host host(io);
    const auto bystander = newIdentity();
    co_await host.handshake(bystander, kCompare);
    const auto device = newIdentity();
    const auto withToken = Purpose::pairWithToken(host.service->issueToken().value);
    // The name is trimmed and cut at 64 characters; an e with a combining acute is one.
    std::string accents;
    for (int i = 0; i < 70; ++i) accents += "e\xCC\x81";
    const std::string spaced = "  " + accents + "\n";
    CO_EXPECT_EQ(host.handshake(device, withToken, spaced), kAuthenticated);
    const PairedDevice stored{device.deviceID, accents.substr(0, 64 * 3),
                              device.privateKey.publicKey(), host.clock.now(), host.clock.now()};
    EXPECT_EQ(host.store->device(device.deviceID), stored);
    const auto link = host.links.back();
    EXPECT_EQ(link.gate->authenticatedDeviceID(), device.deviceID);
    // The successful attempts gave their slots back.
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(host.service->beginAttempt());

    // Authenticated: authentication messages stay with the gate, the rest passes.
    link.client->send(msg::pairResult{PairResult::accepted});
    link.client->send(msg::hello{});
    co_await settle();
    EXPECT_EQ(*link.passed, std::vector<Message>{msg::hello{}});

    CO_EXPECT_EQ(host.handshake(device, kSignIn), kAuthenticated);

    // Revoking forgets the device and ends every session of it at once, and no other.
    host.service->revoke(device.deviceID);
    EXPECT_FALSE(host.store->device(device.deviceID));
    EXPECT_TRUE(link.client->messages().isFinished());
    EXPECT_TRUE(host.links[2].client->messages().isFinished());
    EXPECT_FALSE(host.links[0].client->messages().isFinished());  // the bystander's
    EXPECT_EQ(host.service->connectedDeviceIDs(), std::set<UUID>{bystander.deviceID});
  });
}

TEST(HostAuthGate, PairingByComparisonNeedsAYesInTime) {
  runAsync([](asio::io_context& io) -> asio::awaitable<void> {
    Host host(io);
    const auto device = newIdentity(), other = newIdentity();
    const std::string blank = "   ";
    const Data nonce(32, 3);
    CO_EXPECT_EQ(host.handshake(device, kCompare, blank), kAuthenticated);
    const std::pair<std::string, std::string> shown{"Unknown device", host.codes.at(0)};
    EXPECT_EQ(host.confirmer->shown, std::vector{shown});

    host.confirmer->answer = false;
    CO_EXPECT_EQ(host.handshake(other, kCompare), Event::pairingFailed(PairResult::denied));

    // A reveal that does not match the commitment never reaches the person.
    host.confirmer->shown.clear();
    const auto liar = host.connect();
    co_await requestComparison(host, liar, nonce);
    liar.client->send(msg::pairReveal{Data(32, 2)});
    CO_EXPECT_EQ(liar.client->messages().next(), Message(msg::pairResult{PairResult::failed}));
    EXPECT_TRUE(host.confirmer->shown.empty());

    host.confirmer->answer = true;
    host.confirmer->thinking = 100s;
    const auto slow = host.connect();
    co_await comparisonUntilPrompt(host, slow, nonce);
    host.clock.advance(59s);
    co_await settle();
    EXPECT_EQ(slow.gate->phase(), HostAuthGate::Phase::awaitingUser);
    host.clock.advance(1s);
    CO_EXPECT_EQ(slow.client->messages().next(), Message(msg::pairResult{PairResult::denied}));

    // "Not paired" replaces the response deadline with the pairing one. The person accepts 121 s
    // after it: the pairing deadline closed the gate at 120 s and the answer is dropped.
    const auto late = host.connect();
    host.confirmer->thinking = 21s;
    co_await comparisonUntilPrompt(host, late, nonce, 100s);
    host.clock.advance(20s);                                              // 120 s
    CO_EXPECT_EQ(nextWithin(late.client->messages(), 2s), std::nullopt);  // closed without a word
    host.clock.advance(1s);                                               // the answer comes
    co_await settle();
    EXPECT_EQ(late.gate->phase(), HostAuthGate::Phase::closed);
    EXPECT_EQ(host.store->all().size(), 1u);
  });
}

TEST(HostAuthGate, SilenceAnotherKeyOrABadSignatureAreRefused) {
  runAsync([](asio::io_context& io) -> asio::awaitable<void> {
    Host host(io);
    // No response: the challenge, then silence, then the end after 10 s. Out-of-turn messages
    // neither pass nor fail anything.
    const auto quiet = host.connect();
    co_await quiet.client->messages().next();  // the challenge
    quiet.client->send(msg::hello{});
    quiet.client->send(msg::pairRequest{});
    host.clock.advance(9.9s);
    co_await settle();
    EXPECT_TRUE(quiet.passed->empty());
    EXPECT_FALSE(quiet.client->messages().isFinished());
    host.clock.advance(0.1s);
    const auto closed = co_await nextWithin(quiet.client->messages(), 2s);
    EXPECT_TRUE(!closed && quiet.client->messages().isFinished());

    const auto device = newIdentity();
    const PairedDevice record{device.deviceID, "iPad", device.privateKey.publicKey(),
                              host.clock.now(), std::nullopt};
    host.store->add(record);
    const ClientIdentity impostor{device.deviceID, P256PrivateKey::generate()};
    CO_EXPECT_EQ(host.handshake(impostor, kSignIn), Event::of(Event::Kind::denied));
    EXPECT_EQ(host.store->device(device.deviceID), record);  // untouched

    // An unknown device whose signature is bad (made for another host) never learns that it is
    // unknown; it hears "denied" and the connection closes after the flush delay.
    const auto link = host.connect();
    const auto stranger = newIdentity();
    const Data otherHost(32, 0x33);
    co_await respond(link, stranger, otherHost);
    CO_EXPECT_EQ(link.client->messages().next(), Message(msg::authResult{AuthResult::denied}));
    host.clock.advance(0.2s);
    const auto end = co_await nextWithin(link.client->messages(), 2s);
    EXPECT_TRUE(!end && link.client->messages().isFinished());
  });
}

// At most 3 attempts in any 60 s, host-wide; a token is good once, for 300 s.
TEST(HostAuthGate, TokensAreSingleUseShortLivedAndRateLimited) {
  runAsync([](asio::io_context& io) -> asio::awaitable<void> {
    Host host(io);
    const auto wrongToken = Purpose::pairWithToken(Data(16, 0));
    const auto invalid = Event::pairingFailed(PairResult::invalidToken);
    const auto limited = Event::pairingFailed(PairResult::rateLimited);
    const auto device = newIdentity(), latecomer = newIdentity();
    for (int i = 0; i < 3; ++i) {  // before any token exists
      if (i == 1) host.clock.advance(10s);
      CO_EXPECT_EQ(host.handshake(device, wrongToken), invalid);
    }
    const auto rightToken = Purpose::pairWithToken(host.service->issueToken().value);
    CO_EXPECT_EQ(host.handshake(device, rightToken), limited);
    host.clock.advance(50s);  // the first guess is 60 s old: one slot comes free
    CO_EXPECT_EQ(host.handshake(device, wrongToken), invalid);
    CO_EXPECT_EQ(host.handshake(device, rightToken), limited);

    host.clock.advance(249s);  // the token has a second left
    CO_EXPECT_EQ(host.handshake(device, rightToken), kAuthenticated);
    CO_EXPECT_EQ(host.handshake(latecomer, rightToken), invalid);
    const auto lateToken = Purpose::pairWithToken(host.service->issueToken().value);
    host.clock.advance(300s);  // the exact instant of expiry
    CO_EXPECT_EQ(host.handshake(latecomer, lateToken),
                 Event::pairingFailed(PairResult::expiredToken));
  });
}

// The client alone, against a host played by hand.
TEST(ClientHandshake, EndsWithTheRightWordsWhenThingsGoWrong) {
  runAsync([](asio::io_context&) -> asio::awaitable<void> {
    const auto identity = newIdentity();
    auto [client, host] = InMemoryConnection::makePair();
    const auto run = [&](std::optional<Data> fingerprint, std::chrono::duration<double> timeout) {
      return ClientHandshake::run(
          client, identity, kSignIn, kName, [=] { return fingerprint; }, timeout, nullptr);
    };
    host->send(msg::authChallenge{Data(32)});
    CO_EXPECT_EQ(run(std::nullopt, 5s), Event::failed("no host fingerprint"));
    EXPECT_EQ(host->messages().count(), 0u);  // nothing signed

    CO_EXPECT_EQ(run(kFingerprint, 0.1s), Event::failed("timed out"));
    host->send(msg::ping{2});
    const auto mine = co_await client->messages().next();  // the caller reads on afterwards
    EXPECT_EQ(mine, Message(msg::ping{2}));
    host->close();  // a host that hangs up in silence
    CO_EXPECT_EQ(run(kFingerprint, 5s), Event::failed("connection closed"));
  });
}

}  // namespace
}  // namespace kelvaron
