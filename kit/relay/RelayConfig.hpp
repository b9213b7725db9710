#pragma once

// What a client keeps of each host to come back to it through a relay: the relays the host uses
// and the host's grant for this client's key. Kept as one JSON object in a secret store, keyed by
// the host's ID.

#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "kit/crypto/SecretStore.hpp"
#include "kit/wire/WireTypes.hpp"

namespace kelvaron {

struct RelayConfig {
  std::vector<RelayEndpoint> relays;
  Data grant;

  // Whether a client may keep it: 1 to 8 relays, each with a host and a port, and a grant that
  // parses and is for `clientPublicKey`.
  bool isValidFor(ByteView clientPublicKey) const;
  friend bool operator==(const RelayConfig&, const RelayConfig&) = default;
};

class RelayConfigStore {
 public:
  explicit RelayConfigStore(std::shared_ptr<SecretStore> store) : store_(std::move(store)) {}

  std::optional<RelayConfig> config(const UUID& hostID) const;
  void save(const RelayConfig& config, const UUID& hostID);
  void remove(const UUID& hostID);
  std::vector<UUID> hostIDs() const;

 private:
  using Configs = std::vector<std::pair<UUID, RelayConfig>>;
  // Each entry decoded by itself: one that does not decode is dropped, and the rest written back.
  Configs load() const;
  void store(const Configs& configs) const;

  const std::shared_ptr<SecretStore> store_;
  mutable std::mutex lock_;
};

}  // namespace kelvaron
