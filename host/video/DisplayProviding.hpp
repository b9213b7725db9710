#pragma once

#include <asio/awaitable.hpp>
#include <memory>
#include <vector>

#include "kit/transport/AsyncQueue.hpp"
#include "kit/wire/WireTypes.hpp"

namespace kelvaron::host {

// A signal that something changed; it carries nothing, so a subscriber needs at most one queued.
struct ChangeSignal {};
using ChangeStream = std::shared_ptr<AsyncQueue<ChangeSignal>>;

// Which displays are there now, and when that has changed.
class DisplayProviding {
 public:
  virtual ~DisplayProviding() = default;
  // The main display first, then the others by ascending ID; empty when there is none.
  virtual asio::awaitable<std::vector<DisplayInfo>> displays() = 0;
  // A new stream of change signals for one subscriber; dropping it unsubscribes.
  virtual ChangeStream changes() = 0;
};

}  // namespace kelvaron::host
