#include "kit/transport/QUICHostBrowser.hpp"

#include <arpa/inet.h>
#include <avahi-client/lookup.h>
#include <avahi-common/error.h>

#include <algorithm>
#include <asio/dispatch.hpp>
#include <asio/ip/udp.hpp>
#include <map>
#include <optional>
#include <system_error>
#include <tuple>

#include "kit/log/Logger.hpp"
#include "kit/transport/AvahiConnection.hpp"
#include "kit/transport/HostTXTRecord.hpp"
#include "kit/transport/NetlinkPathMonitor.hpp"
#include "kit/transport/PathChangeDetector.hpp"
#include "kit/transport/QUICConnection.hpp"

namespace kelvaron {

namespace {

using Endpoint = asio::ip::udp::endpoint;

constexpr std::chrono::milliseconds kRestartDelay{500};

const Logger& browserLog() {
  static const Logger log("io.dovka.tovu.host", "transport");
  return log;
}

// A service instance as one interface and one IP version see it. IPv4 sorts first, so that its
// address is preferred.
struct ServiceKey {
  std::string name;
  std::string domain;
  AvahiProtocol protocol;
  AvahiIfIndex interface;
  auto operator<=>(const ServiceKey&) const = default;
};

struct Resolution {
  Endpoint endpoint;
  std::optional<UUID> hostID;
};

struct Service {
  AvahiServiceResolver* resolver = nullptr;
  std::optional<Resolution> resolution;
};

asio::ip::address addressOf(const AvahiAddress& address, AvahiIfIndex interface) {
  if (address.proto == AVAHI_PROTO_INET)
    return asio::ip::address_v4(ntohl(address.data.ipv4.address));
  asio::ip::address_v6::bytes_type bytes;
  std::copy(std::begin(address.data.ipv6.address), std::end(address.data.ipv6.address),
            bytes.begin());
  asio::ip::address_v6 v6(bytes);
  // A link-local address means nothing without the interface it was seen on.
  if (v6.is_link_local()) v6.scope_id(static_cast<unsigned long>(interface));
  return v6;
}

// The record in its DNS form, as the decoder takes it.
Data dnsForm(AvahiStringList* txt) {
  Data record(avahi_string_list_serialize(txt, nullptr, 0));
  record.resize(avahi_string_list_serialize(txt, record.data(), record.size()));
  return record;
}

std::string serviceID(const ServiceKey& key) {
  return key.name + "." + kHostServiceType + "." + key.domain;
}

}  // namespace

// Everything of one browser that lives on its strand.
class QUICHostBrowser::Browse : public std::enable_shared_from_this<Browse> {
 public:
  Browse(const Executor& strand, std::shared_ptr<AsyncQueue<std::vector<DiscoveredHost>>> hosts)
      : strand_(strand), hosts_(std::move(hosts)) {}

  void start() {
    connection_.emplace(strand_, browserLog(), [this](AvahiClient* client, AvahiClientState state) {
      onClientState(client, state);
    });
    watchPath();
  }

  void stop() {
    if (stopped_) return;
    stopped_ = true;
    ++restartGeneration_;
    restartTask_.cancel();
    pathTask_.cancel();
    if (monitor_) monitor_->stop();
    forgetServices();
    connection_.reset();
    client_ = nullptr;
    endpoints_.clear();
    hosts_->finish();
  }

  std::optional<Endpoint> endpointOf(const std::string& id) const {
    const auto found = endpoints_.find(id);
    if (found == endpoints_.end()) return std::nullopt;
    return found->second;
  }

 private:
  void onClientState(AvahiClient* client, AvahiClientState state) {
    if (state == AVAHI_CLIENT_S_RUNNING) {
      client_ = client;
      if (!browser_) browse();
    } else if (state == AVAHI_CLIENT_FAILURE) {
      // The browser and resolvers go with the client.
      client_ = nullptr;
      browser_ = nullptr;
      services_.clear();
      publish();
    }
  }

  void browse() {
    browser_ =
        avahi_service_browser_new(client_, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC, kHostServiceType,
                                  nullptr, AvahiLookupFlags{}, onBrowse, this);
    if (!browser_) {
      browserLog().error("cannot browse: %s", avahi_strerror(avahi_client_errno(client_)));
    }
  }

