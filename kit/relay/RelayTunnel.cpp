#include "kit/relay/RelayTunnel.hpp"

#include <asio/co_spawn.hpp>
#include <asio/detached.hpp>
#include <asio/dispatch.hpp>
#include <asio/redirect_error.hpp>
#include <asio/use_awaitable.hpp>

#include "kit/log/Logger.hpp"
#include "kit/transport/NetlinkPathMonitor.hpp"

namespace kelvaron {

namespace {

const Logger& tunnelLog() {
  static const Logger logger("io.dovka.tovu.relay", "tunnel");
  return logger;
}

constexpr std::chrono::seconds kReopenDelay{1};

}  // namespace

std::shared_ptr<RelayTunnel> RelayTunnel::make(const Executor& executor, Options options) {
  return std::shared_ptr<RelayTunnel>(new RelayTunnel(executor, std::move(options)));
}

RelayTunnel::RelayTunnel(const Executor& executor, Options options)
    : strand_(makeStrand(executor)),
      options_(std::move(options)),
      machine_(options_.role, *options_.signer),
      reopen_(strand_) {}

void RelayTunnel::start() {
  asio::dispatch(strand_, [self = shared_from_this()] {
    self->apply(self->machine_.start());
    if (self->options_.watchPath) {
      self->pathTask_ = Task::spawn(self->strand_, self->watchPath());
    }
  });
}

void RelayTunnel::stop() {
  asio::dispatch(strand_, [self = shared_from_this()] {
    if (self->pathTask_) self->pathTask_->cancel();
    self->reopen_.cancel();
    self->apply(self->machine_.stop());
  });
}

void RelayTunnel::send(std::uint32_t peer, Data bytes) {
  asio::dispatch(strand_, [self = shared_from_this(), peer, bytes = std::move(bytes)] {
    self->apply(self->machine_.send(peer, bytes));
  });
}

void RelayTunnel::setDenied(std::vector<Data> denied) {
  asio::dispatch(strand_, [self = shared_from_this(), denied = std::move(denied)]() mutable {
    self->apply(self->machine_.setDenied(std::move(denied)));
  });
}

void RelayTunnel::apply(TunnelActions actions) {
  for (TunnelAction& action : actions) apply(action);
}

void RelayTunnel::apply(TunnelAction& action) {
  using namespace tunnelAction;
  const auto self = shared_from_this();
  const auto spawn = [&](auto makeBody) { asio::co_spawn(strand_, makeBody, asio::detached); };
  if (const auto* a = std::get_if<openSocket>(&action)) {
    closeSocket();
    socketGeneration_ = a->generation;
    spawn([self, generation = a->generation] { return self->open(generation); });
  } else if (const auto* later = std::get_if<reopenLater>(&action)) {
    reopen_.expires_after(kReopenDelay);
    reopen_.async_wait([self, generation = later->generation](std::error_code error) {
      if (!error) self->apply(self->machine_.reopen(generation));
    });
  } else if (auto* datagram = std::get_if<tunnelAction::send>(&action)) {
    write(std::move(datagram->datagram), false);
  } else if (auto* last = std::get_if<sendThenClose>(&action)) {
    write(std::move(last->datagram), true);
  } else if (std::holds_alternative<tunnelAction::closeSocket>(action)) {
    closeSocket();
  } else if (const auto* arm = std::get_if<armRetry>(&action)) {
    if (retry_) retry_->cancel();
    retry_ = std::make_shared<asio::steady_timer>(strand_);
    spawn([self, timer = retry_, flow = arm->flow] {
      return self->repeat(timer, self->options_.retryInterval,
                          [self, flow] { return self->machine_.retryTick(flow); });
    });
  } else if (std::holds_alternative<cancelRetry>(action)) {
    if (retry_) retry_->cancel();
    retry_.reset();
  } else if (std::holds_alternative<armKeepalive>(action)) {
    if (keepalive_) keepalive_->cancel();
    keepalive_ = std::make_shared<asio::steady_timer>(strand_);
    spawn([self, timer = keepalive_] {
      return self->repeat(timer, self->options_.keepaliveInterval,
                          [self] { return self->machine_.keepaliveTick(); });
    });
  } else if (std::holds_alternative<cancelKeepalive>(action)) {
    if (keepalive_) keepalive_->cancel();
    keepalive_.reset();
  } else if (const auto* fetch = std::get_if<tunnelAction::fetchCredential>(&action)) {
    spawn([self, fresh = fetch->fresh, flow = fetch->flow] {
      return self->fetchCredential(fresh, flow);
    });
  } else if (auto* event = std::get_if<emit>(&action)) {
    events_->push(std::move(event->event));
  } else if (std::holds_alternative<endEvents>(action)) {
    events_->finish();
  } else if (const auto* line = std::get_if<tunnelAction::log>(&action)) {
    tunnelLog().info("%s", line->line.c_str());
  }
}

// The relay's name resolved, a socket connected to it, and its datagrams read.
asio::awaitable<void> RelayTunnel::open(std::uint64_t generation) {
  if (options_.endpoint.port == 0) {
    events_->push(RelayTunnelEvent::unavailable("bad relay port"));
    co_return;
  }
  asio::ip::udp::resolver resolver(strand_);
  std::error_code error;
  const auto found = co_await resolver.async_resolve(
      options_.endpoint.host, std::to_string(options_.endpoint.port),
      asio::redirect_error(asio::use_awaitable, error));
  if (generation != socketGeneration_) co_return;
  auto socket = std::make_shared<asio::ip::udp::socket>(strand_);
  if (!error && !found.empty()) {
    const auto relay = found.begin()->endpoint();
    socket->open(relay.protocol(), error);
    if (!error) socket->connect(relay, error);
  }
  if (error || found.empty()) {
    tunnelLog().error("relay socket failed: %s", error ? error.message().c_str() : "no address");
    apply(machine_.socketFailed(generation));
    co_return;
  }
  socket_ = socket;
  for (Data& datagram : pending_) write(std::move(datagram), false);
  pending_.clear();
  const auto self = shared_from_this();
  asio::co_spawn(
      strand_, [self, socket, generation] { return self->receive(socket, generation); },
      asio::detached);
}

asio::awaitable<void> RelayTunnel::receive(std::shared_ptr<asio::ip::udp::socket> socket,
                                           std::uint64_t generation) {
  Data buffer(RelayLimits::maxDatagramBytes + 1);
  for (;;) {
    std::error_code error;
    const std::size_t size = co_await socket->async_receive(
        asio::buffer(buffer), asio::redirect_error(asio::use_awaitable, error));
    if (!socket->is_open() || error == asio::error::operation_aborted) co_return;
    // An ICMP "unreachable" from a relay that is not up yet: the handshake's retries cover it.
    if (error == asio::error::connection_refused) continue;
    if (error) {
      tunnelLog().error("relay socket failed: %s", error.message().c_str());
      apply(machine_.socketFailed(generation));
      co_return;
    }
    apply(machine_.datagram(generation, std::span(buffer.data(), size)));
  }
}

asio::awaitable<void> RelayTunnel::repeat(std::shared_ptr<asio::steady_timer> timer,
                                          std::chrono::duration<double> period,
                                          std::function<TunnelActions()> tick) {
  for (;;) {
    timer->expires_after(std::chrono::duration_cast<std::chrono::steady_clock::duration>(period));
    std::error_code error;
    co_await timer->async_wait(asio::redirect_error(asio::use_awaitable, error));
    if (error) co_return;
    apply(tick());
  }
}

asio::awaitable<void> RelayTunnel::fetchCredential(bool fresh, std::uint64_t flow) {
  std::optional<std::string> failure;
  try {
    Data bytes = co_await options_.credentials(fresh);
    apply(machine_.credential(flow, std::move(bytes)));
    co_return;
  } catch (const std::exception& thrown) {
    failure = thrown.what();
  }
  apply(machine_.credentialFailed(flow, *failure));
}

// The machine's network: a usable path after the first has the tunnel follow it.
asio::awaitable<void> RelayTunnel::watchPath() {
  std::optional<NetlinkPathMonitor> monitor;
  try {
    monitor.emplace(strand_);
  } catch (const std::exception& failure) {
    tunnelLog().error("relay tunnel: no network path monitor: %s", failure.what());
    co_return;
  }
  while (const auto path = co_await monitor->paths().next()) {
    if (path->satisfied) apply(machine_.pathChanged(socketGeneration_));
  }
}

// Best effort, as UDP is; before the socket is open the datagram waits for it.
void RelayTunnel::write(Data datagram, bool thenClose) {
  if (!socket_) {
    if (!thenClose) pending_.push_back(std::move(datagram));
    return;
  }
  const auto bytes = std::make_shared<Data>(std::move(datagram));
  socket_->async_send(asio::buffer(*bytes),
                      [bytes, socket = socket_, thenClose](std::error_code, std::size_t) {
                        if (!thenClose) return;
                        std::error_code ignored;
                        socket->close(ignored);
                      });
  if (thenClose) socket_.reset();
}

void RelayTunnel::closeSocket() {
  pending_.clear();
  if (!socket_) return;
  std::error_code ignored;
  socket_->close(ignored);
  socket_.reset();
}

}  // namespace kelvaron
