// QUIC over the loopback interface, host and client each on a thread of its own: how much video
// one connection carries with the in-flight limits in force, and how long input and control
// messages take while video fills the connection.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <asio/co_spawn.hpp>
#include <asio/detached.hpp>
#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/use_future.hpp>
#include <atomic>
#include <future>
#include <thread>
#include <vector>

#include "kit/transport/QUICConnection.hpp"
#include "kit/transport/QUICHostListener.hpp"
#include "kit/transport/SelfSignedIdentity.hpp"

namespace kelvaron {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// An io_context running on a thread of its own until destroyed.
class Loop {
 public:
  Loop() : work_(io_.get_executor()), thread_([this] { io_.run(); }) {}
  ~Loop() {
    work_.reset();
    io_.stop();
    thread_.join();
  }
  Executor executor() { return io_.get_executor(); }

  template <class T>
  T run(asio::awaitable<T> body) {
    return asio::co_spawn(io_, std::move(body), asio::use_future).get();
  }

 private:
  asio::io_context io_;
  asio::executor_work_guard<asio::io_context::executor_type> work_;
  std::thread thread_;
};

// A host and a client connected over the loopback interface.
struct Session {
  Loop hostLoop, clientLoop;
  SelfSignedIdentity identity = SelfSignedIdentity::temporary("Bench Host");
  std::shared_ptr<QUICHostListener> listener;
  std::shared_ptr<Connection> host;
  std::shared_ptr<QUICConnection> client;

