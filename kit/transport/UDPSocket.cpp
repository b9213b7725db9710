#include "kit/transport/UDPSocket.hpp"

#include <sys/socket.h>

#include <asio/ip/v6_only.hpp>
#include <asio/post.hpp>

#include <array>

namespace kelvaron {

namespace {

// Media arrives in bursts of hundreds of datagrams; the default buffers (about 200 KB) drop some
// of them. The forcing option works for a privileged process; others get what the system allows.
void enlargeBuffers(asio::ip::udp::socket& socket) {
  const int size = 8 << 20;
  const int fd = socket.native_handle();
  for (auto [force, plain] : {std::pair{SO_RCVBUFFORCE, SO_RCVBUF}, {SO_SNDBUFFORCE, SO_SNDBUF}}) {
    if (setsockopt(fd, SOL_SOCKET, force, &size, sizeof size) != 0) {
      setsockopt(fd, SOL_SOCKET, plain, &size, sizeof size);
    }
  }
}

asio::ip::udp::socket openDualStack(const Executor& executor, std::uint16_t port) {
  asio::ip::udp::socket socket(executor);
  std::error_code error;
  socket.open(asio::ip::udp::v6(), error);
  if (!error) {
    socket.set_option(asio::ip::v6_only(false));
    socket.bind({asio::ip::udp::v6(), port}, error);
    if (!error) return socket;
    socket.close();
  }
  // No IPv6 on this system.
  socket.open(asio::ip::udp::v4());
  socket.bind({asio::ip::udp::v4(), port});
  return socket;
}

}  // namespace

std::shared_ptr<UDPSocket> UDPSocket::listen(const Executor& executor, std::uint16_t port) {
  return std::shared_ptr<UDPSocket>(new UDPSocket(executor, openDualStack(executor, port)));
}

std::shared_ptr<UDPSocket> UDPSocket::dial(const Executor& executor, const Endpoint& remote) {
  asio::ip::udp::socket socket(executor, remote.protocol());
  socket.bind({remote.protocol(), 0});
  return std::shared_ptr<UDPSocket>(new UDPSocket(executor, std::move(socket)));
}

std::shared_ptr<UDPSocket> UDPSocket::loopback(const Executor& executor) {
  asio::ip::udp::socket socket(executor, asio::ip::udp::v4());
  socket.bind({asio::ip::address_v4::loopback(), 0});
  return std::shared_ptr<UDPSocket>(new UDPSocket(executor, std::move(socket)));
}

UDPSocket::UDPSocket(const Executor& executor, asio::ip::udp::socket socket)
    : executor_(executor), socket_(std::move(socket)), local_(socket_.local_endpoint()) {
  socket_.non_blocking(true);
  enlargeBuffers(socket_);
}

UDPSocket::~UDPSocket() = default;

std::error_code UDPSocket::send(std::span<const std::uint8_t> datagram, const Endpoint& to) {
  Endpoint target = to;
  if (local_.address().is_v6() && to.address().is_v4()) {
    target = {asio::ip::make_address_v6(asio::ip::v4_mapped, to.address().to_v4()), to.port()};
  }
  for (;;) {
    const auto sent = ::sendto(socket_.native_handle(), datagram.data(), datagram.size(),
                               MSG_DONTWAIT, target.data(), static_cast<socklen_t>(target.size()));
    if (sent >= 0) return {};
    if (errno == EINTR) continue;
    // A full send buffer loses the datagram as the network would; QUIC sends it again.
    if (errno == EAGAIN || errno == EWOULDBLOCK || errno == ENOBUFS) return {};
    return {errno, std::system_category()};
  }
}

void UDPSocket::startReceiving(Receiver receiver, std::function<void(std::error_code)> onError) {
  asio::post(executor_, [weak = weak_from_this(), receiver = std::move(receiver),
                         onError = std::move(onError)]() mutable {
    auto self = weak.lock();
    if (!self) return;
    self->receiver_ = std::move(receiver);
    self->onError_ = std::move(onError);
    self->awaitReadable();
  });
}

void UDPSocket::stop() {
  asio::post(executor_, [self = shared_from_this()] {
    self->stopped_ = true;
    self->socket_.cancel();
    self->receiver_ = nullptr;
    self->onError_ = nullptr;
  });
}

// The reading holds the socket weakly: it lasts as long as the socket's owners do.
void UDPSocket::awaitReadable() {
  socket_.async_wait(asio::socket_base::wait_read,
                     [weak = weak_from_this()](std::error_code error) {
                       auto self = weak.lock();
                       if (!self || self->stopped_) return;
                       if (error) {
                         if (self->onError_) self->onError_(error);
                         return;
                       }
                       self->drain();
                     });
}

// Reads what is queued, a bounded number at a time so that other work of the executor runs in
// between, then waits again.
void UDPSocket::drain() {
  static constexpr int kBatch = 64;
  std::array<std::uint8_t, 65'536> buffer;
  for (int i = 0; i < kBatch; ++i) {
    if (stopped_) return;
    Endpoint from;
    socklen_t fromLength = static_cast<socklen_t>(from.capacity());
    const auto received = ::recvfrom(socket_.native_handle(), buffer.data(), buffer.size(),
                                     MSG_DONTWAIT, from.data(), &fromLength);
    if (received < 0) {
      if (errno == EINTR) continue;
      if (errno == EAGAIN || errno == EWOULDBLOCK) return awaitReadable();
      // ICMP errors of earlier sends surface here; a peer that is gone shows up as a QUIC
      // timeout, so they are not fatal.
      if (errno == ECONNREFUSED || errno == EHOSTUNREACH || errno == ENETUNREACH) continue;
      if (onError_) onError_({errno, std::system_category()});
      return;
    }
    from.resize(fromLength);
    receiver_(std::span(buffer.data(), static_cast<std::size_t>(received)), from);
  }
  asio::post(executor_, [weak = weak_from_this()] {
    if (auto self = weak.lock()) self->drain();
  });
}

}  // namespace kelvaron
