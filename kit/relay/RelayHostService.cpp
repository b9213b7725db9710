#include "kit/relay/RelayHostService.hpp"

#include "kit/log/Logger.hpp"
#include "kit/relay/InviteCode.hpp"
#include "kit/relay/RelayClientLink.hpp"

namespace kelvaron {

namespace {

const Logger& serviceLog() {
  static const Logger logger("io.dovka.tovu.relay", "service");
  return logger;
}

}  // namespace

std::string RelayStatus::text() const {
  switch (kind) {
    case Kind::registered: {
      if (detail.empty()) return "Ready";
      std::string text = "Ready · ";
      text += RelayRegion::displayName(detail);
      return text;
    }
    case Kind::error:
      return detail;
    case Kind::stopped:
      return "Remote access off";
    case Kind::connecting:
      return "Connecting…";
  }
  return {};
}

std::shared_ptr<RelayHostService> RelayHostService::make(
    const Executor& executor, std::shared_ptr<CoordinatorClient> coordinator,
    std::shared_ptr<const RelaySigner> signer, std::vector<Data> denied, Options options) {
  return std::shared_ptr<RelayHostService>(new RelayHostService(
      executor, std::move(coordinator), std::move(signer), std::move(denied), std::move(options)));
}

RelayHostService::RelayHostService(const Executor& executor,
                                   std::shared_ptr<CoordinatorClient> coordinator,
                                   std::shared_ptr<const RelaySigner> signer,
                                   std::vector<Data> denied, Options options)
    : strand_(makeStrand(executor)),
      coordinator_(std::move(coordinator)),
      signer_(std::move(signer)),
      options_(std::move(options)),
      denied_(std::move(denied)) {}

// The loop may run at once on this thread, so it starts outside the lock.
void RelayHostService::start() {
  {
    std::lock_guard guard(lock_);
    if (std::exchange(started_, true)) return;
  }
  const Task task = Task::spawn(strand_, run(shared_from_this()));
  bool ended = false;
  {
    std::lock_guard guard(lock_);
    ended = ended_;
    if (!ended) task_ = task;
  }
  if (ended) task.cancel();
}

void RelayHostService::stop() {
  std::optional<Task> task;
  {
    std::lock_guard guard(lock_);
    ended_ = true;
    task = std::exchange(task_, std::nullopt);
  }
  if (task) task->cancel();
  publish(RelayStatus::stopped());
  statuses_.finish();
}

void RelayHostService::setListenerPort(std::optional<std::uint16_t> port) {
  std::lock_guard guard(lock_);
  if (listenerPort_ == port) return;
  listenerPort_ = port;
  ++portGeneration_;
}

void RelayHostService::setDenied(std::vector<Data> denied) {
  std::lock_guard guard(lock_);
  denied_ = std::move(denied);
  if (tunnel_) tunnel_->setDenied(denied_);
}

void RelayHostService::setRelaysHandler(std::function<void(std::vector<RelayEndpoint>)> handler) {
  asio::dispatch(strand_, [self = shared_from_this(), handler = std::move(handler)]() mutable {
    self->relaysHandler_ = std::move(handler);
  });
}

void RelayHostService::setFatalHandler(std::function<void(const CoordinatorError&)> handler) {
  asio::dispatch(strand_, [self = shared_from_this(), handler = std::move(handler)]() mutable {
    self->fatalHandler_ = std::move(handler);
  });
}

RelayStatus RelayHostService::current() const {
  std::lock_guard guard(lock_);
  return current_;
}

void RelayHostService::publish(RelayStatus status) {
  {
    std::lock_guard guard(lock_);
    if (current_ == status) return;
    current_ = status;
  }
  statuses_.push(std::move(status));
}

// Admission, a session at the first relay, and a pause that grows with each failure in a row:
// 2, 5, 10, 30, 30 … seconds; after a session that went well, the shortest.
asio::awaitable<void> RelayHostService::run(std::shared_ptr<RelayHostService> self) {
  std::size_t failures = 0;
  for (;;) {
    if (co_await isCancelled()) co_return;
    self->publish(RelayStatus::connecting());
    std::optional<std::string> reason;
    std::optional<CoordinatorError> final;
    try {
      const RelayAdmission admission = co_await self->coordinator_->admission(failures > 0);
      if (admission.relays.empty()) {
        reason = RelayLinkError::noRelays().what();
      } else {
        reason = co_await self->runSession(admission);
      }
    } catch (const CoordinatorError& error) {
      if (error.isFinal()) final = error;
      reason = error.what();
    } catch (const std::exception& error) {
      reason = error.what();
    }
    if (co_await isCancelled()) co_return;
    if (final) co_return self->endForGood(*final);
    std::size_t pause = 0;
    if (reason) {
      pause = std::min(failures, self->options_.retryBackoff.size() - 1);
      ++failures;
      self->publish(RelayStatus::error(*reason));
    } else {
      failures = 0;
    }
    co_await sleepFor(self->options_.retryBackoff[pause]);
  }
}

// One registration at the first relay, until it ends; why it failed, or nothing if it had gone
// well.
asio::awaitable<std::optional<std::string>> RelayHostService::runSession(
    const RelayAdmission& admission) {
  const RelayCandidate relay = admission.relays.front();
  const RelayEndpoint endpoint{relay.host, relay.port};
  if (relaysHandler_) relaysHandler_({endpoint});
  RelayTunnel::Options options;
  options.role = RelayRole::host;
  options.endpoint = endpoint;
  options.signer = signer_;
  options.keepaliveInterval = options_.keepaliveInterval;
  options.watchPath = options_.watchPath;
  options.credentials = [coordinator = coordinator_](bool fresh) -> asio::awaitable<Data> {
    const RelayAdmission current = co_await coordinator->admission(fresh);
    co_return current.token;
  };
  const auto tunnel = RelayTunnel::make(strand_, std::move(options));
  {
    std::lock_guard guard(lock_);
    tunnel_ = tunnel;
    tunnel->setDenied(denied_);
  }
  const Task refresh = Task::spawn(strand_, refreshTokens(shared_from_this(), admission.expiresAt));
  Flows flows;
  // However the session ends, its token refresh, flows and tunnel end with it.
  struct Ending {
    RelayHostService& service;
    const Task& refresh;
    Flows& flows;
    const std::shared_ptr<RelayTunnel>& tunnel;
    ~Ending() {
      refresh.cancel();
      for (const auto& [peer, flow] : flows) flow->close();
      tunnel->stop();
      std::lock_guard guard(service.lock_);
      service.tunnel_.reset();
    }
  } const ending{*this, refresh, flows, tunnel};
  tunnel->start();

  using Kind = RelayTunnelEvent::Kind;
  std::uint64_t generation = 0;
  bool registered = false;
  std::optional<std::string> reason;
  for (bool going = true; going;) {
    auto event = co_await tunnel->events().next();
    if (co_await isCancelled()) {
      reason = "stopped";
      break;
    }
    if (!event) {
      if (!registered) reason = "tunnel closed";
      break;
    }
    switch (event->kind) {
      case Kind::registered:
        registered = true;
        publish(RelayStatus::registered(relay.region));
        break;
      case Kind::peerClosed:
        if (const auto flow = flows.find(event->peer); flow != flows.end()) {
          flow->second->close();
          flows.erase(flow);
        }
        break;
      case Kind::data:
        if (const auto flow = flowOf(flows, generation, event->peer, tunnel)) {
          flow->send(event->bytes);
        }
        break;
      case Kind::error:
        reason = "relay refused (error " + std::to_string(int(event->code)) + ")";
        going = false;
        break;
      case Kind::unavailable:
        if (!registered) reason = event->why;
        going = false;
        break;
      default:
        break;
    }
  }
  co_return reason;
}

// The loopback socket of a relayed peer toward the listener, made on its first datagram. A
// listener that moved takes every flow with it.
std::shared_ptr<LoopbackUDP> RelayHostService::flowOf(Flows& flows, std::uint64_t& generation,
                                                      std::uint32_t peer,
                                                      const std::shared_ptr<RelayTunnel>& tunnel) {
  std::optional<std::uint16_t> port;
  {
    std::lock_guard guard(lock_);
    port = listenerPort_;
    if (generation != portGeneration_) {
      for (const auto& [_, flow] : flows) flow->close();
      flows.clear();
      generation = portGeneration_;
    }
  }
  if (!port) return nullptr;
  if (const auto found = flows.find(peer); found != flows.end()) return found->second;
  // A relay that names ever new peers costs a socket each, up to this many.
  constexpr std::size_t kMostFlows = 256;
  if (flows.size() >= kMostFlows) return nullptr;
  try {
    auto flow = std::make_shared<LoopbackUDP>(strand_, *port);
    flow->startReceiving([tunnel, peer](Data bytes) { tunnel->send(peer, std::move(bytes)); });
    return flows[peer] = flow;
  } catch (const std::system_error& failure) {
    serviceLog().error("no loopback socket for a relayed client: %s", failure.what());
    return nullptr;
  }
}

// Beside a session: a fresh token shortly before the last one expires, so that registering again
// never waits for the coordinator.
asio::awaitable<void> RelayHostService::refreshTokens(
    std::shared_ptr<RelayHostService> self, std::chrono::system_clock::time_point expiresAt) {
  for (;;) {
    const auto expiry = self->coordinator_->cachedExpiry().value_or(expiresAt);
    const std::chrono::duration<double> ahead = expiry - std::chrono::system_clock::now();
    co_await sleepFor(
        std::max(ahead - self->options_.tokenRefreshMargin, self->options_.tokenRefreshFloor));
    if (co_await isCancelled()) co_return;
    std::optional<CoordinatorError> final;
    try {
      auto fetching = self->coordinator_->fetchToken(std::nullopt);
      const RelayAdmission fresh = co_await std::move(fetching);
      const auto left = std::chrono::duration_cast<std::chrono::seconds>(
          fresh.expiresAt - std::chrono::system_clock::now());
      serviceLog().info("token renewed, good for %lld s", static_cast<long long>(left.count()));
    } catch (const CoordinatorError& error) {
      if (error.isFinal()) final = error;
      serviceLog().error("token refresh failed: %s", error.what());
    } catch (const std::exception& error) {
      serviceLog().error("token refresh failed: %s", error.what());
    }
    if (co_await isCancelled()) co_return;
    if (final) co_return self->endForGood(*final);
  }
}

// Enrolment removed: nothing but enrolling anew helps, so the service ends without retrying.
void RelayHostService::endForGood(const CoordinatorError& error) {
  std::optional<Task> task;
  {
    std::lock_guard guard(lock_);
    if (std::exchange(ended_, true)) return;  // stopped already, or ended by another path
    task = std::exchange(task_, std::nullopt);
  }
  publish(RelayStatus::error(error.what()));
  if (fatalHandler_) fatalHandler_(error);
  if (task) task->cancel();
}

}  // namespace kelvaron
