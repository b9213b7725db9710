#include "kit/transport/HostTXTRecord.hpp"

#include <algorithm>
#include <string>
#include <string_view>

namespace kelvaron::HostTXTRecord {

namespace {

constexpr std::string_view kHostIDKey = "id";

bool isHostIDKey(std::string_view key) {
  return key.size() == kHostIDKey.size() &&
         std::equal(key.begin(), key.end(), kHostIDKey.begin(),
                    [](char a, char b) { return (a | 0x20) == b; });
}

}  // namespace

Data encode(const std::optional<UUID>& hostID) {
  if (!hostID) return {};
  const std::string entry = std::string(kHostIDKey) + "=" + hostID->string();
  Data record{static_cast<std::uint8_t>(entry.size())};
  record.insert(record.end(), entry.begin(), entry.end());
  return record;
}

std::optional<UUID> hostID(std::span<const std::uint8_t> record) {
  while (!record.empty()) {
    const std::size_t length = record.front();
    if (length + 1 > record.size()) return std::nullopt;
    const std::string_view entry(reinterpret_cast<const char*>(record.data() + 1), length);
    record = record.subspan(length + 1);
    const std::size_t equals = entry.find('=');
    if (!isHostIDKey(entry.substr(0, equals))) continue;
    if (equals == std::string_view::npos) return std::nullopt;  // the key without a value
    return UUID::parse(entry.substr(equals + 1));
  }
  return std::nullopt;
}

}  // namespace kelvaron::HostTXTRecord
