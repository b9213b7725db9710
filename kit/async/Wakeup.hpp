#pragma once

#include <asio/awaitable.hpp>
#include <asio/post.hpp>
#include <asio/redirect_error.hpp>
#include <asio/steady_timer.hpp>
#include <asio/use_awaitable.hpp>
#include <memory>

#include "kit/async/Task.hpp"

namespace kelvaron {

// One suspended coroutine that any thread may resume. It waits on a timer that never fires by
// itself; waking moves the timer's expiry into the past on the waiter's own executor, so a wake
// that comes before the wait has begun is not lost. The waiter must run on a serial executor.
class Wakeup {
 public:
  explicit Wakeup(const Executor& executor)
      : timer_(executor, asio::steady_timer::time_point::max()) {}

  // Returns when woken, or when the awaiting task is cancelled.
  asio::awaitable<void> wait() {
    asio::error_code ignored;
    co_await timer_.async_wait(asio::redirect_error(asio::use_awaitable, ignored));
  }

  static void wake(const std::shared_ptr<Wakeup>& wakeup) {
    asio::post(wakeup->timer_.get_executor(),
               [wakeup] { wakeup->timer_.expires_at(asio::steady_timer::time_point::min()); });
  }

 private:
  asio::steady_timer timer_;
};

}  // namespace kelvaron
