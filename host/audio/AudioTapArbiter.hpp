#pragma once

#include <functional>
#include <mutex>
#include <optional>

#include "kit/wire/Bytes.hpp"

namespace kelvaron::host {

// One session at a time hears the computer: the newest claim wins, and the session it was taken
// from is told through its `revoke`, called outside the lock.
class AudioTapArbiter {
 public:
  // Claiming again with the same `id` only replaces the callback.
  void acquire(const UUID& id, std::function<void()> revoke);
  // Only the owner's release counts: a session that lost the tap cannot free it from under the
  // new owner.
  void release(const UUID& id);

 private:
  struct Owner {
    UUID id;
    std::function<void()> revoke;
  };
  std::mutex lock_;
  std::optional<Owner> owner_;
};

}  // namespace kelvaron::host
