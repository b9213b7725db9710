#include "kit/transport/QUICConnection.hpp"

#include <gnutls/crypto.h>
#include <gnutls/gnutls.h>
#include <ngtcp2/ngtcp2.h>
#include <ngtcp2/ngtcp2_crypto.h>

#include <algorithm>
#include <asio/post.hpp>
#include <cstdlib>
#include <cstring>

#include "kit/async/Uptime.hpp"
#include "kit/wire/WireCodec.hpp"

namespace kelvaron {

using namespace std::chrono_literals;

namespace {

// A write gives way to reads after this many packets, so a long burst of video does not keep
// acknowledgements and input waiting.
constexpr int kPacketsPerWrite = 64;
// Above any payload size we configure.
constexpr std::size_t kPacketBufferSize = 1500;
// After the FIN of the control stream went out, lets it arrive before the connection itself is
// closed; a FIN that cannot go out (a peer that stopped reading) is given up on after a while.
constexpr auto kCloseDelay = 100ms;
constexpr auto kFinDeadline = 5s;
constexpr auto kBackPressurePoll = 5ms;
// What a paced transfer may take at once after a pause.
constexpr double kTransferPaceBurst = 1 << 20;
constexpr auto kNetworkUnavailableGrace = 3s;
// Our CONNECTION_CLOSE code for a failure of the session's protocol; its reason is our text.
constexpr std::uint64_t kProtocolFailureCode = 1;

// The order in which streams get room in a packet: what a person feels first.
constexpr StreamKind kWritePriority[] = {StreamKind::control, StreamKind::input, StreamKind::audio,
                                         StreamKind::transfer, StreamKind::video};

ngtcp2_tstamp timestamp() {
  return static_cast<ngtcp2_tstamp>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                        std::chrono::steady_clock::now().time_since_epoch())
                                        .count());
}

std::chrono::steady_clock::time_point timePointOf(ngtcp2_tstamp stamp) {
  return std::chrono::steady_clock::time_point(
      std::chrono::duration_cast<std::chrono::steady_clock::duration>(
          std::chrono::nanoseconds(stamp)));
}

void randomFill(std::uint8_t* destination, std::size_t count) {
  if (gnutls_rnd(GNUTLS_RND_RANDOM, destination, count) < 0) {
    throw QUICError::failed("no random numbers");
  }
}

// Runs a callback's body; nothing may be thrown through the stack's C frames, so a failure ends
// the connection through the stack instead.
template <class Body>
int guarded(Body body) noexcept {
  try {
    body();
    return 0;
  } catch (...) {
    return NGTCP2_ERR_CALLBACK_FAILURE;
  }
}

ngtcp2_cid randomConnectionID() {
  ngtcp2_cid id;
  id.datalen = kQUICConnectionIDLength;
  randomFill(id.data, id.datalen);
  return id;
}

int index(StreamKind kind) { return static_cast<int>(kind); }

StreamKind streamKindOf(const Message& message) {
  return static_cast<StreamKind>(channel(message));
}

const char* sendFailurePrefix(StreamKind kind) {
  switch (kind) {
    case StreamKind::video:
      return "video send failed: ";
    case StreamKind::audio:
      return "audio send failed: ";
    case StreamKind::transfer:
      return "transfer send failed: ";
    default:
      return "send failed: ";
  }
}

asio::ip::udp::endpoint endpointOf(const ngtcp2_addr& address) {
  asio::ip::udp::endpoint endpoint;
  std::memcpy(endpoint.data(), address.addr, address.addrlen);
  endpoint.resize(address.addrlen);
  return endpoint;
}

// The path of a datagram, pointing into the two endpoints.
ngtcp2_path pathOf(const asio::ip::udp::endpoint& local, const asio::ip::udp::endpoint& remote) {
  return {{const_cast<ngtcp2_sockaddr*>(reinterpret_cast<const ngtcp2_sockaddr*>(local.data())),
           static_cast<ngtcp2_socklen>(local.size())},
          {const_cast<ngtcp2_sockaddr*>(reinterpret_cast<const ngtcp2_sockaddr*>(remote.data())),
           static_cast<ngtcp2_socklen>(remote.size())},
          nullptr};
}

ngtcp2_connection_close_error applicationClose(std::uint64_t code, const std::string& reason) {
  ngtcp2_connection_close_error error;
  ngtcp2_connection_close_error_set_application_error(
      &error, code, reinterpret_cast<const std::uint8_t*>(reason.data()), reason.size());
  return error;
}

// A peer's close without a reason, in words: a TLS alert by its name (a client that does not
// trust the certificate it was shown says "Bad certificate"), else the code.
std::string describeCloseError(const ngtcp2_connection_close_error& error) {
  const bool transport = error.type == NGTCP2_CONNECTION_CLOSE_ERROR_CODE_TYPE_TRANSPORT;
  if (!transport) return "application error " + std::to_string(error.error_code);
  // The crypto errors are 0x100 plus the TLS alert.
  if ((error.error_code & ~std::uint64_t{0xff}) != NGTCP2_CRYPTO_ERROR) {
    return "transport error " + std::to_string(error.error_code);
  }
  const auto alert = static_cast<gnutls_alert_description_t>(error.error_code & 0xff);
  if (const char* name = gnutls_alert_get_name(alert)) return std::string("TLS alert ") + name;
  return "TLS alert " + std::to_string(int(alert));
}

}  // namespace

struct QUICConnection::Stream {
  explicit Stream(std::int64_t streamID) : id(streamID) {}
  std::int64_t id;
  std::optional<StreamKind> kind;  // the host learns it from the preamble
  StreamSendQueue out;
  WireDecoder decoder;
  std::size_t uncredited = 0;  // received and held back from flow control
  bool preambleAcknowledged = false;
};

