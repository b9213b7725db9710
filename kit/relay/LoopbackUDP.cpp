#include "kit/relay/LoopbackUDP.hpp"

namespace kelvaron {

LoopbackUDP::LoopbackUDP(const Executor& executor, std::optional<std::uint16_t> target)
    : socket_(UDPSocket::loopback(executor)), learnsRemote_(!target) {
  if (target) state_->remote = UDPSocket::Endpoint(asio::ip::address_v4::loopback(), *target);
}

LoopbackUDP::~LoopbackUDP() { close(); }

void LoopbackUDP::startReceiving(std::function<void(Data)> handler) {
  socket_->startReceiving(
      [state = state_, learns = learnsRemote_, handler = std::move(handler)](
          std::span<const std::uint8_t> bytes, const UDPSocket::Endpoint& from) {
        {
          std::lock_guard guard(state->lock);
          if (state->closed) return;
          if (learns) state->remote = from;
        }
        handler(Data(bytes.begin(), bytes.end()));
      },
      [](std::error_code) {});
}

void LoopbackUDP::send(std::span<const std::uint8_t> bytes) {
  std::optional<UDPSocket::Endpoint> to;
  {
    std::lock_guard guard(state_->lock);
    if (state_->closed) return;
    to = state_->remote;
  }
  if (to) socket_->send(bytes, *to);
}

void LoopbackUDP::close() {
  {
    std::lock_guard guard(state_->lock);
    if (std::exchange(state_->closed, true)) return;
  }
  socket_->stop();
}

}  // namespace kelvaron
