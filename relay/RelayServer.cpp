#include "relay/RelayServer.hpp"

#include <asio/co_spawn.hpp>
#include <asio/detached.hpp>
#include <asio/redirect_error.hpp>
#include <asio/use_awaitable.hpp>
#include <chrono>

#include "kit/async/Uptime.hpp"
#include "kit/crypto/AuthCrypto.hpp"
#include "kit/log/Logger.hpp"
#include "kit/relay/RelayWire.hpp"

namespace kelvaron::relay {

namespace {

const Logger& log() {
  static const Logger logger("io.dovka.tovu.relay", "server");
  return logger;
}

Address addressOf(const asio::ip::udp::endpoint& endpoint) {
  Address address;
  const auto ip = endpoint.address();
  address.ip = ip.is_v6() ? ip.to_v6().to_bytes()
                          : asio::ip::make_address_v6(asio::ip::v4_mapped, ip.to_v4()).to_bytes();
  address.port = endpoint.port();
  return address;
}

asio::ip::udp::endpoint endpointOf(const Address& address) {
  return {asio::ip::address_v6(address.ip), address.port};
}

}  // namespace

std::shared_ptr<RelayServer> RelayServer::make(const Executor& executor, std::uint16_t port,
                                               Data coordinatorKey, ServerLimits limits) {
  return std::shared_ptr<RelayServer>(
      new RelayServer(executor, port, std::move(coordinatorKey), limits));
}

RelayServer::RelayServer(const Executor& executor, std::uint16_t port, Data coordinatorKey,
                         ServerLimits limits)
    : socket_(UDPSocket::listen(executor, port)),
      timer_(socket_->executor()),
      core_(std::move(coordinatorKey), AuthCrypto::randomBytes, limits) {}

void RelayServer::start() {
  log().info("relay listening on UDP port %u", unsigned(port()));
  const auto self = shared_from_this();
  socket_->startReceiving(
      [self](std::span<const std::uint8_t> datagram, const UDPSocket::Endpoint& from) {
        self->send(self->core_.receive(addressOf(from), datagram, uptimeSeconds(),
                                       RelayWire::timestamp(std::chrono::system_clock::now())));
      },
      [](std::error_code error) { log().error("relay socket: %s", error.message().c_str()); });
  asio::co_spawn(socket_->executor(), expire(), asio::detached);
}

void RelayServer::stop() {
  socket_->stop();
  timer_.cancel();
}

asio::awaitable<void> RelayServer::expire() {
  const auto self = shared_from_this();
  for (;;) {
    timer_.expires_after(std::chrono::seconds(1));
    std::error_code error;
    co_await timer_.async_wait(asio::redirect_error(asio::use_awaitable, error));
    if (error) co_return;
    send(core_.expire(uptimeSeconds()));
  }
}

// Best effort, as UDP is: a datagram the kernel will not take is dropped.
void RelayServer::send(const std::vector<Outgoing>& datagrams) {
  for (const Outgoing& out : datagrams) socket_->send(out.datagram, endpointOf(out.to));
}

}  // namespace kelvaron::relay
