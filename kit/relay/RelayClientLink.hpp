#pragma once

// A client's way to its host through a relay: a tunnel joined to the host's session, bridged to a
// UDP socket on 127.0.0.1 to which the client's QUIC connection dials as if the host were here.
// TLS and the host's authentication run end to end inside.

#include <asio/awaitable.hpp>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "kit/relay/LoopbackUDP.hpp"
#include "kit/relay/RelayTunnel.hpp"
#include "kit/transport/Connection.hpp"

namespace kelvaron {

class RelayLinkError : public std::runtime_error {
 public:
  enum class Kind { unreachable, noRelays };
  static RelayLinkError unreachable(const std::string& why) {
    return {Kind::unreachable, "Couldn't reach the computer through the relay (" + why + ")"};
  }
  static RelayLinkError noRelays() { return {Kind::noRelays, "No relay is configured."}; }
  Kind kind() const { return kind_; }

 private:
  RelayLinkError(Kind kind, const std::string& text) : std::runtime_error(text), kind_(kind) {}
  Kind kind_;
};

// Holds the first outcome it is given, success or failure, for one waiter, who may come before or
// after it.
class OneShotGate {
 public:
  void succeed() { settle(std::nullopt); }
  void fail(RelayLinkError error) { settle(std::move(error)); }
  // Returns on success, throws the failure. Safe from any thread.
  asio::awaitable<void> wait();

 private:
  void settle(std::optional<RelayLinkError> outcome);

  std::mutex lock_;
  bool settled_ = false;
  AsyncQueue<std::optional<RelayLinkError>> outcome_;
};

class RelayClientLink {
 public:
  // Joins the host's session at the first of `relays` that admits the client's `grant` within
  // `timeout`. Throws RelayLinkError: `noRelays`, or why the last relay failed.
  static asio::awaitable<std::shared_ptr<RelayClientLink>> open(
      const Executor& executor, const std::vector<RelayEndpoint>& relays, const Data& grant,
      std::shared_ptr<const RelaySigner> signer, std::chrono::duration<double> timeout);
  ~RelayClientLink() { close(); }

  // Where the client's QUIC connection dials: 127.0.0.1 at this port.
  std::uint16_t localPort() const { return local_->port(); }
  const RelayEndpoint& relay() const { return relay_; }
  void close();

 private:
  RelayClientLink(RelayEndpoint relay, std::shared_ptr<RelayTunnel> tunnel,
                  std::shared_ptr<LoopbackUDP> local, Task events)
      : relay_(std::move(relay)),
        tunnel_(std::move(tunnel)),
        local_(std::move(local)),
        events_(std::move(events)) {}
  static asio::awaitable<std::shared_ptr<RelayClientLink>> openOne(
      const Executor& executor, const RelayEndpoint& relay, const Data& grant,
      std::shared_ptr<const RelaySigner> signer, std::chrono::duration<double> timeout);

  RelayEndpoint relay_;
  std::shared_ptr<RelayTunnel> tunnel_;
  std::shared_ptr<LoopbackUDP> local_;
  Task events_;
};

// A connection through a relay link: the inner connection itself, whose end also closes the link,
// once.
class RelayedConnection final : public Connection {
 public:
  static std::shared_ptr<RelayedConnection> make(const Executor& executor,
                                                 std::shared_ptr<Connection> inner,
                                                 std::function<void()> onEnd);

  AsyncQueue<ConnectionState>& states() override { return states_; }
  AsyncQueue<Message>& messages() override { return inner_->messages(); }
  AsyncQueue<VideoFrame>& videoFrames() override { return inner_->videoFrames(); }
  AsyncQueue<AudioPacket>& audioPackets() override { return inner_->audioPackets(); }
  void send(const Message& message) override { inner_->send(message); }
  bool sendVideo(const VideoFrame& frame) override { return inner_->sendVideo(frame); }
  bool sendAudio(const AudioPacket& packet) override { return inner_->sendAudio(packet); }
  asio::awaitable<bool> sendTransfer(const Message& message) override {
    return inner_->sendTransfer(message);
  }
  void close() override { inner_->close(); }
  void liftHandshakeLimits() override { inner_->liftHandshakeLimits(); }
  std::optional<Data> peerCertificateFingerprint() const override {
    return inner_->peerCertificateFingerprint();
  }
  std::optional<Data> tlsExporter() const override { return inner_->tlsExporter(); }

 private:
  RelayedConnection(std::shared_ptr<Connection> inner, std::function<void()> onEnd)
      : inner_(std::move(inner)), onEnd_(std::move(onEnd)) {}
  static asio::awaitable<void> forwardStates(std::shared_ptr<RelayedConnection> self);

  const std::shared_ptr<Connection> inner_;
  std::function<void()> onEnd_;
  AsyncQueue<ConnectionState> states_;
};

}  // namespace kelvaron