// The stack's callbacks: they only touch our own state, never call back into the stack's
// reading or writing.
struct QUICConnection::Callbacks {
  static QUICConnection& self(void* userData) { return *static_cast<QUICConnection*>(userData); }

  static int streamData(ngtcp2_conn*, std::uint32_t flags, std::int64_t id, std::uint64_t,
                        const std::uint8_t* data, std::size_t length, void* userData, void*) {
    return guarded([&] {
      auto& connection = self(userData);
      connection.receiveStreamData(connection.streamFor(id), {data, length},
                                   flags & NGTCP2_STREAM_DATA_FLAG_FIN);
    });
  }

  static int acknowledged(ngtcp2_conn*, std::int64_t id, std::uint64_t offset, std::uint64_t length,
                          void* userData, void*) {
    return guarded([&] {
      auto& connection = self(userData);
      connection.acknowledged(connection.streamFor(id), offset, length);
    });
  }

  static int streamReset(ngtcp2_conn*, std::int64_t id, std::uint64_t, std::uint64_t code,
                         void* userData, void*) {
    return guarded([&] {
      auto& connection = self(userData);
      const Stream& stream = connection.streamFor(id);
      const std::string prefix = connection.role_ == Role::client && stream.kind
                                     ? std::string(name(*stream.kind)) + " stream failed: "
                                     : std::string("stream failed: ");
      connection.finish(
          ConnectionState::failed(prefix + "reset by peer (" + std::to_string(code) + ")"));
    });
  }

  static int stopSending(ngtcp2_conn*, std::int64_t id, std::uint64_t code, void* userData, void*) {
    return guarded([&] {
      auto& connection = self(userData);
      const Stream& stream = connection.streamFor(id);
      if (!stream.kind) return;  // nothing of ours goes there
      connection.finish(ConnectionState::failed(std::string(sendFailurePrefix(*stream.kind)) +
                                                "stopped by peer (" + std::to_string(code) + ")"));
    });
  }

  // Without randomness there is nothing safe left to do.
  static void random(std::uint8_t* destination, std::size_t count, const ngtcp2_rand_ctx*) {
    if (gnutls_rnd(GNUTLS_RND_RANDOM, destination, count) < 0) std::abort();
  }

  static int newConnectionID(ngtcp2_conn*, ngtcp2_cid* id, std::uint8_t* token, std::size_t length,
                             void* userData) {
    return guarded([&] {
      id->datalen = length;
      randomFill(id->data, length);
      randomFill(token, NGTCP2_STATELESS_RESET_TOKENLEN);
      self(userData).registerID({id->data, id->datalen});
    });
  }

  static int retireConnectionID(ngtcp2_conn*, const ngtcp2_cid* id, void* userData) {
    return guarded([&] {
      auto& connection = self(userData);
      if (connection.hostPort_) connection.hostPort_->remove({id->data, id->datalen});
    });
  }

  static ngtcp2_conn* connectionOf(ngtcp2_crypto_conn_ref* reference) {
    return static_cast<QUICConnection*>(reference->user_data)->connection_.get();
  }
};

void QUICConnection::ConnectionDeleter::operator()(ngtcp2_conn* connection) const {
  ngtcp2_conn_del(connection);
}

// ---- Making a connection ----

QUICConnection::QUICConnection(Role role, const Executor& executor,
                               std::shared_ptr<UDPSocket> socket,
                               std::shared_ptr<QUICHostPort> hostPort, const Endpoint& remote,
                               QUICConfiguration configuration,
                               std::optional<Data> pinnedFingerprint, std::vector<Data> openings)
    : role_(role),
      executor_(executor),
      configuration_(configuration),
      socket_(std::move(socket)),
      hostPort_(std::move(hostPort)),
      remote_(remote),
      fingerprints_(role == Role::client
                        ? std::make_unique<FingerprintBox>(std::move(pinnedFingerprint))
                        : nullptr),
      timer_(executor),
      handshakeTimer_(executor),
      closeTimer_(executor),
      backPressureTimer_(executor),
      waitingTimer_(executor),
      openings_(std::move(openings)),
      handshakeLimited_(role == Role::host) {
  if (role == Role::host && configuration_.transferPaceWhileStreaming) {
    transferPace_.emplace(*configuration_.transferPaceWhileStreaming, kTransferPaceBurst);
  }
  if (role == Role::client && openings_.empty()) {
    for (int k = 0; k < kStreamKindCount; ++k) {
      openings_.push_back({preambleByte(static_cast<StreamKind>(k))});
    }
  }
  states_.push({});  // connecting
}

asio::awaitable<std::shared_ptr<QUICConnection>> QUICConnection::connect(
    const Executor& executor, Endpoint endpoint, ServerTrust trust,
    QUICConfiguration configuration) {
  auto connection = dial(executor, endpoint, std::move(trust), configuration);
  return readyConnection(std::move(connection));
}

std::shared_ptr<QUICConnection> QUICConnection::dial(const Executor& executor, Endpoint endpoint,
                                                     ServerTrust trust,
                                                     QUICConfiguration configuration,
                                                     std::vector<Data> openings) {
  const Executor strand = makeStrand(executor);
  std::shared_ptr<UDPSocket> socket;
  try {
    socket = UDPSocket::dial(strand, endpoint);
  } catch (const std::system_error& error) {
    throw QUICError::failed(std::string("network unavailable: ") + error.what());
  }
  std::shared_ptr<QUICConnection> connection(
      new QUICConnection(Role::client, strand, std::move(socket), nullptr, endpoint, configuration,
                         std::move(trust.pinnedFingerprint), std::move(openings)));
  connection->makeConnection(nullptr, TLSCredentials::client());
  connection->start();
  return connection;
}

