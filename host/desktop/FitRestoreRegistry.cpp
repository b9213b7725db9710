#include "host/desktop/FitRestoreRegistry.hpp"

#include <exception>
#include <utility>
#include <vector>

#include "kit/log/Logger.hpp"

namespace kelvaron::host {

void FitRestoreRegistry::add(const UUID& id, Restore restore) {
  const std::lock_guard guard(lock_);
  entries_.insert_or_assign(id, std::move(restore));
}

void FitRestoreRegistry::remove(const UUID& id) {
  const std::lock_guard guard(lock_);
  entries_.erase(id);
}

asio::awaitable<void> FitRestoreRegistry::restoreAll() {
  // Taken out first: a restore may suspend, and another thread may add or remove meanwhile.
  std::map<UUID, Restore> taken;
  {
    const std::lock_guard guard(lock_);
    taken.swap(entries_);
  }
  for (auto& [id, restore] : taken) {
    if (!restore) continue;
    // One window that cannot be put back must not keep the others at their fitted size.
    try {
      auto restoring = restore();
      co_await std::move(restoring);
    } catch (const std::exception& error) {
      static const Logger log("io.dovka.tovu.host", "focus");
      log.error("fit: could not restore a window: %s", error.what());
    }
  }
}

std::size_t FitRestoreRegistry::size() const {
  const std::lock_guard guard(lock_);
  return entries_.size();
}

}  // namespace kelvaron::host
