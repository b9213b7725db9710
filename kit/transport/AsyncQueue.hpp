#pragma once

#include <asio/awaitable.hpp>
#include <asio/experimental/awaitable_operators.hpp>
#include <asio/post.hpp>
#include <asio/redirect_error.hpp>
#include <asio/steady_timer.hpp>
#include <asio/this_coro.hpp>
#include <asio/use_awaitable.hpp>
#include <chrono>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>

namespace kelvaron {

// An unbounded queue with one reader and an explicit end. Anyone may push or finish from any
// thread; the reader awaits `next()` on a serial executor. Items pushed before `finish()` stay
// readable; after it, `next()` drains them and then yields nothing. A reader that is cancelled
// while it waits resumes with nothing. Limits are the pusher's business (`count()`).
template <class T>
class AsyncQueue {
 public:
  void push(T item) {
    std::shared_ptr<Waiter> waiter;
    {
      std::lock_guard lock(lock_);
      if (finished_) return;
      if (!waiter_) {
        items_.push_back(std::move(item));
        return;
      }
      waiter = std::move(waiter_);
      waiter->item = std::move(item);
    }
    wake(waiter);
  }

  void finish() {
    std::shared_ptr<Waiter> waiter;
    {
      std::lock_guard lock(lock_);
      finished_ = true;
      waiter = std::move(waiter_);
    }
    if (waiter) wake(waiter);
  }

  std::size_t count() const {
    std::lock_guard lock(lock_);
    return items_.size();
  }

  bool isFinished() const {
    std::lock_guard lock(lock_);
    return finished_;
  }

  asio::awaitable<std::optional<T>> next() {
    auto executor = co_await asio::this_coro::executor;
    const auto cancellation = co_await asio::this_coro::cancellation_state;
    std::shared_ptr<Waiter> waiter;
    {
      std::lock_guard lock(lock_);
      if (!items_.empty()) {
        std::optional<T> item(std::move(items_.front()));
        items_.pop_front();
        co_return item;
      }
      // A reader whose task was cancelled before it came here would wait for a cancellation that
      // has already happened.
      if (finished_ || cancellation.cancelled() != asio::cancellation_type::none) {
        co_return std::nullopt;
      }
      waiter = std::make_shared<Waiter>(executor);
      waiter_ = waiter;
    }
    asio::error_code woken;
    co_await waiter->timer.async_wait(asio::redirect_error(asio::use_awaitable, woken));
    std::lock_guard lock(lock_);
    if (waiter_ == waiter) waiter_.reset();  // cancelled before anything came
    // An item handed over while the read was being cancelled goes back in front: whoever
    // cancelled the read will not look at what it yields.
    if (waiter->item && cancellation.cancelled() != asio::cancellation_type::none) {
      items_.push_front(std::move(*waiter->item));
      co_return std::nullopt;
    }
    co_return std::move(waiter->item);
  }

 private:
  // The suspended reader: it waits on a timer that never fires by itself, and is woken by
  // cancelling that timer on the reader's own executor.
  struct Waiter {
    explicit Waiter(const asio::any_io_executor& executor)
        : timer(executor, asio::steady_timer::time_point::max()) {}
    asio::steady_timer timer;
    std::optional<T> item;
  };

  static void wake(const std::shared_ptr<Waiter>& waiter) {
    asio::post(waiter->timer.get_executor(), [waiter] { waiter->timer.cancel(); });
  }

  mutable std::mutex lock_;
  std::deque<T> items_;
  std::shared_ptr<Waiter> waiter_;
  bool finished_ = false;
};

// The next item of `queue`, or nothing if none comes within `wait` (the read is then cancelled).
template <class T>
asio::awaitable<std::optional<T>> nextWithin(AsyncQueue<T>& queue,
                                             std::chrono::steady_clock::duration wait) {
  using namespace asio::experimental::awaitable_operators;
  asio::steady_timer timer(co_await asio::this_coro::executor, wait);
  auto result = co_await (queue.next() || timer.async_wait(asio::use_awaitable));
  if (result.index() == 0) co_return std::get<0>(std::move(result));
  co_return std::nullopt;
}

}  // namespace kelvaron