asio::awaitable<std::shared_ptr<QUICConnection>> QUICConnection::readyConnection(
    std::shared_ptr<QUICConnection> connection) {
  co_await connection->waitUntilReady();
  co_return connection;
}

std::shared_ptr<QUICConnection> QUICConnection::accept(std::shared_ptr<QUICHostPort> port,
                                                       std::shared_ptr<TLSCredentials> credentials,
                                                       const ngtcp2_pkt_hd& initial,
                                                       const Endpoint& remote,
                                                       QUICConfiguration configuration) {
  const Executor strand = makeStrand(port->contextExecutor());
  auto socket = port->socket();
  std::shared_ptr<QUICConnection> connection(
      new QUICConnection(Role::host, strand, std::move(socket), std::move(port), remote,
                         configuration, std::nullopt, {}));
  connection->makeConnection(&initial, std::move(credentials));
  connection->start();
  return connection;
}

QUICConnection::~QUICConnection() {
  // Nobody else holds the connection any more, so nothing of it runs on the executor now.
  const auto goodbye = applicationClose(NGTCP2_NO_ERROR, {});
  closeTransport(&goodbye);
}

// Makes the QUIC connection and its TLS session. `initial` is the client's first packet on the
// host, absent on the client.
void QUICConnection::makeConnection(const ngtcp2_pkt_hd* initial,
                                    std::shared_ptr<TLSCredentials> credentials) {
  ngtcp2_callbacks callbacks{};
  if (initial) {
    callbacks.recv_client_initial = ngtcp2_crypto_recv_client_initial_cb;
  } else {
    callbacks.client_initial = ngtcp2_crypto_client_initial_cb;
    callbacks.recv_retry = ngtcp2_crypto_recv_retry_cb;
  }
  callbacks.recv_crypto_data = ngtcp2_crypto_recv_crypto_data_cb;
  callbacks.encrypt = ngtcp2_crypto_encrypt_cb;
  callbacks.decrypt = ngtcp2_crypto_decrypt_cb;
  callbacks.hp_mask = ngtcp2_crypto_hp_mask_cb;
  callbacks.update_key = ngtcp2_crypto_update_key_cb;
  callbacks.delete_crypto_aead_ctx = ngtcp2_crypto_delete_crypto_aead_ctx_cb;
  callbacks.delete_crypto_cipher_ctx = ngtcp2_crypto_delete_crypto_cipher_ctx_cb;
  callbacks.get_path_challenge_data = ngtcp2_crypto_get_path_challenge_data_cb;
  callbacks.version_negotiation = ngtcp2_crypto_version_negotiation_cb;
  callbacks.rand = Callbacks::random;
  callbacks.get_new_connection_id = Callbacks::newConnectionID;
  callbacks.remove_connection_id = Callbacks::retireConnectionID;
  callbacks.recv_stream_data = Callbacks::streamData;
  callbacks.acked_stream_data_offset = Callbacks::acknowledged;
  callbacks.stream_reset = Callbacks::streamReset;
  callbacks.stream_stop_sending = Callbacks::stopSending;

  ngtcp2_settings settings;
  ngtcp2_settings_default(&settings);
  settings.initial_ts = timestamp();
  settings.handshake_timeout = UINT64_MAX;  // ours covers the streams too
  if (configuration_.maxUDPPayloadSize) {
    settings.max_tx_udp_payload_size = *configuration_.maxUDPPayloadSize;
    settings.no_tx_udp_payload_size_shaping = 1;
    settings.no_pmtud = 1;
  }

  ngtcp2_transport_params params;
  ngtcp2_transport_params_default(&params);
  params.initial_max_data = handshakeLimited_ ? kHandshakeConnectionWindow : kQUICConnectionWindow;
  params.initial_max_stream_data_bidi_local = kQUICStreamWindow;
  params.initial_max_stream_data_bidi_remote =
      handshakeLimited_ ? kHandshakeStreamWindow : kQUICStreamWindow;
  params.initial_max_streams_bidi = kQUICMaxBidirectionalStreams;
  params.initial_max_streams_uni = 0;
  params.max_idle_timeout =
      static_cast<ngtcp2_duration>(configuration_.idleTimeout.count()) * NGTCP2_SECONDS;
  if (configuration_.maxUDPPayloadSize)
    params.max_udp_payload_size = *configuration_.maxUDPPayloadSize;

  const Endpoint local = socket_->localEndpoint();
  const ngtcp2_path path = pathOf(local, remote_);
  const ngtcp2_cid ownID = randomConnectionID();
  ngtcp2_conn* made = nullptr;
  int result;
  if (initial) {
    params.original_dcid = initial->dcid;
    result = ngtcp2_conn_server_new(&made, &initial->scid, &ownID, &path, initial->version,
                                    &callbacks, &settings, &params, nullptr, this);
  } else {
    const ngtcp2_cid peerID = randomConnectionID();
    result = ngtcp2_conn_client_new(&made, &peerID, &ownID, &path, NGTCP2_PROTO_VER_V1, &callbacks,
                                    &settings, &params, nullptr, this);
  }
  if (result != 0) throw QUICError::failed(ngtcp2_strerror(result));
  connection_.reset(made);

  tls_ = std::make_unique<TLSSession>(
      initial ? TLSSession::Role::host : TLSSession::Role::client, std::move(credentials),
      ngtcp2_crypto_conn_ref{Callbacks::connectionOf, this}, fingerprints_.get());
  ngtcp2_conn_set_tls_native_handle(connection_.get(), tls_->native());

  // The listener must find this connection by either ID before it reads the next datagram.
  if (initial) {
    registerID({ownID.data, ownID.datalen});
    registerID({initial->dcid.data, initial->dcid.datalen});
  }
}

