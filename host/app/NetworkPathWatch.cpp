#include "host/app/NetworkPathWatch.hpp"

#include <algorithm>
#include <optional>

namespace kelvaron::host {

NetworkPathSignature networkPathSignature(const NetworkPath& path) {
  NetworkPathSignature signature{path.satisfied, {}};
  for (const auto& interface : path.interfaces) signature.interfaces.push_back(interface.name);
  std::sort(signature.interfaces.begin(), signature.interfaces.end());
  return signature;
}

std::unique_ptr<NetworkPathWatch> NetworkPathWatch::start(const Executor& mainExecutor,
                                                          std::function<void()> restart) {
  // "tovu.pathmonitor": the monitor reads on its own strand and touches only its queue.
  auto monitor = std::make_shared<NetlinkPathMonitor>(makeStrand(mainExecutor));
  // The reader keeps the monitor, and so its queue, until it has ended.
  std::shared_ptr<AsyncQueue<NetworkPath>> paths(monitor, &monitor->paths());
  auto watch =
      std::make_unique<NetworkPathWatch>(mainExecutor, std::move(paths), std::move(restart));
  watch->monitor_ = std::move(monitor);
  return watch;
}

NetworkPathWatch::NetworkPathWatch(const Executor& mainExecutor,
                                   std::shared_ptr<AsyncQueue<NetworkPath>> paths,
                                   std::function<void()> restart)
    : task_(Task::spawn(mainExecutor, follow(std::move(paths), std::move(restart)))) {}

NetworkPathWatch::~NetworkPathWatch() { stop(); }

void NetworkPathWatch::stop() {
  task_.cancel();
  if (monitor_) monitor_->stop();
}

asio::awaitable<void> NetworkPathWatch::follow(std::shared_ptr<AsyncQueue<NetworkPath>> paths,
                                               std::function<void()> restart) {
  const Logger log("io.dovka.tovu.host", "transport");
  std::optional<NetworkPathSignature> previous;
  while (auto path = co_await paths->next()) {
    if (co_await isCancelled()) co_return;
    NetworkPathSignature next = networkPathSignature(*path);
    const bool restartDue = pathChangeRequiresRestart(previous, next);
    previous = std::move(next);
    if (!restartDue) continue;
    log.info("network path changed; restarting listener");
    restart();
  }
}

}  // namespace kelvaron::host
