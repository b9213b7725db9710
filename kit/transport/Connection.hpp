#pragma once

#include <asio/awaitable.hpp>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "kit/transport/AsyncQueue.hpp"
#include "kit/wire/Bytes.hpp"
#include "kit/wire/MediaFrames.hpp"
#include "kit/wire/Message.hpp"

namespace kelvaron {

// Where a connection stands. `failed` carries a text for a person. `failed` and `closed` are final.
struct ConnectionState {
  enum class Kind { connecting, ready, failed, closed };
  Kind kind = Kind::connecting;
  std::string failure;

  static ConnectionState ready() { return {Kind::ready, {}}; }
  static ConnectionState failed(std::string text) { return {Kind::failed, std::move(text)}; }
  static ConnectionState closed() { return {Kind::closed, {}}; }
  bool isFinal() const { return kind == Kind::failed || kind == Kind::closed; }
  friend bool operator==(const ConnectionState&, const ConnectionState&) = default;
};

// How a client checks the host's certificate: against a pinned fingerprint, or not at all (the
// first contact of a pairing, where the fingerprint is only recorded).
struct ServerTrust {
  std::optional<Data> pinnedFingerprint;
  static ServerTrust pinned(Data fingerprint) { return {std::move(fingerprint)}; }
  static ServerTrust unpinned() { return {}; }
};

struct DiscoveredHost {
  std::string id;  // the identity of the discovery entry
  std::string name;
  std::optional<UUID> hostID;
  bool viaRelay = false;
  friend bool operator==(const DiscoveredHost&, const DiscoveredHost&) = default;
};

// One peer, over whatever transport. Messages of one channel keep their send order (in memory,
// even across channels; over QUIC each channel is a stream of its own, and nothing orders them
// against each other). Media sends never block: they refuse what back-pressure does not admit.
// Only transfer sends suspend.
class Connection {
 public:
  virtual ~Connection() = default;

  virtual AsyncQueue<ConnectionState>& states() = 0;
  virtual AsyncQueue<Message>& messages() = 0;
  virtual AsyncQueue<VideoFrame>& videoFrames() = 0;
  virtual AsyncQueue<AudioPacket>& audioPackets() = 0;

  // Dropped silently once the connection is closed.
  virtual void send(const Message& message) = 0;
  // True if the frame was taken; false when back-pressure refuses it or the connection is not up.
  virtual bool sendVideo(const VideoFrame& frame) = 0;
  virtual bool sendAudio(const AudioPacket& packet) = 0;
  // For `fileChunk` and `fileEnd`: waits until the transfer budget admits the message; false if
  // the connection went away. The message is taken (encoded) at the call, before any suspension,
  // so the caller's value need not outlive it.
  virtual asio::awaitable<bool> sendTransfer(const Message& message) = 0;
  // Idempotent.
  virtual void close() = 0;
  // Until the peer has proved who it is, a host's connection takes only the handshake's
  // messages, in small frames and with little flow-control credit, so that a stranger costs it a
  // few KiB at most. Its gate calls this once the proof verified. Idempotent.
  virtual void liftHandshakeLimits() = 0;

  // The fingerprint of the certificate the peer presented, where the transport has one.
  virtual std::optional<Data> peerCertificateFingerprint() const = 0;
  // The session secret exported by TLS, where the transport has one.
  virtual std::optional<Data> tlsExporter() const = 0;
};

// Yields accepted connections until stopped.
class HostListener {
 public:
  virtual ~HostListener() = default;
  virtual AsyncQueue<std::shared_ptr<Connection>>& connections() = 0;
  virtual void stop() = 0;
};

// Yields the complete list of discovered hosts whenever it changes, each list replacing the last.
class HostBrowser {
 public:
  virtual ~HostBrowser() = default;
  virtual AsyncQueue<std::vector<DiscoveredHost>>& hosts() = 0;
  virtual asio::awaitable<std::shared_ptr<Connection>> connect(const std::string& id,
                                                               ServerTrust trust) = 0;
  virtual void stop() = 0;
};

}  // namespace kelvaron
