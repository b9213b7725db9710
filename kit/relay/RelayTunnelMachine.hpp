#pragma once

// The relay signalling of one party, host or client, toward one relay: the cookie handshake,
// registration or joining, keepalives, rebinding after a path change, retries and their limits.
// Pure: each input returns what to do (send a datagram, arm or cancel a timer, fetch a credential,
// tell an event), and the caller does it; no socket, no clock. Generations tell stale replies,
// ticks and credentials from current ones.

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "kit/relay/RelayFrame.hpp"
#include "kit/relay/RelaySigner.hpp"

namespace kelvaron {

enum class RelayRole { host, client };

// What the tunnel tells its owner. A plain record rather than a variant of variants (GCC 12 warns
// falsely about moving those).
struct RelayTunnelEvent {
  enum class Kind {
    registered,     // host: the relay took the registration (session)
    joined,         // client: in the host's session (session, peer)
    peerJoined,     // host: a client arrived (peer)
    peerClosed,     // host: a client left (peer)
    data,           // from the other side (peer, bytes)
    error,          // the relay refused (code); no retry runs
    unavailable,    // the relay cannot be used (why)
    sessionClosed,  // client: the relay or the host closed the session
  };
  Kind kind = Kind::unavailable;
  std::uint32_t session = 0, peer = 0;
  Data bytes;
  RelayErrorCode code = RelayErrorCode::malformed;
  std::string why;

  static RelayTunnelEvent registered(std::uint32_t session) {
    return {Kind::registered, session, 0, {}, {}, {}};
  }
  static RelayTunnelEvent joined(std::uint32_t session, std::uint32_t peer) {
    return {Kind::joined, session, peer, {}, {}, {}};
  }
  static RelayTunnelEvent peerJoined(std::uint32_t peer) {
    return {Kind::peerJoined, 0, peer, {}, {}, {}};
  }
  static RelayTunnelEvent peerClosed(std::uint32_t peer) {
    return {Kind::peerClosed, 0, peer, {}, {}, {}};
  }
  static RelayTunnelEvent data(std::uint32_t peer, Data bytes) {
    return {Kind::data, 0, peer, std::move(bytes), {}, {}};
  }
  static RelayTunnelEvent error(RelayErrorCode code) { return {Kind::error, 0, 0, {}, code, {}}; }
  static RelayTunnelEvent unavailable(std::string why) {
    return {Kind::unavailable, 0, 0, {}, {}, std::move(why)};
  }
  static RelayTunnelEvent sessionClosed() { return {Kind::sessionClosed, 0, 0, {}, {}, {}}; }
  friend bool operator==(const RelayTunnelEvent&, const RelayTunnelEvent&) = default;
};

// What the caller does for the machine, in order.
namespace tunnelAction {
struct openSocket {  // drop any socket, open a new one toward the relay, and read it
  std::uint64_t generation;
  friend bool operator==(const openSocket&, const openSocket&) = default;
};
struct reopenLater {  // after a second, call `reopen(generation)`
  std::uint64_t generation;
  friend bool operator==(const reopenLater&, const reopenLater&) = default;
};
struct send {
  Data datagram;
  friend bool operator==(const send&, const send&) = default;
};
struct sendThenClose {  // the last datagram; the socket closes once it has left
  Data datagram;
  friend bool operator==(const sendThenClose&, const sendThenClose&) = default;
};
struct closeSocket {
  friend bool operator==(const closeSocket&, const closeSocket&) = default;
};
struct armRetry {  // every retry interval, first one interval from now: `retryTick(flow)`
  std::uint64_t flow;
  friend bool operator==(const armRetry&, const armRetry&) = default;
};
struct cancelRetry {
  friend bool operator==(const cancelRetry&, const cancelRetry&) = default;
};
struct armKeepalive {  // every keepalive interval: `keepaliveTick()`
  friend bool operator==(const armKeepalive&, const armKeepalive&) = default;
};
struct cancelKeepalive {
  friend bool operator==(const cancelKeepalive&, const cancelKeepalive&) = default;
};
struct fetchCredential {  // then `credential(flow, bytes)` or `credentialFailed(flow, why)`
  bool fresh;
  std::uint64_t flow;
  friend bool operator==(const fetchCredential&, const fetchCredential&) = default;
};
struct emit {
  RelayTunnelEvent event;
  friend bool operator==(const emit&, const emit&) = default;
};
struct endEvents {
  friend bool operator==(const endEvents&, const endEvents&) = default;
};
struct log {  // an informational line
  std::string line;
  friend bool operator==(const log&, const log&) = default;
};
}  // namespace tunnelAction

using TunnelAction =
    std::variant<tunnelAction::openSocket, tunnelAction::reopenLater, tunnelAction::send,
                 tunnelAction::sendThenClose, tunnelAction::closeSocket, tunnelAction::armRetry,
                 tunnelAction::cancelRetry, tunnelAction::armKeepalive,
                 tunnelAction::cancelKeepalive, tunnelAction::fetchCredential, tunnelAction::emit,
                 tunnelAction::endEvents, tunnelAction::log>;
using TunnelActions = std::vector<TunnelAction>;

class RelayTunnelMachine {
 public:
  static constexpr int maxCookieRetries = 3;
  static constexpr int maxHandshakeAttempts = 8;

