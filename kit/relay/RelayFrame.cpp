#include "kit/relay/RelayFrame.hpp"

#include <algorithm>

#include "kit/relay/RelayWire.hpp"

namespace kelvaron {

namespace {

constexpr std::uint8_t kFirstType = 3, kLastType = 16;

const char* errorText(RelayFrameError::Kind kind) {
  switch (kind) {
    case RelayFrameError::Kind::unknownType:
      return "unknown relay packet type";
    case RelayFrameError::Kind::truncated:
      return "relay datagram shorter than its header";
    case RelayFrameError::Kind::tooLarge:
      return "relay datagram above 1500 bytes";
  }
  return "bad relay datagram";
}

}  // namespace

RelayFrameError::RelayFrameError(Kind kind, std::uint8_t type)
    : std::runtime_error(errorText(kind)), kind_(kind), type_(type) {}

Data encode(const RelayFrame& frame) {
  if (frame.payload.size() > RelayLimits::maxPayloadBytes) {
    throw RelayFrameError(RelayFrameError::Kind::tooLarge);
  }
  Data out;
  out.reserve(RelayLimits::headerBytes + frame.payload.size());
  out.push_back(std::uint8_t(frame.type));
  RelayWire::appendBigEndian(out, frame.session, 4);
  RelayWire::appendBigEndian(out, frame.peer, 4);
  out.insert(out.end(), frame.payload.begin(), frame.payload.end());
  return out;
}

RelayFrame decodeRelayFrame(std::span<const std::uint8_t> datagram) {
  if (datagram.size() < RelayLimits::headerBytes) {
    throw RelayFrameError(RelayFrameError::Kind::truncated);
  }
  if (datagram.size() > RelayLimits::maxDatagramBytes) {
    throw RelayFrameError(RelayFrameError::Kind::tooLarge);
  }
  const std::uint8_t type = datagram[0];
  if (type < kFirstType || type > kLastType) {
    throw RelayFrameError(RelayFrameError::Kind::unknownType, type);
  }
  return {RelayPacketType(type), std::uint32_t(RelayWire::readBigEndian(datagram.subspan(1, 4))),
          std::uint32_t(RelayWire::readBigEndian(datagram.subspan(5, 4))),
          Data(datagram.begin() + RelayLimits::headerBytes, datagram.end())};
}

std::optional<RelayErrorCode> errorCode(const RelayFrame& frame) {
  if (frame.type != RelayPacketType::error || frame.payload.empty()) return std::nullopt;
  const std::uint8_t code = frame.payload[0];
  if (code < std::uint8_t(RelayErrorCode::badToken) ||
      code > std::uint8_t(RelayErrorCode::addressNotOnRecord)) {
    return std::nullopt;
  }
  return RelayErrorCode(code);
}

Data challengeRequestPayload(RelayPurpose purpose) {
  Data out(RelayLimits::handshakePayloadBytes, 0);
  out[0] = std::uint8_t(purpose);
  return out;
}

Data challengePayload(RelayPurpose purpose, std::span<const std::uint8_t> cookie) {
  const std::uint8_t code[] = {std::uint8_t(purpose)};
  return concat({code, cookie});
}

Data registerPayload(std::span<const std::uint8_t> publicKey, std::span<const std::uint8_t> cookie,
                     std::span<const std::uint8_t> credential,
                     std::span<const std::uint8_t> signature) {
  const auto length = std::uint16_t(std::min<std::size_t>(credential.size(), 65535));
  const std::uint8_t lengthBytes[] = {std::uint8_t(length >> 8), std::uint8_t(length)};
  return concat({publicKey, cookie, lengthBytes, credential, signature});
}

std::optional<Data> challengeCookie(const RelayFrame& frame, RelayPurpose purpose) {
  const auto& p = frame.payload;
  if (frame.type != RelayPacketType::challenge || p.size() != RelayLimits::handshakePayloadBytes ||
      p[0] != std::uint8_t(purpose)) {
    return std::nullopt;
  }
  return Data(p.begin() + 1, p.end());
}

Data joinPayload(std::span<const std::uint8_t> cookie, std::span<const std::uint8_t> credential,
                 std::span<const std::uint8_t> signature) {
  return concat({cookie, credential, signature});
}

Data rebindPayload(std::span<const std::uint8_t> cookie, std::span<const std::uint8_t> signature) {
  return concat({cookie, signature});
}

}  // namespace kelvaron
