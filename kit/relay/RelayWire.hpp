#pragma once

// The byte strings a party signs for the relay and the coordinator: each begins with its domain
// (an ASCII label and a zero byte), the rest plain concatenation, integers big-endian.

#include <chrono>
#include <cstdint>
#include <string_view>

#include "kit/crypto/P256.hpp"

namespace kelvaron::RelayWire {

Data domain(std::string_view label);
Data registerMessage(ByteView cookie, ByteView credential, ByteView publicKey);
Data joinMessage(ByteView cookie, ByteView credential);
Data rebindMessage(ByteView cookie, std::uint32_t session, std::uint32_t peer);
// `body`: a join grant's first 106 bytes.
Data grantMessage(ByteView body);
// `body`: a coordinator's token's first 74 bytes.
Data tokenMessage(ByteView body);
Data coordinatorMessage(std::uint64_t ts, ByteView publicKey);
// `invite`: the normalised invite, as the request's body carries it.
Data enrollMessage(std::uint64_t ts, ByteView publicKey, std::string_view invite);
// What identifies a host without showing its key: SHA-256 of the 65-byte key.
Data hkid(ByteView publicKey);
// The relay's integers: `bytes` bytes of `value`, big-endian; and back from all of `bytes`.
void appendBigEndian(Data& out, std::uint64_t value, int bytes);
std::uint64_t readBigEndian(ByteView bytes);
// Whole seconds since 1970-01-01 UTC; a time before it is 0.
std::uint64_t timestamp(std::chrono::system_clock::time_point time);

}  // namespace kelvaron::RelayWire
