#include "kit/async/Task.hpp"

#include <asio/bind_cancellation_slot.hpp>
#include <asio/co_spawn.hpp>
#include <asio/post.hpp>
#include <asio/redirect_error.hpp>
#include <asio/steady_timer.hpp>
#include <asio/this_coro.hpp>
#include <asio/use_awaitable.hpp>

#include "kit/log/Logger.hpp"

namespace kelvaron {

namespace {
const Logger& taskLog() {
  static const Logger log("io.dovka.tovu.host", "session");
  return log;
}
}  // namespace

namespace {
// Cancellation is cooperative, as the loops expect: it ends the operation under way early and is
// then read at the loop's head, instead of being thrown out of the next suspension.
asio::awaitable<void> cooperatively(asio::awaitable<void> body) {
  co_await asio::this_coro::throw_if_cancelled(false);
  co_await std::move(body);
}
}  // namespace

Task Task::spawn(const Executor& executor, asio::awaitable<void> body) {
  Task task;
  task.state_ = std::make_shared<State>(executor);
  // The completion handler keeps the cancellation signal alive for as long as the coroutine runs,
  // whether or not anyone keeps the Task.
  asio::co_spawn(executor, cooperatively(std::move(body)),
                 asio::bind_cancellation_slot(
                     task.state_->signal.slot(), [state = task.state_](std::exception_ptr e) {
                       if (!e) return;
                       try {
                         std::rethrow_exception(e);
                       } catch (const std::exception& error) {
                         taskLog().error("task ended by an exception: %s", error.what());
                       } catch (...) {
                         taskLog().error("task ended by an exception of no known type");
                       }
                     }));
  return task;
}

void Task::cancel() const {
  if (!state_) return;
  // A cancellation signal belongs to the executor of the coroutine it is bound to.
  asio::post(state_->executor,
             [state = state_] { state->signal.emit(asio::cancellation_type::terminal); });
}

asio::awaitable<bool> isCancelled() {
  const auto state = co_await asio::this_coro::cancellation_state;
  co_return state.cancelled() != asio::cancellation_type::none;
}

asio::awaitable<void> sleepFor(std::chrono::duration<double> seconds) {
  asio::steady_timer timer(
      co_await asio::this_coro::executor,
      std::chrono::duration_cast<std::chrono::steady_clock::duration>(seconds));
  asio::error_code ignored;
  co_await timer.async_wait(asio::redirect_error(asio::use_awaitable, ignored));
}

}  // namespace kelvaron
