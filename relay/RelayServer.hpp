#pragma once

// The relay on a UDP port: datagrams read from the socket go through the relay's logic, what it
// answers is sent, and once a second it drops the parties that went quiet. One socket for IPv4
// and IPv6.

#include <asio/steady_timer.hpp>
#include <memory>

#include "kit/transport/UDPSocket.hpp"
#include "relay/RelayServerCore.hpp"

namespace kelvaron::relay {

class RelayServer : public std::enable_shared_from_this<RelayServer> {
 public:
  // Binds `port` (0: any free one). Throws std::system_error when it cannot.
  static std::shared_ptr<RelayServer> make(const Executor& executor, std::uint16_t port,
                                           Data coordinatorKey, ServerLimits limits = {});

  std::uint16_t port() const { return socket_->localEndpoint().port(); }
  void start();
  void stop();

 private:
  RelayServer(const Executor& executor, std::uint16_t port, Data coordinatorKey,
              ServerLimits limits);
  asio::awaitable<void> expire();
  void send(const std::vector<Outgoing>& datagrams);

  std::shared_ptr<UDPSocket> socket_;
  asio::steady_timer timer_;
  ServerCore core_;
};

}  // namespace kelvaron::relay