void QUICConnection::start() {
  asio::post(executor_, [weak = weak_from_this()] {
    if (auto self = weak.lock()) self->begin();
  });
}

void QUICConnection::begin() {
  const std::weak_ptr<QUICConnection> weak = weak_from_this();
  handshakeTimer_.expires_after(configuration_.handshakeTimeout);
  handshakeTimer_.async_wait([weak](std::error_code error) {
    auto self = weak.lock();
    if (error || !self) return;
    std::unique_lock guard(self->lock_);
    if (self->isReady_) return;
    guard.unlock();
    self->finish(ConnectionState::failed("handshake timed out"));
  });
  if (role_ == Role::client) {
    socket_->startReceiving(
        [weak](std::span<const std::uint8_t> datagram, const Endpoint& from) {
          if (auto self = weak.lock()) self->receive(datagram, from);
        },
        [weak](std::error_code error) {
          if (auto self = weak.lock()) self->finish(ConnectionState::failed(error.message()));
        });
    writePackets();  // the first Initial
  }
}

void QUICConnection::registerID(std::span<const std::uint8_t> id) {
  if (!hostPort_) return;
  hostPort_->add(id, weak_from_this());
  registeredIDs_.emplace_back(id.begin(), id.end());
}

// ---- Reading ----

void QUICConnection::receive(std::span<const std::uint8_t> datagram, const Endpoint& from) {
  if (transportClosed_) return;
  if (waiting_) {  // the network answers again
    waiting_ = false;
    ++waitingGeneration_;
  }
  const Endpoint local = socket_->localEndpoint();
  const ngtcp2_path path = pathOf(local, from);
  const ngtcp2_pkt_info info{};
  const int result = ngtcp2_conn_read_pkt(connection_.get(), &path, &info, datagram.data(),
                                          datagram.size(), timestamp());
  if (result != 0) return failOnLibraryError(result);
  if (role_ == Role::client && streams_.empty() &&
      ngtcp2_conn_get_handshake_completed(connection_.get())) {
    openStreams();
  }
  scheduleWrite();
}

// The client's streams, each introduced by its opening: normally one per kind, in order.
void QUICConnection::openStreams() {
  for (const Data& opening : openings_) {
    std::int64_t id;
    const auto kind = opening.empty() ? std::nullopt : streamKindOfPreamble(opening.front());
    if (ngtcp2_conn_open_bidi_stream(connection_.get(), &id, nullptr) != 0) {
      return finish(ConnectionState::failed(std::string("could not open ") +
                                            (kind ? name(*kind) : "unknown") + " stream"));
    }
    Stream& stream = streamFor(id);
    if (kind && !streamOfKind(*kind)) stream.kind = kind;
    stream.out.push(opening, false);
    if (kind) {
      std::lock_guard guard(lock_);
      streamPresent_[index(*kind)] = true;
    }
  }
}

QUICConnection::Stream& QUICConnection::streamFor(std::int64_t id) {
  auto& stream = streams_[id];
  if (!stream) {
    stream = std::make_unique<Stream>(id);
    if (handshakeLimited_) {
      stream->decoder.setMaxFrameLength(kHandshakeMaxFrameLength);
    } else if (role_ == Role::host) {
      trustStream(*stream);  // opened after the limits were lifted
    }
  }
  return *stream;
}

void QUICConnection::liftHandshakeLimits() {
  // Posted before anything the gate sends next, so the limits are gone before the peer can
  // answer it.
  asio::post(executor_, [self = shared_from_this()] { self->applyLiftedLimits(); });
}

void QUICConnection::applyLiftedLimits() {
  if (!handshakeLimited_ || transportClosed_) return;
  handshakeLimited_ = false;
  for (auto& [id, stream] : streams_) trustStream(*stream);
  ngtcp2_conn_extend_max_offset(connection_.get(),
                                kQUICConnectionWindow - kHandshakeConnectionWindow);
  writePackets();
}

// A host's stream starts with the small window the peer was first told of; a trusted peer gets
// the whole window and frames of any length.
void QUICConnection::trustStream(Stream& stream) {
  stream.decoder.setMaxFrameLength(kMaxFrameLength);
  ngtcp2_conn_extend_max_stream_offset(connection_.get(), stream.id,
                                       kQUICStreamWindow - kHandshakeStreamWindow);
}

// Before the peer proved its key only the handshake's messages are taken, and only a few that
// the session has not read yet.
void QUICConnection::deliverMessage(Message message) {
  if (handshakeLimited_ &&
      (!isAuthentication(message) || messages_.count() >= kHandshakeMaxPendingMessages)) {
    log_.debug("dropped a message before authentication (type %u)", unsigned(typeCode(message)));
    return;
  }
  messages_.push(std::move(message));
}

QUICConnection::Stream* QUICConnection::streamOfKind(StreamKind kind) {
  for (auto& [id, stream] : streams_) {
    if (stream->kind == kind) return stream.get();
  }
  return nullptr;
}

bool QUICConnection::isFinished() const {
  std::lock_guard guard(lock_);
  return isFinished_;
}

