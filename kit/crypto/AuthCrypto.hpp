#pragma once

// Every cryptographic construction of authentication and pairing. Each hash or signature input is a
// plain concatenation opened by an ASCII domain label; the fixed sizes of the parts keep it
// unambiguous. Both ends must build byte-identical inputs.

#include <optional>
#include <string>
#include <string_view>

#include "kit/crypto/P256.hpp"
#include "kit/wire/Bytes.hpp"

namespace kelvaron::AuthCrypto {

inline constexpr std::size_t kNonceSize = 32;
inline constexpr std::size_t kTokenSize = 16;

Data sha256(ByteView bytes);
Data hmacSHA256(ByteView key, ByteView bytes);
// Random bytes from the system's generator; a failing generator stops the process.
Data randomBytes(std::size_t count);
// A random (version 4) UUID.
UUID randomUUID();

// The digest a device signs to prove its key: bound to the challenge, the host's certificate, the
// device's identity and, where the connection has one, the TLS session.
Data authTranscript(ByteView nonce, ByteView hostFingerprint, const UUID& deviceID,
                    const std::optional<Data>& exporter);
Data signChallenge(ByteView nonce, ByteView hostFingerprint, const UUID& deviceID,
                   const std::optional<Data>& exporter, const P256PrivateKey& privateKey);
bool verifyChallenge(ByteView signature, ByteView publicKey, ByteView nonce,
                     ByteView hostFingerprint, const UUID& deviceID,
                     const std::optional<Data>& exporter);

// Knowledge of a pairing token, bound to the host and the device's key.
Data pairingProof(ByteView token, ByteView hostFingerprint, ByteView publicKey,
                  const UUID& deviceID);
// What a client commits to before it learns the host's nonce.
Data commitment(ByteView clientNonce);
// The six digits both screens show when pairing by comparison.
std::string comparisonCode(ByteView hostFingerprint, ByteView publicKey, ByteView hostNonce,
                           ByteView clientNonce);

std::string base64Encode(ByteView bytes);
std::optional<Data> base64Decode(std::string_view text);  // strict: padded, standard alphabet
std::string base64URLEncode(ByteView bytes);              // "-", "_", no padding
std::optional<Data> base64URLDecode(std::string_view text);

// Compares without leaving early, so the time taken says nothing of where a difference is.
bool constantTimeEqual(ByteView a, ByteView b);

}  // namespace kelvaron::AuthCrypto
