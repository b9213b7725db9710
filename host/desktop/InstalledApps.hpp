#pragma once

#include <asio/awaitable.hpp>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "kit/wire/Bytes.hpp"
#include "kit/wire/WireTypes.hpp"

namespace kelvaron::host {

// Every application installed on the computer, not only the running ones, for the device's
// launcher. Each record carries a hash of its icon, so that a device keeps icons it already has and
// asks only for new ones. Every operation runs off the caller's executor.
class InstalledAppsProviding {
 public:
  virtual ~InstalledAppsProviding() = default;
  // The list by name, refreshed first when the folders changed or the last look is old.
  virtual asio::awaitable<std::vector<InstalledApp>> apps() = 0;
  // The icon of an application of the last list, a PNG; nothing when it has none or is unknown.
  virtual asio::awaitable<std::optional<Data>> icon(std::string bundleID) = 0;
  // The file that describes it (its desktop entry), for launching; nothing when unknown.
  virtual asio::awaitable<std::optional<std::string>> entryPath(std::string bundleID) = 0;
};

// The 64-bit FNV-1a of an icon's bytes, and 0 for none: what a device compares with the hash of
// the icon it keeps.
inline std::uint64_t iconHashOf(const Data& png) {
  if (png.empty()) return 0;
  std::uint64_t hash = 0xcbf29ce484222325ull;
  for (const std::uint8_t byte : png) {
    hash ^= byte;
    hash *= 0x100000001b3ull;
  }
  return hash;
}

}  // namespace kelvaron::host
