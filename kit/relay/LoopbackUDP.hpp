#pragma once

// A UDP socket on 127.0.0.1 that bridges one relayed peer to a QUIC endpoint of this machine:
// toward a fixed port (the host's listener), or back to whoever last sent to it (the client's
// QUIC connection). Neither QUIC side knows about the relay.

#include <functional>
#include <memory>
#include <mutex>
#include <optional>

#include "kit/transport/UDPSocket.hpp"
#include "kit/wire/Bytes.hpp"

namespace kelvaron {

class LoopbackUDP {
 public:
  // Toward `target` when given, else toward the sender of the latest datagram. Throws
  // std::system_error.
  LoopbackUDP(const Executor& executor, std::optional<std::uint16_t> target);
  ~LoopbackUDP();
  LoopbackUDP(const LoopbackUDP&) = delete;
  LoopbackUDP& operator=(const LoopbackUDP&) = delete;

  std::uint16_t port() const { return socket_->localEndpoint().port(); }
  // `handler` gets each datagram's bytes on the socket's executor.
  void startReceiving(std::function<void(Data)> handler);
  // Nothing goes before there is somewhere to go, or once closed; losses are UDP's.
  void send(std::span<const std::uint8_t> bytes);
  void close();

 private:
  // Shared with the reading, which may outlast this object by a datagram.
  struct State {
    std::mutex lock;
    std::optional<UDPSocket::Endpoint> remote;
    bool closed = false;
  };

  const std::shared_ptr<UDPSocket> socket_;
  const bool learnsRemote_;
  const std::shared_ptr<State> state_ = std::make_shared<State>();
};

}  // namespace kelvaron
