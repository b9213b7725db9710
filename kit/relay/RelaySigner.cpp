#include "kit/relay/RelaySigner.hpp"

#include "kit/crypto/AuthCrypto.hpp"

namespace kelvaron {

RelayCryptoError::RelayCryptoError(Kind kind)
    : std::runtime_error(kind == Kind::keyUnavailable ? "relay key unavailable"
                                                      : "relay signing failed"),
      kind_(kind) {}

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
