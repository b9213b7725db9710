// The transport's parts that run on an io_context: the queue that carries every stream of a
// connection between coroutines and threads, the in-memory pair of connections built on it, and
// Avahi's event loop on a strand.

#include <avahi-common/timeval.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <asio/strand.hpp>
#include <asio/thread_pool.hpp>
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
                    if (item)
                      total += *item;
                    else if (q.isFinished() && q.count() == 0)
                      co_return;
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

VideoFrame frame(std::uint64_t number) { return {.frameNumber = number, .payload = Data{1, 2, 3}}; }

// A frame that does not decode fails the receiver only: its owner decides, and the pair still
// works.
TEST(InMemoryConnection, MessagesArriveInSendOrderWhateverTheirChannelAndBadOnesFailTheReceiver) {
  runAsync([](asio::io_context&) -> asio::awaitable<void> {
    auto [a, b] = InMemoryConnection::makePair();
    const std::vector<Message> sent = {
        msg::key{{{4}, true, {}}}, msg::ping{1}, msg::fileChunk{1, 0, 0, {9}}, msg::text{"x"},
        msg::fileEnd{1},           msg::pong{2}};
    for (std::size_t i = 0; i < sent.size(); ++i) {
      if (i == 2) {
        EXPECT_TRUE(co_await a->sendTransfer(sent[i]));
      } else {
        a->send(sent[i]);
      }
    }
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
    a.reset();
    b.reset();
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

using Strand = asio::strand<asio::io_context::executor_type>;

// One watch or timeout of the poll: counts its calls, each of which must come on the strand.
struct Observer {
  Observer(const Strand& s, const AvahiPoll* a) : strand(s), api(a) {}

  AvahiWatch* watch(int fd, AvahiWatchEvent event) {
    wanted = event;
    return api->watch_new(api, fd, event, watchCallback, this);
  }
  AvahiTimeout* timeout(unsigned milliseconds) {
    timeval when;
    avahi_elapse_time(&when, milliseconds, 0);
    return api->timeout_new(api, &when, timeoutCallback, this);
  }

  // Whether the calls reach `count`, each within five seconds of the one before.
  asio::awaitable<bool> reach(int count) {
    while (calls < count) {
      const auto call = co_await nextWithin(called, 5s);
      if (!call) co_return false;
    }
    co_return true;
  }

  static void watchCallback(AvahiWatch* watch, int fd, AvahiWatchEvent event, void* userdata) {
    auto& self = *static_cast<Observer*>(userdata);
    EXPECT_EQ(event, self.wanted);
    EXPECT_EQ(self.api->watch_get_events(watch), event);
    self.note();
    if (self.onWatch) self.onWatch(watch, fd);
  }
  static void timeoutCallback(AvahiTimeout* timeout, void* userdata) {
    auto& self = *static_cast<Observer*>(userdata);
    self.note();
    if (self.onTimeout) self.onTimeout(timeout);
  }
  void note() {
    EXPECT_TRUE(strand.running_in_this_thread());
    called.push(++calls);
  }

  Strand strand;
  const AvahiPoll* api;
  AvahiWatchEvent wanted{};
  int calls = 0;
  AsyncQueue<int> called;
  std::function<void(AvahiWatch*, int)> onWatch;
  std::function<void(AvahiTimeout*)> onTimeout;
};

struct Pipe {
  Pipe() { EXPECT_EQ(::pipe2(ends, O_NONBLOCK | O_CLOEXEC), 0); }
  ~Pipe() {
    ::close(ends[0]);
    ::close(ends[1]);
  }
  void write(const char* bytes) const { EXPECT_GT(::write(ends[1], bytes, strlen(bytes)), 0); }
  int ends[2];
};

// A watch is called for as long as data waits, and not after it freed itself from its callback;
// freeing a watch leaves its descriptor open, for D-Bus closes its own. (That D-Bus also watches
// one socket for reading and writing at once is tried by every discovery test.)
TEST(AsioAvahiPoll, AWatchCallsBackForAsLongAsDataWaitsUntilItIsFreed) {
  runAsync([](asio::io_context& io) -> asio::awaitable<void> {
    const Strand strand = asio::make_strand(io);
    AsioAvahiPoll poll(strand);
    Observer slow(strand, poll.api());
    slow.onWatch = [](AvahiWatch*, int fd) {  // takes one byte per call
      char byte;
      EXPECT_EQ(::read(fd, &byte, 1), 1);
    };
    Pipe pipe;
    pipe.write("ab");
    AvahiWatch* watch = slow.watch(pipe.ends[0], AVAHI_WATCH_IN);
    CO_ASSERT_TRUE(watch != nullptr);
    const bool two = co_await slow.reach(2);  // the second for the byte left over
    pipe.write("c");
    const bool three = co_await slow.reach(3);
    EXPECT_TRUE(two && three);
    poll.api()->watch_free(watch);
    co_await sleepFor(10ms);  // lets the freed watch's handlers run
    EXPECT_NE(::fcntl(pipe.ends[0], F_GETFD), -1);

    Observer once(strand, poll.api()), sentinel(strand, poll.api());
    once.onWatch = [&](AvahiWatch* w, int) { poll.api()->watch_free(w); };
    pipe.write("unread");
    once.watch(pipe.ends[0], AVAHI_WATCH_IN);
    const bool called = co_await once.reach(1);
    // The data is still there: a live watch would be called again before a later timeout.
    AvahiTimeout* timeout = sentinel.timeout(50);
    const bool later = co_await sentinel.reach(1);
    EXPECT_TRUE(called && later);
    EXPECT_EQ(once.calls, 1);
    poll.api()->timeout_free(timeout);
  });
}

TEST(AsioAvahiPoll, ATimeoutFiresOnceAtItsTimeUnlessMovedOrDisabled) {
  runAsync([](asio::io_context& io) -> asio::awaitable<void> {
    const Strand strand = asio::make_strand(io);
    AsioAvahiPoll poll(strand);
    const auto* api = poll.api();
    Observer past(strand, api), disabled(strand, api), rearmed(strand, api), last(strand, api);
    AvahiTimeout* pastTimeout = past.timeout(0);
    AvahiTimeout* disabledTimeout = disabled.timeout(10);
    api->timeout_update(disabledTimeout, nullptr);
    rearmed.onTimeout = [&](AvahiTimeout* timeout) {
      timeval again;
      if (rearmed.calls == 1) api->timeout_update(timeout, avahi_elapse_time(&again, 10, 0));
    };
    AvahiTimeout* rearmedTimeout = rearmed.timeout(10);
    AvahiTimeout* lastTimeout = last.timeout(300);

    const bool pastFired = co_await past.reach(1);
    const bool rearmedTwice = co_await rearmed.reach(2);
    const bool lastFired = co_await last.reach(1);  // the others had their time to come again
    EXPECT_TRUE(pastFired && rearmedTwice && lastFired);
    EXPECT_EQ(past.calls, 1);
    EXPECT_EQ(disabled.calls, 0);
    EXPECT_EQ(rearmed.calls, 2);
    for (auto* timeout : {pastTimeout, disabledTimeout, rearmedTimeout, lastTimeout}) {
      api->timeout_free(timeout);
    }
  });
}

}  // namespace
}  // namespace kelvaron
