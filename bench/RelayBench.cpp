// tovu-relay's forwarding against the same traffic sent directly, in one run on loopback: the time
// of a round trip (a datagram and its echo), and what arrives of one party's datagrams at the
// other's at rising offered rates. The relay runs as its process; the parties speak
// the relay's datagrams on plain sockets, so that what is measured is the relay, not a tunnel.
//
//   relay_bench [ROUND_TRIPS [DATAGRAMS]]   (defaults 20000 and 200000)

#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <string>
#include <thread>

#include "kit/relay/RelayJoinGrant.hpp"
#include "tests/support/RelayProcess.hpp"
#include "tests/support/TempDirectory.hpp"

namespace kelvaron {
namespace {

using Clock = std::chrono::steady_clock;
using test::RawRelayParty;

constexpr std::size_t kPayload = 1200;  // a QUIC datagram's usual size
constexpr int kBuffer = 4 << 20;        // receive buffers, as a busy relay's host would set them

// Two sockets that send to each other: a direct path between the same two parties.
struct DirectPair {
  int a = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  int b = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  DirectPair() {
    sockaddr_in loopback{};
    loopback.sin_family = AF_INET;
    loopback.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    for (int s : {a, b}) ::bind(s, reinterpret_cast<sockaddr*>(&loopback), sizeof loopback);
    connectTo(a, b);
    connectTo(b, a);
  }
  ~DirectPair() {
    ::close(a);
    ::close(b);
  }
  static void connectTo(int from, int to) {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    ::getsockname(to, reinterpret_cast<sockaddr*>(&address), &size);
    ::connect(from, reinterpret_cast<sockaddr*>(&address), size);
  }
};

// One way between two connected sockets: `to` answers or counts what `from` sends. Through the
// relay the sockets are the parties' and the datagrams are relay frames; directly, the same
// frames go straight across.
struct Path {
  const char* name;
  int from, to;
  Data datagram;  // what `from` sends, and `to` sends back: the same header serves both ways
};

void setReceiveBuffer(int socket) {
  ::setsockopt(socket, SOL_SOCKET, SO_RCVBUF, &kBuffer, sizeof kBuffer);
}

// Round trips, one at a time, `count` of them: their times in microseconds, lost ones left out.
std::vector<double> roundTrips(const Path& path, int count) {
  std::atomic<bool> done = false;
  std::thread echo([&] {
    std::uint8_t buffer[2048];
    while (!done) {
      pollfd ready{path.to, POLLIN, 0};
      if (::poll(&ready, 1, 100) != 1) continue;
      if (::recv(path.to, buffer, sizeof buffer, 0) > 0) {
        ::send(path.to, path.datagram.data(), path.datagram.size(), 0);
      }
    }
  });
  std::vector<double> micros;
  std::uint8_t buffer[2048];
  for (int i = 0; i < count; ++i) {
    const auto start = Clock::now();
    ::send(path.from, path.datagram.data(), path.datagram.size(), 0);
    pollfd ready{path.from, POLLIN, 0};
    if (::poll(&ready, 1, 1000) != 1) continue;
    ::recv(path.from, buffer, sizeof buffer, 0);
    micros.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
  }
  done = true;
  echo.join();
  return micros;
}

double percentile(std::vector<double> values, double p) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  return values[std::size_t(double(values.size() - 1) * p)];
}

struct Flow {
  double megabits;  // payload that arrived, per second of arriving
  double lost;      // share of what was sent
};

// `count` datagrams at `megabits` per second of payload, sent in bursts of 16; the receiver
// counts what comes until 300 ms pass without anything.
Flow send(const Path& path, int count, double megabits) {
  std::atomic<bool> sending = true;
  std::size_t received = 0;
  Clock::time_point first, last;
  std::thread receiver([&] {
    std::uint8_t buffer[2048];
    for (;;) {
      pollfd ready{path.to, POLLIN, 0};
      if (::poll(&ready, 1, 300) != 1) {
        if (!sending) return;
        continue;
      }
      if (::recv(path.to, buffer, sizeof buffer, 0) <= 0) continue;
      last = Clock::now();
      if (received++ == 0) first = last;
    }
  });
  const std::chrono::duration<double> gap(kPayload * 8 / (megabits * 1e6));
  const auto start = Clock::now();
  for (int i = 0; i < count; ++i) {
    if (i % 16 == 0) {
      const auto due = start + std::chrono::duration_cast<Clock::duration>(gap * i);
      while (Clock::now() < due) {
      }
    }
    ::send(path.from, path.datagram.data(), path.datagram.size(), 0);
  }
  sending = false;
  receiver.join();
  const double seconds = std::chrono::duration<double>(last - first).count();
  return {seconds > 0 ? double(received) * kPayload * 8 / seconds / 1e6 : 0,
          1 - double(received) / count};
}

int run(int roundTripCount, int datagramCount) {
  test::TempDirectory folder;
  const test::RelayProcess relay(TOVU_RELAY, folder.path());
  if (relay.port() == 0) {
    std::fprintf(stderr, "tovu-relay did not start\n");
    return 1;
  }
  const P256RelaySigner hostKey(P256PrivateKey::generate()), clientKey(P256PrivateKey::generate());
  RawRelayParty host("127.0.0.1", relay.port()), client("127.0.0.1", relay.port());
  const auto registered =
      host.handshake(RelayPurpose::register_, hostKey, relay.token(hostKey.publicKeyX963()));
  const auto joined = client.handshake(
      RelayPurpose::join, clientKey,
      RelayJoinGrant::issue(clientKey.publicKeyX963(), hostKey, RelayJoinGrant::defaultLifetime,
                            std::chrono::system_clock::now()));
  if (!registered || registered->type != RelayPacketType::registered || !joined ||
      joined->type != RelayPacketType::joined || !host.receive(std::chrono::seconds(1))) {
    std::fprintf(stderr, "the parties did not meet through the relay\n");
    return 1;
  }
  for (int s : {host.socket(), client.socket()}) setReceiveBuffer(s);
  const Data payload(kPayload, 0x5a);
  const Data toHost = encode({RelayPacketType::data, joined->session, joined->peer, payload});
  const DirectPair direct;
  for (int s : {direct.a, direct.b}) setReceiveBuffer(s);
  const Path relayed{"through the relay", client.socket(), host.socket(), toHost};
  const Path straight{"directly", direct.a, direct.b, toHost};

  // Round trips in turns, a tenth of them at a time on each path, so that neither path has the
  // quieter moments of the machine.
  std::vector<double> times[2];
  for (int turn = 0; turn < 10; ++turn) {
    for (int i = 0; i < 2; ++i) {
      const auto some = roundTrips(i == 0 ? straight : relayed, roundTripCount / 10);
      times[i].insert(times[i].end(), some.begin(), some.end());
    }
  }
  std::printf("%d round trips of %zu-byte payloads on each path:\n", roundTripCount, kPayload);
  for (int i = 0; i < 2; ++i) {
    std::printf("  %-18s p50 %6.1f us  p99 %6.1f us  (%zu answered)\n",
                (i == 0 ? straight : relayed).name, percentile(times[i], 0.5),
                percentile(times[i], 0.99), times[i].size());
  }
  // A round trip crosses the relay twice.
  std::printf("  added by the relay, one way: p50 %.1f us  p99 %.1f us\n",
              (percentile(times[1], 0.5) - percentile(times[0], 0.5)) / 2,
              (percentile(times[1], 0.99) - percentile(times[0], 0.99)) / 2);
  std::printf("%d datagrams one way at each offered rate (payload Mbit/s):\n", datagramCount);
  for (const double offered : {500.0, 1000.0, 1500.0, 2000.0, 3000.0}) {
    for (const Path* path : {&straight, &relayed}) {
      const Flow flow = send(*path, datagramCount, offered);
      std::printf("  %5.0f offered  %-18s %6.0f Mbit/s arrived, %5.2f %% lost\n", offered,
                  path->name, flow.megabits, flow.lost * 100);
    }
  }
  return 0;
}

}  // namespace
}  // namespace kelvaron

int main(int argc, char** argv) {
  const int roundTrips = argc > 1 ? std::stoi(argv[1]) : 20'000;
  const int datagrams = argc > 2 ? std::stoi(argv[2]) : 200'000;
  return kelvaron::run(roundTrips, datagrams);
}
