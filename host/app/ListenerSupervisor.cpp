#include "host/app/ListenerSupervisor.hpp"

#include <algorithm>
#include <cmath>

namespace kelvaron::host {

double BackoffPolicy::delay(int retry) const {
  return std::min(maximum, base * std::pow(factor, retry));
}

std::shared_ptr<ListenerSupervisor> ListenerSupervisor::make(
    const Executor& mainExecutor, Factory factory,
    std::function<void(std::shared_ptr<Connection>)> onConnection, Sleeper sleep,
    BackoffPolicy backoff, std::optional<std::uint16_t> firstPort) {
  return std::shared_ptr<ListenerSupervisor>(
      new ListenerSupervisor(mainExecutor, std::move(factory), std::move(onConnection),
                             std::move(sleep), backoff, firstPort));
}

ListenerSupervisor::ListenerSupervisor(
    const Executor& executor, Factory factory,
    std::function<void(std::shared_ptr<Connection>)> onConnection, Sleeper sleep,
    BackoffPolicy backoff, std::optional<std::uint16_t> firstPort)
    : executor_(executor),
      factory_(std::move(factory)),
      onConnection_(std::move(onConnection)),
      sleep_(std::move(sleep)),
      backoff_(backoff),
      lastPort_(firstPort) {}

// The loop holds the supervisor weakly; stopping the listener lets it find out that it is gone.
ListenerSupervisor::~ListenerSupervisor() { stop(); }

void ListenerSupervisor::stop() {
  task_.cancel();
  task_ = Task();
  if (current_) current_->listener->stop();
  current_.reset();
}

void ListenerSupervisor::restart() {
  stop();
  const int generation = ++generation_;
  setState({ListenerState::Kind::starting});
  task_ = Task::spawn(executor_, run(weak_from_this(), generation));
}

void ListenerSupervisor::setState(ListenerState state) {
  state_ = state;
  if (onPortChange_) {
    onPortChange_(state.kind == ListenerState::Kind::advertising
                      ? std::optional<std::uint16_t>(state.port)
                      : std::nullopt);
  }
}

// The supervisor of generation `generation`, or nothing once it is gone, the task is cancelled or
// a restart has made this loop stale.
asio::awaitable<std::shared_ptr<ListenerSupervisor>> ListenerSupervisor::current(
    const std::weak_ptr<ListenerSupervisor>& weak, int generation) {
  auto self = weak.lock();
  if (!self || co_await isCancelled() || self->generation_ != generation) co_return nullptr;
  co_return self;
}

// Like every background loop, it holds the supervisor only between its suspensions, and finds out
// wherever it resumes whether it is still wanted.
asio::awaitable<void> ListenerSupervisor::run(std::weak_ptr<ListenerSupervisor> weak,
                                              int generation) {
  int attempts = 0;
  for (;;) {
    auto self = co_await current(weak, generation);
    if (!self) co_return;
    std::string failure;
    try {
      const ListenerStart start = self->startListener();
      self.reset();
      const std::uint16_t port = co_await start.ready();
      self = co_await current(weak, generation);
      if (!self) {
        start.listener->stop();
        co_return;
      }
      self->listening(port, start.discoveryProblem);
      attempts = 0;
      self.reset();
      while (auto connection = co_await start.listener->connections().next()) {
        if (const auto owner = weak.lock()) owner->onConnection_(std::move(*connection));
      }
      throw ListenerStoppedUnexpectedly();
    } catch (const std::exception& error) {
      failure = error.what();
    }
    self = co_await current(weak, generation);
    if (!self) co_return;
    const std::chrono::duration<double> delay{self->fail(failure, attempts)};
    const Sleeper sleep = self->sleep_;
    self.reset();
    co_await sleep(delay);
  }
}

ListenerStart ListenerSupervisor::startListener() {
  requestedPorts_.push_back(lastPort_);
  ListenerStart start = factory_(lastPort_);
  current_ = start;
  return start;
}

void ListenerSupervisor::listening(std::uint16_t port,
                                   const std::optional<std::string>& discoveryProblem) {
  lastPort_ = port;
  failuresOnPort_ = 0;
  discoveryProblem_ = discoveryProblem;
  setState(ListenerState::advertising(port));
  // Only a listener that is announced is said to advertise.
  if (discoveryProblem) {
    log_.info("listener up on UDP %hu, not announced on the local network", port);
  } else {
    log_.info("listener advertising on UDP %hu", port);
  }
}

double ListenerSupervisor::fail(const std::string& reason, int& attempts) {
  if (current_) current_->listener->stop();
  current_.reset();
  // A port is tried twice, then given up for any port.
  if (lastPort_ && ++failuresOnPort_ >= 2) {
    abandonedPort_ = AbandonedPort{*lastPort_, reason};
    lastPort_.reset();
    failuresOnPort_ = 0;
  }
  const double delay = backoff_.delay(attempts++);
  setState(ListenerState::retrying(attempts, delay));
  log_.error("listener failed (%s); retry %d in %.0fs", reason.c_str(), attempts, delay);
  return delay;
}

bool pathChangeRequiresRestart(const std::optional<NetworkPathSignature>& previous,
                               const NetworkPathSignature& next) {
  if (!previous || !next.satisfied) return false;
  return !previous->satisfied || previous->interfaces != next.interfaces;
}

}  // namespace kelvaron::host
