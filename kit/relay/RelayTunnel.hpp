#pragma once

// A party's tunnel to a relay, host or client, on a UDP socket: `RelayTunnelMachine` driven by
// the socket, its timers, the credential it asks for and the machine's network path (rtnetlink).
// Everything runs on one strand; the events come on `events()`.

#include <asio/ip/udp.hpp>
#include <asio/steady_timer.hpp>
#include <functional>
#include <memory>

#include "kit/async/Task.hpp"
#include "kit/relay/RelayTunnelMachine.hpp"
#include "kit/transport/AsyncQueue.hpp"
#include "kit/wire/WireTypes.hpp"

namespace kelvaron {

class RelayTunnel : public std::enable_shared_from_this<RelayTunnel> {
 public:
  // The host's token or the client's grant; `fresh` asks for one not from a cache. May throw.
  using Credentials = std::function<asio::awaitable<Data>(bool fresh)>;
  struct Options {
    RelayRole role = RelayRole::client;
    RelayEndpoint endpoint;
    std::shared_ptr<const RelaySigner> signer;
    Credentials credentials;
    std::chrono::duration<double> keepaliveInterval{15.0};
    std::chrono::duration<double> retryInterval{1.5};
    bool watchPath = true;  // rebind (client) or register anew (host) when the network changes
  };

  static std::shared_ptr<RelayTunnel> make(const Executor& executor, Options options);

  void start();
  void stop();
  // A client sends to its peer whatever `peer` says; nothing goes before the session is live.
  void send(std::uint32_t peer, Data bytes);
  void setDenied(std::vector<Data> denied);
  // Ends with `stop()`.
  AsyncQueue<RelayTunnelEvent>& events() { return *events_; }

 private:
  RelayTunnel(const Executor& executor, Options options);
  void apply(TunnelActions actions);
  void apply(TunnelAction& action);
  asio::awaitable<void> open(std::uint64_t generation);
  asio::awaitable<void> receive(std::shared_ptr<asio::ip::udp::socket> socket,
                                std::uint64_t generation);
  asio::awaitable<void> repeat(std::shared_ptr<asio::steady_timer> timer,
                               std::chrono::duration<double> period,
                               std::function<TunnelActions()> tick);
  asio::awaitable<void> fetchCredential(bool fresh, std::uint64_t flow);
  asio::awaitable<void> watchPath();
  void write(Data datagram, bool thenClose);
  void closeSocket();

  const Executor strand_;
  const Options options_;
  RelayTunnelMachine machine_;
  std::shared_ptr<AsyncQueue<RelayTunnelEvent>> events_ =
      std::make_shared<AsyncQueue<RelayTunnelEvent>>();
  std::shared_ptr<asio::ip::udp::socket> socket_;
  std::vector<Data> pending_;  // sent before the socket was open
  std::uint64_t socketGeneration_ = 0;
  std::shared_ptr<asio::steady_timer> retry_, keepalive_;
  asio::steady_timer reopen_;
  std::optional<Task> pathTask_;
};

}  // namespace kelvaron
