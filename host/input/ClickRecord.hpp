#pragma once

#include <mutex>
#include <optional>
#include <utility>

#include "host/input/PointerTracker.hpp"

namespace kelvaron::host {

// The last click the client made, where and when: whoever sees the keyboard focus move can tell
// whether a click moved it. Shared; any thread.
class ClickRecord {
 public:
  struct Click {
    Point point;
    double time = 0;  // uptime in seconds
    friend bool operator==(const Click&, const Click&) = default;
  };

  void record(Click click) {
    std::lock_guard guard(lock_);
    last_ = click;
  }
  std::optional<Click> last() const {
    std::lock_guard guard(lock_);
    return last_;
  }
  // The last click, forgotten as it is handed over: one click explains one change of focus.
  std::optional<Click> take() {
    std::lock_guard guard(lock_);
    return std::exchange(last_, std::nullopt);
  }

 private:
  mutable std::mutex lock_;
  std::optional<Click> last_;
};

}  // namespace kelvaron::host
