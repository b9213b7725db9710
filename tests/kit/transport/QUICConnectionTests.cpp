// Real QUIC over the loopback interface: our listener and our client, each on its own socket.

#include "kit/transport/QUICConnection.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <asio/detached.hpp>

#include <netinet/in.h>
#include <ngtcp2/ngtcp2.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <map>

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
using Endpoint = asio::ip::udp::endpoint;

// A listener on a free loopback port, with the host's identity.
struct Loopback {
  SelfSignedIdentity identity = SelfSignedIdentity::temporary("Test Host");
  std::shared_ptr<QUICHostListener> listener;
  Endpoint endpoint;

  Executor executor;

  explicit Loopback(const Executor& e, QUICConfiguration configuration = {}) : executor(e) {
    listener = QUICHostListener::make(
        executor, identity,
        {.hostName = "Test Host", .advertise = false, .configuration = configuration});
    endpoint = {asio::ip::make_address("127.0.0.1"), listener->port()};
  }
  ServerTrust trust() const { return ServerTrust::pinned(identity.fingerprint()); }

  // A client connected with the right pin, and the host's end of it, as after authentication.
  asio::awaitable<std::pair<std::shared_ptr<QUICConnection>, std::shared_ptr<Connection>>>
  connected() {
    auto client = co_await QUICConnection::connect(executor, endpoint, trust());
    auto host = co_await accepted();
    host->liftHandshakeLimits();
    co_return std::pair(std::move(client), std::move(host));
  }

  asio::awaitable<std::shared_ptr<Connection>> accepted() {
    auto connection = co_await nextWithin(listener->connections(), 5s);
    if (!connection) throw std::runtime_error("no connection was accepted");
    co_return *connection;
  }
};

// Everything `states` says until it ends.
asio::awaitable<std::vector<ConnectionState>> allStates(Connection& connection) {
  std::vector<ConnectionState> states;
  while (auto state = co_await nextWithin(connection.states(), 5s)) states.push_back(*state);
  co_return states;
}

asio::awaitable<ConnectionState> finalState(Connection& connection) {
  const auto states = co_await allStates(connection);
  co_return states.empty() ? ConnectionState{} : states.back();
}

VideoFrame videoFrame(std::size_t size, std::uint64_t number) {
  VideoFrame frame;
  frame.frameNumber = number;
  frame.width = 1920;
  frame.height = 1080;
  Data payload(size);
  for (std::size_t i = 0; i < size; ++i) payload[i] = static_cast<std::uint8_t>(i * 7 + number);
  frame.payload = std::move(payload);
  return frame;
}

msg::fileChunk chunk(std::size_t size, std::uint64_t offset) {
  return {.transferID = 1, .fileIndex = 0, .offset = offset, .data = Data(size, 0x5a)};
}

Data frameBytes(const Message& message) { return WireCodec::encodeMessage(message); }

TEST(QUICConnection, BothEndsGetReadyWithThePinnedIdentityAndOneExporter) {
  runAsync([](asio::io_context& io) -> asio::awaitable<void> {
    Loopback loopback(io.get_executor());
    const auto client =
        QUICConnection::dial(io.get_executor(), loopback.endpoint, loopback.trust());
    co_await client->waitUntilReady();
    const auto host = co_await loopback.accepted();

    const auto first = co_await client->states().next();
    EXPECT_EQ(first->kind, ConnectionState::Kind::connecting);
    const auto second = co_await client->states().next();
    EXPECT_EQ(second->kind, ConnectionState::Kind::ready);
    EXPECT_EQ(client->peerCertificateFingerprint(), loopback.identity.fingerprint());
    EXPECT_EQ(host->peerCertificateFingerprint(), std::nullopt);
    const auto exporter = client->tlsExporter();
    CO_ASSERT_TRUE(exporter);
    EXPECT_EQ(exporter->size(), 32u);
    EXPECT_EQ(host->tlsExporter(), exporter);

    // Another connection has another secret.
    const auto other = co_await QUICConnection::connect(io.get_executor(), loopback.endpoint,
                                                        ServerTrust::unpinned());
    EXPECT_NE(other->tlsExporter(), exporter);
    EXPECT_EQ(other->peerCertificateFingerprint(), loopback.identity.fingerprint());
    other->close();
    client->close();
    host->close();
  });
}

