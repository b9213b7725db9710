#include "kit/relay/RelayJoinGrant.hpp"

#include "kit/relay/RelayWire.hpp"

namespace kelvaron {

namespace {

constexpr std::size_t kHkidAt = 1, kClientKeyAt = 33, kExpiryAt = 98;

}  // namespace

Data RelayJoinGrant::signedBy(const RelaySigner& signer) const {
  const std::uint8_t head[] = {version};
  Data expiry;
  RelayWire::appendBigEndian(expiry, expiresAt, 8);
  const Data body = concat({head, hkid, clientPublicKey, expiry});
  const Data signature = signer.sign(RelayWire::grantMessage(body));
  return concat({body, signature});
}

Data RelayJoinGrant::issue(ByteView clientPublicKey, const RelaySigner& signer,
                           std::chrono::seconds lifetime,
                           std::chrono::system_clock::time_point now) {
  const RelayJoinGrant grant{RelayWire::hkid(signer.publicKeyX963()),
                             Data(clientPublicKey.begin(), clientPublicKey.end()),
                             RelayWire::timestamp(now + lifetime)};
  return grant.signedBy(signer);
}

std::optional<RelayJoinGrant> RelayJoinGrant::parse(ByteView bytes) {
  if (bytes.size() != size || bytes[0] != version) return std::nullopt;
  return RelayJoinGrant{Data(bytes.begin() + kHkidAt, bytes.begin() + kClientKeyAt),
                        Data(bytes.begin() + kClientKeyAt, bytes.begin() + kExpiryAt),
                        RelayWire::readBigEndian(bytes.subspan(kExpiryAt, 8))};
}

bool RelayJoinGrant::verify(ByteView bytes, ByteView hostPublicKey) {
  const auto grant = parse(bytes);
  if (!grant || grant->hkid != RelayWire::hkid(hostPublicKey)) return false;
  return relaySignatureHolds(hostPublicKey, bytes.subspan(bodySize),
                             RelayWire::grantMessage(bytes.first(bodySize)));
}

std::chrono::system_clock::time_point RelayJoinGrant::expiryDate() const {
  return std::chrono::system_clock::time_point(std::chrono::seconds(expiresAt));
}

}  // namespace kelvaron