void QUICConnection::receiveStreamData(Stream& stream, std::span<const std::uint8_t> data,
                                       bool fin) {
  if (isFinished()) return;
  if (!stream.kind) {
    // A stream the host opened towards a client carries nothing we read.
    if (role_ == Role::client) return credit(stream, data.size());
    if (!readPreamble(stream, data, fin)) return;
  }
  const StreamKind kind = *stream.kind;
  const bool readsMessages =
      kind == StreamKind::control || (role_ == Role::host && kind == StreamKind::input);
  if (readsMessages) {
    stream.decoder.append(data);
    credit(stream, data.size());
    drainFrames(stream, &WireDecoder::nextMessage,
                [this](Message message) { deliverMessage(std::move(message)); });
    // The end of the control stream is the peer's clean goodbye; the others end quietly.
    if (fin && kind == StreamKind::control) finish(ConnectionState::closed());
  } else if ((role_ == Role::client && kind == StreamKind::video) ||
             (role_ == Role::host && kind == StreamKind::transfer)) {
    stream.decoder.append(data);
    stream.uncredited += data.size();
    release(stream);
  } else if (role_ == Role::client && kind == StreamKind::audio) {
    stream.decoder.append(data);
    credit(stream, data.size());
    drainFrames(stream, &WireDecoder::nextAudioPacket, [this](AudioPacket packet) {
      // Old audio is worthless: a full queue drops the packet rather than slow the reader.
      if (audioQueue_.count() < configuration_.maxBufferedIncomingAudioPackets) {
        audioQueue_.push(std::move(packet));
      }
    });
  } else {
    // The client sends nothing but the preamble on the media streams; the host nothing on input
    // and transfer.
    credit(stream, data.size());
  }
}

// The host learns a stream's kind from its first byte. False if the stream cannot go on.
bool QUICConnection::readPreamble(Stream& stream, std::span<const std::uint8_t>& data, bool fin) {
  if (data.empty()) {
    if (fin) finish(ConnectionState::failed("bad stream preamble"));
    return false;
  }
  const auto kind = streamKindOfPreamble(data.front());
  if (!kind) {
    finish(ConnectionState::failed("bad stream preamble"));
    return false;
  }
  if (streamOfKind(*kind)) {
    finish(ConnectionState::failed(std::string("duplicate ") + name(*kind) + " stream"));
    return false;
  }
  stream.kind = kind;
  credit(stream, 1);
  data = data.subspan(1);
  {
    std::lock_guard guard(lock_);
    streamPresent_[index(*kind)] = true;
  }
  // The transfer stream may come at any time; the host does not wait for it.
  const bool allButTransfer = streamOfKind(StreamKind::control) &&
                              streamOfKind(StreamKind::input) && streamOfKind(StreamKind::video) &&
                              streamOfKind(StreamKind::audio);
  if (*kind != StreamKind::transfer && allButTransfer) goReady();
  return true;
}

// Decodes every whole frame. A frame too large to follow ends the connection; any other frame
// that does not decode costs only itself.
template <class Next, class Deliver>
void QUICConnection::drainFrames(Stream& stream, Next next, Deliver deliver) {
  for (;;) {
    try {
      auto item = (stream.decoder.*next)();
      if (!item) return;
      deliver(std::move(*item));
    } catch (const WireError& error) {
      if (error.kind() == WireError::Kind::frameTooLarge) {
        return finish(ConnectionState::failed(std::string("protocol error: ") + error.what()));
      }
      log_.debug("skipped a frame on the %s stream: %s", name(*stream.kind), error.what());
    }
  }
}

// A slow reader holds the stream's flow-control credit back, which stops the sender through QUIC
// itself; the bytes wait in the decoder meanwhile: the client's video, and the files a host takes
// no faster than it writes them, nor, while it streams, faster than their pace.
void QUICConnection::release(Stream& stream) {
  const bool video = stream.kind == StreamKind::video;
  const bool full = video ? videoQueue_.count() >= configuration_.maxBufferedIncomingVideoFrames
                          : messages_.count() >= configuration_.maxBufferedIncomingTransferMessages;
  if (full) return releaseLater(stream);
  std::size_t granted = stream.uncredited;
  if (!video) {
    const double now = uptimeSeconds();
    if (pacesTransfers(now)) granted = transferPace_->grant(granted, now);
  }
  credit(stream, granted);
  stream.uncredited -= granted;
  if (video) {
    drainFrames(stream, &WireDecoder::nextVideoFrame,
                [this](VideoFrame frame) { videoQueue_.push(std::move(frame)); });
  } else {
    drainFrames(stream, &WireDecoder::nextMessage,
                [this](Message message) { deliverMessage(std::move(message)); });
  }
  if (stream.uncredited > 0) releaseLater(stream);
}

// Each packet of a held stream comes here; the poll already armed serves them all.
void QUICConnection::releaseLater(Stream& stream) {
  if (backPressureArmed_) return;
  backPressureArmed_ = true;
  backPressureTimer_.expires_after(kBackPressurePoll);
  backPressureTimer_.async_wait([weak = weak_from_this(), id = stream.id](std::error_code error) {
    auto self = weak.lock();
    if (error || !self || self->transportClosed_) return;
    self->backPressureArmed_ = false;
    self->release(self->streamFor(id));
    self->writePackets();
  });
}

bool QUICConnection::pacesTransfers(double now) const {
  return transferPace_ && now - lastVideoSent_.load() < 1.0;
}

void QUICConnection::credit(Stream& stream, std::size_t count) {
  if (count == 0) return;
  ngtcp2_conn_extend_max_stream_offset(connection_.get(), stream.id, count);
  ngtcp2_conn_extend_max_offset(connection_.get(), count);
}

