#pragma once

#include <chrono>
#include <memory>

#include "host/video/DisplayProviding.hpp"
#include "kit/async/Task.hpp"

namespace kelvaron::host {

// A debounced fan-out of empty change signals: a burst of `signal()` calls gives each subscriber
// one signal, `debounce` after the last call. A signal carries nothing, so a subscriber that reads
// late finds one, however many fired. Destroying the broadcaster ends every stream.
class ChangeBroadcaster {
 public:
  explicit ChangeBroadcaster(const Executor& executor, std::chrono::duration<double> debounce =
                                                           std::chrono::milliseconds(400));
  ~ChangeBroadcaster();
  ChangeBroadcaster(const ChangeBroadcaster&) = delete;
  ChangeBroadcaster& operator=(const ChangeBroadcaster&) = delete;

  // A new stream of signals; dropping it unsubscribes. Any thread.
  ChangeStream subscribe();
  // Asks for a signal to every subscriber. Any thread.
  void signal();

  // Entries in the list of subscribers, dropped ones included until the next signal or
  // subscription clears them out. For tests.
  std::size_t subscriberCount() const;

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace kelvaron::host
