#include "kit/relay/RelayClientLink.hpp"

namespace kelvaron {

namespace {

// What a client's tunnel says, until it ends: the first word of it settles the gate, and the host's
// datagrams go on to the QUIC connection.
asio::awaitable<void> passEvents(std::shared_ptr<RelayTunnel> tunnel,
                                 std::shared_ptr<LoopbackUDP> local,
                                 std::shared_ptr<OneShotGate> gate) {
  using Kind = RelayTunnelEvent::Kind;
  while (auto event = co_await tunnel->events().next()) {
    if (event->kind == Kind::joined) gate->succeed();
    if (event->kind == Kind::data) local->send(event->bytes);
    if (event->kind == Kind::error) {
      gate->fail(RelayLinkError::unreachable("relay error " + std::to_string(int(event->code))));
    }
    if (event->kind == Kind::unavailable) gate->fail(RelayLinkError::unreachable(event->why));
  }
  gate->fail(RelayLinkError::unreachable("closed"));
}

asio::awaitable<void> timeOut(std::shared_ptr<OneShotGate> gate,
                              std::chrono::duration<double> timeout) {
  co_await sleepFor(timeout);
  const bool cancelled = co_await isCancelled();
  if (!cancelled) gate->fail(RelayLinkError::unreachable("timed out"));
}

}  // namespace

asio::awaitable<void> OneShotGate::wait() {
  auto outcome = co_await outcome_.next();
  if (!outcome) throw std::system_error(asio::error::operation_aborted);
  if (*outcome) throw std::move(**outcome);
}

void OneShotGate::settle(std::optional<RelayLinkError> outcome) {
  {
    std::lock_guard guard(lock_);
    if (std::exchange(settled_, true)) return;
  }
  outcome_.push(std::move(outcome));
  outcome_.finish();
}

asio::awaitable<std::shared_ptr<RelayClientLink>> RelayClientLink::open(
    const Executor& executor, const std::vector<RelayEndpoint>& relays, const Data& grant,
    std::shared_ptr<const RelaySigner> signer, std::chrono::duration<double> timeout) {
  std::optional<RelayLinkError> last;
  for (const RelayEndpoint& relay : relays) {
    try {
      auto opening = openOne(executor, relay, grant, signer, timeout);  // named: GCC 12
      auto link = co_await std::move(opening);
      co_return link;
    } catch (const RelayLinkError& failure) {
      last = failure;
    }
  }
  throw last.value_or(RelayLinkError::noRelays());
}

asio::awaitable<std::shared_ptr<RelayClientLink>> RelayClientLink::openOne(
    const Executor& executor, const RelayEndpoint& relay, const Data& grant,
    std::shared_ptr<const RelaySigner> signer, std::chrono::duration<double> timeout) {
  const Executor strand = makeStrand(executor);
  auto local = std::make_shared<LoopbackUDP>(strand, std::nullopt);
  RelayTunnel::Options options;
  options.role = RelayRole::client;
  options.endpoint = relay;
  options.signer = std::move(signer);
  options.credentials = [grant](bool) -> asio::awaitable<Data> { co_return grant; };
  auto tunnel = RelayTunnel::make(strand, std::move(options));
  local->startReceiving([tunnel](Data bytes) { tunnel->send(0, std::move(bytes)); });

  const auto gate = std::make_shared<OneShotGate>();
  const Task events = Task::spawn(strand, passEvents(tunnel, local, gate));
  const Task timer = Task::spawn(strand, timeOut(gate, timeout));
  tunnel->start();
  try {
    co_await gate->wait();
  } catch (...) {
    timer.cancel();
    events.cancel();
    tunnel->stop();
    local->close();
    throw;
  }
  timer.cancel();
  co_return std::shared_ptr<RelayClientLink>(
      new RelayClientLink(relay, std::move(tunnel), std::move(local), std::move(events)));
}

void RelayClientLink::close() {
  events_.cancel();
  tunnel_->stop();
  local_->close();
}

std::shared_ptr<RelayedConnection> RelayedConnection::make(const Executor& executor,
                                                           std::shared_ptr<Connection> inner,
                                                           std::function<void()> onEnd) {
  std::shared_ptr<RelayedConnection> connection(
      new RelayedConnection(std::move(inner), std::move(onEnd)));
  Task::spawn(executor, forwardStates(connection));
  return connection;
}

// Holds the connection until the inner one has ended.
asio::awaitable<void> RelayedConnection::forwardStates(std::shared_ptr<RelayedConnection> self) {
  while (auto state = co_await self->inner_->states().next()) self->states_.push(std::move(*state));
  if (auto end = std::exchange(self->onEnd_, nullptr)) end();
  self->states_.finish();
}

}  // namespace kelvaron