void QUICConnection::acknowledged(Stream& stream, std::uint64_t offset, std::uint64_t length) {
  stream.out.acknowledge(offset, length);
  // The client is ready once the host has every preamble.
  if (role_ == Role::client && !stream.preambleAcknowledged && stream.out.ackedOffset() >= 1) {
    stream.preambleAcknowledged = true;
    if (++openingsAcknowledged_ == openings_.size()) goReady();
  }
}

void QUICConnection::goReady() {
  const auto exporter = tls_->exporter();
  std::vector<std::shared_ptr<Wakeup>> waiters;
  {
    std::lock_guard guard(lock_);
    if (isReady_ || isFinished_) return;
    exporter_ = exporter;
    isReady_ = true;
    waiters.swap(readyWaiters_);
    // Under the lock, so that no final state can come before it.
    states_.push(ConnectionState::ready());
  }
  handshakeTimer_.cancel();
  for (const auto& waiter : waiters) Wakeup::wake(waiter);
}

asio::awaitable<void> QUICConnection::waitUntilReady() {
  const auto executor = co_await asio::this_coro::executor;
  const auto wakeup = std::make_shared<Wakeup>(executor);
  if (readyOrWait(wakeup)) co_return;
  co_await wakeup->wait();
  if (!readyOrWait(nullptr)) throw QUICError::failed("cancelled");
}

// True when ready; throws the failure once finished; otherwise `waiter` waits for either.
bool QUICConnection::readyOrWait(const std::shared_ptr<Wakeup>& waiter) {
  std::lock_guard guard(lock_);
  if (isReady_) return true;
  if (isFinished_) throw *failureError_;
  if (waiter) readyWaiters_.push_back(waiter);
  return false;
}

// ---- Writing ----

void QUICConnection::scheduleWrite() {
  {
    std::lock_guard guard(lock_);
    if (writeScheduled_) return;
    writeScheduled_ = true;
  }
  // The write holds the connection: what was sent before it was dropped still goes.
  asio::post(executor_, [self = shared_from_this()] { self->writePackets(); });
}

void QUICConnection::takeQueuedSends() {
  std::array<std::vector<Data>, kStreamKindCount> queued;
  {
    std::lock_guard guard(lock_);
    queued.swap(queuedSends_);
    writeScheduled_ = false;
  }
  for (int k = 0; k < kStreamKindCount; ++k) {
    Stream* stream = streamOfKind(static_cast<StreamKind>(k));
    if (!stream) continue;
    for (auto& bytes : queued[k]) stream->out.push(std::move(bytes));
  }
}

QUICConnection::Stream* QUICConnection::nextStreamToWrite(
    const std::vector<std::int64_t>& blocked) {
  const auto writable = [&](const Stream* stream) {
    return stream && (stream->out.hasUnsent() || stream->out.finQueued()) &&
           std::find(blocked.begin(), blocked.end(), stream->id) == blocked.end();
  };
  for (const StreamKind kind : kWritePriority) {
    if (Stream* stream = streamOfKind(kind); writable(stream)) return stream;
  }
  // A client's stream whose opening names no kind.
  for (auto& [id, stream] : streams_) {
    if (!stream->kind && writable(stream.get())) return stream.get();
  }
  return nullptr;
}

// Fills packets from the streams by priority until the stack has nothing more to send now
// (congestion, pacing or flow control say wait), then sets the timer for what comes next.
void QUICConnection::writePackets() {
  if (transportClosed_) return;
  takeQueuedSends();
  std::array<std::uint8_t, kPacketBufferSize> packet;
  ngtcp2_path_storage storage;
  ngtcp2_path_storage_zero(&storage);
  ngtcp2_pkt_info info;
  const ngtcp2_tstamp now = timestamp();
  std::vector<std::int64_t> blocked;  // by flow control, for this write
  int packets = 0;
  while (packets < kPacketsPerWrite) {
    Stream* stream = nextStreamToWrite(blocked);
    std::array<ngtcp2_vec, 16> vectors;
    std::size_t count = 0;
    std::size_t total = 0;
    std::uint32_t flags = NGTCP2_WRITE_STREAM_FLAG_NONE;
    if (stream) {
      for (const auto view : stream->out.unsent(vectors.size())) {
        vectors[count++] = {const_cast<std::uint8_t*>(view.data()), view.size()};
        total += view.size();
      }
      flags = NGTCP2_WRITE_STREAM_FLAG_MORE;
      if (stream->out.finQueued() && total == stream->out.unsentBytes()) {
        flags |= NGTCP2_WRITE_STREAM_FLAG_FIN;
      }
    }
    ngtcp2_ssize written = -1;
    const ngtcp2_ssize size = ngtcp2_conn_writev_stream(
        connection_.get(), &storage.path, &info, packet.data(), packet.size(), &written, flags,
        stream ? stream->id : -1, vectors.data(), count, now);
    if (stream && written >= 0) {
      const bool finWritten =
          (flags & NGTCP2_WRITE_STREAM_FLAG_FIN) && static_cast<std::size_t>(written) == total;
      const auto sent = stream->out.markSent(static_cast<std::size_t>(written), finWritten);
      if (!sent.empty() && stream->kind) settleSent(*stream->kind, sent);
      if (finWritten && stream->kind == StreamKind::control) closeAfter(kCloseDelay);
    }
    if (size == NGTCP2_ERR_WRITE_MORE) continue;
    if (size == NGTCP2_ERR_STREAM_DATA_BLOCKED || size == NGTCP2_ERR_STREAM_SHUT_WR ||
        size == NGTCP2_ERR_STREAM_NOT_FOUND) {
      blocked.push_back(stream->id);
      continue;
    }
    if (size < 0) return failOnLibraryError(static_cast<int>(size));
    if (size == 0) break;
    sendDatagram({packet.data(), static_cast<std::size_t>(size)}, endpointOf(storage.path.remote));
    ++packets;
  }
  ngtcp2_conn_update_pkt_tx_time(connection_.get(), now);
  if (packets == kPacketsPerWrite) {
    scheduleWrite();
  } else {
    armTimer();
  }
}

