#pragma once

// The coordinator's admission of a host to a relay: the host's key and an expiry, signed by the
// coordinator's key, which every relay of the deployment knows. 138 bytes, big-endian:
//
//   0  version, 1     1  host public key (65)     66  expiry, seconds since 1970 (8)
//   74 signature, r then s (64), over "kelvaron-relay-token-v1", a zero byte and bytes 0 to 73

#include <cstdint>
#include <optional>

#include "kit/relay/RelaySigner.hpp"

namespace kelvaron {

struct RelayToken {
  static constexpr std::size_t size = 138;
  static constexpr std::size_t bodySize = 74;
  static constexpr std::uint8_t version = 1;

  Data hostPublicKey;
  std::uint64_t expiresAt = 0;

  // Throws what the signer throws.
  Data signedBy(const RelaySigner& coordinator) const;
  // The token's fields when `bytes` is one signed by the key `coordinatorPublicKey`; nothing
  // otherwise. The expiry is the caller's to check.
  static std::optional<RelayToken> verified(ByteView bytes, ByteView coordinatorPublicKey);

  friend bool operator==(const RelayToken&, const RelayToken&) = default;
};

}  // namespace kelvaron
