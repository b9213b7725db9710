// The transport's parts on an io_context: the queue that carries every stream of a connection
// between coroutines and threads, the in-memory pair of connections, and Avahi's loop on a strand.

#include <avahi-common/timeval.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <asio/strand.hpp>
#include <asio/thread_pool.hpp>
#include <deque>
#include <functional>
#include <thread>

#include "kit/async/Task.hpp"
#include "kit/transport/AsioAvahiPoll.hpp"
#include "kit/transport/InMemoryConnection.hpp"
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
    AsyncQueue<std::optional<int>> answers;
    const Task reader =
        Task::spawn(io.get_executor(), [](auto& q, auto& out) -> asio::awaitable<void> {
          co_await sleepFor(std::chrono::hours(1));  // cancelled here, before it reads
          out.push(co_await q.next());
        }(idle, answers));
    co_await sleepFor(10ms);
    reader.cancel();
    EXPECT_EQ(co_await nextWithin(answers, 5s), std::make_optional(std::optional<int>()));
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
                [](auto& q, auto& total, auto within) -> asio::awaitable<void> {
                  for (;;) {
                    const auto item =
                        within.count() ? co_await nextWithin(q, within) : co_await q.next();
                    if (!item && q.isFinished() && q.count() == 0) co_return;
                    total += item.value_or(0);
                  }
                }(queue, sum, wait));
    const auto push = [&queue] {
      for (int i = 1; i <= 10000; ++i) {
        queue.push(i);
        if (i % 16 == 0) std::this_thread::yield();  // lets the reader find the queue empty
      }
    };
    std::vector<std::thread> pushers;
    for (int t = 0; t < 4; ++t) pushers.emplace_back(push);
    for (auto& p : pushers) p.join();
    queue.finish();
    pool.join();
    EXPECT_EQ(sum, 4L * 10000 * 10001 / 2);
  }
}

VideoFrame frame(std::uint64_t number) { return {.frameNumber = number, .payload = Data{1, 2, 3}}; }

// A frame that does not decode fails the receiver only: its owner decides; the pair still works.
TEST(InMemoryConnection, MessagesArriveInSendOrderWhateverTheirChannelAndBadOnesFailTheReceiver) {
  runAsync([](asio::io_context&) -> asio::awaitable<void> {
    auto [a, b] = InMemoryConnection::makePair();
    const std::vector<Message> sent = {
        msg::key{{{4}, true, {}}}, msg::ping{1}, msg::fileChunk{1, 0, 0, {9}}, msg::text{"x"},
        msg::fileEnd{1},           msg::pong{2}};
    a->send(sent[0]);
    a->send(sent[1]);
    EXPECT_TRUE(co_await a->sendTransfer(sent[2]));
    for (std::size_t i = 3; i < sent.size(); ++i) a->send(sent[i]);
    a->send(msg::authResult{static_cast<AuthResult>(9)});  // out of its domain on the wire
    a->send(msg::ping{2});
    for (const Message& expected : sent) EXPECT_EQ(co_await b->messages().next(), expected);
    EXPECT_EQ(co_await b->messages().next(), Message(msg::ping{2}));
    EXPECT_EQ(co_await b->states().next(), ConnectionState::ready());
    EXPECT_EQ(co_await b->states().next(),
              ConnectionState::failed("invalidValue(\"auth result 9\")"));
  });
}

// A pair dropped without close, with frames still queued, is freed.
TEST(InMemoryConnection, VideoInFlightIsWhatTheReaderHasNotTakenAndADroppedPairIsFreed) {
  runAsync([](asio::io_context&) -> asio::awaitable<void> {
    auto [a, b] = InMemoryConnection::makePair();
    for (int i = 0; i < 8; ++i) EXPECT_TRUE(a->sendVideo(frame(i)));
    EXPECT_FALSE(a->sendVideo(frame(8)));
    EXPECT_EQ((co_await b->videoFrames().next())->frameNumber, 0u);
    EXPECT_TRUE(a->sendVideo(frame(9)));
    EXPECT_FALSE(a->sendVideo(frame(10)));
    a->send(msg::ping{1});
    const std::weak_ptr<InMemoryConnection> weakA = a, weakB = b;
    a = b = nullptr;
    EXPECT_TRUE(weakA.expired() && weakB.expired());
  });
}

TEST(InMemoryConnection, CloseEndsBothEndsAndLeavesQueuedFramesReadable) {
  runAsync([](asio::io_context&) -> asio::awaitable<void> {
    auto [a, b] = InMemoryConnection::makePair();
    EXPECT_TRUE(a->sendVideo(frame(1)));
    a->send(msg::ping{1});
    a->close();
    a->close();
    for (auto* end : {a.get(), b.get()}) {
      EXPECT_EQ(co_await end->states().next(), ConnectionState::ready());
      EXPECT_EQ(co_await end->states().next(), ConnectionState::closed());
      EXPECT_EQ(co_await end->states().next(), std::nullopt);
    }
    EXPECT_EQ(co_await b->messages().next(), Message(msg::ping{1}));
    EXPECT_EQ(co_await b->messages().next(), std::nullopt);
    EXPECT_EQ((co_await b->videoFrames().next())->frameNumber, 1u);
    EXPECT_EQ(co_await b->videoFrames().next(), std::nullopt);
    EXPECT_FALSE(co_await b->sendTransfer(msg::fileEnd{1}));
    EXPECT_FALSE(b->sendVideo(frame(2)));
    b->send(msg::ping{2});  // a no-op, not an error
  });
}

