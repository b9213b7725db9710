#include "host/audio/AudioTapArbiter.hpp"

#include <utility>

namespace kelvaron::host {

void AudioTapArbiter::acquire(const UUID& id, std::function<void()> revoke) {
  std::optional<Owner> previous;
  {
    std::lock_guard guard(lock_);
    previous = std::exchange(owner_, Owner{id, std::move(revoke)});
  }
  if (previous && previous->id != id && previous->revoke) previous->revoke();
}

void AudioTapArbiter::release(const UUID& id) {
  std::lock_guard guard(lock_);
  if (owner_ && owner_->id == id) owner_.reset();
}

}  // namespace kelvaron::host
