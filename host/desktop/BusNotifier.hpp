#pragma once

#include <memory>

#include "host/desktop/Notifying.hpp"
#include "kit/async/Task.hpp"

namespace kelvaron::host {

// Notifications through the desktop's notification service (org.freedesktop.Notifications on
// the session bus), where one runs. The calls wait for the service on `executor`, one at a time.
class BusNotifier final : public Notifying {
 public:
  explicit BusNotifier(const Executor& executor);
  ~BusNotifier() override;
  void notify(std::string summary, std::string body) override;

 private:
  struct Core;
  std::shared_ptr<Core> core_;
};

}  // namespace kelvaron::host
