// Real QUIC over the loopback interface: our listener and our client, each on its own socket.

#include "kit/transport/QUICConnection.hpp"

#include <gmock/gmock.h>
#include <asio/co_spawn.hpp>
#include <asio/detached.hpp>
#include <asio/steady_timer.hpp>
#include <asio/use_awaitable.hpp>

#include <netinet/in.h>
#include <ngtcp2/ngtcp2.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <numeric>

#include "kit/crypto/AuthCrypto.hpp"
#include "kit/security/ClientHandshake.hpp"
#include "kit/security/HostAuthGate.hpp"
#include "kit/security/HostPairingService.hpp"
#include "kit/transport/QUICHostListener.hpp"
#include "kit/transport/SelfSignedIdentity.hpp"
#include "kit/wire/WireCodec.hpp"
#include "tests/support/AsyncTest.hpp"

namespace kelvaron {
namespace {

using namespace test;

// A listener on a free loopback port, with the host's identity.
struct Loopback {
  explicit Loopback(const Executor& e, QUICConfiguration configuration = {})
      : executor(e),
        listener(listen(0, configuration)),
        endpoint(asio::ip::make_address("127.0.0.1"), listener->port()) {}

  std::shared_ptr<QUICHostListener> listen(std::uint16_t port, QUICConfiguration configuration) {
    const QUICHostListener::Options options{
        .hostName = "Test Host", .port = port, .advertise = false, .configuration = configuration};
    return QUICHostListener::make(executor, identity, options);
  }
  ServerTrust trust() const { return ServerTrust::pinned(identity.fingerprint()); }

  // A client with the right pin whose streams begin with `openings`; by default, as they should.
  std::shared_ptr<QUICConnection> dial(std::vector<Data> openings = {}) {
    return QUICConnection::dial(executor, endpoint, trust(), {}, std::move(openings));
  }
  // A client that sends `bytes` on its control stream before anything else.
  std::shared_ptr<QUICConnection> dialSending(const Data& bytes) {
    return dial({concat({Data{1}, bytes}), {2}, {3}, {4}, {5}});
  }

  // A client connected with the right pin, and the host's end of it, as after authentication.
  asio::awaitable<std::pair<std::shared_ptr<QUICConnection>, std::shared_ptr<Connection>>>
  connected() {
    auto client = co_await QUICConnection::connect(executor, endpoint, trust());
    auto host = co_await accepted();
    host->liftHandshakeLimits();
    co_return std::pair(std::move(client), std::move(host));
  }

  // The host's end of the next connection; throws when none comes.
  asio::awaitable<std::shared_ptr<Connection>> accepted() {
    co_return (co_await nextWithin(listener->connections(), 5s)).value();
  }