  static void onBrowse(AvahiServiceBrowser* browser, AvahiIfIndex interface, AvahiProtocol protocol,
                       AvahiBrowserEvent event, const char* name, const char* type,
                       const char* domain, AvahiLookupResultFlags, void* userdata) {
    auto& self = *static_cast<Browse*>(userdata);
    // A browser of a failed client lingers until the client is replaced.
    if (browser != self.browser_) return;
    switch (event) {
      case AVAHI_BROWSER_NEW:
        self.resolve({name, domain, protocol, interface}, type);
        break;
      case AVAHI_BROWSER_REMOVE:
        self.remove({name, domain, protocol, interface});
        break;
      case AVAHI_BROWSER_FAILURE:
        browserLog().error("browsing failed: %s", avahi_strerror(avahi_client_errno(self.client_)));
        break;
      case AVAHI_BROWSER_CACHE_EXHAUSTED:
      case AVAHI_BROWSER_ALL_FOR_NOW:
        break;
    }
  }

  // The resolver stays open, so that a changed address or record is seen.
  void resolve(ServiceKey key, const char* type) {
    if (services_.contains(key)) return;
    auto* resolver = avahi_service_resolver_new(client_, key.interface, key.protocol,
                                                key.name.c_str(), type, key.domain.c_str(),
                                                key.protocol, AvahiLookupFlags{}, onResolve, this);
    if (!resolver) {
      browserLog().error("cannot resolve \"%s\": %s", key.name.c_str(),
                         avahi_strerror(avahi_client_errno(client_)));
      return;
    }
    services_.emplace(std::move(key), Service{resolver, std::nullopt});
  }

  static void onResolve(AvahiServiceResolver* resolver, AvahiIfIndex interface, AvahiProtocol,
                        AvahiResolverEvent event, const char*, const char*, const char*,
                        const char*, const AvahiAddress* address, std::uint16_t port,
                        AvahiStringList* txt, AvahiLookupResultFlags, void* userdata) {
    auto& self = *static_cast<Browse*>(userdata);
    const auto found =
        std::find_if(self.services_.begin(), self.services_.end(),
                     [&](const auto& entry) { return entry.second.resolver == resolver; });
    if (found == self.services_.end()) return;
    if (event == AVAHI_RESOLVER_FOUND && address) {
      found->second.resolution =
          Resolution{{addressOf(*address, interface), port}, HostTXTRecord::hostID(dnsForm(txt))};
    } else {
      // Browsing reports the service again if it comes back.
      browserLog().error("cannot resolve \"%s\": %s", found->first.name.c_str(),
                         avahi_strerror(avahi_client_errno(self.client_)));
      self.remove(found->first);
    }
    self.publish();
  }

  void remove(const ServiceKey& key) {
    const auto found = services_.find(key);
    if (found == services_.end()) return;
    avahi_service_resolver_free(found->second.resolver);
    services_.erase(found);
    publish();
  }

  void forgetServices() {
    for (const auto& [key, service] : services_) avahi_service_resolver_free(service.resolver);
    services_.clear();
    if (browser_) avahi_service_browser_free(browser_);
    browser_ = nullptr;
  }

  // One entry per service instance, with the first address found for it.
  void publish() {
    std::vector<DiscoveredHost> hosts;
    std::map<std::string, Endpoint> endpoints;
    for (const auto& [key, service] : services_) {
      if (!service.resolution) continue;
      std::string id = serviceID(key);
      if (!endpoints.emplace(id, service.resolution->endpoint).second) continue;
      hosts.push_back({std::move(id), key.name, service.resolution->hostID, false});
    }
    std::sort(hosts.begin(), hosts.end(), [](const auto& a, const auto& b) {
      return std::tie(a.name, a.id) < std::tie(b.name, b.id);
    });
    endpoints_ = std::move(endpoints);
    if (hosts == listed_) return;
    listed_ = hosts;
    hosts_->push(std::move(hosts));
  }

