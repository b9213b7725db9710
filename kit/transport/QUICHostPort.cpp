#include "kit/transport/QUICHostPort.hpp"

#include <ngtcp2/ngtcp2.h>

#include <asio/post.hpp>

#include "kit/transport/QUICConfiguration.hpp"
#include "kit/transport/QUICConnection.hpp"

namespace kelvaron {

namespace {

// The ports this process has open, so that a listener started again finds its old one.
std::mutex registryLock;
std::map<std::uint16_t, std::weak_ptr<QUICHostPort>>& registry() {
  static std::map<std::uint16_t, std::weak_ptr<QUICHostPort>> ports;
  return ports;
}

}  // namespace

std::shared_ptr<QUICHostPort> QUICHostPort::open(const Executor& executor, std::uint16_t port) {
  std::lock_guard guard(registryLock);
  if (port != 0) {
    if (auto open = registry()[port].lock()) return open;
  }
  std::shared_ptr<QUICHostPort> opened(
      new QUICHostPort(executor, UDPSocket::listen(makeStrand(executor), port)));
  registry()[opened->port()] = opened;
  std::weak_ptr<QUICHostPort> weak = opened;
  opened->socket_->startReceiving(
      [weak](std::span<const std::uint8_t> datagram, const Endpoint& from) {
        if (auto self = weak.lock()) self->route(datagram, from);
      },
      [weak](std::error_code error) {
        if (auto self = weak.lock()) self->fail(error);
      });
  return opened;
}

// The socket closes with its last owner, at once: a listener started again on this port right
// after must be able to bind it.
QUICHostPort::~QUICHostPort() { forget(); }

// Leaves the registry, unless another port of the same number has taken the place meanwhile.
void QUICHostPort::forget() {
  std::lock_guard guard(registryLock);
  const auto found = registry().find(port());
  if (found == registry().end()) return;
  const auto current = found->second.lock();
  if (!current || current.get() == this) registry().erase(found);
}

// A port that cannot read is forgotten, so that the next listener binds a new one; the listener
// of the moment fails with it.
void QUICHostPort::fail(std::error_code error) {
  forget();
  FailureHandler onFailure;
  {
    std::lock_guard guard(lock_);
    onFailure = onFailure_;
  }
  if (onFailure) onFailure(error);
}

void QUICHostPort::setAcceptor(const void* owner, Acceptor acceptor, FailureHandler onFailure) {
  std::lock_guard guard(lock_);
  acceptorOwner_ = owner;
  acceptor_ = std::move(acceptor);
  onFailure_ = std::move(onFailure);
}

void QUICHostPort::clearAcceptor(const void* owner) {
  std::lock_guard guard(lock_);
  if (acceptorOwner_ != owner) return;
  acceptorOwner_ = nullptr;
  acceptor_ = nullptr;
  onFailure_ = nullptr;
}

void QUICHostPort::add(ID id, std::weak_ptr<QUICConnection> connection) {
  std::lock_guard guard(lock_);
  routes_[Data(id.begin(), id.end())] = std::move(connection);
}

void QUICHostPort::remove(ID id) {
  std::lock_guard guard(lock_);
  const auto found = routes_.find(id);
  if (found != routes_.end()) routes_.erase(found);
}

std::shared_ptr<QUICConnection> QUICHostPort::find(ID id) const {
  std::lock_guard guard(lock_);
  const auto found = routes_.find(id);
  return found == routes_.end() ? nullptr : found->second.lock();
}

// A datagram goes to the connection its destination ID names, on that connection's executor;
// one that names none may start a connection; anything else is dropped.
void QUICHostPort::route(std::span<const std::uint8_t> datagram, const Endpoint& from) {
  ngtcp2_version_cid header;
  if (datagram.empty() || ngtcp2_pkt_decode_version_cid(&header, datagram.data(), datagram.size(),
                                                        kQUICConnectionIDLength) != 0) {
    return;
  }
  if (auto connection = find({header.dcid, header.dcidlen})) {
    asio::post(connection->executor(), [weak = std::weak_ptr(connection),
                                        bytes = Data(datagram.begin(), datagram.end()), from] {
      if (auto target = weak.lock()) target->receive(bytes, from);
    });
    return;
  }
  Acceptor acceptor;
  {
    std::lock_guard guard(lock_);
    acceptor = acceptor_;
  }
  if (acceptor) acceptor(datagram, from);
}

}  // namespace kelvaron
