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

}  // namespace kelvaron::host
