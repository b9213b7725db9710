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
  // Told that the port can no longer read, on the port's executor.
  using FailureHandler = std::function<void(std::error_code)>;

  // The open port `port` of this process, or a newly bound one (port 0: any free port). Give it
  // the execution context's executor, not a strand: the port and each of its connections make
  // strands of their own on it, so that they run side by side. Throws std::system_error.
  static std::shared_ptr<QUICHostPort> open(const Executor& executor, std::uint16_t port);
  ~QUICHostPort();

  std::uint16_t port() const { return socket_->localEndpoint().port(); }
  const std::shared_ptr<UDPSocket>& socket() const { return socket_; }
  // The executor the port was opened with, on which connections make their strands.
  const Executor& contextExecutor() const { return contextExecutor_; }

  // Who takes new connections from now on: `owner`, through `acceptor`, told through
  // `onFailure` when the port fails.
  void setAcceptor(const void* owner, Acceptor acceptor, FailureHandler onFailure);
  // Refuses new connections, unless another owner has taken over meanwhile.
  void clearAcceptor(const void* owner);

  void add(ID id, std::weak_ptr<QUICConnection> connection);
  void remove(ID id);
  std::shared_ptr<QUICConnection> find(ID id) const;

 private:
  QUICHostPort(const Executor& executor, std::shared_ptr<UDPSocket> socket)
      : contextExecutor_(executor), socket_(std::move(socket)) {}
  void route(std::span<const std::uint8_t> datagram, const Endpoint& from);
  void fail(std::error_code error);
  void forget();

  // Looks IDs up as slices of the datagram, without copying them.
  struct Less {
    using is_transparent = void;
    bool operator()(ID a, ID b) const {
      return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end());
    }
  };

  const Executor contextExecutor_;
  const std::shared_ptr<UDPSocket> socket_;
  mutable std::mutex lock_;
  std::map<Data, std::weak_ptr<QUICConnection>, Less> routes_;
  const void* acceptorOwner_ = nullptr;
  Acceptor acceptor_;
  FailureHandler onFailure_;
};

}  // namespace kelvaron
