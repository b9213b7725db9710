#include "relay/RelayServer.hpp"

#include <array>
#include <asio/co_spawn.hpp>
#include <asio/detached.hpp>
#include <asio/ip/v6_only.hpp>
#include <asio/redirect_error.hpp>
#include <asio/use_awaitable.hpp>
#include <chrono>

#include "kit/crypto/AuthCrypto.hpp"
#include "kit/log/Logger.hpp"

namespace kelvaron::relay {

namespace {

const Logger& log() {
  static const Logger logger("io.dovka.tovu.relay", "server");
  return logger;
}

constexpr int kReceiveBuffer = 4 << 20;

double monotonicSeconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

std::uint64_t wallSeconds() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::uint64_t(std::chrono::duration_cast<std::chrono::seconds>(now).count());
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
    : socket_(executor, asio::ip::udp::v6()),
      timer_(executor),
      core_(std::move(coordinatorKey), AuthCrypto::randomBytes, limits) {
  socket_.set_option(asio::ip::v6_only(false));
  // Room for the bursts that come while the process is off the processor; the kernel caps it at
  // net.core.rmem_max.
  std::error_code ignored;
  socket_.set_option(asio::socket_base::receive_buffer_size(kReceiveBuffer), ignored);
  socket_.bind({asio::ip::udp::v6(), port});
}

std::uint16_t RelayServer::port() const { return socket_.local_endpoint().port(); }

void RelayServer::start() {
  log().info("relay listening on UDP port %u", unsigned(port()));
  asio::co_spawn(socket_.get_executor(), receive(), asio::detached);
  asio::co_spawn(socket_.get_executor(), expire(), asio::detached);
}

void RelayServer::stop() {
  std::error_code ignored;
  socket_.close(ignored);
  timer_.cancel();
}

asio::awaitable<void> RelayServer::receive() {
  const auto self = shared_from_this();
  std::array<std::uint8_t, RelayLimits::maxDatagramBytes + 1> buffer{};
  asio::ip::udp::endpoint from;
  for (;;) {
    std::error_code error;
    const std::size_t size = co_await socket_.async_receive_from(
        asio::buffer(buffer), from, asio::redirect_error(asio::use_awaitable, error));
    if (error == asio::error::operation_aborted || !socket_.is_open()) co_return;
    if (error) {
      log().error("relay socket: %s", error.message().c_str());
      continue;
    }
    send(core_.receive(addressOf(from), std::span(buffer.data(), size), monotonicSeconds(),
                       wallSeconds()));
  }
}

asio::awaitable<void> RelayServer::expire() {
  const auto self = shared_from_this();
  while (socket_.is_open()) {
    timer_.expires_after(std::chrono::seconds(1));
    std::error_code error;
    co_await timer_.async_wait(asio::redirect_error(asio::use_awaitable, error));
    if (error) co_return;
    send(core_.expire(monotonicSeconds()));
  }
}

// Best effort, as UDP is: a datagram the kernel will not take is dropped.
void RelayServer::send(const std::vector<Outgoing>& datagrams) {
  for (const Outgoing& out : datagrams) {
    std::error_code ignored;
    socket_.send_to(asio::buffer(out.datagram), endpointOf(out.to), 0, ignored);
  }
}

}  // namespace kelvaron::relay