// Items whose last byte went out leave the in-flight accounting; a transfer's budget that frees
// up wakes every waiting sender to try again.
void QUICConnection::settleSent(StreamKind kind, const std::vector<std::size_t>& sizes) {
  std::vector<std::shared_ptr<Wakeup>> waiters;
  {
    std::lock_guard guard(lock_);
    for (const std::size_t size : sizes) budget_.sent(kind, size);
    if (kind == StreamKind::transfer) waiters.swap(transferWaiters_);
  }
  for (const auto& waiter : waiters) Wakeup::wake(waiter);
}

void QUICConnection::sendDatagram(std::span<const std::uint8_t> packet, const Endpoint& to) {
  if (const auto error = socket_->send(packet, to)) noteSendError(error);
}

// A network that refuses our datagrams may come back (Wi-Fi roaming, a cable replugged); only
// if nothing arrives for a while is the connection given up.
void QUICConnection::noteSendError(std::error_code error) {
  if (waiting_) return;
  waiting_ = true;
  const int generation = ++waitingGeneration_;
  waitingTimer_.expires_after(kNetworkUnavailableGrace);
  waitingTimer_.async_wait(
      [weak = weak_from_this(), generation, text = error.message()](std::error_code cancelled) {
        auto self = weak.lock();
        if (cancelled || !self || self->waitingGeneration_ != generation) return;
        self->finish(ConnectionState::failed("network unavailable: " + text));
      });
}

// Setting a timer costs a system call, and the stack's next deadline moves with every packet;
// the timer is moved only when the deadline comes earlier. Waking early is harmless: the stack
// finds nothing due and says when to come back.
void QUICConnection::armTimer() {
  const ngtcp2_tstamp expiry = ngtcp2_conn_get_expiry(connection_.get());
  if (expiry >= armedExpiry_) return;
  armedExpiry_ = expiry;
  timer_.expires_at(timePointOf(expiry));
  timer_.async_wait([weak = weak_from_this()](std::error_code error) {
    auto self = weak.lock();
    if (error || !self || self->transportClosed_) return;
    self->armedExpiry_ = UINT64_MAX;
    const int result = ngtcp2_conn_handle_expiry(self->connection_.get(), timestamp());
    if (result != 0) return self->failOnLibraryError(result);
    self->writePackets();
  });
}

// ---- Sending, from any thread ----

QUICConnection::Enqueued QUICConnection::enqueue(StreamKind kind, Data& bytes,
                                                 const std::shared_ptr<Wakeup>& waiter) {
  {
    std::lock_guard guard(lock_);
    if (!isReady_ || isFinished_ || !streamPresent_[index(kind)]) return Enqueued::closed;
    if (!budget_.admit(kind, bytes.size())) {
      if (waiter) transferWaiters_.push_back(waiter);
      return Enqueued::refused;
    }
    queuedSends_[index(kind)].push_back(std::move(bytes));
  }
  scheduleWrite();
  return Enqueued::taken;
}

void QUICConnection::send(const Message& message) {
  Data bytes = WireCodec::encodeMessage(message);
  enqueue(streamKindOf(message), bytes);
}

bool QUICConnection::sendVideo(const VideoFrame& frame) {
  Data bytes = WireCodec::encodeVideoFrame(frame);
  if (enqueue(StreamKind::video, bytes) != Enqueued::taken) return false;
  lastVideoSent_ = uptimeSeconds();
  return true;
}

bool QUICConnection::sendAudio(const AudioPacket& packet) {
  Data bytes = WireCodec::encodeAudioPacket(packet);
  return enqueue(StreamKind::audio, bytes) == Enqueued::taken;
}

asio::awaitable<bool> QUICConnection::sendTransfer(const Message& message) {
  Data bytes = WireCodec::encodeMessage(message);
  auto self = shared_from_this();
  return admitTransfer(std::move(self), std::move(bytes));
}

// A refused sender waits for the next transfer bytes to go out and tries again.
asio::awaitable<bool> QUICConnection::admitTransfer(std::shared_ptr<QUICConnection> self,
                                                    Data bytes) {
  const auto executor = co_await asio::this_coro::executor;
  for (;;) {
    const auto wakeup = std::make_shared<Wakeup>(executor);
    const Enqueued result = self->enqueue(StreamKind::transfer, bytes, wakeup);
    if (result != Enqueued::refused) co_return result == Enqueued::taken;
    co_await wakeup->wait();
    if (co_await isCancelled()) co_return false;
  }
}

void QUICConnection::close() { finish(ConnectionState::closed()); }

std::optional<Data> QUICConnection::peerCertificateFingerprint() const {
  return fingerprints_ ? fingerprints_->value() : std::nullopt;
}

std::optional<Data> QUICConnection::tlsExporter() const {
  std::lock_guard guard(lock_);
  return exporter_;
}

// ---- Ending ----

