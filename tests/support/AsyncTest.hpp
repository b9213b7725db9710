#pragma once

// Runs coroutine tests on a real io_context in the test's own thread, with a deadline, so that a
// test that waits for something that never comes fails instead of hanging.

#include <asio/co_spawn.hpp>
#include <asio/experimental/awaitable_operators.hpp>
#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>
#include <asio/use_awaitable.hpp>
#include <chrono>
#include <exception>
#include <functional>
#include <optional>
#include <stdexcept>

#include "kit/async/Task.hpp"
#include "kit/transport/AsyncQueue.hpp"

namespace kelvaron::test {

using namespace std::chrono_literals;

// Runs `body(io)` to its end; throws if it throws or if it has not ended within `deadline`.
inline void runAsync(const std::function<asio::awaitable<void>(asio::io_context&)>& body,
                     std::chrono::steady_clock::duration deadline = 10s) {
  asio::io_context io;
  bool done = false;
  std::exception_ptr failure;
  asio::co_spawn(io, body(io), [&](std::exception_ptr e) {
    done = true;
    failure = e;
  });
  io.run_until(std::chrono::steady_clock::now() + deadline);
  if (failure) std::rethrow_exception(failure);
  if (!done) throw std::runtime_error("the test did not finish before its deadline");
}

// ASSERT_ cannot return from a coroutine; this ends the test by throwing instead.
#define CO_ASSERT_TRUE(condition)                                                \
  do {                                                                           \
    if (!(condition)) throw std::runtime_error("assertion failed: " #condition); \
  } while (false)

// Expects what `awaitable` gives to be the value given. The result is named first: GCC 12
// mishandles temporaries that live across a suspension.
#define CO_EXPECT_EQ(awaitable, ...)         \
  do {                                       \
    const auto awaited = co_await awaitable; \
    EXPECT_EQ(awaited, (__VA_ARGS__));       \
  } while (false)
// Expects the next item of `queue`, within five seconds, to be the one given.
#define CO_EXPECT_NEXT(queue, ...) CO_EXPECT_EQ(nextWithin(queue, 5s), __VA_ARGS__)

using kelvaron::nextWithin;

// Whether `condition` holds within `timeout`, asked every 10 ms. The condition is taken by value
// (a lambda of references), so that no temporary of the caller lives across a suspension.
template <class Condition>
asio::awaitable<bool> pollUntil(Condition condition, std::chrono::milliseconds timeout = 5s) {
  for (auto waited = 0ms; !condition(); waited += 10ms) {
    if (waited >= timeout) co_return false;
    co_await sleepFor(10ms);
  }
  co_return true;
}

// The error of type `Error` that `awaitable` ends with; nothing when it ends without one.
template <class Error, class T>
asio::awaitable<std::optional<Error>> thrownBy(asio::awaitable<T>& awaitable) {
  try {
    co_await std::move(awaitable);
  } catch (const Error& error) {
    co_return error;
  }
  co_return std::nullopt;
}

}  // namespace kelvaron::test