  RelayTunnelMachine(RelayRole role, const RelaySigner& signer);

  TunnelActions start();
  TunnelActions stop();
  TunnelActions socketFailed(std::uint64_t generation);
  TunnelActions reopen(std::uint64_t generation);
  TunnelActions datagram(std::uint64_t generation, std::span<const std::uint8_t> bytes);
  TunnelActions credential(std::uint64_t flow, Data bytes);
  TunnelActions credentialFailed(std::uint64_t flow, const std::string& why);
  TunnelActions retryTick(std::uint64_t flow);
  TunnelActions keepaliveTick();
  // The network path of the socket `generation` changed and can be used.
  TunnelActions pathChanged(std::uint64_t generation);
  // A client sends to its peer whatever `peer` says; nothing goes before a session is live.
  TunnelActions send(std::uint32_t peer, std::span<const std::uint8_t> bytes);
  TunnelActions setDenied(std::vector<Data> denied);

  bool established() const { return established_; }
  std::uint32_t session() const { return session_; }
  std::uint32_t peer() const { return peer_; }

 private:
  TunnelActions establish(bool fresh);
  void beginHandshake(RelayPurpose purpose, bool now, TunnelActions& out);
  void beginSending(TunnelActions& out);
  void sendHandshakeFrame(TunnelActions& out);
  void answerChallenge(TunnelActions& out);
  void goLive(TunnelActions& out);
  void finishHandshake(TunnelActions& out);
  void sendDenied(TunnelActions& out);
  void relayError(RelayErrorCode code, const RelayFrame& frame, TunnelActions& out);
  void handle(const RelayFrame& frame, TunnelActions& out);
  void sendFrame(RelayPacketType type, std::uint32_t session, std::uint32_t peer, Data payload,
                 TunnelActions& out);
  bool isHost() const { return role_ == RelayRole::host; }

  const RelayRole role_;
  const RelaySigner& signer_;
  std::uint64_t connGeneration_ = 0, flowGeneration_ = 0;
  bool started_ = false, stopped_ = false, established_ = false, everEstablished_ = false;
  bool firstPathUpdate_ = true;
  std::uint32_t session_ = 0, peer_ = 0;
  std::optional<RelayPurpose> purpose_;
  std::optional<Data> credential_, cookie_;
  std::optional<RelayFrame> pendingFrame_;
  int attempts_ = 0, cookieRetries_ = 0;
  std::vector<Data> denied_;
};

}  // namespace kelvaron