  void watchPath() {
    try {
      monitor_ = std::make_shared<NetlinkPathMonitor>(strand_);
    } catch (const std::system_error& error) {
      browserLog().error("cannot watch the network path: %s", error.what());
      return;
    }
    pathTask_ = Task::spawn(strand_, followPath(monitor_, weak_from_this()));
  }

  static asio::awaitable<void> followPath(std::shared_ptr<NetlinkPathMonitor> monitor,
                                          std::weak_ptr<Browse> weak) {
    while (auto path = co_await monitor->paths().next()) {
      const auto self = weak.lock();
      if (!self) co_return;
      if (self->detector_.update(PathChangeDetector::signature(*path))) self->scheduleRestart();
    }
  }

  // A restart scheduled later replaces one still pending.
  void scheduleRestart() {
    restartTask_.cancel();
    restartTask_ = Task::spawn(strand_, restartLater(weak_from_this(), ++restartGeneration_));
  }

  static asio::awaitable<void> restartLater(std::weak_ptr<Browse> weak, unsigned generation) {
    co_await sleepFor(kRestartDelay);
    const auto self = weak.lock();
    if (self && self->restartGeneration_ == generation) self->restart();
  }

  // Stale entries go at once; whatever is still there is found again.
  void restart() {
    forgetServices();
    endpoints_.clear();
    listed_.clear();
    hosts_->push({});
    if (client_) browse();
  }

  Executor strand_;
  std::shared_ptr<AsyncQueue<std::vector<DiscoveredHost>>> hosts_;
  std::optional<AvahiConnection> connection_;
  AvahiClient* client_ = nullptr;
  AvahiServiceBrowser* browser_ = nullptr;
  std::map<ServiceKey, Service> services_;
  std::map<std::string, Endpoint> endpoints_;
  std::vector<DiscoveredHost> listed_;
  PathChangeDetector detector_;
  std::shared_ptr<NetlinkPathMonitor> monitor_;
  Task pathTask_;
  Task restartTask_;
  unsigned restartGeneration_ = 0;
  bool stopped_ = false;
};

std::shared_ptr<QUICHostBrowser> QUICHostBrowser::start(const Executor& executor,
                                                        QUICConfiguration configuration) {
  std::shared_ptr<QUICHostBrowser> browser(new QUICHostBrowser(executor, std::move(configuration)));
  asio::dispatch(browser->strand_, [browse = browser->browse_] { browse->start(); });
  return browser;
}

QUICHostBrowser::QUICHostBrowser(const Executor& executor, QUICConfiguration configuration)
    : executor_(executor),
      strand_(makeStrand(executor)),
      configuration_(std::move(configuration)),
      hosts_(std::make_shared<AsyncQueue<std::vector<DiscoveredHost>>>()),
      browse_(std::make_shared<Browse>(strand_, hosts_)) {}

QUICHostBrowser::~QUICHostBrowser() { stop(); }

void QUICHostBrowser::stop() {
  asio::dispatch(strand_, [browse = browse_] { browse->stop(); });
}

asio::awaitable<std::shared_ptr<Connection>> QUICHostBrowser::connect(const std::string& id,
                                                                      ServerTrust trust) {
  const Executor connectionExecutor = makeStrand(executor_);
  return dial(browse_, strand_, connectionExecutor, id, std::move(trust), configuration_);
}

// Takes everything by value: the caller's arguments may be gone when the dial runs.
asio::awaitable<std::shared_ptr<Connection>> QUICHostBrowser::dial(
    std::shared_ptr<Browse> browse, Executor strand, Executor connectionExecutor, std::string id,
    ServerTrust trust, QUICConfiguration configuration) {
  const std::optional<Endpoint> endpoint =
      co_await runOn(strand, [&browse, &id] { return browse->endpointOf(id); });
  if (!endpoint) throw QUICError::failed("unknown host " + id);
  auto connecting = QUICConnection::connect(connectionExecutor, *endpoint, std::move(trust),
                                            std::move(configuration));
  std::shared_ptr<Connection> connection = co_await std::move(connecting);
  co_return connection;
}

}  // namespace kelvaron
