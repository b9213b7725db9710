#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "kit/wire/Bytes.hpp"

namespace kelvaron {

// The DNS-SD service type hosts are advertised under.
inline constexpr const char* kHostServiceType = "_tovu._udp";

// The DNS-SD TXT record of an advertised host, in its DNS form (a run of strings, each opened by
// its length byte). It carries one key, "id": the host ID as an upper-case UUID, when there is one.
namespace HostTXTRecord {

// Empty without a host ID: nothing to say.
Data encode(const std::optional<UUID>& hostID);

// The host ID under "id", or nothing when there is no such key, its value is not a UUID, or the
// record breaks off. Keys compare without regard to case, and only the first "id" counts.
std::optional<UUID> hostID(std::span<const std::uint8_t> record);

}  // namespace HostTXTRecord

}  // namespace kelvaron
