#include "kit/relay/RelayJoinGrant.hpp"

#include "kit/crypto/AuthCrypto.hpp"
#include "kit/relay/RelayWire.hpp"

namespace kelvaron {

namespace {

constexpr std::size_t kHkidAt = 1, kClientKeyAt = 33, kExpiryAt = 98;

}  // namespace

Data RelayJoinGrant::signedBy(const RelaySigner& signer) const {
  Data body{version};
  body.insert(body.end(), hkid.begin(), hkid.end());
  body.insert(body.end(), clientPublicKey.begin(), clientPublicKey.end());
  for (int shift = 56; shift >= 0; shift -= 8) body.push_back(std::uint8_t(expiresAt >> shift));
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
  std::uint64_t expiresAt = 0;
  for (std::size_t i = 0; i < 8; ++i) expiresAt = expiresAt << 8 | bytes[kExpiryAt + i];
  return RelayJoinGrant{Data(bytes.begin() + kHkidAt, bytes.begin() + kClientKeyAt),
                        Data(bytes.begin() + kClientKeyAt, bytes.begin() + kExpiryAt), expiresAt};
}

bool RelayJoinGrant::verify(ByteView bytes, ByteView hostPublicKey) {
  const auto grant = parse(bytes);
  if (!grant || grant->hkid != RelayWire::hkid(hostPublicKey)) return false;
  const Data message = RelayWire::grantMessage(bytes.first(bodySize));
  return verifyDigest(hostPublicKey, bytes.subspan(bodySize), AuthCrypto::sha256(message));
}

std::chrono::system_clock::time_point RelayJoinGrant::expiryDate() const {
  return std::chrono::system_clock::time_point(std::chrono::seconds(expiresAt));
}

}  // namespace kelvaron