// Avahi's poll on a strand, with watches and timeouts that check that they are called on the
// strand, run what the test gives them (with the watch or the timeout) and then log their names.
struct PollCalls {
  using Then = std::function<void(void*)>;
  struct Callee {
    PollCalls& calls;
    std::string name;
    Then then;
    static void called(void* handle, void* self) {
      const auto& callee = *static_cast<Callee*>(self);
      EXPECT_TRUE(callee.calls.strand.running_in_this_thread());
      if (callee.then) callee.then(handle);
      callee.calls.log.push(callee.name);
    }
  };

  explicit PollCalls(asio::io_context& io) : strand(asio::make_strand(io)), poll(strand) {}

  AvahiWatch* watch(std::string name, int fd, Then then = {}) {
    const auto onWatch = [](AvahiWatch* watch, int, AvahiWatchEvent event, void* callee) {
      EXPECT_EQ(event, AVAHI_WATCH_IN);
      EXPECT_EQ(static_cast<Callee*>(callee)->calls.api->watch_get_events(watch), event);
      Callee::called(watch, callee);
    };
    return api->watch_new(api, fd, AVAHI_WATCH_IN, onWatch,
                          &callees.emplace_back(*this, name, then));
  }
  AvahiTimeout* timeout(std::string name, unsigned milliseconds, Then then = {}) {
    const auto onTimeout = [](AvahiTimeout* t, void* callee) { Callee::called(t, callee); };
    timeval when;
    return api->timeout_new(api, avahi_elapse_time(&when, milliseconds, 0), onTimeout,
                            &callees.emplace_back(*this, name, then));
  }

  asio::strand<asio::io_context::executor_type> strand;
  AsioAvahiPoll poll;
  const AvahiPoll* api = poll.api();
  std::deque<Callee> callees;
  AsyncQueue<std::string> log;
};

// A watch is called for as long as data waits, and not after it freed itself from its callback;
// freeing a watch leaves its descriptor open, for D-Bus closes its own. (That D-Bus also watches
// one socket for reading and writing at once is tried by every discovery test.)
TEST(AsioAvahiPoll, WatchesAndTimeoutsAreCalledOnTheStrandForAsLongAsTheyShould) {
  runAsync([](asio::io_context& io) -> asio::awaitable<void> {
    PollCalls calls(io);
    const std::string slow = "slow", once = "once", sentinel = "sentinel";
    int pipe[2];  // whose reader never blocks
    CO_ASSERT_TRUE(::pipe2(pipe, O_NONBLOCK | O_CLOEXEC) == 0);
    EXPECT_EQ(::write(pipe[1], "ab", 2), 2);
    AvahiWatch* reader = calls.watch(slow, pipe[0], [&](void*) {  // one byte per call
      char byte;
      EXPECT_EQ(::read(pipe[0], &byte, 1), 1);
    });
    CO_ASSERT_TRUE(reader != nullptr);
    EXPECT_EQ(co_await nextWithin(calls.log, 5s), slow);
    EXPECT_EQ(co_await nextWithin(calls.log, 5s), slow);  // for the byte left over
    EXPECT_EQ(::write(pipe[1], "c", 1), 1);
    EXPECT_EQ(co_await nextWithin(calls.log, 5s), slow);
    calls.api->watch_free(reader);
    co_await sleepFor(10ms);  // lets the freed watch's handlers run
    EXPECT_NE(::fcntl(pipe[0], F_GETFD), -1);

    // The data stays unread: a live watch would be called again before a later timeout.
    EXPECT_EQ(::write(pipe[1], "unread", 6), 6);
    calls.watch(once, pipe[0],
                [&](void* watch) { calls.api->watch_free(static_cast<AvahiWatch*>(watch)); });
    AvahiTimeout* later = calls.timeout(sentinel, 50);
    EXPECT_EQ(co_await nextWithin(calls.log, 5s), once);
    EXPECT_EQ(co_await nextWithin(calls.log, 5s), sentinel);
    calls.api->timeout_free(later);
    for (const int end : pipe) ::close(end);

    // A timeout fires once at its time unless it is moved or disabled.
    const auto* api = calls.api;
    int rearms = 0;
    const auto rearmOnce = [&](void* timeout) {
      timeval again;
      if (rearms++ == 0)
        api->timeout_update(static_cast<AvahiTimeout*>(timeout), avahi_elapse_time(&again, 10, 0));
    };
    AvahiTimeout* const timeouts[] = {calls.timeout("past", 0), calls.timeout("disabled", 10),
                                      calls.timeout("moved", 10, rearmOnce),
                                      calls.timeout("last", 300)};
    api->timeout_update(timeouts[1], nullptr);
    // By their times; the last one's gave the others the time to come again.
    for (const std::string name : {"past", "moved", "moved", "last"})
      EXPECT_EQ(co_await nextWithin(calls.log, 5s), name);
    for (auto* timeout : timeouts) api->timeout_free(timeout);
  });
}

}  // namespace
}  // namespace kelvaron
