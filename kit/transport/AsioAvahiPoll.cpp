#include "kit/transport/AsioAvahiPoll.hpp"

#include <avahi-common/timeval.h>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>
#include <chrono>
#include <memory>

// Avahi declares its watch and timeout types and leaves their content to the event loop. Each is
// kept alive by Avahi's reference until Avahi frees it, and by its pending Asio handlers until they
// have run; a generation count makes every wait or check started before a change stale.

// Avahi expects poll(2): the events that are ready (in, out, error, hang-up), for as long as they
// stay ready. Asio's wait tells only that the descriptor became ready, so the watch asks poll()
// with no timeout what is ready, before each wait and after it; a descriptor that is ready already
// is served without a wait.
//
// The reactor waits on a duplicate of Avahi's descriptor: it takes one registration per
// descriptor, Avahi's D-Bus transport may watch one descriptor twice (once per direction), and a
// duplicate is ours to close. Avahi's own descriptor is never closed here.
struct AvahiWatch : std::enable_shared_from_this<AvahiWatch> {
  AvahiWatch(const kelvaron::Executor& strand, int avahiFD, int ownFD, AvahiWatchEvent events,
             AvahiWatchCallback onEvent, void* onEventData)
      : fd(avahiFD),
        duplicate(strand, ownFD),
        wanted(events),
        callback(onEvent),
        userdata(onEventData) {}

  // Starts over with what is wanted now: checks on the strand, so never inside Avahi's call.
  void arm() {
    const unsigned current = ++generation;
    asio::error_code ignored;
    duplicate.cancel(ignored);
    if (wanted == 0) return;
    asio::post(duplicate.get_executor(), [self = shared_from_this(), current] {
      if (current == self->generation) self->checkThenWait();
    });
  }

  void release() {
    ++generation;
    asio::error_code ignored;
    duplicate.close(ignored);
  }

  void checkThenWait() {
    pollfd ready{duplicate.native_handle(), static_cast<short>(wanted), 0};
    if (::poll(&ready, 1, 0) > 0 && ready.revents != 0) return dispatch(ready.revents);
    auto rearm = [self = shared_from_this(), current = generation](const asio::error_code&) {
      if (current == self->generation) self->arm();
    };
    using Wait = asio::posix::stream_descriptor::wait_type;
    if (wanted & AVAHI_WATCH_IN) duplicate.async_wait(Wait::wait_read, rearm);
    if (wanted & AVAHI_WATCH_OUT) duplicate.async_wait(Wait::wait_write, rearm);
    if (!(wanted & (AVAHI_WATCH_IN | AVAHI_WATCH_OUT))) {
      duplicate.async_wait(Wait::wait_error, rearm);
    }
  }

  void dispatch(short revents) {
    // A descriptor that is no longer open is an error to Avahi, as everything else poll() adds.
    happened = static_cast<AvahiWatchEvent>((revents & (POLLIN | POLLOUT | POLLERR | POLLHUP)) |
                                            (revents & POLLNVAL ? POLLERR : 0));
    const unsigned before = generation;
    callback(this, fd, happened, userdata);
    happened = AvahiWatchEvent{};
    // Unless the callback changed or freed the watch, go on watching the same events.
    if (generation == before) arm();
  }

  const int fd;
  asio::posix::stream_descriptor duplicate;
  AvahiWatchEvent wanted;
  AvahiWatchEvent happened{};
  const AvahiWatchCallback callback;
  void* const userdata;
  unsigned generation = 0;
  std::shared_ptr<AvahiWatch> avahiReference;
};

// Avahi's timeouts are absolute times on the realtime clock; each becomes a delay on the monotonic
// clock when it is set. A timeout that fires is disabled until it is set again.
struct AvahiTimeout : std::enable_shared_from_this<AvahiTimeout> {
  AvahiTimeout(const kelvaron::Executor& strand, AvahiTimeoutCallback onTimeout,
               void* onTimeoutData)
      : timer(strand), callback(onTimeout), userdata(onTimeoutData) {}

  void set(const timeval* when) {
    const unsigned current = ++generation;
    timer.cancel();
    if (!when) return;
    timer.expires_after(std::chrono::microseconds(std::max<AvahiUsec>(0, -avahi_age(when))));
    timer.async_wait([self = shared_from_this(), current](const asio::error_code&) {
      if (current != self->generation) return;
      ++self->generation;
      self->callback(self.get(), self->userdata);
    });
  }

  void release() {
    ++generation;
    timer.cancel();
  }

  asio::steady_timer timer;
  const AvahiTimeoutCallback callback;
  void* const userdata;
  unsigned generation = 0;
  std::shared_ptr<AvahiTimeout> avahiReference;
};

namespace kelvaron {

namespace {

const Executor& strandOf(const AvahiPoll* api) {
  return *static_cast<const Executor*>(api->userdata);
}

// Nothing may be thrown into Avahi's C code: a watch or timeout that cannot be made is a null.
AvahiWatch* watchNew(const AvahiPoll* api, int fd, AvahiWatchEvent events,
                     AvahiWatchCallback callback, void* userdata) {
  const int duplicate = ::fcntl(fd, F_DUPFD_CLOEXEC, 0);
  if (duplicate < 0) return nullptr;
  try {
    auto watch =
        std::make_shared<AvahiWatch>(strandOf(api), fd, duplicate, events, callback, userdata);
    watch->avahiReference = watch;
    watch->arm();
    return watch.get();
  } catch (...) {
    ::close(duplicate);
    return nullptr;
  }
}

void watchUpdate(AvahiWatch* watch, AvahiWatchEvent events) {
  watch->wanted = events;
  watch->arm();
}

AvahiWatchEvent watchGetEvents(AvahiWatch* watch) { return watch->happened; }

void watchFree(AvahiWatch* watch) {
  const auto reference = std::move(watch->avahiReference);
  watch->release();
}

AvahiTimeout* timeoutNew(const AvahiPoll* api, const timeval* when, AvahiTimeoutCallback callback,
                         void* userdata) {
  try {
    auto timeout = std::make_shared<AvahiTimeout>(strandOf(api), callback, userdata);
    timeout->avahiReference = timeout;
    timeout->set(when);
    return timeout.get();
  } catch (...) {
    return nullptr;
  }
}

void timeoutUpdate(AvahiTimeout* timeout, const timeval* when) { timeout->set(when); }

void timeoutFree(AvahiTimeout* timeout) {
  const auto reference = std::move(timeout->avahiReference);
  timeout->release();
}

}  // namespace

AsioAvahiPoll::AsioAvahiPoll(const Executor& strand)
    : strand_(strand), api_{&strand_,  watchNew,   watchUpdate,   watchGetEvents,
                            watchFree, timeoutNew, timeoutUpdate, timeoutFree} {}

}  // namespace kelvaron
