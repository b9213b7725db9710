#include "kit/transport/AsioAvahiPoll.hpp"

#include <avahi-common/timeval.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <asio/strand.hpp>
#include <vector>

#include "tests/support/AsyncTest.hpp"

namespace kelvaron {
namespace {

using namespace test;
using Strand = asio::strand<asio::io_context::executor_type>;

// What a watch or timeout saw, and where: every callback must come on the strand.
struct Observer {
  explicit Observer(const Strand& s) : strand(s) {}
  Strand strand;
  int calls = 0;
  bool offStrand = false;
  std::vector<AvahiWatchEvent> events;
  AsyncQueue<int> called;
  const AvahiPoll* api = nullptr;
  std::function<void(AvahiWatch*, int)> onWatch;
  std::function<void(AvahiTimeout*)> onTimeout;

  static void watchCallback(AvahiWatch* watch, int fd, AvahiWatchEvent event, void* userdata) {
    auto& self = *static_cast<Observer*>(userdata);
    self.note();
    self.events.push_back(event);
    EXPECT_EQ(self.api->watch_get_events(watch), event);
    if (self.onWatch) self.onWatch(watch, fd);
  }

  static void timeoutCallback(AvahiTimeout* timeout, void* userdata) {
    auto& self = *static_cast<Observer*>(userdata);
    self.note();
    if (self.onTimeout) self.onTimeout(timeout);
  }

