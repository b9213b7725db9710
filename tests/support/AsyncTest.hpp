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

using kelvaron::nextWithin;

}  // namespace kelvaron::test
