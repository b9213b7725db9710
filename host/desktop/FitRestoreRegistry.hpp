#pragma once

#include <asio/awaitable.hpp>
#include <cstddef>
#include <functional>
#include <map>
#include <mutex>

#include "kit/wire/Bytes.hpp"

namespace kelvaron::host {

// How to undo every window resize a session made, for the whole process: a session that ends
// undoes its own, and the host undoes what is left when it quits. Any thread.
class FitRestoreRegistry {
 public:
  using Restore = std::function<asio::awaitable<void>()>;

  void add(const UUID& id, Restore restore);
  void remove(const UUID& id);
  // Runs every entry once, in no particular order, and forgets them.
  asio::awaitable<void> restoreAll();
  std::size_t size() const;

 private:
  mutable std::mutex lock_;
  std::map<UUID, Restore> entries_;
};

}  // namespace kelvaron::host