  void note() {
    if (!strand.running_in_this_thread()) offStrand = true;
    called.push(++calls);
  }
};

// The numbers of the next `count` calls, as far as each comes within five seconds.
asio::awaitable<std::vector<int>> nextCalls(Observer& observer, int count) {
  std::vector<int> numbers;
  for (int i = 0; i < count; ++i) {
    const auto number = co_await nextWithin(observer.called, 5s);
    if (!number) break;
    numbers.push_back(*number);
  }
  co_return numbers;
}

using Calls = std::vector<int>;

struct Pipe {
  Pipe() { EXPECT_EQ(::pipe2(ends, O_NONBLOCK | O_CLOEXEC), 0); }
  ~Pipe() {
    ::close(ends[0]);
    ::close(ends[1]);
  }
  void write(const char* bytes) const { EXPECT_GT(::write(ends[1], bytes, strlen(bytes)), 0); }
  int reader() const { return ends[0]; }
  int ends[2];
};

timeval fromNow(unsigned milliseconds) {
  timeval when;
  avahi_elapse_time(&when, milliseconds, 0);
  return when;
}

TEST(AsioAvahiPoll, AWatchCallsBackOnTheStrandForAsLongAsDataWaits) {
  runAsync([](asio::io_context& io) -> asio::awaitable<void> {
    const Strand strand = asio::make_strand(io);
    AsioAvahiPoll poll(strand);
    Observer observer(strand);
    observer.api = poll.api();
    observer.onWatch = [](AvahiWatch*, int fd) {  // takes one byte per call, as a slow reader would
      char byte;
      EXPECT_EQ(::read(fd, &byte, 1), 1);
    };
    Pipe pipe;
    pipe.write("ab");
    AvahiWatch* watch = poll.api()->watch_new(poll.api(), pipe.reader(), AVAHI_WATCH_IN,
                                              Observer::watchCallback, &observer);
    CO_ASSERT_TRUE(watch != nullptr);
    const auto firstTwo = co_await nextCalls(observer, 2);  // the second for the byte left over
    EXPECT_EQ(firstTwo, (Calls{1, 2}));
    pipe.write("c");
    const auto third = co_await nextCalls(observer, 1);
    EXPECT_EQ(third, Calls{3});
    EXPECT_EQ(observer.events, std::vector<AvahiWatchEvent>(3, AVAHI_WATCH_IN));
    EXPECT_FALSE(observer.offStrand);
    poll.api()->watch_free(watch);
  });
}

TEST(AsioAvahiPoll, TwoWatchesOfOneDescriptorBothWorkAndFreeingThemLeavesItOpen) {
  runAsync([](asio::io_context& io) -> asio::awaitable<void> {
    const Strand strand = asio::make_strand(io);
    AsioAvahiPoll poll(strand);
    int pair[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, pair), 0);
    // As D-Bus does: one watch for reading, one for writing, on the same socket.
    Observer reading(strand), writing(strand);
    reading.api = writing.api = poll.api();
    reading.onWatch = writing.onWatch = [&](AvahiWatch* watch, int) {
      poll.api()->watch_update(watch, AvahiWatchEvent{});
    };
    AvahiWatch* in = poll.api()->watch_new(poll.api(), pair[0], AVAHI_WATCH_IN,
                                           Observer::watchCallback, &reading);
    AvahiWatch* out = poll.api()->watch_new(poll.api(), pair[0], AVAHI_WATCH_OUT,
                                            Observer::watchCallback, &writing);
    CO_ASSERT_TRUE(in != nullptr);
    CO_ASSERT_TRUE(out != nullptr);
    const auto written = co_await nextCalls(writing, 1);
    EXPECT_EQ(written, Calls{1});
    EXPECT_EQ(::write(pair[1], "x", 1), 1);
    const auto read = co_await nextCalls(reading, 1);
    EXPECT_EQ(read, Calls{1});
    poll.api()->watch_free(in);
    poll.api()->watch_free(out);
    co_await sleepFor(10ms);  // lets the freed watches' handlers run
    EXPECT_NE(::fcntl(pair[0], F_GETFD), -1);
    char byte;
    EXPECT_EQ(::read(pair[0], &byte, 1), 1);
    ::close(pair[0]);
    ::close(pair[1]);
  });
}

TEST(AsioAvahiPoll, AWatchFreedFromItsCallbackIsNotCalledAgain) {
  runAsync([](asio::io_context& io) -> asio::awaitable<void> {
    const Strand strand = asio::make_strand(io);
    AsioAvahiPoll poll(strand);
    Observer observer(strand), sentinel(strand);
    observer.api = sentinel.api = poll.api();
    observer.onWatch = [&](AvahiWatch* watch, int) { poll.api()->watch_free(watch); };
    Pipe pipe;
    pipe.write("unread");
    poll.api()->watch_new(poll.api(), pipe.reader(), AVAHI_WATCH_IN, Observer::watchCallback,
                          &observer);
    const auto once = co_await nextCalls(observer, 1);
    EXPECT_EQ(once, Calls{1});
    // The data is still there: a live watch would be called again before a later timeout.
    const timeval later = fromNow(50);
    AvahiTimeout* timeout =
        poll.api()->timeout_new(poll.api(), &later, Observer::timeoutCallback, &sentinel);
    const auto sentinelCalls = co_await nextCalls(sentinel, 1);
    EXPECT_EQ(sentinelCalls, Calls{1});
    EXPECT_EQ(observer.calls, 1);
    poll.api()->timeout_free(timeout);
  });
}

TEST(AsioAvahiPoll, ATimeoutFiresOnceAtItsTimeUnlessMovedOrDisabled) {
  runAsync([](asio::io_context& io) -> asio::awaitable<void> {
    const Strand strand = asio::make_strand(io);
    AsioAvahiPoll poll(strand);
    const auto* api = poll.api();
    Observer past(strand), disabled(strand), rearmed(strand), last(strand);
    const timeval gone = fromNow(0), soon = fromNow(10), later = fromNow(300);
    AvahiTimeout* pastTimeout = api->timeout_new(api, &gone, Observer::timeoutCallback, &past);
    AvahiTimeout* disabledTimeout =
        api->timeout_new(api, &soon, Observer::timeoutCallback, &disabled);
    api->timeout_update(disabledTimeout, nullptr);
    rearmed.onTimeout = [&](AvahiTimeout* timeout) {
      if (rearmed.calls == 1) {
        const timeval again = fromNow(10);
        api->timeout_update(timeout, &again);
      }
    };
    AvahiTimeout* rearmedTimeout =
        api->timeout_new(api, &soon, Observer::timeoutCallback, &rearmed);
    AvahiTimeout* lastTimeout = api->timeout_new(api, &later, Observer::timeoutCallback, &last);

    const auto pastCalls = co_await nextCalls(past, 1);
    const auto rearmedCalls = co_await nextCalls(rearmed, 2);
    const auto lastCalls = co_await nextCalls(last, 1);
    EXPECT_EQ(pastCalls, Calls{1});
    EXPECT_EQ(rearmedCalls, (Calls{1, 2}));
    EXPECT_EQ(lastCalls, Calls{1});
    EXPECT_EQ(past.calls, 1);
    EXPECT_EQ(disabled.calls, 0);
    EXPECT_EQ(rearmed.calls, 2);
    EXPECT_FALSE(past.offStrand || rearmed.offStrand || last.offStrand);
    for (auto* timeout : {pastTimeout, disabledTimeout, rearmedTimeout, lastTimeout}) {
      api->timeout_free(timeout);
    }
  });
}

}  // namespace
}  // namespace kelvaron
