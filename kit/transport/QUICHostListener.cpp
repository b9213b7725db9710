#include "kit/transport/QUICHostListener.hpp"

#include <ngtcp2/ngtcp2.h>

#include <asio/co_spawn.hpp>
#include <asio/detached.hpp>
#include <asio/post.hpp>

#include "kit/transport/QUICConnection.hpp"
#include "kit/transport/SelfSignedIdentity.hpp"

namespace kelvaron {

namespace {
// Every Initial from anywhere costs a TLS session and a connection until its handshake ends or
// times out; beyond this many at once, new ones are not answered.
constexpr int kMaxHandshaking = 128;
}  // namespace

std::shared_ptr<QUICHostListener> QUICHostListener::make(const Executor& executor,
                                                         const SelfSignedIdentity& identity,
                                                         Options options) {
  std::shared_ptr<QUICHostPort> port;
  try {
    port = QUICHostPort::open(executor, options.port);
  } catch (const std::system_error& error) {
    throw QUICError::failed(std::string("listener failed: ") + error.what());
  }
  std::shared_ptr<QUICHostListener> listener(new QUICHostListener(
      std::move(options), identity.fingerprint(), TLSCredentials::host(identity), port));
  std::weak_ptr<QUICHostListener> weak = listener;
  port->setAcceptor(
      listener.get(),
      [weak](std::span<const std::uint8_t> datagram, const UDPSocket::Endpoint& from) {
        if (auto self = weak.lock()) self->accept(datagram, from);
      },
      [weak](std::error_code error) {
        if (auto self = weak.lock()) self->fail(error);
      });
  if (listener->options_.advertise) {
    // A daemon that is not there now still gets the service when it comes.
    listener->discoveryProblem_ = DNSSDAdvertiser::daemonProblem();
    listener->advertiser_ =
        std::make_unique<DNSSDAdvertiser>(makeStrand(executor), listener->options_.hostName,
                                          listener->boundPort_, listener->options_.hostID);
  }
  listener->log_.info("listener ready port=%hu advertise=%d", listener->boundPort_,
                      listener->advertising());
  return listener;
}

QUICHostListener::QUICHostListener(Options options, Data fingerprint,
                                   std::shared_ptr<TLSCredentials> credentials,
                                   std::shared_ptr<QUICHostPort> port)
    : options_(std::move(options)),
      certificateFingerprint_(std::move(fingerprint)),
      credentials_(std::move(credentials)),
      port_(std::move(port)),
      boundPort_(port_->port()) {}

QUICHostListener::~QUICHostListener() { stop(); }

asio::awaitable<std::uint16_t> QUICHostListener::waitUntilReady() {
  // The port is bound when the listener is made; there is nothing to wait for.
  co_return boundPort_;
}

void QUICHostListener::stop() {
  std::unique_ptr<DNSSDAdvertiser> advertiser;
  {
    std::lock_guard guard(lock_);
    if (stopped_) return;
    stopped_ = true;
    advertiser = std::move(advertiser_);
  }
  advertiser.reset();  // withdraws the service
  port_->clearAcceptor(this);
  connections_.finish();
}

// The port can no longer read: the listener ends, and whoever runs it starts another.
void QUICHostListener::fail(std::error_code error) {
  {
    std::lock_guard guard(lock_);
    if (stopped_) return;
  }
  log_.error("listener failed: %s", error.message().c_str());
  connections_.finish();
}

// The first packet of a new connection: a QUIC Initial of full size, or nothing we answer.
void QUICHostListener::accept(std::span<const std::uint8_t> datagram,
                              const UDPSocket::Endpoint& from) {
  ngtcp2_pkt_hd initial;
  if (ngtcp2_accept(&initial, datagram.data(), datagram.size()) != 0) return;
  {
    std::lock_guard guard(lock_);
    if (stopped_ || handshaking_ >= kMaxHandshaking) return;
    ++handshaking_;
  }
  std::shared_ptr<QUICConnection> connection;
  try {
    connection = QUICConnection::accept(port_, credentials_, initial, from, options_.configuration);
  } catch (const QUICError& error) {
    log_.error("could not accept a connection: %s", error.what());
    std::lock_guard guard(lock_);
    --handshaking_;
    return;
  }
  asio::post(connection->executor(), [connection, bytes = Data(datagram.begin(), datagram.end()),
                                      from] { connection->receive(bytes, from); });
  std::weak_ptr<QUICHostListener> weak = weak_from_this();
  asio::co_spawn(connection->executor(), handOverWhenReady(weak, connection), asio::detached);
}

// A connection that fails before it is ready is dropped; one that becomes ready after the
// listener stopped is closed.
asio::awaitable<void> QUICHostListener::handOverWhenReady(
    std::weak_ptr<QUICHostListener> listener, std::shared_ptr<QUICConnection> connection) {
  bool ready = true;
  try {
    co_await connection->waitUntilReady();
  } catch (const QUICError&) {
    ready = false;
  }
  const auto self = listener.lock();
  bool stopped = true;
  if (self) {
    std::lock_guard guard(self->lock_);
    --self->handshaking_;
    stopped = self->stopped_;
  }
  if (!ready) co_return;
  if (stopped) {
    connection->close();
  } else {
    self->connections_.push(connection);
  }
}

}  // namespace kelvaron
