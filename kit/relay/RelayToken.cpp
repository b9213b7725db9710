#include "kit/relay/RelayToken.hpp"

#include "kit/relay/RelayWire.hpp"

namespace kelvaron {

namespace {

constexpr std::size_t kKeyAt = 1, kExpiryAt = 66;

}  // namespace

Data RelayToken::signedBy(const RelaySigner& coordinator) const {
  const std::uint8_t head[] = {version};
  Data expiry;
  RelayWire::appendBigEndian(expiry, expiresAt, 8);
  const Data body = concat({head, hostPublicKey, expiry});
  const Data signature = coordinator.sign(RelayWire::tokenMessage(body));
  return concat({body, signature});
}

std::optional<RelayToken> RelayToken::verified(ByteView bytes, ByteView coordinatorPublicKey) {
  if (bytes.size() != size || bytes[0] != version) return std::nullopt;
  if (!relaySignatureHolds(coordinatorPublicKey, bytes.subspan(bodySize),
                           RelayWire::tokenMessage(bytes.first(bodySize)))) {
    return std::nullopt;
  }
  return RelayToken{Data(bytes.begin() + kKeyAt, bytes.begin() + kExpiryAt),
                    RelayWire::readBigEndian(bytes.subspan(kExpiryAt, 8))};
}

}  // namespace kelvaron