// Every way of ending comes here; the first wins. The waiters learn it at once; the transport
// is shut on the executor.
void QUICConnection::finish(ConnectionState target) {
  std::vector<std::shared_ptr<Wakeup>> waiters;
  ConnectionState final = target;
  {
    std::lock_guard guard(lock_);
    if (isFinished_) return;
    isFinished_ = true;
    failure_ = target.kind == ConnectionState::Kind::closed ? "closed" : target.failure;
    if (fingerprints_ && fingerprints_->mismatch()) {
      failure_ = "pin mismatch";
      failureError_ = QUICError::pinMismatch();
      final = ConnectionState::failed(failure_);
    } else {
      failureError_ = QUICError::failed(failure_);
    }
    waiters.swap(readyWaiters_);
    waiters.insert(waiters.end(), transferWaiters_.begin(), transferWaiters_.end());
    transferWaiters_.clear();
    states_.push(final);
    states_.finish();
  }
  if (final.kind == ConnectionState::Kind::failed) {
    log_.info("connection failed: %s", final.failure.c_str());
  }
  for (const auto& waiter : waiters) Wakeup::wake(waiter);
  messages_.finish();
  videoQueue_.finish();
  audioQueue_.finish();
  const bool clean = final.kind == ConnectionState::Kind::closed;
  asio::post(executor_, [self = shared_from_this(), clean] { self->shutdownTransport(clean); });
}

// A clean close ends the control stream first, so that the peer reads a clean end; the
// connection closes a moment later. A failure closes at once and tells the peer why.
void QUICConnection::shutdownTransport(bool clean) {
  if (transportClosed_) return;
  Stream* control = streamOfKind(StreamKind::control);
  if (clean && control && ngtcp2_conn_get_handshake_completed(connection_.get())) {
    control->out.finish();
    closeAfter(kFinDeadline);
    writePackets();
    return;
  }
  std::string reason;
  {
    std::lock_guard guard(lock_);
    reason = failure_;
  }
  const auto error = clean ? applicationClose(NGTCP2_NO_ERROR, {})
                           : applicationClose(kProtocolFailureCode, reason);
  closeTransport(&error);
}

// A clean goodbye: the connection closes `delay` from now, unless it is closed before.
void QUICConnection::closeAfter(std::chrono::milliseconds delay) {
  closeTimer_.expires_after(delay);
  closeTimer_.async_wait([self = shared_from_this()](std::error_code error) {
    if (error) return;
    const auto goodbye = applicationClose(NGTCP2_NO_ERROR, {});
    self->closeTransport(&goodbye);
  });
}

// Tells the peer (unless it already said goodbye, or `error` is absent) and lets go of the
// network: timers, connection IDs, and the client's socket.
void QUICConnection::closeTransport(const ngtcp2_connection_close_error* error) {
  if (transportClosed_) return;
  transportClosed_ = true;
  for (auto* timer :
       {&timer_, &handshakeTimer_, &closeTimer_, &backPressureTimer_, &waitingTimer_}) {
    timer->cancel();
  }
  if (error && connection_ && !ngtcp2_conn_is_in_draining_period(connection_.get()) &&
      !ngtcp2_conn_is_in_closing_period(connection_.get())) {
    std::array<std::uint8_t, kPacketBufferSize> packet;
    ngtcp2_path_storage storage;
    ngtcp2_path_storage_zero(&storage);
    ngtcp2_pkt_info info;
    const auto size = ngtcp2_conn_write_connection_close(
        connection_.get(), &storage.path, &info, packet.data(), packet.size(), error, timestamp());
    if (size > 0) {
      socket_->send({packet.data(), static_cast<std::size_t>(size)},
                    endpointOf(storage.path.remote));
    }
  }
  if (hostPort_) {
    for (const auto& id : registeredIDs_) hostPort_->remove(id);
  }
  registeredIDs_.clear();
  if (role_ == Role::client) socket_->stop();
}

void QUICConnection::failOnLibraryError(int error) {
  if (error == NGTCP2_ERR_DRAINING) {
    finish(peerClosedState());
    return closeTransport(nullptr);
  }
  if (error == NGTCP2_ERR_IDLE_CLOSE || error == NGTCP2_ERR_DROP_CONN ||
      error == NGTCP2_ERR_CLOSING) {
    finish(ConnectionState::failed(error == NGTCP2_ERR_IDLE_CLOSE ? "connection timed out"
                                                                  : ngtcp2_strerror(error)));
    return closeTransport(nullptr);
  }
  ngtcp2_connection_close_error close;
  std::string text;
  if (error == NGTCP2_ERR_CRYPTO) {
    const std::uint8_t alert = ngtcp2_conn_get_tls_alert(connection_.get());
    ngtcp2_connection_close_error_set_transport_error_tls_alert(&close, alert, nullptr, 0);
    const char* alertName = gnutls_alert_get_name(static_cast<gnutls_alert_description_t>(alert));
    text = std::string("TLS handshake failed: ") + (alertName ? alertName : "unknown alert");
  } else {
    ngtcp2_connection_close_error_set_transport_error_liberr(&close, error, nullptr, 0);
    text = ngtcp2_strerror(error);
  }
  finish(ConnectionState::failed(text));
  closeTransport(&close);
}

// What the peer's CONNECTION_CLOSE means: no error is a clean close, anything else a failure in
// the peer's words.
ConnectionState QUICConnection::peerClosedState() const {
  ngtcp2_connection_close_error error;
  ngtcp2_conn_get_connection_close_error(connection_.get(), &error);
  const bool noError = error.error_code == NGTCP2_NO_ERROR &&
                       (error.type == NGTCP2_CONNECTION_CLOSE_ERROR_CODE_TYPE_TRANSPORT ||
                        error.type == NGTCP2_CONNECTION_CLOSE_ERROR_CODE_TYPE_APPLICATION);
  if (noError) return ConnectionState::closed();
  std::string reason(reinterpret_cast<const char*>(error.reason), error.reasonlen);
  if (reason.empty()) reason = describeCloseError(error);
  return ConnectionState::failed("closed by peer: " + reason);
}

}  // namespace kelvaron
