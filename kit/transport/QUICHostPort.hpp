#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <span>

#include "kit/transport/UDPSocket.hpp"
#include "kit/wire/Bytes.hpp"

namespace kelvaron {

class QUICConnection;

// The host's UDP port: one socket for all its connections, the connection IDs that tell whose a
// datagram is, and whoever takes new connections. Connections keep it alive, so a listener that
// is stopped and started again on the same port keeps the connections it had accepted.
class QUICHostPort : public std::enable_shared_from_this<QUICHostPort> {
 public:
  using ID = std::span<const std::uint8_t>;
  using Endpoint = UDPSocket::Endpoint;
  // Handed every datagram that belongs to no connection yet, on the port's executor.
  using Acceptor = std::function<void(std::span<const std::uint8_t>, const Endpoint& from)>;

  // The open port `port` of this process, or a newly bound one (port 0: any free port). Throws
  // std::system_error.
  static std::shared_ptr<QUICHostPort> open(const Executor& executor, std::uint16_t port);
  ~QUICHostPort();

  std::uint16_t port() const { return socket_->localEndpoint().port(); }
  const std::shared_ptr<UDPSocket>& socket() const { return socket_; }
  const Executor& executor() const { return socket_->executor(); }

  // Replaces the acceptor; an empty one refuses new connections.
  void setAcceptor(Acceptor acceptor);

  void add(ID id, std::weak_ptr<QUICConnection> connection);
  void remove(ID id);
  std::shared_ptr<QUICConnection> find(ID id) const;

 private:
  explicit QUICHostPort(std::shared_ptr<UDPSocket> socket) : socket_(std::move(socket)) {}
  void route(std::span<const std::uint8_t> datagram, const Endpoint& from);

  // Looks IDs up as slices of the datagram, without copying them.
  struct Less {
    using is_transparent = void;
    bool operator()(ID a, ID b) const {
      return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end());
    }
  };

  const std::shared_ptr<UDPSocket> socket_;
  mutable std::mutex lock_;
  std::map<Data, std::weak_ptr<QUICConnection>, Less> routes_;
  Acceptor acceptor_;
};

}  // namespace kelvaron
