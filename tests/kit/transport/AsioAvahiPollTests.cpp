#include "kit/transport/AsioAvahiPoll.hpp"

#include <avahi-common/timeval.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <asio/strand.hpp>
#include <vector>

#include "tests/support/AsyncTest.hpp"

namespace kelvaron {
namespace {

using namespace test;
using Strand = asio::strand<asio::io_context::executor_type>;
using Calls = std::vector<int>;

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

  // The numbers of the next `count` calls, as far as each comes within five seconds.
  asio::awaitable<Calls> next(int count) {
    Calls numbers;
    for (int i = 0; i < count; ++i) {
      const auto number = co_await nextWithin(called, 5s);
      if (!number) break;
      numbers.push_back(*number);
    }
    co_return numbers;
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

// Runs `body` with a poll on a strand of the test's io_context.
void runWithPoll(const std::function<asio::awaitable<void>(AsioAvahiPoll&, Strand)>& body) {
  runAsync([&body](asio::io_context& io) -> asio::awaitable<void> {
    const Strand strand = asio::make_strand(io);
    AsioAvahiPoll poll(strand);
    co_await body(poll, strand);
  });
}

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
  runWithPoll([](AsioAvahiPoll& poll, Strand strand) -> asio::awaitable<void> {
    Observer slow(strand, poll.api());
    slow.onWatch = [](AvahiWatch*, int fd) {  // takes one byte per call
      char byte;
      EXPECT_EQ(::read(fd, &byte, 1), 1);
    };
    Pipe pipe;
    pipe.write("ab");
    AvahiWatch* watch = slow.watch(pipe.ends[0], AVAHI_WATCH_IN);
    CO_ASSERT_TRUE(watch != nullptr);
    const auto firstTwo = co_await slow.next(2);  // the second for the byte left over
    EXPECT_EQ(firstTwo, (Calls{1, 2}));
    pipe.write("c");
    const auto third = co_await slow.next(1);
    EXPECT_EQ(third, Calls{3});
    poll.api()->watch_free(watch);
    co_await sleepFor(10ms);  // lets the freed watch's handlers run
    EXPECT_NE(::fcntl(pipe.ends[0], F_GETFD), -1);

    Observer once(strand, poll.api()), sentinel(strand, poll.api());
    once.onWatch = [&](AvahiWatch* w, int) { poll.api()->watch_free(w); };
    pipe.write("unread");
    once.watch(pipe.ends[0], AVAHI_WATCH_IN);
    const auto onlyCall = co_await once.next(1);
    EXPECT_EQ(onlyCall, Calls{1});
    // The data is still there: a live watch would be called again before a later timeout.
    AvahiTimeout* timeout = sentinel.timeout(50);
    const auto sentinelCalls = co_await sentinel.next(1);
    EXPECT_EQ(sentinelCalls, Calls{1});
    EXPECT_EQ(once.calls, 1);
    poll.api()->timeout_free(timeout);
  });
}

TEST(AsioAvahiPoll, ATimeoutFiresOnceAtItsTimeUnlessMovedOrDisabled) {
  runWithPoll([](AsioAvahiPoll& poll, Strand strand) -> asio::awaitable<void> {
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

    const auto pastCalls = co_await past.next(1);
    const auto rearmedCalls = co_await rearmed.next(2);
    const auto lastCalls = co_await last.next(1);
    EXPECT_EQ(pastCalls, Calls{1});
    EXPECT_EQ(rearmedCalls, (Calls{1, 2}));
    EXPECT_EQ(lastCalls, Calls{1});
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
