#pragma once

#include <chrono>
#include <cstdint>
#include <set>
#include <vector>

#include "host/video/ChangeBroadcaster.hpp"

namespace kelvaron::host {

// The applications in the order they were last active, most recent first, with a signal for every
// change of that order. Not thread-safe: its owner calls it from one executor at a time.
class RecentAppTracker {
 public:
  explicit RecentAppTracker(const Executor& executor,
                            std::chrono::duration<double> debounce = std::chrono::milliseconds(150))
      : broadcaster_(executor, debounce) {}

  // Starts again from the windows' order (front to back, a process once, where it first appears);
  // the active application goes to the head.
  void seed(const std::vector<std::int32_t>& ownersFrontToBack, std::int32_t active);
  // An application came to the front.
  void activate(std::int32_t pid);
  // Forgets the applications that are not in `running` (those without a window left).
  void retain(const std::set<std::int32_t>& running);

  const std::vector<std::int32_t>& pids() const { return pids_; }
  ChangeStream changes() { return broadcaster_.subscribe(); }

 private:
  std::vector<std::int32_t> pids_;
  ChangeBroadcaster broadcaster_;
};

}  // namespace kelvaron::host
