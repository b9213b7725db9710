// What publishing the cursor costs the host and how soon a client hears of its own move: a session
// on a real Xvfb (started here), with the host's XTest injector and XFixes cursor source, talking
// to an in-process client that asked for no video.
//  - Idle: the CPU time of this process while the pointer stands still for SECONDS (the position
//    round at 60 Hz and the shape round at 30 Hz, nothing to send), as a share of one core. The X
//    server's own work for the rounds is not counted.
//  - The client's moves: an absolute move every 10 ms for SECONDS; each delay from the send of a
//    `pointer` to the first `cursorState` that includes it (carries its sequence number or a
//    later one).
//  - Somebody else's moves: another X client warps the pointer every 50 ms for SECONDS; each delay
//    from the warp to the `cursorState` at that place. The position round comes every 1/60 s.
//  Prints p50, p99 and the largest delay of each.
//
//   cursor_bench [SECONDS]

#include <sys/resource.h>
#include <xcb/xcb.h>

#include <algorithm>
#include <asio/co_spawn.hpp>
#include <asio/detached.hpp>
#include <asio/io_context.hpp>
#include <asio/thread_pool.hpp>
#include <cmath>
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

struct Results {
  std::uint32_t display = 0;  // the one the moves are made on, from the display list
  double idleCore = 0;
  std::map<std::uint32_t, Clock::time_point> sent, echoed;  // by sequence number
  std::map<int, Clock::time_point> warped, seen;            // by x in pixels
};

// The three phases, as a client of the session and, for the warps, of the X server.
asio::awaitable<void> client(std::shared_ptr<Connection> connection, std::string display,
                             double seconds, Results& results) {
  connection->send(msg::setVideoEnabled{false});
  connection->send(msg::hello{kProtocolVersion,
                              UUID{{1}},
                              "bench",
                              {{CodecProfile::hevcMain}, 1920, 1080, 2, "bench", false}});
  // Named first: GCC 12 destroys a lambda twice in a full-expression with a co_await.
  const auto executor = co_await asio::this_coro::executor;
  asio::co_spawn(
      executor,
      [connection, &results]() -> asio::awaitable<void> {
        while (const auto message = co_await connection->messages().next()) {
          if (const auto* list = std::get_if<msg::displayList>(&*message)) {
            if (!list->displays.empty()) results.display = list->displays.front().id;
          }
          const auto* state = std::get_if<msg::cursorState>(&*message);
          if (!state) continue;
          results.echoed.try_emplace(state->seq, Clock::now());
          results.seen.try_emplace(int(std::lround(state->x * 1920)), Clock::now());
        }
      },
      asio::detached);
  co_await sleepFor(std::chrono::seconds(1));  // the session is up and the pointer settled
  const double before = cpuSeconds();
  co_await sleepFor(std::chrono::duration<double>(seconds));
  results.idleCore = (cpuSeconds() - before) / seconds;

  const int moves = int(seconds * 100);
  for (int i = 1; i <= moves; ++i) {
    const float x = 0.1f + 0.8f * float(i % 400) / 400;
    results.sent[std::uint32_t(i)] = Clock::now();
    connection->send(
        msg::pointer{std::uint32_t(i), pointer::moveAbsolute{results.display, x, 0.5f}});
    co_await sleepFor(std::chrono::milliseconds(10));
  }

  xcb_connection_t* other = xcb_connect(display.c_str(), nullptr);
  const xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(other)).data->root;
  results.seen.clear();
  for (int i = 0; i < int(seconds * 20); ++i) {
    const int x = 100 + 3 * i;
    xcb_warp_pointer(other, XCB_NONE, root, 0, 0, 0, 0, std::int16_t(x), 700);
    xcb_flush(other);
    results.warped[x] = Clock::now();
    co_await sleepFor(std::chrono::milliseconds(50));
  }
  xcb_disconnect(other);
  co_await sleepFor(std::chrono::milliseconds(200));
  connection->close();
}

// The delays from each send to its arrival, in milliseconds; with `orLater`, the first arrival
// at that key or a later one counts.
template <class Key>
std::vector<double> delays(const std::map<Key, Clock::time_point>& sent,
                           const std::map<Key, Clock::time_point>& arrived, bool orLater) {
  std::vector<double> all;
  for (const auto& [key, at] : sent) {
    const auto back = orLater ? arrived.lower_bound(key) : arrived.find(key);
    if (back != arrived.end())
      all.push_back(std::chrono::duration<double, std::milli>(back->second - at).count());
  }
  return all;
}

void print(const char* what, std::vector<double> all, std::size_t of) {
  if (all.empty()) return (void)std::printf("%s: none of %zu came back\n", what, of);
  std::printf("%s: %zu of %zu came back: p50 %.2f ms, p99 %.2f ms, max %.2f ms\n", what, all.size(),
              of, percentile(all, 0.5), percentile(all, 0.99), *std::ranges::max_element(all));
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
  Results results;
  asio::co_spawn(io, client(clientEnd, x.name(), seconds, results), asio::detached);
  io.run();
  std::printf("idle: %.2f %% of a core\n", results.idleCore * 100);
  // A move held back by the input interval comes back with a later one's sequence number.
  print("the client's moves", delays(results.sent, results.echoed, true), results.sent.size());
  print("somebody else's moves", delays(results.warped, results.seen, false),
        results.warped.size());
  return 0;
}

}  // namespace
}  // namespace kelvaron::host

int main(int argc, char** argv) {
  return kelvaron::host::measure(argc > 1 ? std::stod(argv[1]) : 10);
}
