#pragma once

// The datagrams hosts and clients exchange with a UDP relay: a 9-byte header (type, session,
// peer; big-endian) and a payload, at most 1500 bytes in all. A pure codec.

#include <cstdint>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>

#include "kit/wire/Bytes.hpp"

namespace kelvaron {

// The type byte: the case's ordinal plus 3, so 0 to 2 and anything above 16 never occur.
enum class RelayPacketType : std::uint8_t {
  data = 3,
  keepalive,
  close,
  error,
  registered,
  joined,
  peerJoined,
  challengeRequest,
  challenge,
  register_,  // `register` is a keyword of C++
  join,
  rebind,
  rebound,
  deny,
};

// Why a handshake is made; on the wire, the case's ordinal plus 1.
enum class RelayPurpose : std::uint8_t { register_ = 1, join, rebind };

// The first byte of an `error` frame's payload.
enum class RelayErrorCode : std::uint8_t {
  badToken = 1,
  unknownHost,
  overQuota,
  unknownSession,
  malformed,
  wrongRole,
  expired,
  badCookie,
  badSignature,
  denied,
  addressNotOnRecord,
};

struct RelayFrame {
  RelayPacketType type = RelayPacketType::data;
  std::uint32_t session = 0;  // given by the relay; 0 before there is one
  std::uint32_t peer = 0;     // the other party in the session; 0 where none applies
  Data payload;
  friend bool operator==(const RelayFrame&, const RelayFrame&) = default;
};

class RelayFrameError : public std::runtime_error {
 public:
  enum class Kind { unknownType, truncated, tooLarge };
  RelayFrameError(Kind kind, std::uint8_t type = 0);
  Kind kind() const { return kind_; }
  std::uint8_t type() const { return type_; }  // for unknownType: the offending byte

 private:
  Kind kind_;
  std::uint8_t type_;
};

struct RelayLimits {
  static constexpr std::size_t headerBytes = 9;
  static constexpr std::size_t maxDatagramBytes = 1500;
  static constexpr std::size_t maxPayloadBytes = maxDatagramBytes - headerBytes;
  static constexpr std::size_t cookieBytes = 16;
  static constexpr std::size_t publicKeyBytes = 65;
  static constexpr std::size_t signatureBytes = 64;
  static constexpr std::size_t handshakePayloadBytes = 1 + cookieBytes;  // purpose and cookie
};

// Throws RelayFrameError(tooLarge) when the payload does not fit.
Data encode(const RelayFrame& frame);
// Throws RelayFrameError; such a datagram is dropped and nothing else happens.
RelayFrame decodeRelayFrame(std::span<const std::uint8_t> datagram);
// The code of an `error` frame whose first byte is a known one; nothing otherwise.
std::optional<RelayErrorCode> errorCode(const RelayFrame& frame);

// The handshake payloads.
Data challengeRequestPayload(RelayPurpose purpose);
Data challengePayload(RelayPurpose purpose, std::span<const std::uint8_t> cookie);
// The cookie of a `challenge` for `purpose`; nothing for any other frame.
std::optional<Data> challengeCookie(const RelayFrame& frame, RelayPurpose purpose);
Data registerPayload(std::span<const std::uint8_t> publicKey, std::span<const std::uint8_t> cookie,
                     std::span<const std::uint8_t> credential,
                     std::span<const std::uint8_t> signature);
Data joinPayload(std::span<const std::uint8_t> cookie, std::span<const std::uint8_t> credential,
                 std::span<const std::uint8_t> signature);
Data rebindPayload(std::span<const std::uint8_t> cookie, std::span<const std::uint8_t> signature);

}  // namespace kelvaron
