#pragma once

#include <array>
#include <asio/ip/udp.hpp>
#include <asio/steady_timer.hpp>
#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "kit/async/Task.hpp"
#include "kit/async/Wakeup.hpp"
#include "kit/log/Logger.hpp"
#include "kit/transport/Connection.hpp"
#include "kit/transport/InFlightBudget.hpp"
#include "kit/transport/QUICConfiguration.hpp"
#include "kit/transport/QUICHostPort.hpp"
#include "kit/transport/QUICTLS.hpp"
#include "kit/transport/StreamSendQueue.hpp"
#include "kit/transport/TransferPace.hpp"
#include "kit/transport/UDPSocket.hpp"
#include "kit/wire/WireDecoder.hpp"

struct ngtcp2_conn;
struct ngtcp2_pkt_hd;
struct ngtcp2_connection_close_error;

namespace kelvaron {

// One QUIC connection between client and host (ngtcp2 with GnuTLS), carrying five long-lived
// bidirectional streams, one per kind of traffic, so that a lost packet of video never stalls
// input. The client opens the streams and introduces each with its preamble byte.
//
// Everything of the QUIC stack runs on the connection's serial executor; the sends may come from
// any thread and take only the lock, handing their bytes over for the executor's next write.
class QUICConnection final : public Connection,
                             public std::enable_shared_from_this<QUICConnection> {
 public:
  enum class Role { host, client };
  using Endpoint = asio::ip::udp::endpoint;

  // Dials `endpoint`, checks the host's certificate by `trust`, and returns once the connection is
  // ready. Throws QUICError.
  static asio::awaitable<std::shared_ptr<QUICConnection>> connect(
      const Executor& executor, Endpoint endpoint, ServerTrust trust,
      QUICConfiguration configuration = {});

  // Starts dialing and returns at once; `waitUntilReady()` says how it went. `openings` are the
  // bytes each client stream begins with, one stream each; by default each kind's preamble, in
  // order. Anything else makes a client that misbehaves on purpose, which is how the host's
  // checks are tried. Throws QUICError.
  static std::shared_ptr<QUICConnection> dial(const Executor& executor, Endpoint endpoint,
                                              ServerTrust trust,
                                              QUICConfiguration configuration = {},
                                              std::vector<Data> openings = {});

  // The host's end of a connection whose first Initial packet (`initial`) came to `port` from
  // `remote`. Its connection IDs are added to the port, which hands it the datagrams that follow;
  // the caller hands it that first one. Throws QUICError.
  static std::shared_ptr<QUICConnection> accept(std::shared_ptr<QUICHostPort> port,
                                                std::shared_ptr<TLSCredentials> credentials,
                                                const ngtcp2_pkt_hd& initial,
                                                const Endpoint& remote,
                                                QUICConfiguration configuration);

  ~QUICConnection() override;

  // One datagram for this connection. Call it on `executor()`.
  void receive(std::span<const std::uint8_t> datagram, const Endpoint& from);
  const Executor& executor() const { return executor_; }

  // Returns once ready; throws the failure (QUICError) once finished.
  asio::awaitable<void> waitUntilReady();

  AsyncQueue<ConnectionState>& states() override { return states_; }
  AsyncQueue<Message>& messages() override { return messages_; }
  AsyncQueue<VideoFrame>& videoFrames() override { return videoQueue_; }
  AsyncQueue<AudioPacket>& audioPackets() override { return audioQueue_; }

  void send(const Message& message) override;
  bool sendVideo(const VideoFrame& frame) override;
  bool sendAudio(const AudioPacket& packet) override;
  asio::awaitable<bool> sendTransfer(const Message& message) override;
  void close() override;
  void liftHandshakeLimits() override;

  std::optional<Data> peerCertificateFingerprint() const override;
  std::optional<Data> tlsExporter() const override;

 private:
  struct Stream;
  struct Callbacks;
  struct ConnectionDeleter {
    void operator()(ngtcp2_conn* connection) const;
  };
  enum class Enqueued { taken, refused, closed };

  QUICConnection(Role role, const Executor& executor, std::shared_ptr<UDPSocket> socket,
                 std::shared_ptr<QUICHostPort> hostPort, const Endpoint& remote,
                 QUICConfiguration configuration, std::optional<Data> pinnedFingerprint,
                 std::vector<Data> openings);
  void makeConnection(const ngtcp2_pkt_hd* initial, std::shared_ptr<TLSCredentials> credentials);
  void start();
  void begin();
  static asio::awaitable<std::shared_ptr<QUICConnection>> readyConnection(
      std::shared_ptr<QUICConnection> connection);

  // ---- on the executor ----
  void openStreams();
  Stream& streamFor(std::int64_t id);
  Stream* streamOfKind(StreamKind kind);
  void receiveStreamData(Stream& stream, std::span<const std::uint8_t> data, bool fin);
  void deliverMessage(Message message);
  void applyLiftedLimits();
  void trustStream(Stream& stream);
  bool readPreamble(Stream& stream, std::span<const std::uint8_t>& data, bool fin);
  template <class Next, class Deliver>
  void drainFrames(Stream& stream, Next next, Deliver deliver);
  void release(Stream& stream);
  void releaseLater(Stream& stream);
  bool pacesTransfers(double now) const;
  void credit(Stream& stream, std::size_t count);
  void acknowledged(Stream& stream, std::uint64_t offset, std::uint64_t length);
  void goReady();
  void writePackets();
  void takeQueuedSends();
  Stream* nextStreamToWrite(const std::vector<std::int64_t>& blocked);
  void settleSent(StreamKind kind, const std::vector<std::size_t>& sizes);
  void sendDatagram(std::span<const std::uint8_t> packet, const Endpoint& to);
  void noteSendError(std::error_code error);
  void armTimer();
  void registerID(std::span<const std::uint8_t> id);
  void failOnLibraryError(int error);
  ConnectionState peerClosedState() const;
  void shutdownTransport(bool clean);
  void closeAfter(std::chrono::milliseconds delay);
  void closeTransport(const ngtcp2_connection_close_error* error);

  // ---- from any thread ----
  bool isFinished() const;
  bool readyOrWait(const std::shared_ptr<Wakeup>& waiter);
  void scheduleWrite();
  Enqueued enqueue(StreamKind kind, Data& bytes, const std::shared_ptr<Wakeup>& waiter = nullptr);
  static asio::awaitable<bool> admitTransfer(std::shared_ptr<QUICConnection> self, Data bytes);
  void finish(ConnectionState target);

  const Role role_;
  const Executor executor_;
  const QUICConfiguration configuration_;
  const std::shared_ptr<UDPSocket> socket_;
  const std::shared_ptr<QUICHostPort> hostPort_;  // host only
  Endpoint remote_;
  const std::unique_ptr<FingerprintBox> fingerprints_;  // client only
  // When video last went out, in uptime seconds: the files are paced for a second after it.
  std::atomic<double> lastVideoSent_{-1e9};
  Logger log_{"io.dovka.tovu.host", "transport"};

  // Owned by the executor.
  std::unique_ptr<ngtcp2_conn, ConnectionDeleter> connection_;
  std::unique_ptr<TLSSession> tls_;
  std::map<std::int64_t, std::unique_ptr<Stream>> streams_;
  std::vector<Data> registeredIDs_;
  asio::steady_timer timer_;
  asio::steady_timer handshakeTimer_;
  asio::steady_timer closeTimer_;
  asio::steady_timer backPressureTimer_;  // of the one stream a role holds back
  bool backPressureArmed_ = false;
  std::optional<TransferPace> transferPace_;  // host only
  asio::steady_timer waitingTimer_;
  std::uint64_t armedExpiry_ = UINT64_MAX;
  std::vector<Data> openings_;  // client only
  std::size_t openingsAcknowledged_ = 0;
  bool transportClosed_ = false;
  bool waiting_ = false;
  bool handshakeLimited_;  // host only, until the peer proved its key
  int waitingGeneration_ = 0;

  mutable std::mutex lock_;  // guards everything below
  std::array<bool, kStreamKindCount> streamPresent_{};
  std::array<std::vector<Data>, kStreamKindCount> queuedSends_;
  bool writeScheduled_ = false;
  bool isReady_ = false;
  bool isFinished_ = false;
  InFlightBudget budget_{configuration_};
  std::vector<std::shared_ptr<Wakeup>> transferWaiters_;
  std::vector<std::shared_ptr<Wakeup>> readyWaiters_;
  std::string failure_;
  std::optional<QUICError> failureError_;
  std::optional<Data> exporter_;

  AsyncQueue<ConnectionState> states_;
  AsyncQueue<Message> messages_;
  AsyncQueue<VideoFrame> videoQueue_;
  AsyncQueue<AudioPacket> audioQueue_;
};

}  // namespace kelvaron
