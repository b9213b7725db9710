#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>

namespace kelvaron {

// The limits of one QUIC connection; the defaults are the host's.
struct QUICConfiguration {
  int maxVideoFramesInFlight = 3;
  std::size_t maxVideoBytesInFlight = 2'097'152;
  std::chrono::seconds idleTimeout{30};
  // 10 s on the direct path; a connection made through the relay gives it 15 s.
  std::chrono::milliseconds handshakeTimeout{10'000};
  std::size_t maxBufferedIncomingVideoFrames = 8;
  // Messages waiting for the session beyond which a host takes no more of the transfer stream.
  std::size_t maxBufferedIncomingTransferMessages = 16;
  // How fast a host takes files while it streams video (bytes a second); none: as fast as they
  // come.
  std::optional<double> transferPaceWhileStreaming = 60e6;
  int maxAudioPacketsInFlight = 20;
  std::size_t maxTransferBytesInFlight = 262'144;
  std::size_t maxBufferedIncomingAudioPackets = 200;
  std::optional<std::size_t> maxUDPPayloadSize = 1350;
};

// Audio bytes handed to the stack and not yet sent: no packet is taken at or above this.
inline constexpr std::size_t kMaxAudioBytesInFlight = 65'536;

inline constexpr const char* kQUICApplicationProtocol = "tovu/1";
inline constexpr const char* kTLSExporterLabel = "EXPORTER-kelvaron-auth";
inline constexpr std::size_t kTLSExporterLength = 32;

inline constexpr std::size_t kQUICConnectionIDLength = 16;

// Flow-control windows and stream count both ends announce.
inline constexpr std::uint64_t kQUICConnectionWindow = 16'777'216;
inline constexpr std::uint64_t kQUICStreamWindow = 4'194'304;
inline constexpr std::uint64_t kQUICMaxBidirectionalStreams = 8;

// Before the peer proved its key, the host takes frames of at most this length, this much
// unread data per stream and per connection, and this many undelivered handshake messages.
inline constexpr std::uint32_t kHandshakeMaxFrameLength = 4096;
inline constexpr std::uint64_t kHandshakeStreamWindow = 16'384;
inline constexpr std::uint64_t kHandshakeConnectionWindow = 65'536;
inline constexpr std::size_t kHandshakeMaxPendingMessages = 16;

// The five long-lived streams, in the order of `Channel`. On the wire each stream opens with one
// preamble byte: the kind's value plus one.
enum class StreamKind : std::uint8_t { control, input, video, audio, transfer };
inline constexpr int kStreamKindCount = 5;

inline const char* name(StreamKind kind) {
  static constexpr const char* kNames[] = {"control", "input", "video", "audio", "transfer"};
  return kNames[static_cast<int>(kind)];
}

inline std::uint8_t preambleByte(StreamKind kind) { return static_cast<std::uint8_t>(kind) + 1; }

inline std::optional<StreamKind> streamKindOfPreamble(std::uint8_t byte) {
  if (byte < 1 || byte > kStreamKindCount) return std::nullopt;
  return static_cast<StreamKind>(byte - 1);
}

// A failure of the QUIC layer. Its text is for a person, shown as it stands.
class QUICError : public std::runtime_error {
 public:
  enum class Kind { failed, pinMismatch };

  static QUICError failed(const std::string& text) { return {Kind::failed, text}; }
  static QUICError pinMismatch() {
    return {Kind::pinMismatch, "This Mac\u2019s identity changed. Re-pair?"};
  }
  Kind kind() const { return kind_; }

 private:
  QUICError(Kind kind, const std::string& text) : std::runtime_error(text), kind_(kind) {}
  Kind kind_;
};

}  // namespace kelvaron
