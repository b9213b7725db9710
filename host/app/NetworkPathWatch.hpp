#pragma once

#include <functional>
#include <memory>

#include "host/app/ListenerSupervisor.hpp"
#include "kit/async/Task.hpp"
#include "kit/log/Logger.hpp"
#include "kit/transport/AsyncQueue.hpp"
#include "kit/transport/NetlinkPathMonitor.hpp"
#include "kit/transport/NetworkPath.hpp"

namespace kelvaron::host {

// The path as the supervisor judges it: usable or not, and the interfaces' names, sorted.
NetworkPathSignature networkPathSignature(const NetworkPath& path);

// Restarts the listener when the network changes under it, because an advertised service does not
// survive that by itself: for each new path, on the main executor, `pathChangeRequiresRestart`
// decides against the previous one.
class NetworkPathWatch {
 public:
  // Watches the machine's interfaces through rtnetlink, read on a strand of its own. Throws
  // std::system_error when they cannot be watched.
  static std::unique_ptr<NetworkPathWatch> start(const Executor& mainExecutor,
                                                 std::function<void()> restart);
  // Watches `paths` until they end or the watch is stopped.
  NetworkPathWatch(const Executor& mainExecutor, std::shared_ptr<AsyncQueue<NetworkPath>> paths,
                   std::function<void()> restart);
  ~NetworkPathWatch();
  NetworkPathWatch(const NetworkPathWatch&) = delete;
  NetworkPathWatch& operator=(const NetworkPathWatch&) = delete;

  void stop();

 private:
  static asio::awaitable<void> follow(std::shared_ptr<AsyncQueue<NetworkPath>> paths,
                                      std::function<void()> restart);

  std::shared_ptr<NetlinkPathMonitor> monitor_;
  Task task_;
};

}  // namespace kelvaron::host
