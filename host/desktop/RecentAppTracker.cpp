#include "host/desktop/RecentAppTracker.hpp"

#include <algorithm>

namespace kelvaron::host {

void RecentAppTracker::seed(const std::vector<std::int32_t>& ownersFrontToBack,
                            std::int32_t active) {
  std::vector<std::int32_t> order;
  if (active >= 1) order.push_back(active);
  for (const std::int32_t pid : ownersFrontToBack) {
    if (pid >= 1 && std::ranges::find(order, pid) == order.end()) order.push_back(pid);
  }
  if (order == pids_) return;
  pids_ = std::move(order);
  broadcaster_.signal();
}

void RecentAppTracker::activate(std::int32_t pid) {
  if (pid < 1 || (!pids_.empty() && pids_.front() == pid)) return;
  std::erase(pids_, pid);
  pids_.insert(pids_.begin(), pid);
  broadcaster_.signal();
}

void RecentAppTracker::retain(const std::set<std::int32_t>& running) {
  if (std::erase_if(pids_, [&running](std::int32_t pid) { return !running.contains(pid); }) > 0) {
    broadcaster_.signal();
  }
}

}  // namespace kelvaron::host