  Session() {
    listener = QUICHostListener::make(hostLoop.executor(), identity,
                                      {.hostName = "bench", .advertise = false});
    const asio::ip::udp::endpoint endpoint{asio::ip::make_address("127.0.0.1"), listener->port()};
    const Executor executor = clientLoop.executor();
    const ServerTrust trust = ServerTrust::pinned(identity.fingerprint());
    client = clientLoop.run(QUICConnection::connect(executor, endpoint, trust));
    host = hostLoop.run(
        [](std::shared_ptr<QUICHostListener> l) -> asio::awaitable<std::shared_ptr<Connection>> {
          auto accepted = co_await l->connections().next();
          co_return accepted.value();
        }(listener));
  }
  ~Session() {
    client->close();
    std::this_thread::sleep_for(200ms);  // the close leaves, the peer hears it
  }
};

VideoFrame frameOf(std::size_t size, std::uint64_t number) {
  VideoFrame frame;
  frame.frameNumber = number;
  frame.width = 1920;
  frame.height = 1080;
  frame.payload = Data(size, static_cast<std::uint8_t>(number));
  return frame;
}

// Offers frames as fast as the connection takes them; a refused frame is offered again a little
// later, as a capture pipeline would offer its next one.
asio::awaitable<void> saturateVideo(std::shared_ptr<Connection> host, std::size_t size,
                                    std::atomic<bool>& running) {
  asio::steady_timer timer(co_await asio::this_coro::executor);
  std::uint64_t number = 0;
  const VideoFrame frame = frameOf(size, 0);
  while (running) {
    if (!host->sendVideo(frame)) {
      timer.expires_after(100us);
      co_await timer.async_wait(asio::use_awaitable);
    } else {
      ++number;
    }
  }
}

asio::awaitable<std::size_t> receiveFrames(std::shared_ptr<QUICConnection> client, int count) {
  std::size_t bytes = 0;
  for (int i = 0; i < count; ++i) {
    const auto frame = co_await client->videoFrames().next();
    if (!frame) break;
    bytes += frame->payload.size();
  }
  co_return bytes;
}

void BM_VideoThroughput(benchmark::State& state) {
  const auto size = static_cast<std::size_t>(state.range(0));
  Session session;
  std::atomic<bool> running = true;
  asio::co_spawn(session.hostLoop.executor(), saturateVideo(session.host, size, running),
                 asio::detached);
  constexpr int kFramesPerIteration = 50;
  std::size_t bytes = 0;
  for (auto _ : state) {
    bytes += session.clientLoop.run(receiveFrames(session.client, kFramesPerIteration));
  }
  running = false;
  state.SetBytesProcessed(static_cast<std::int64_t>(bytes));
  state.counters["frames/s"] = benchmark::Counter(
      static_cast<double>(state.iterations() * kFramesPerIteration), benchmark::Counter::kIsRate);
  state.counters["Mbit/s"] =
      benchmark::Counter(static_cast<double>(bytes) * 8 / 1e6, benchmark::Counter::kIsRate);
}
BENCHMARK(BM_VideoThroughput)->Arg(200'000)->Arg(1'000'000)->UseRealTime()->MinTime(3);

double percentile(std::vector<double> values, double p) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  return values[static_cast<std::size_t>(p * static_cast<double>(values.size() - 1))];
}

// Sends one message every millisecond from `from` and times its arrival at `to`; both clocks are
// this process's.
asio::awaitable<void> sendTimed(std::shared_ptr<Connection> from, int count, bool input,
                                std::vector<Clock::time_point>& sent) {
  asio::steady_timer timer(co_await asio::this_coro::executor);
  for (int i = 0; i < count; ++i) {
    sent[static_cast<std::size_t>(i)] = Clock::now();
    if (input) {
      from->send(
          msg::pointer{.seq = static_cast<std::uint32_t>(i), .event = pointer::moveRelative{1, 1}});
    } else {
      from->send(msg::ping{static_cast<std::uint64_t>(i)});
    }
    timer.expires_after(1ms);
    co_await timer.async_wait(asio::use_awaitable);
  }
}

asio::awaitable<std::vector<double>> receiveTimed(std::shared_ptr<Connection> to, int count,
                                                  const std::vector<Clock::time_point>& sent) {
  std::vector<double> latencies;
  while (static_cast<int>(latencies.size()) < count) {
    const auto message = co_await to->messages().next();
    if (!message) break;
    std::size_t index;
    if (const auto* p = std::get_if<msg::pointer>(&*message)) {
      index = p->seq;
    } else if (const auto* ping = std::get_if<msg::ping>(&*message)) {
      index = static_cast<std::size_t>(ping->value);
    } else {
      continue;
    }
    latencies.push_back(
        std::chrono::duration<double, std::micro>(Clock::now() - sent[index]).count());
  }
  co_return latencies;
}

// Arg 0: pointer messages from the client while the host's video fills the other direction.
// Arg 1: control messages from the host, on the same connection and direction as the video.
void BM_MessageLatencyUnderVideo(benchmark::State& state) {
  const bool input = state.range(0) == 0;
  Session session;
  std::atomic<bool> running = true;
  asio::co_spawn(session.hostLoop.executor(), saturateVideo(session.host, 200'000, running),
                 asio::detached);
  // The client reads video as fast as it comes, as a decoder would.
  asio::co_spawn(
      session.clientLoop.executor(),
      [](std::shared_ptr<QUICConnection> client) -> asio::awaitable<void> {
        while (co_await client->videoFrames().next()) {
        }
      }(session.client),
      asio::detached);
  std::shared_ptr<Connection> from =
      input ? std::static_pointer_cast<Connection>(session.client) : session.host;
  std::shared_ptr<Connection> to =
      input ? session.host : std::static_pointer_cast<Connection>(session.client);
  Loop& sender = input ? session.clientLoop : session.hostLoop;
  Loop& receiver = input ? session.hostLoop : session.clientLoop;
  constexpr int kMessages = 500;
  std::vector<double> all;
  for (auto _ : state) {
    std::vector<Clock::time_point> sent(kMessages);
    auto latencies = std::async(std::launch::async,
                                [&] { return receiver.run(receiveTimed(to, kMessages, sent)); });
    sender.run(sendTimed(from, kMessages, input, sent));
    const auto measured = latencies.get();
    all.insert(all.end(), measured.begin(), measured.end());
  }
  running = false;
  state.counters["p50_us"] = percentile(all, 0.50);
  state.counters["p99_us"] = percentile(all, 0.99);
  state.counters["max_us"] = percentile(all, 1.0);
}
BENCHMARK(BM_MessageLatencyUnderVideo)->Arg(0)->Arg(1)->UseRealTime()->Iterations(4);

}  // namespace
}  // namespace kelvaron
