#pragma once

// The executor model. Every object with state of its own runs on a serial executor (an Asio
// strand); its suspending operations are coroutines on that strand, and after each `co_await` they
// re-read what they need. Background work runs as a `Task`: a coroutine that can be asked to stop,
// which it notices at its next suspension and at the head of its loop (`isCancelled()`).

#include <asio/any_io_executor.hpp>
#include <asio/awaitable.hpp>
#include <asio/cancellation_signal.hpp>
#include <asio/co_spawn.hpp>
#include <asio/strand.hpp>
#include <asio/use_awaitable.hpp>
#include <chrono>
#include <functional>
#include <memory>
#include <type_traits>

namespace kelvaron {

using Executor = asio::any_io_executor;

// A fresh serial executor on the same execution context as `executor`.
inline Executor makeStrand(const Executor& executor) { return asio::make_strand(executor); }

class Task {
 public:
  Task() = default;

  // Starts `body` on `executor`. An exception that escapes it is logged; it ends only the task.
  static Task spawn(const Executor& executor, asio::awaitable<void> body);

  // Asks the task to stop. Safe from any thread, repeatable, and harmless once it has ended.
  void cancel() const;

 private:
  struct State {
    explicit State(Executor e) : executor(std::move(e)) {}
    Executor executor;
    asio::cancellation_signal signal;
  };
  std::shared_ptr<State> state_;
};

// Runs `body` on `executor` and hands its result to whoever awaits it, from any executor: the
// door through which a serial-executor object's plain operations are awaited.
template <class F>
auto runOn(const Executor& executor, F body) -> asio::awaitable<std::invoke_result_t<F>> {
  return asio::co_spawn(
      executor,
      [body = std::move(body)]() -> asio::awaitable<std::invoke_result_t<F>> { co_return body(); },
      asio::use_awaitable);
}

// True once the running task has been asked to stop.
asio::awaitable<bool> isCancelled();

// A replaceable monotonic sleep: objects with timers take one, so that tests can drive their time.
using Sleeper = std::function<asio::awaitable<void>(std::chrono::duration<double>)>;

// Sleeps on the monotonic clock. Cancellation ends the sleep early and is not an error: the caller
// tests `isCancelled()` where it matters.
asio::awaitable<void> sleepFor(std::chrono::duration<double> seconds);

}  // namespace kelvaron
