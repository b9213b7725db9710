#include "kit/relay/RelaySigner.hpp"

#include "kit/crypto/AuthCrypto.hpp"
#include "kit/relay/RelayWire.hpp"

namespace kelvaron {

RelayCryptoError::RelayCryptoError(Kind kind)
    : std::runtime_error(kind == Kind::keyUnavailable ? "relay key unavailable"
                                                      : "relay signing failed"),
      kind_(kind) {}

bool relaySignatureHolds(ByteView publicKey, ByteView signature, ByteView message) {
  return verifyDigest(publicKey, signature, AuthCrypto::sha256(message));
}

RelayFrame registerProof(const RelaySigner& host, ByteView cookie, ByteView token) {
  const Data& key = host.publicKeyX963();
  return {RelayPacketType::register_, 0, 0,
          registerPayload(key, cookie, token,
                          host.sign(RelayWire::registerMessage(cookie, token, key)))};
}

RelayFrame joinProof(const RelaySigner& client, ByteView cookie, ByteView grant) {
  return {RelayPacketType::join, 0, 0,
          joinPayload(cookie, grant, client.sign(RelayWire::joinMessage(cookie, grant)))};
}

RelayFrame rebindProof(const RelaySigner& client, ByteView cookie, std::uint32_t session,
                       std::uint32_t peer) {
  return {RelayPacketType::rebind, session, peer,
          rebindPayload(cookie, client.sign(RelayWire::rebindMessage(cookie, session, peer)))};
}

P256RelaySigner::P256RelaySigner(P256PrivateKey key)
    : key_(std::move(key)), publicKey_(key_.publicKey()) {
  if (publicKey_.size() != 65 || publicKey_[0] != 0x04) {
    throw RelayCryptoError(RelayCryptoError::Kind::keyUnavailable);
  }
}

Data P256RelaySigner::sign(ByteView message) const {
  try {
    return key_.signDigest(AuthCrypto::sha256(message));
  } catch (const CryptoError&) {
    throw RelayCryptoError(RelayCryptoError::Kind::signingFailed);
  }
}

}  // namespace kelvaron
