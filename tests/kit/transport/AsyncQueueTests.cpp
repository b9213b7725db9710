#include "kit/transport/AsyncQueue.hpp"

#include <gtest/gtest.h>

#include <asio/strand.hpp>
#include <asio/thread_pool.hpp>
#include <thread>

#include "kit/async/Task.hpp"
#include "tests/support/AsyncTest.hpp"

namespace kelvaron {
namespace {

using namespace test;

TEST(AsyncQueue, AReaderGetsEveryItemThenTheEndAndATimeoutOrCancellationLosesNothing) {
  runAsync([](asio::io_context& io) -> asio::awaitable<void> {
    AsyncQueue<int> queue;
    EXPECT_EQ(co_await nextWithin(queue, 20ms), std::nullopt);  // read cancelled by the timeout
    asio::steady_timer later(io, 20ms);
    later.async_wait([&](auto) { queue.push(7); });
    EXPECT_EQ(co_await queue.next(), 7);  // a waiting reader is resumed by a push
    queue.push(1);
    EXPECT_EQ(queue.count(), 1u);  // no stale waiter took it
    queue.push(2);
    queue.finish();
    queue.push(3);  // dropped: the queue has ended
    EXPECT_EQ(co_await queue.next(), 1);
    EXPECT_EQ(co_await queue.next(), 2);
    EXPECT_EQ(co_await queue.next(), std::nullopt);
    EXPECT_EQ(co_await queue.next(), std::nullopt);
    AsyncQueue<int> ending;
    asio::steady_timer end(io, 20ms);
    end.async_wait([&](auto) { ending.finish(); });
    EXPECT_EQ(co_await ending.next(), std::nullopt);  // and by finish

    // A reader cancelled before it asks does not wait.
    AsyncQueue<int> idle;
    auto answered = std::make_shared<std::optional<std::optional<int>>>();
    const Task reader =
        Task::spawn(io.get_executor(), [](AsyncQueue<int>& q, auto out) -> asio::awaitable<void> {
          co_await sleepFor(std::chrono::hours(1));  // cancelled here, before it reads
          *out = co_await q.next();
        }(idle, answered));
    co_await sleepFor(10ms);
    reader.cancel();
    co_await sleepFor(10ms);
    EXPECT_TRUE(answered->has_value());   // it answered,
    EXPECT_FALSE(answered->value_or(7));  // and with nothing
  });
}

// Every item reaches the reader, also one that keeps timing out while pushes race its timeouts.
TEST(AsyncQueue, PushesFromOtherThreadsReachAReaderOnAStrand) {
  for (const auto wait : {std::chrono::microseconds(0), std::chrono::microseconds(20)}) {
    SCOPED_TRACE(wait.count());
    asio::thread_pool pool(2);
    AsyncQueue<int> queue;
    std::atomic<long> sum = 0;
    Task::spawn(makeStrand(pool.get_executor()),
                [](AsyncQueue<int>& q, std::atomic<long>& total,
                   std::chrono::microseconds within) -> asio::awaitable<void> {
                  for (;;) {
                    const auto item =
                        within.count() ? co_await nextWithin(q, within) : co_await q.next();
                    if (item) {
                      total += *item;
                    } else if (q.isFinished() && q.count() == 0) {
                      co_return;
                    }
                  }
                }(queue, sum, wait));
    std::vector<std::thread> pushers;
    for (int t = 0; t < 4; ++t) {
      pushers.emplace_back([&queue] {
        for (int i = 1; i <= 10000; ++i) {
          queue.push(i);
          if (i % 16 == 0) std::this_thread::yield();  // lets the reader find the queue empty
        }
      });
    }
    for (auto& p : pushers) p.join();
    queue.finish();
    pool.join();
    EXPECT_EQ(sum, 4L * 10000 * 10001 / 2);
  }
}

}  // namespace
}  // namespace kelvaron