  Executor executor;
  SelfSignedIdentity identity = SelfSignedIdentity::temporary("Test Host");
  std::shared_ptr<QUICHostListener> listener;
  asio::ip::udp::endpoint endpoint;
};

// The last thing `states` says before it ends.
asio::awaitable<ConnectionState> finalState(Connection& connection) {
  ConnectionState last;
  while (auto state = co_await nextWithin(connection.states(), 5s)) last = *state;
  co_return last;
}

VideoFrame videoFrame(std::size_t size, std::uint64_t number) {
  Data payload(size);
  std::iota(payload.begin(), payload.end(), static_cast<std::uint8_t>(number));
  return {.frameNumber = number, .width = 1920, .height = 1080, .payload = std::move(payload)};
}

msg::fileChunk chunk(std::size_t size, std::uint64_t offset) {
  return {.transferID = 1, .fileIndex = 0, .offset = offset, .data = Data(size, 0x5a)};
}

TEST(QUICConnection, OnlyThePinnedIdentityConnectsAndBothEndsShareOneExporterAndEveryChannel) {
  runAsync([](asio::io_context& io) -> asio::awaitable<void> {
    Loopback loopback(io.get_executor());
    const auto mistaken = QUICConnection::dial(io.get_executor(), loopback.endpoint,
                                               ServerTrust::pinned(Data(32, 1)));
    auto ready = mistaken->waitUntilReady();
    const auto error = co_await thrownBy<QUICError>(ready);
    CO_ASSERT_TRUE(error);  // otherwise the wrong pin was taken
    EXPECT_EQ(error->kind(), QUICError::Kind::pinMismatch);
    CO_EXPECT_EQ(finalState(*mistaken), ConnectionState::failed("pin mismatch"));
    EXPECT_EQ(mistaken->peerCertificateFingerprint(), loopback.identity.fingerprint());

    const auto client = loopback.dial();
    co_await client->waitUntilReady();
    const auto host = co_await loopback.accepted();  // the refused one never came out
    CO_EXPECT_NEXT(client->states(), ConnectionState{});
    CO_EXPECT_NEXT(client->states(), ConnectionState::ready());
    EXPECT_EQ(client->peerCertificateFingerprint(), loopback.identity.fingerprint());
    EXPECT_EQ(host->peerCertificateFingerprint(), std::nullopt);
    const auto exporter = client->tlsExporter();
    CO_ASSERT_TRUE(exporter && exporter->size() == 32);
    EXPECT_EQ(host->tlsExporter(), exporter);
    const auto other = co_await QUICConnection::connect(io.get_executor(), loopback.endpoint,
                                                        ServerTrust::unpinned());
    EXPECT_NE(other->tlsExporter(), exporter);  // another connection has another secret
    EXPECT_EQ(other->peerCertificateFingerprint(), loopback.identity.fingerprint());
    other->close();

    host->liftHandshakeLimits();
    const msg::pointer move{.seq = 3, .event = pointer::moveRelative{1, 2}};
    client->send(msg::ping{7});
    client->send(move);
    CO_EXPECT_EQ(client->sendTransfer(chunk(1000, 0)), true);
    std::vector<Message> received(3);
    for (auto& message : received) message = (co_await nextWithin(host->messages(), 5s)).value();
    // Each channel keeps its own order; across channels there is none.
    EXPECT_THAT(received, testing::UnorderedElementsAre(Message(msg::ping{7}), Message(move),
                                                        Message(chunk(1000, 0))));
    host->send(msg::pong{7});
    EXPECT_TRUE(host->sendVideo(videoFrame(50'000, 1)));
    EXPECT_TRUE(host->sendAudio(AudioPacket{.ptsMicros = 10, .data = Data(200, 3)}));
    CO_EXPECT_NEXT(client->messages(), Message(msg::pong{7}));
    CO_EXPECT_NEXT(client->videoFrames(), videoFrame(50'000, 1));
    CO_EXPECT_NEXT(client->audioPackets(), AudioPacket{.ptsMicros = 10, .data = Data(200, 3)});
    client->close();
  });
}

// A client that opens streams the host does not expect, or sends more than small handshake
// messages before it authenticated, is refused; the listener serves on.
TEST(QUICConnection, BeforeAuthenticationTheHostTakesOnlyItsStreamsAndSmallHandshakeMessages) {
  runAsync([](asio::io_context& io) -> asio::awaitable<void> {
    Loopback loopback(io.get_executor());
    const std::vector<std::pair<std::vector<Data>, std::string>> streams = {
        {{{1}, {2}, {3}, {4}, {0}}, "bad stream preamble"},
        {{{1}, {2}, {3}, {4}, {6}}, "bad stream preamble"},
        {{{1}, {2}, {3}, {3}}, "duplicate video stream"},
    };
    for (const auto& [openings, text] : streams) {
      const auto client = loopback.dial(openings);
      CO_EXPECT_EQ(finalState(*client), ConnectionState::failed("closed by peer: " + text));
      // Four good streams make the host ready before it reads a bad fifth.
      while (auto host = co_await nextWithin(loopback.listener->connections(), 50ms))
        CO_EXPECT_EQ(finalState(**host), ConnectionState::failed(text));
    }

    // Without the transfer stream the host is ready, and a transfer is refused, not waited for.
    const auto partial = loopback.dial({{1}, {2}, {3}, {4}});
    const auto partialHost = co_await loopback.accepted();
    partialHost->send(msg::ping{1});
    CO_EXPECT_NEXT(partial->messages(), Message(msg::ping{1}));
    CO_EXPECT_EQ(partialHost->sendTransfer(chunk(10, 0)), false);
    partial->close();

    // A stranger's ping is dropped and an unknown message costs only itself, while its handshake
    // message is taken; after the proof verified the same connection carries anything.
    const Message reveal = msg::pairReveal{Data(32, 5)};
    const Data unknown = {0, 0, 0, 3, 200, 1, 2};  // length 3: type 200 and two bytes
    const auto client = loopback.dialSending(concat(
        {WireCodec::encodeMessage(msg::ping{1}), unknown, WireCodec::encodeMessage(reveal)}));
    const auto host = co_await loopback.accepted();
    CO_EXPECT_NEXT(host->messages(), reveal);
    host->liftHandshakeLimits();
    CO_EXPECT_EQ(client->sendTransfer(chunk(400'000, 0)), true);
    CO_EXPECT_NEXT(host->messages(), Message(chunk(400'000, 0)));
    client->close();

    // Before authentication a frame above a few KiB, or any length above 64 MiB, is fatal.
    for (const Data& bytes : {WireCodec::encodeMessage(chunk(5000, 0)), Data{4, 0, 0, 1, 13}}) {
      const auto stranger = loopback.dialSending(bytes);
      const auto state = co_await finalState(*stranger);
      EXPECT_THAT(state.failure, testing::StartsWith("closed by peer: protocol error: "));
    }
  });
}

// Video and transfers in flight are bounded, but a large one still goes; a clean close on either
// end delivers what was sent before it and is a close on the other.
TEST(QUICConnection, SendsInFlightAreBoundedAndACleanCloseDeliversWhatWasSentBeforeIt) {
  runAsync([](asio::io_context& io) -> asio::awaitable<void> {
    Loopback loopback(io.get_executor());
    const auto [client, host] = co_await loopback.connected();
    const auto keyFrame = videoFrame(3 << 20, 1);
    EXPECT_TRUE(host->sendVideo(keyFrame));
    EXPECT_FALSE(host->sendVideo(videoFrame(1000, 2)));  // over the byte limit until it is out
    CO_ASSERT_TRUE(co_await pollUntil([&] { return host->sendVideo(videoFrame(1000, 2)); }));
    CO_EXPECT_NEXT(client->videoFrames(), keyFrame);
    CO_EXPECT_NEXT(client->videoFrames(), videoFrame(1000, 2));
    int taken = 0;  // three frames in flight at most, whatever their size
    for (int i = 0; i < 4; ++i) taken += host->sendVideo(videoFrame(100, 3));
    EXPECT_EQ(taken, 3);

    // The transfer budget admits any message when idle and makes the next wait its turn.
    CO_EXPECT_EQ(client->sendTransfer(chunk(400'000, 0)), true);  // above the budget
    CO_EXPECT_EQ(client->sendTransfer(chunk(200'000, 400'000)), true);
    CO_EXPECT_NEXT(host->messages(), Message(chunk(400'000, 0)));
    CO_EXPECT_NEXT(host->messages(), Message(chunk(200'000, 400'000)));

    // A host that reads nothing holds the transfer back at its window, so what it keeps does not
    // grow with what is sent; once it reads, everything comes, in order.
    constexpr int kChunks = 400;  // 25 MiB, beyond every window
    int admitted = 0;
    const auto sendAll = [&admitted, client = client]() -> asio::awaitable<void> {
      for (int i = 0; i < kChunks; ++i) {
        const Message message = chunk(65536, i * 65536ull);
        if (!co_await client->sendTransfer(message)) co_return;
        ++admitted;
      }
    };
    asio::co_spawn(io, sendAll, asio::detached);
    asio::steady_timer settle(io, 1s);
    co_await settle.async_wait(asio::use_awaitable);
    EXPECT_LT(admitted, 120);
    for (int i = 0; i < kChunks; ++i) {
      CO_EXPECT_NEXT(host->messages(), Message(chunk(65536, i * 65536ull)));
    }
    EXPECT_EQ(admitted, kChunks);

    // What was sent before a clean close arrives whole, however long it takes to leave.
    for (const bool clientCloses : {true, false}) {
      const auto ends = co_await loopback.connected();
      Connection& closing = clientCloses ? static_cast<Connection&>(*ends.first) : *ends.second;
      Connection& other = clientCloses ? *ends.second : static_cast<Connection&>(*ends.first);
      constexpr int kLastWords = 64;
      for (int i = 0; i < kLastWords; ++i) closing.send(msg::authChallenge{Data(1 << 20, 7)});
      closing.close();
      closing.close();
      CO_EXPECT_EQ(closing.sendTransfer(chunk(10, 0)), false);
      int closes = 0;
      while (auto state = co_await nextWithin(closing.states(), 5s))
        closes += *state == ConnectionState::closed();
      EXPECT_EQ(closes, 1);
      int heard = 0;
      while (co_await nextWithin(other.messages(), 5s)) ++heard;
      EXPECT_EQ(heard, kLastWords);
      CO_EXPECT_EQ(finalState(other), ConnectionState::closed());
      EXPECT_FALSE(other.sendVideo(videoFrame(10, 1)));
    }
  });
}

// The descriptor of this process's IP socket bound to `port` (it has UDP sockets alone), or -1.
int descriptorBoundTo(std::uint16_t port) {
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    const int fd = std::stoi(entry.path().filename().string());
    sockaddr_in6 address{};  // an IPv4 address's family and port are at the same places
    socklen_t length = sizeof address;
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0 &&
        (address.sin6_family == AF_INET || address.sin6_family == AF_INET6) &&
        ntohs(address.sin6_port) == port)
      return fd;
  }
  return -1;
}

// A supervisor starts a listener again on its port: the old one's connections go on, new ones reach
// the new one. A listener whose socket cannot be read (a pipe put under its descriptor fails the
// next read as a broken socket would) fails, and its stream of connections ends.
TEST(QUICConnection, AListenerStartedAgainKeepsTheOldConnectionsAndOneThatCannotReadFails) {
  runAsync([](asio::io_context& io) -> asio::awaitable<void> {
    Loopback loopback(io.get_executor());
    const auto [client, host] = co_await loopback.connected();
    loopback.listener->stop();
    loopback.listener = loopback.listen(loopback.endpoint.port(), {});
    const auto [second, secondHost] = co_await loopback.connected();
    client->send(msg::ping{1});
    second->send(msg::ping{2});
    CO_EXPECT_NEXT(host->messages(), Message(msg::ping{1}));
    CO_EXPECT_NEXT(secondHost->messages(), Message(msg::ping{2}));
    client->close();
    second->close();

    Loopback broken(io.get_executor());
    const int socket = descriptorBoundTo(broken.endpoint.port());
    CO_ASSERT_TRUE(socket >= 0);
    const int kept = ::dup(socket);  // keeps the socket itself, and its readiness, alive
    int pipe[2];
    CO_ASSERT_TRUE(::pipe(pipe) == 0 && ::dup2(pipe[0], socket) == socket);
    asio::ip::udp::socket raw(io, asio::ip::udp::v4());
    raw.send_to(asio::buffer(Data{0xc0, 1, 2}), broken.endpoint);  // wakes the reader
    CO_EXPECT_NEXT(broken.listener->connections(), std::nullopt);
    EXPECT_TRUE(broken.listener->connections().isFinished());
    for (const int fd : {kept, pipe[0], pipe[1]}) ::close(fd);
  });
}

// A signature over another session's secret is worth nothing on this one: a device the host
// knows signs in through the client's handshake, and is denied when it signs a foreign exporter.
TEST(QUICConnection, AuthenticationIsBoundToTheTLSSessionOfTheConnection) {
  runAsync([](asio::io_context& io) -> asio::awaitable<void> {
    Loopback loopback(io.get_executor());
    const Data fingerprint = loopback.identity.fingerprint();
    const auto store = std::make_shared<PairedDeviceStore>(std::nullopt);
    const auto service = std::make_shared<HostPairingService>(
        AuthCrypto::randomUUID(), "studio", fingerprint, store, nullptr, WallClock::now);
    const ClientIdentity device{AuthCrypto::randomUUID(), P256PrivateKey::generate()};
    store->add({device.deviceID, "iPad", device.privateKey.publicKey(), WallClock::now(), {}});
    for (const bool honest : {true, false}) {
      const auto [client, host] = co_await loopback.connected();
      const auto gate = HostAuthGate::make(io.get_executor(), host, service, {}, nullptr);
      asio::co_spawn(
          io,
          [](auto g, auto h) -> asio::awaitable<void> {
            co_await g->start();
            while (auto message = co_await h->messages().next()) co_await g->handle(*message);
          }(gate, host),
          asio::detached);
      if (honest) {
        const std::function<std::optional<Data>()> pinned = [fingerprint] { return fingerprint; };
        const auto event = co_await ClientHandshake::run(
            client, device, ClientHandshake::Purpose::authenticate(), "iPad", pinned, 5s, nullptr);
        EXPECT_EQ(event.kind, ClientHandshake::Event::Kind::authenticated);
      } else {
        const auto challenge = co_await nextWithin(client->messages(), 5s);
        const auto nonce = std::get<msg::authChallenge>(challenge.value()).nonce;
        const auto signature = AuthCrypto::signChallenge(nonce, fingerprint, device.deviceID,
                                                         Data(32, 9), device.privateKey);
        client->send(msg::authResponse{device.deviceID, device.privateKey.publicKey(), signature});
        CO_EXPECT_NEXT(client->messages(), Message(msg::authResult{AuthResult::denied}));
      }
      client->close();
      co_await finalState(*host);
    }
  });
}

auto openDescriptors() {
  return std::ranges::distance(std::filesystem::directory_iterator("/proc/self/fd"));
}

// The first Initial packets of `count` clients, caught on our socket by destination connection
// ID (one may send twice): replayed to the host, they are clients that never say another word.
asio::awaitable<std::map<std::string, Data>> firstPacketsOfClients(asio::io_context& io,
                                                                   std::size_t count) {
  asio::ip::udp::socket catcher(io, {asio::ip::make_address("127.0.0.1"), 0});
  std::vector<std::shared_ptr<QUICConnection>> clients;
  std::map<std::string, Data> initials;
  while (initials.size() < count) {
    clients.push_back(
        QUICConnection::dial(io.get_executor(), catcher.local_endpoint(), ServerTrust::unpinned()));
    Data datagram(2048);
    datagram.resize(co_await catcher.async_receive(asio::buffer(datagram), asio::use_awaitable));
    ngtcp2_version_cid header;
    if (ngtcp2_pkt_decode_version_cid(&header, datagram.data(), datagram.size(), 16) == 0)
      initials.emplace(std::string(header.dcid, header.dcid + header.dcidlen), datagram);
  }
  co_return initials;
}

TEST(QUICConnection, AbandonedHandshakesAndGarbageLeaveNothingBehind) {
  runAsync(
      [](asio::io_context& io) -> asio::awaitable<void> {
        const auto abandoned = co_await firstPacketsOfClients(io, 200);
        co_await sleepFor(100ms);  // the catching clients' sockets close
        const auto before = openDescriptors();
        {
          Loopback loopback(io.get_executor(), {.handshakeTimeout = 500ms});
          asio::ip::udp::socket raw(io, asio::ip::udp::v4());
          // Junk of many sizes, each byte of which looks like the start of a long header.
          for (std::size_t size : {0, 1, 7, 40, 1200, 1350, 1400})
            raw.send_to(asio::buffer(Data(size, 0xc0)), loopback.endpoint);
          for (const auto& [id, initial] : abandoned)
            raw.send_to(asio::buffer(initial), loopback.endpoint);
          co_await sleepFor(1s);  // every half-open connection times out on the host

          const auto [client, host] = co_await loopback.connected();
          client->send(msg::ping{1});
          CO_EXPECT_NEXT(host->messages(), Message(msg::ping{1}));
          EXPECT_EQ(loopback.listener->connections().count(), 0u);
          client->close();
          co_await finalState(*host);
        }
        co_await sleepFor(200ms);  // the last sockets close on their executors
        EXPECT_EQ(openDescriptors(), before);
      },
      30s);
}

}  // namespace
}  // namespace kelvaron
