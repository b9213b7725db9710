#pragma once

#include <memory>

#include "kit/async/Task.hpp"
#include "kit/transport/AsyncQueue.hpp"
#include "kit/transport/NetworkPath.hpp"

namespace kelvaron {

// Watches the machine's interfaces and addresses through rtnetlink and yields the network path on
// `paths()`: once when it has read everything the kernel has, then each time the path changes.
// Only the kernel is listened to; a datagram from anyone else is dropped. When the kernel's
// notifications overflow the socket, everything is read afresh.
class NetlinkPathMonitor {
 public:
  // Starts at once, reading on `strand`. Throws std::system_error when the socket cannot be made.
  explicit NetlinkPathMonitor(const Executor& strand);
  ~NetlinkPathMonitor();
  NetlinkPathMonitor(const NetlinkPathMonitor&) = delete;
  NetlinkPathMonitor& operator=(const NetlinkPathMonitor&) = delete;

  // Read it on a serial executor. It ends with `stop()`, or when the socket fails.
  AsyncQueue<NetworkPath>& paths() { return *paths_; }

  // Idempotent.
  void stop();

 private:
  std::shared_ptr<AsyncQueue<NetworkPath>> paths_;
  Task task_;
};

}  // namespace kelvaron
