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
    BackoffPolicy backoff) {
  return std::shared_ptr<ListenerSupervisor>(new ListenerSupervisor(
      mainExecutor, std::move(factory), std::move(onConnection), std::move(sleep), backoff));
}

ListenerSupervisor::ListenerSupervisor(
    const Executor& executor, Factory factory,
    std::function<void(std::shared_ptr<Connection>)> onConnection, Sleeper sleep,
    BackoffPolicy backoff)
    : executor_(executor),
      factory_(std::move(factory)),
      onConnection_(std::move(onConnection)),
      sleep_(std::move(sleep)),
      backoff_(backoff) {}

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

// A stale loop (an older generation, or a cancelled task) finds out wherever it resumes and ends.
asio::awaitable<void> ListenerSupervisor::run(std::weak_ptr<ListenerSupervisor> weak,
                                              int generation) {
  int attempts = 0;
  for (;;) {
    auto self = weak.lock();
    if (!self || co_await isCancelled() || self->generation_ != generation) co_return;
    std::string failure;
    try {
      const auto port = self->lastPort_;
      self->requestedPorts_.push_back(port);
      const ListenerStart start = self->factory_(port);
      self->current_ = start;
      const std::uint16_t ready = co_await start.ready();
      if (self->generation_ != generation) {
        start.listener->stop();
        co_return;
      }
      self->lastPort_ = ready;
      self->failuresOnPort_ = 0;
      attempts = 0;
      self->setState(ListenerState::advertising(ready));
      self->log_.info("listener advertising on UDP %hu", ready);
      while (auto connection = co_await start.listener->connections().next()) {
        self->onConnection_(std::move(*connection));
      }
      if (self->generation_ != generation || co_await isCancelled()) co_return;
      throw ListenerStoppedUnexpectedly();
    } catch (const std::exception& error) {
      failure = error.what();
    }
    if (self->generation_ != generation || co_await isCancelled()) co_return;
    const std::chrono::duration<double> delay{self->fail(failure, attempts)};
    const Sleeper sleep = self->sleep_;
    self.reset();  // held weakly while it waits
    co_await sleep(delay);
  }
}

double ListenerSupervisor::fail(const std::string& reason, int& attempts) {
  if (current_) current_->listener->stop();
  current_.reset();
  // A port is tried twice, then given up for any port.
  if (lastPort_ && ++failuresOnPort_ >= 2) {
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
