#include "kit/async/Task.hpp"

#include <gtest/gtest.h>

#include "tests/support/AsyncTest.hpp"

namespace kelvaron {
namespace {

using namespace test;

// An exception that escaped its task would end `io.run()`, and this test with it.
TEST(Task, CancellationEndsASleepingLoopAtItsHeadAndAnExceptionOnlyItsTask) {
  runAsync([](asio::io_context& io) -> asio::awaitable<void> {
    Task::spawn(io.get_executor(), []() -> asio::awaitable<void> {
      throw std::runtime_error("boom");
      co_return;
    }());
    int rounds = 0;
    bool ended = false;
    Task loop = Task::spawn(io.get_executor(), [](int& count, bool& done) -> asio::awaitable<void> {
      while (!co_await isCancelled()) {
        ++count;
        co_await sleepFor(std::chrono::hours(1));
      }
      done = true;
    }(rounds, ended));
    co_await sleepFor(20ms);
    EXPECT_EQ(rounds, 1);
    loop.cancel();
    loop.cancel();  // repeatable
    co_await sleepFor(20ms);
    EXPECT_TRUE(ended);
    EXPECT_EQ(rounds, 1);
    loop.cancel();  // harmless after the end
  });
}

}  // namespace
}  // namespace kelvaron
