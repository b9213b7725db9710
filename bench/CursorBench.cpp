// What publishing the cursor costs the host and how soon a client hears of its own move: a session
// on a real Xvfb (started here), with the host's XTest injector and XFixes cursor source, talking
// to an in-process client that asked for no video.
//  - Idle: the CPU time of this process while the pointer stands still for SECONDS (the position
//    round at 60 Hz and the shape round at 30 Hz, nothing to send), as a share of one core. The X
//    server's own work for the rounds is not counted.
//  - Moves: an absolute move every 10 ms for SECONDS; each delay from the send of a `pointer` to
//    the first `cursorState` that includes it (carries its sequence number or a later one).
//    Prints p50, p99 and the largest.
//
//   cursor_bench [SECONDS]

#include <sys/resource.h>

#include <algorithm>
#include <asio/co_spawn.hpp>
#include <asio/detached.hpp>
#include <asio/io_context.hpp>
#include <asio/thread_pool.hpp>
#include <cstdio>
#include <iostream>
#include <map>
#include <thread>

#include "host/input/XTestInjector.hpp"
#include "host/session/HostSession.hpp"
#include "host/video/LibavEncoderFactory.hpp"
#include "host/video/RandrDisplayManager.hpp"
#include "host/video/XFixesCursorSource.hpp"
#include "kit/transport/InMemoryConnection.hpp"
#include "tests/support/VirtualDisplay.hpp"

namespace kelvaron::host {
namespace {

using Clock = std::chrono::steady_clock;

struct NoPower : PowerManaging {
  std::optional<std::uint32_t> takeDisplayAssertion(const std::string&) override { return 1; }
  void releaseAssertion(std::uint32_t) override {}
  void stopAllAssertions() override {}
  void declareUserActivity() override {}
};

double cpuSeconds() {
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval& t) { return double(t.tv_sec) + double(t.tv_usec) / 1e6; };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

double percentile(std::vector<double> values, double p) {
  std::ranges::sort(values);
  return values[std::min(values.size() - 1, std::size_t(p * double(values.size())))];
}

// Sends a move every 10 ms and notes when each sequence number came back in a `cursorState`.
asio::awaitable<void> client(std::shared_ptr<Connection> connection, double seconds,
                             std::map<std::uint32_t, Clock::time_point>& sent,
                             std::map<std::uint32_t, Clock::time_point>& echoed, double& idleCore) {
  connection->send(msg::setVideoEnabled{false});
  connection->send(msg::hello{kProtocolVersion,
                              UUID{{1}},
                              "bench",
                              {{CodecProfile::hevcMain}, 1920, 1080, 2, "bench", false}});
  asio::co_spawn(
      co_await asio::this_coro::executor,
      [connection, &echoed]() -> asio::awaitable<void> {
        while (const auto message = co_await connection->messages().next()) {
          if (const auto* state = std::get_if<msg::cursorState>(&*message))
            echoed.try_emplace(state->seq, Clock::now());
        }
      },
      asio::detached);
  co_await sleepFor(std::chrono::seconds(1));  // the session is up and the pointer settled
  const double before = cpuSeconds();
  co_await sleepFor(std::chrono::duration<double>(seconds));
  idleCore = (cpuSeconds() - before) / seconds;
  const int moves = int(seconds * 100);
  for (int i = 1; i <= moves; ++i) {
    const float x = 0.1f + 0.8f * float(i % 400) / 400;
    sent[std::uint32_t(i)] = Clock::now();
    connection->send(msg::pointer{std::uint32_t(i), pointer::moveAbsolute{1, x, 0.5f}});
    co_await sleepFor(std::chrono::milliseconds(10));
  }
  co_await sleepFor(std::chrono::milliseconds(200));
  connection->close();
}

int measure(double seconds) {
  test::VirtualDisplay x(1920, 1080);
  if (!x.available()) {
    std::cerr << "cursor_bench: " << x.skipReason() << "\n";
    return 1;
  }
  asio::io_context io;
  asio::thread_pool pool(2);
  auto [clientEnd, hostEnd] = InMemoryConnection::makePair();
  HostEnvironment env{
      .hostName = "bench",
      .displays = std::make_shared<RandrDisplayManager>(pool.get_executor(), x.name()),
      .encoders = std::make_shared<LibavEncoderFactory>(),
      .injector = std::make_shared<XTestInjector>(x.name()),
      .power = std::make_shared<NoPower>()};
  env.cursorSource = std::make_shared<XFixesCursorSource>(pool.get_executor(), x.name());
  const auto session = HostSession::make(io.get_executor(), hostEnd, env, nullptr, Data{1}, {});
  asio::co_spawn(io, session->run(), asio::detached);
  std::map<std::uint32_t, Clock::time_point> sent, echoed;
  double idleCore = 0;
  asio::co_spawn(io, client(clientEnd, seconds, sent, echoed, idleCore), asio::detached);
  io.run();
  std::vector<double> delays;
  // A move held back by the input interval comes back with a later one's sequence number.
  for (const auto& [seq, at] : sent) {
    if (const auto back = echoed.lower_bound(seq); back != echoed.end())
      delays.push_back(std::chrono::duration<double, std::milli>(back->second - at).count());
  }
  std::printf("idle: %.2f %% of a core\n", idleCore * 100);
  if (delays.empty()) {
    std::cerr << "cursor_bench: no move came back\n";
    return 1;
  }
  std::printf("%zu of %zu moves came back: p50 %.2f ms, p99 %.2f ms, max %.2f ms\n", delays.size(),
              sent.size(), percentile(delays, 0.5), percentile(delays, 0.99),
              *std::ranges::max_element(delays));
  return 0;
}

}  // namespace
}  // namespace kelvaron::host

int main(int argc, char** argv) {
  return kelvaron::host::measure(argc > 1 ? std::stod(argv[1]) : 10);
}
