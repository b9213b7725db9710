#pragma once

#include <avahi-common/watch.h>

#include "kit/async/Task.hpp"

namespace kelvaron {

// Avahi's event loop abstraction on Asio: every watch and timeout callback runs on one strand, so
// an Avahi client needs no thread of its own as long as every call into it is made on that strand
// too. Outlive everything made with `api()`: free the client first.
class AsioAvahiPoll {
 public:
  explicit AsioAvahiPoll(const Executor& strand);
  AsioAvahiPoll(const AsioAvahiPoll&) = delete;
  AsioAvahiPoll& operator=(const AsioAvahiPoll&) = delete;

  const AvahiPoll* api() const { return &api_; }

 private:
  Executor strand_;
  AvahiPoll api_;
};

}  // namespace kelvaron
