#pragma once

#include <asio/ip/udp.hpp>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <system_error>

#include "kit/async/Task.hpp"

namespace kelvaron {

// One UDP socket on a serial executor. Datagrams are read on that executor; sends come from any
// thread, each a plain `sendto` on the descriptor, which the kernel serialises for us.
class UDPSocket : public std::enable_shared_from_this<UDPSocket> {
 public:
  using Endpoint = asio::ip::udp::endpoint;
  using Receiver = std::function<void(std::span<const std::uint8_t>, const Endpoint& from)>;

  // Bound to `port` on every address, IPv6 and IPv4 alike where the system has IPv6. Throws
  // std::system_error.
  static std::shared_ptr<UDPSocket> listen(const Executor& executor, std::uint16_t port);
  // Bound to any port of `remote`'s family, for talking to `remote` only. Throws
  // std::system_error.
  static std::shared_ptr<UDPSocket> dial(const Executor& executor, const Endpoint& remote);
  // Bound to any port of 127.0.0.1, for a bridge between programs of this machine. Throws
  // std::system_error.
  static std::shared_ptr<UDPSocket> loopback(const Executor& executor);

  ~UDPSocket();

  Endpoint localEndpoint() const { return local_; }
  const Executor& executor() const { return executor_; }

  std::error_code send(std::span<const std::uint8_t> datagram, const Endpoint& to);

  // Hands every datagram to `receiver` on the socket's executor until `stop()`; a failure of the
  // socket itself goes to `onError` and ends the reading.
  void startReceiving(Receiver receiver, std::function<void(std::error_code)> onError);
  // Ends the reading; the descriptor closes with the last owner, so a send racing this is safe.
  void stop();

 private:
  UDPSocket(const Executor& executor, asio::ip::udp::socket socket);
  void awaitReadable();
  void drain();

  Executor executor_;
  asio::ip::udp::socket socket_;
  Endpoint local_;
  Receiver receiver_;
  std::function<void(std::error_code)> onError_;
  bool stopped_ = false;
};

}  // namespace kelvaron
