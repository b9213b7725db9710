#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "kit/async/Task.hpp"
#include "kit/log/Logger.hpp"
#include "kit/transport/Connection.hpp"
#include "kit/transport/DNSSDAdvertiser.hpp"
#include "kit/transport/QUICConfiguration.hpp"
#include "kit/transport/QUICHostPort.hpp"
#include "kit/transport/QUICTLS.hpp"

struct ngtcp2_pkt_hd;

namespace kelvaron {

class QUICConnection;
class SelfSignedIdentity;

// Accepts QUIC connections on the host's UDP port and, if asked, announces the host on the local
// network. Only connections whose streams are all there come out of `connections()`; what they
// are worth is for the authentication that follows to say. A listener is used once.
class QUICHostListener final : public HostListener,
                               public std::enable_shared_from_this<QUICHostListener> {
 public:
  struct Options {
    std::string hostName;
    std::optional<UUID> hostID;
    std::uint16_t port = 0;  // 0: any
    bool advertise = true;
    QUICConfiguration configuration;
  };

  // Binds the port at once. Throws QUICError when the listener cannot be made.
  static std::shared_ptr<QUICHostListener> make(const Executor& executor,
                                                const SelfSignedIdentity& identity,
                                                Options options);
  ~QUICHostListener() override;

  // The bound port; throws the failure of a listener that could not go on.
  asio::awaitable<std::uint16_t> waitUntilReady();
  std::uint16_t port() const { return boundPort_; }
  const Data& certificateFingerprint() const { return certificateFingerprint_; }
  // Whether the host is announced on the local network, as far as was known when it was made.
  bool advertising() const { return options_.advertise && !discoveryProblem_; }
  // Why it is not announced although asked to be, in words for a person; nothing otherwise.
  const std::optional<std::string>& discoveryProblem() const { return discoveryProblem_; }

  AsyncQueue<std::shared_ptr<Connection>>& connections() override { return connections_; }
  void stop() override;

 private:
  QUICHostListener(Options options, Data fingerprint, std::shared_ptr<TLSCredentials> credentials,
                   std::shared_ptr<QUICHostPort> port);
  void accept(std::span<const std::uint8_t> datagram, const UDPSocket::Endpoint& from);
  void fail(std::error_code error);
  static asio::awaitable<void> handOverWhenReady(std::weak_ptr<QUICHostListener> listener,
                                                 std::shared_ptr<QUICConnection> connection);

  const Options options_;
  const Data certificateFingerprint_;
  const std::shared_ptr<TLSCredentials> credentials_;
  const std::shared_ptr<QUICHostPort> port_;
  const std::uint16_t boundPort_;
  std::optional<std::string> discoveryProblem_;
  Logger log_{"io.dovka.tovu.transport", "listener"};

  std::mutex lock_;
  bool stopped_ = false;
  int handshaking_ = 0;  // connections accepted and not yet ready or failed
  std::unique_ptr<DNSSDAdvertiser> advertiser_;
  AsyncQueue<std::shared_ptr<Connection>> connections_;
};

}  // namespace kelvaron
