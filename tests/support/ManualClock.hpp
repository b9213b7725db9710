#pragma once

// Time that moves only when a test says so: a wall clock for dates and a sleep that ends when the
// clock has been advanced past its end (or when its task is cancelled).

#include <asio/awaitable.hpp>
#include <chrono>
#include <memory>
#include <mutex>
#include <vector>

#include "kit/security/Stores.hpp"
#include "kit/transport/AsyncQueue.hpp"

namespace kelvaron::test {

class ManualClock {
 public:
  WallClock::time_point now() const {
    std::lock_guard guard(lock_);
    return now_;
  }

  asio::awaitable<void> sleep(std::chrono::duration<double> duration) {
    auto wake = std::make_shared<AsyncQueue<int>>();
    {
      std::lock_guard guard(lock_);
      sleepers_.push_back({now_ + std::chrono::duration_cast<WallClock::duration>(duration), wake});
    }
    co_await wake->next();
  }

  void advance(std::chrono::duration<double> duration) {
    std::vector<std::shared_ptr<AsyncQueue<int>>> due;
    {
      std::lock_guard guard(lock_);
      now_ += std::chrono::duration_cast<WallClock::duration>(duration);
      std::erase_if(sleepers_, [&](const Sleeper& s) {
        if (s.until > now_) return false;
        due.push_back(s.wake);
        return true;
      });
    }
    for (auto& wake : due) wake->push(0);
  }

 private:
  struct Sleeper {
    WallClock::time_point until;
    std::shared_ptr<AsyncQueue<int>> wake;
  };
  mutable std::mutex lock_;
  WallClock::time_point now_ = WallClock::from_time_t(1795000000);
  std::vector<Sleeper> sleepers_;
};

}  // namespace kelvaron::test
