#pragma once

// A host's permission for one client to join its relay session, without an account of the
// client's own: 170 bytes, signed by the host's key.
//
//   0  version, 1          33  the client's public key (65)     106  signature, r then s (64)
//   1  hkid (32)           98  expiry, seconds since 1970 (8, big-endian)

#include <chrono>
#include <cstdint>
#include <optional>

#include "kit/relay/RelaySigner.hpp"

namespace kelvaron {

struct RelayJoinGrant {
  static constexpr std::size_t size = 170;
  static constexpr std::size_t bodySize = 106;
  static constexpr std::uint8_t version = 1;
  // What the host gives: thirty days.
  static constexpr std::chrono::seconds defaultLifetime{2'592'000};

  Data hkid;             // SHA-256 of the host's public key
  Data clientPublicKey;  // the one client the grant admits
  std::uint64_t expiresAt = 0;

  // The 170 bytes, signed by `signer`; throws what it throws.
  Data signedBy(const RelaySigner& signer) const;
  // A grant by `signer` for `clientPublicKey` until `now` plus `lifetime`.
  static Data issue(ByteView clientPublicKey, const RelaySigner& signer,
                    std::chrono::seconds lifetime, std::chrono::system_clock::time_point now);
  // The fields of 170 bytes of version 1; the signature is not looked at.
  static std::optional<RelayJoinGrant> parse(ByteView bytes);
  // Whether `bytes` is a grant of the host of `hostPublicKey`, signed by it. The expiry is the
  // relay's to enforce.
  static bool verify(ByteView bytes, ByteView hostPublicKey);
  std::chrono::system_clock::time_point expiryDate() const;

  friend bool operator==(const RelayJoinGrant&, const RelayJoinGrant&) = default;
};

}  // namespace kelvaron
