#include "host/video/ChangeBroadcaster.hpp"

#include <asio/post.hpp>
#include <asio/steady_timer.hpp>
#include <mutex>
#include <utility>
#include <vector>

namespace kelvaron::host {

using Clock = std::chrono::steady_clock;
using Stream = AsyncQueue<ChangeSignal>;

// Shared with the timer's handlers, which hold it weakly, so that a broadcaster can go while a
// signal is scheduled.
struct ChangeBroadcaster::State : std::enable_shared_from_this<State> {
  State(const Executor& executor, Clock::duration delay)
      : strand(makeStrand(executor)), timer(strand), debounce(delay) {}

  // The live subscribers, forgetting the dropped ones. Under `lock`.
  std::vector<std::shared_ptr<Stream>> liveSubscribers() {
    std::vector<std::shared_ptr<Stream>> live;
    std::erase_if(subscribers, [&live](const std::weak_ptr<Stream>& weak) {
      auto stream = weak.lock();
      if (!stream) return true;
      live.push_back(std::move(stream));
      return false;
    });
    return live;
  }

  // On the strand. The timer is moved once per wait, not once per call of signal(): a wait that
  // ends before the latest deadline starts again for what is left.
  void waitUntil(Clock::time_point when) {
    timer.expires_at(when);
    timer.async_wait([weak = weak_from_this()](const asio::error_code& error) {
      const auto self = weak.lock();
      if (self && !error) self->deadlineReached();
    });
  }

  void deadlineReached() {
    std::vector<std::shared_ptr<Stream>> targets;
    {
      std::unique_lock guard(lock);
      if (Clock::now() < deadline) {
        const auto later = deadline;
        guard.unlock();
        return waitUntil(later);
      }
      armed = false;
      targets = liveSubscribers();
    }
    // A signal carries nothing: one waiting in a stream is all its reader needs.
    for (const auto& stream : targets) {
      if (stream->count() == 0) stream->push({});
    }
  }

  const Executor strand;
  asio::steady_timer timer;  // on the strand only
  const Clock::duration debounce;

  std::mutex lock;
  std::vector<std::weak_ptr<Stream>> subscribers;  // under lock
  Clock::time_point deadline;                      // under lock: when the next signal is due
  bool armed = false;                              // under lock: a wait is set or on its way
};

ChangeBroadcaster::ChangeBroadcaster(const Executor& executor,
                                     std::chrono::duration<double> debounce)
    : state_(std::make_shared<State>(executor,
                                     std::chrono::duration_cast<Clock::duration>(debounce))) {}

ChangeBroadcaster::~ChangeBroadcaster() {
  std::vector<std::shared_ptr<Stream>> streams;
  {
    std::lock_guard guard(state_->lock);
    streams = state_->liveSubscribers();
  }
  for (const auto& stream : streams) stream->finish();
}

ChangeStream ChangeBroadcaster::subscribe() {
  auto stream = std::make_shared<Stream>();
  std::lock_guard guard(state_->lock);
  state_->liveSubscribers();  // so that a list nobody signals still forgets the dropped streams
  state_->subscribers.push_back(stream);
  return stream;
}

void ChangeBroadcaster::signal() {
  bool startWaiting = false;
  {
    std::lock_guard guard(state_->lock);
    state_->deadline = Clock::now() + state_->debounce;
    startWaiting = !std::exchange(state_->armed, true);
  }
  if (!startWaiting) return;
  asio::post(state_->strand, [weak = std::weak_ptr<State>(state_)] {
    const auto self = weak.lock();
    if (!self) return;
    Clock::time_point when;
    {
      std::lock_guard guard(self->lock);
      when = self->deadline;
    }
    self->waitUntil(when);
  });
}

std::size_t ChangeBroadcaster::subscriberCount() const {
  std::lock_guard guard(state_->lock);
  return state_->subscribers.size();
}

}  // namespace kelvaron::host
