#pragma once

// What proves a party's key to the relay: ECDSA P-256 with SHA-256 over a whole message (not a
// digest made beforehand), as 64 raw bytes, r then s.

#include <stdexcept>

#include "kit/crypto/P256.hpp"
#include "kit/relay/RelayFrame.hpp"

namespace kelvaron {

class RelayCryptoError : public std::runtime_error {
 public:
  enum class Kind { keyUnavailable, signingFailed };
  explicit RelayCryptoError(Kind kind);
  Kind kind() const { return kind_; }

 private:
  Kind kind_;
};

class RelaySigner {
 public:
  virtual ~RelaySigner() = default;
  // The signer's public key, 65 bytes of X9.63.
  virtual const Data& publicKeyX963() const = 0;
  // Throws RelayCryptoError.
  virtual Data sign(ByteView message) const = 0;
};

// Whether `signature` is the key `publicKey`'s over `message`.
bool relaySignatureHolds(ByteView publicKey, ByteView signature, ByteView message);

// The handshakes' proofs, each signed over the cookie the relay gave. Throw RelayCryptoError.
RelayFrame registerProof(const RelaySigner& host, ByteView cookie, ByteView token);
RelayFrame joinProof(const RelaySigner& client, ByteView cookie, ByteView grant);
RelayFrame rebindProof(const RelaySigner& client, ByteView cookie, std::uint32_t session,
                       std::uint32_t peer);

// A signer over a P-256 key in memory: the host's TLS identity's key, so that the host is one key
// in TLS and at the relay, or a client's identity's key.
class P256RelaySigner final : public RelaySigner {
 public:
  explicit P256RelaySigner(P256PrivateKey key);
  const Data& publicKeyX963() const override { return publicKey_; }
  Data sign(ByteView message) const override;

 private:
  P256PrivateKey key_;
  Data publicKey_;
};

}  // namespace kelvaron
