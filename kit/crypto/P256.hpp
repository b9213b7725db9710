#pragma once

// NIST P-256 ECDSA keys. Public keys travel as 65-byte X9.63 points, signatures as 64 raw bytes
// (r then s), private keys as their 32-byte scalar.

#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <type_traits>

#include "kit/wire/Bytes.hpp"

typedef struct gnutls_privkey_st* gnutls_privkey_t;

namespace kelvaron {

using ByteView = std::span<const std::uint8_t>;

struct CryptoError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

class P256PrivateKey {
 public:
  static P256PrivateKey generate();
  // The key of a 32-byte scalar; nothing if it is not a valid key.
  static std::optional<P256PrivateKey> fromRaw(ByteView scalar);

  Data rawRepresentation() const;  // 32 bytes
  Data publicKey() const;          // 65 bytes, X9.63

  // Signs an already computed SHA-256 digest; raw r‖s. Throws `CryptoError`.
  Data signDigest(ByteView digest) const;
  // Signs SHA-256(data) as a DER ECDSA-Sig-Value, as X.509 wants it. Throws `CryptoError`.
  Data signDER(ByteView data) const;

  gnutls_privkey_t native() const { return key_.get(); }

 private:
  struct RawParts {
    Data x, y, k;
  };
  RawParts exportRaw() const;

  struct Free {
    void operator()(gnutls_privkey_t key) const;
  };
  explicit P256PrivateKey(gnutls_privkey_t key) : key_(key, Free{}) {}
  std::shared_ptr<std::remove_pointer_t<gnutls_privkey_t>> key_;
};

// True if `signature` (raw r‖s) is valid for `digest` under `publicKey` (X9.63). Malformed keys or
// signatures are simply not valid.
bool verifyDigest(ByteView publicKey, ByteView signature, ByteView digest);

// True if `publicKey` is a 65-byte X9.63 point on the curve.
bool isValidPublicKey(ByteView publicKey);

}  // namespace kelvaron