TEST(QUICConnection, CarriesEveryChannelBothWays) {
  runAsync([](asio::io_context& io) -> asio::awaitable<void> {
    Loopback loopback(io.get_executor());
    const auto [client, host] = co_await loopback.connected();

    client->send(msg::ping{7});
    client->send(msg::pointer{.seq = 3, .event = pointer::moveRelative{1, 2}});
    const bool taken = co_await client->sendTransfer(chunk(1000, 0));
    EXPECT_TRUE(taken);
    std::vector<Message> received;
    for (int i = 0; i < 3; ++i) {
      auto message = co_await nextWithin(host->messages(), 5s);
      CO_ASSERT_TRUE(message);
      received.push_back(std::move(*message));
    }
    // Each channel keeps its own order; across channels there is none.
    EXPECT_THAT(received, testing::UnorderedElementsAre(
                              Message(msg::ping{7}),
                              Message(msg::pointer{.seq = 3, .event = pointer::moveRelative{1, 2}}),
                              Message(chunk(1000, 0))));

    host->send(msg::pong{7});
    EXPECT_TRUE(host->sendVideo(videoFrame(50'000, 1)));
    EXPECT_TRUE(host->sendAudio(AudioPacket{.ptsMicros = 10, .data = Data(200, 3)}));
    const auto pong = co_await nextWithin(client->messages(), 5s);
    EXPECT_EQ(pong, Message(msg::pong{7}));
    const auto frame = co_await nextWithin(client->videoFrames(), 5s);
    EXPECT_EQ(frame, videoFrame(50'000, 1));
    const auto packet = co_await nextWithin(client->audioPackets(), 5s);
    EXPECT_EQ(packet, (AudioPacket{.ptsMicros = 10, .data = Data(200, 3)}));
    client->close();
  });
}

TEST(QUICConnection, AWrongPinEndsInPinMismatchAndTheListenerServesOn) {
  runAsync([](asio::io_context& io) -> asio::awaitable<void> {
    Loopback loopback(io.get_executor());
    const auto client = QUICConnection::dial(io.get_executor(), loopback.endpoint,
                                             ServerTrust::pinned(Data(32, 1)));
    std::optional<QUICError> error;
    try {
      co_await client->waitUntilReady();
    } catch (const QUICError& e) {
      error = e;
    }
    CO_ASSERT_TRUE(error);
    EXPECT_EQ(error->kind(), QUICError::Kind::pinMismatch);
    EXPECT_STREQ(error->what(), "This Mac\u2019s identity changed. Re-pair?");
    const auto state = co_await finalState(*client);
    EXPECT_EQ(state, ConnectionState::failed("pin mismatch"));
    EXPECT_EQ(client->peerCertificateFingerprint(), loopback.identity.fingerprint());

    const auto [good, host] = co_await loopback.connected();
    EXPECT_EQ(loopback.listener->connections().count(), 0u);  // the refused one never came out
    good->close();
  });
}

TEST(QUICConnection, TheHostChecksTheStreamsAClientOpens) {
  runAsync([](asio::io_context& io) -> asio::awaitable<void> {
    Loopback loopback(io.get_executor());
    const std::vector<std::pair<std::vector<Data>, std::string>> cases = {
        {{{1}, {2}, {3}, {4}, {0}}, "bad stream preamble"},
        {{{1}, {2}, {3}, {4}, {6}}, "bad stream preamble"},
        {{{1}, {2}, {3}, {3}}, "duplicate video stream"},
    };
    for (const auto& [openings, text] : cases) {
      const auto client = QUICConnection::dial(io.get_executor(), loopback.endpoint,
                                               loopback.trust(), {}, openings);
      const auto state = co_await finalState(*client);
      EXPECT_EQ(state, ConnectionState::failed("closed by peer: " + text));
      // Four good streams make the host ready before it reads a bad fifth.
      while (auto host = co_await nextWithin(loopback.listener->connections(), 50ms)) {
        const auto hostState = co_await finalState(**host);
        EXPECT_EQ(hostState, ConnectionState::failed(text));
      }
    }

    // Without the transfer stream the host is ready, and a transfer is refused, not waited for.
    const auto client = QUICConnection::dial(io.get_executor(), loopback.endpoint, loopback.trust(),
                                             {}, {{1}, {2}, {3}, {4}});
    const auto host = co_await loopback.accepted();
    host->send(msg::ping{1});
    const auto ping = co_await nextWithin(client->messages(), 5s);
    EXPECT_EQ(ping, Message(msg::ping{1}));
    const bool taken = co_await host->sendTransfer(chunk(10, 0));
    EXPECT_FALSE(taken);
    client->close();
  });
}

TEST(QUICConnection, VideoAndTransfersInFlightAreBoundedButALargeOneStillGoes) {
  runAsync([](asio::io_context& io) -> asio::awaitable<void> {
    Loopback loopback(io.get_executor());
    const auto [client, host] = co_await loopback.connected();

    const auto keyFrame = videoFrame(3 << 20, 1);
    EXPECT_TRUE(host->sendVideo(keyFrame));
    EXPECT_FALSE(host->sendVideo(videoFrame(1000, 2)));  // over the byte limit until it is out
    int refusals = 0;
    while (!host->sendVideo(videoFrame(1000, 2))) {
      ++refusals;
      co_await sleepFor(1ms);
      if (refusals > 5000) throw std::runtime_error("the key frame never left");
    }
    const auto first = co_await nextWithin(client->videoFrames(), 5s);
    EXPECT_TRUE(first == keyFrame);
    const auto second = co_await nextWithin(client->videoFrames(), 5s);
    EXPECT_EQ(second, videoFrame(1000, 2));

    // Three frames in flight at most, whatever their size.
    int taken = 0;
    for (int i = 0; i < 4; ++i) taken += host->sendVideo(videoFrame(100, 3));
    EXPECT_EQ(taken, 3);

    // The transfer budget admits any message when idle and makes the next wait its turn.
    const bool large = co_await client->sendTransfer(chunk(400'000, 0));  // above the budget
    EXPECT_TRUE(large);
    const bool next = co_await client->sendTransfer(chunk(200'000, 400'000));  // waits its turn
    EXPECT_TRUE(next);
    const auto firstChunk = co_await nextWithin(host->messages(), 5s);
    const auto secondChunk = co_await nextWithin(host->messages(), 5s);
    EXPECT_EQ(firstChunk, Message(chunk(400'000, 0)));
    EXPECT_EQ(secondChunk, Message(chunk(200'000, 400'000)));

    client->close();
    const bool afterClose = co_await client->sendTransfer(chunk(10, 0));
    EXPECT_FALSE(afterClose);
  });
}

TEST(QUICConnection, ACleanCloseOnOneEndIsClosedOnTheOther) {
  runAsync([](asio::io_context& io) -> asio::awaitable<void> {
    Loopback loopback(io.get_executor());
    for (const bool clientCloses : {true, false}) {
      const auto [client, host] = co_await loopback.connected();
      Connection& closing = clientCloses ? static_cast<Connection&>(*client) : *host;
      Connection& other = clientCloses ? *host : static_cast<Connection&>(*client);
      // What was sent before the close arrives whole, however long it takes to leave.
      constexpr int kLastWords = 64;
      for (int i = 0; i < kLastWords; ++i) closing.send(msg::authChallenge{Data(1 << 20, 7)});
      closing.close();
      closing.close();
      const auto closingStates = co_await allStates(closing);
      EXPECT_EQ(std::count(closingStates.begin(), closingStates.end(), ConnectionState::closed()),
                1);
      int heard = 0;
      while (co_await nextWithin(other.messages(), 5s)) ++heard;
      EXPECT_EQ(heard, kLastWords);
      const auto state = co_await finalState(other);
      EXPECT_EQ(state, ConnectionState::closed());
      EXPECT_FALSE(other.sendVideo(videoFrame(10, 1)));
    }
  });
}

TEST(QUICConnection, AListenerStartedAgainOnItsPortKeepsTheConnectionsOfTheOldOne) {
  runAsync([](asio::io_context& io) -> asio::awaitable<void> {
    Loopback loopback(io.get_executor());
    {
      // With nothing left of the old one, the port is free again at once.
      Loopback previous(io.get_executor());
      const std::uint16_t port = previous.endpoint.port();
      previous.listener.reset();
      const auto again =
          QUICHostListener::make(io.get_executor(), previous.identity,
                                 {.hostName = "Again", .port = port, .advertise = false});
      EXPECT_EQ(again->port(), port);
    }
    const auto [client, host] = co_await loopback.connected();

    loopback.listener->stop();
    loopback.listener = QUICHostListener::make(
        io.get_executor(), loopback.identity,
        {.hostName = "Test Host", .port = loopback.endpoint.port(), .advertise = false});
    EXPECT_EQ(loopback.listener->port(), loopback.endpoint.port());
    client->send(msg::ping{1});
    const auto ping = co_await nextWithin(host->messages(), 5s);
    EXPECT_EQ(ping, Message(msg::ping{1}));

    const auto [second, secondHost] = co_await loopback.connected();
    second->send(msg::ping{2});
    const auto secondPing = co_await nextWithin(secondHost->messages(), 5s);
    EXPECT_EQ(secondPing, Message(msg::ping{2}));
    client->close();
    second->close();
  });
}

// The descriptor a UDP socket of this process bound to `port` has, or -1.
int descriptorBoundTo(std::uint16_t port) {
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    const int fd = std::stoi(entry.path().filename().string());
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    int type = 0;
    socklen_t typeLength = sizeof type;
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0 ||
        ::getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &typeLength) != 0 || type != SOCK_DGRAM) {
      continue;
    }
    const auto* v6 = reinterpret_cast<const sockaddr_in6*>(&address);
    const auto* v4 = reinterpret_cast<const sockaddr_in*>(&address);
    const std::uint16_t bound = ntohs(address.ss_family == AF_INET6 ? v6->sin6_port : v4->sin_port);
    if (bound == port) return fd;
  }
  return -1;
}

// The listener's descriptor becomes a pipe under it, so that its next read fails as that of a
// broken socket would: the listener fails, and its stream of connections ends for the supervisor.
TEST(QUICConnection, AListenerWhoseSocketCannotBeReadFails) {
  runAsync([](asio::io_context& io) -> asio::awaitable<void> {
    Loopback loopback(io.get_executor());
    const int socket = descriptorBoundTo(loopback.endpoint.port());
    CO_ASSERT_TRUE(socket >= 0);
    const int kept = ::dup(socket);  // keeps the socket itself, and its readiness, alive
    int pipe[2];
    CO_ASSERT_TRUE(::pipe(pipe) == 0 && ::dup2(pipe[0], socket) == socket);
    asio::ip::udp::socket raw(io, asio::ip::udp::v4());
    raw.send_to(asio::buffer(Data{0xc0, 1, 2}), loopback.endpoint);  // wakes the reader
    const auto accepted = co_await nextWithin(loopback.listener->connections(), 5s);
    EXPECT_FALSE(accepted.has_value());
    EXPECT_TRUE(loopback.listener->connections().isFinished());
    for (const int fd : {kept, pipe[0], pipe[1]}) ::close(fd);
  });
}

TEST(QUICConnection, BeforeAuthenticationTheHostTakesOnlySmallHandshakeMessages) {
  runAsync([](asio::io_context& io) -> asio::awaitable<void> {
    Loopback loopback(io.get_executor());
    // A stranger's ping is dropped and its handshake message taken; after the proof verified the
    // same connection carries anything.
    const auto client = QUICConnection::dial(
        io.get_executor(), loopback.endpoint, loopback.trust(), {},
        {concat({Data{1}, frameBytes(msg::ping{1}), frameBytes(msg::pairReveal{Data(32, 5)})}),
         {2},
         {3},
         {4},
         {5}});
    const auto host = co_await loopback.accepted();
    const auto first = co_await nextWithin(host->messages(), 5s);
    EXPECT_EQ(first, Message(msg::pairReveal{Data(32, 5)}));
    host->liftHandshakeLimits();
    const bool taken = co_await client->sendTransfer(chunk(400'000, 0));
    EXPECT_TRUE(taken);
    const auto big = co_await nextWithin(host->messages(), 5s);
    EXPECT_EQ(big, Message(chunk(400'000, 0)));
    client->close();

    // A frame above a few KiB before authentication ends the connection.
    const auto stranger =
        QUICConnection::dial(io.get_executor(), loopback.endpoint, loopback.trust(), {},
                             {concat({Data{1}, frameBytes(chunk(5000, 0))}), {2}, {3}, {4}, {5}});
    const auto state = co_await finalState(*stranger);
    EXPECT_EQ(state.kind, ConnectionState::Kind::failed);
    EXPECT_THAT(state.failure, testing::StartsWith("closed by peer: protocol error: "));

    // An unknown message costs only itself; a length above 64 MiB ends the connection.
    const Data unknown = {0, 0, 0, 3, 200, 1, 2};  // length 3: type 200 and two bytes
    const auto lenient = QUICConnection::dial(
        io.get_executor(), loopback.endpoint, loopback.trust(), {},
        {concat({Data{1}, unknown, frameBytes(msg::pairReveal{Data(32, 5)})}), {2}, {3}, {4}, {5}});
    const auto lenientHost = co_await loopback.accepted();
    const auto reveal = co_await nextWithin(lenientHost->messages(), 5s);
    EXPECT_EQ(reveal, Message(msg::pairReveal{Data(32, 5)}));
    lenient->close();
    const Data oversized = {0x04, 0x00, 0x00, 0x01, 13};
    const auto strict =
        QUICConnection::dial(io.get_executor(), loopback.endpoint, loopback.trust(), {},
                             {concat({Data{1}, oversized}), {2}, {3}, {4}, {5}});
    const auto strictState = co_await finalState(*strict);
    EXPECT_THAT(strictState.failure, testing::StartsWith("closed by peer: protocol error: "));
  });
}

// A signature over another session's secret is worth nothing on this one: a device the host
// knows signs in through the client's handshake, and is denied when it signs a foreign exporter.
TEST(QUICConnection, AuthenticationIsBoundToTheTLSSessionOfTheConnection) {
  runAsync([](asio::io_context& io) -> asio::awaitable<void> {
    Loopback loopback(io.get_executor());
    const Data fingerprint = loopback.identity.fingerprint();
    const auto store = std::make_shared<PairedDeviceStore>(std::nullopt);
    const auto service =
        std::make_shared<HostPairingService>(AuthCrypto::randomUUID(), "studio", fingerprint, store,
                                             nullptr, [] { return WallClock::now(); });
    const ClientIdentity device{AuthCrypto::randomUUID(), P256PrivateKey::generate()};
    store->add({device.deviceID, "iPad", device.privateKey.publicKey(), WallClock::now(), {}});
    for (const bool honest : {true, false}) {
      const auto client =
          co_await QUICConnection::connect(io.get_executor(), loopback.endpoint, loopback.trust());
      const auto host = co_await loopback.accepted();
      const auto gate =
          HostAuthGate::make(io.get_executor(), host, service, AuthTimeouts{}, nullptr);
      asio::co_spawn(
          io,
          [](std::shared_ptr<HostAuthGate> g,
             std::shared_ptr<Connection> h) -> asio::awaitable<void> {
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
        client->send(
            msg::authResponse{device.deviceID, device.privateKey.publicKey(),
                              AuthCrypto::signChallenge(nonce, fingerprint, device.deviceID,
                                                        Data(32, 9), device.privateKey)});
        const auto result = co_await nextWithin(client->messages(), 5s);
        EXPECT_EQ(result, Message(msg::authResult{AuthResult::denied}));
      }
      client->close();
      co_await finalState(*host);
    }
  });
}

std::size_t openDescriptors() {
  return static_cast<std::size_t>(std::distance(
      std::filesystem::directory_iterator("/proc/self/fd"), std::filesystem::directory_iterator()));
}

// The first Initial packets of `count` clients, caught on a socket of our own: replayed to the
// host, they are clients that never say another word.
asio::awaitable<std::vector<Data>> firstPacketsOfClients(asio::io_context& io, std::size_t count) {
  asio::ip::udp::socket catcher(io, {asio::ip::make_address("127.0.0.1"), 0});
  std::vector<std::shared_ptr<QUICConnection>> clients;
  std::map<std::string, Data> initials;  // by destination connection ID: a client may send twice
  while (initials.size() < count) {
    clients.push_back(
        QUICConnection::dial(io.get_executor(), catcher.local_endpoint(), ServerTrust::unpinned()));
    Data datagram(2048);
    Endpoint from;
    datagram.resize(
        co_await catcher.async_receive_from(asio::buffer(datagram), from, asio::use_awaitable));
    ngtcp2_version_cid header;
    if (ngtcp2_pkt_decode_version_cid(&header, datagram.data(), datagram.size(), 16) == 0) {
      initials.emplace(std::string(header.dcid, header.dcid + header.dcidlen), datagram);
    }
  }
  std::vector<Data> packets;
  for (auto& [id, packet] : initials) packets.push_back(std::move(packet));
  co_return packets;
}

TEST(QUICConnection, AbandonedHandshakesAndGarbageLeaveNothingBehind) {
  runAsync(
      [](asio::io_context& io) -> asio::awaitable<void> {
        const auto abandoned = co_await firstPacketsOfClients(io, 200);
        co_await sleepFor(100ms);  // the catching clients' sockets close
        const std::size_t before = openDescriptors();
        {
          Loopback loopback(io.get_executor(), {.handshakeTimeout = 500ms});
          asio::ip::udp::socket raw(io, asio::ip::udp::v4());
          for (std::size_t size : {0, 1, 7, 40, 1200, 1350, 1400}) {
            Data junk(size);
            for (std::size_t i = 0; i < size; ++i) junk[i] = static_cast<std::uint8_t>(i * 31 + 3);
            if (size > 0) junk[0] = 0xc0;  // looks like a long header
            raw.send_to(asio::buffer(junk), loopback.endpoint);
          }
          for (const Data& initial : abandoned)
            raw.send_to(asio::buffer(initial), loopback.endpoint);
          co_await sleepFor(1s);  // every half-open connection times out on the host

          const auto [client, host] = co_await loopback.connected();
          client->send(msg::ping{1});
          const auto ping = co_await nextWithin(host->messages(), 5s);
          EXPECT_EQ(ping, Message(msg::ping{1}));
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
