#pragma once

#include <memory>

#include "kit/async/Task.hpp"
#include "kit/transport/Connection.hpp"
#include "kit/transport/QUICConfiguration.hpp"

namespace kelvaron {

// Finds hosts on the local network by DNS-SD (type "_tovu._udp", through avahi-daemon), resolves
// each to its address, port and host ID, and yields the complete list, sorted by name and then
// id, whenever it changes. A host seen over several interfaces or IP versions is listed once; its
// `id` is its service instance name ("Name._tovu._udp.local"), stable for as long as the host is
// seen. When the kinds of network interface change, or the network comes or goes, browsing starts
// over half a second later (a burst of changes makes one restart): the list empties at once and
// fills again from what is found anew. Everything runs on a strand of its own
// ("tovu.quic.browser").
class QUICHostBrowser final : public HostBrowser {
 public:
  static std::shared_ptr<QUICHostBrowser> start(const Executor& executor,
                                                QUICConfiguration configuration = {});
  ~QUICHostBrowser() override;

  AsyncQueue<std::vector<DiscoveredHost>>& hosts() override { return *hosts_; }
  // Dials a listed host. Throws QUICError: "unknown host <id>" for an id not listed now.
  asio::awaitable<std::shared_ptr<Connection>> connect(const std::string& id,
                                                       ServerTrust trust) override;
  // Ends browsing and the list. Idempotent.
  void stop() override;

 private:
  class Browse;
  QUICHostBrowser(const Executor& executor, QUICConfiguration configuration);
  static asio::awaitable<std::shared_ptr<Connection>> dial(std::shared_ptr<Browse> browse,
                                                           Executor strand,
                                                           Executor connectionExecutor,
                                                           std::string id, ServerTrust trust,
                                                           QUICConfiguration configuration);

  Executor executor_;
  Executor strand_;
  QUICConfiguration configuration_;
  std::shared_ptr<AsyncQueue<std::vector<DiscoveredHost>>> hosts_;
  std::shared_ptr<Browse> browse_;
};

}  // namespace kelvaron
