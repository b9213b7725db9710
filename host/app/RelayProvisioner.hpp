#pragma once

// What each authenticated client is given to come back through the relay: the relays the host
// uses now, and a grant for the client's key signed by the host. Safe from any thread.

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "host/app/RelaySettings.hpp"
#include "kit/relay/RelayProvision.hpp"
#include "kit/relay/RelaySigner.hpp"

namespace kelvaron::host {

class RelayProvisioner {
 public:
  using Clock = std::function<std::chrono::system_clock::time_point()>;
  RelayProvisioner(std::shared_ptr<RelaySettings> settings, Clock now);

  void update(std::shared_ptr<const RelaySigner> signer, std::vector<RelayEndpoint> relays,
              bool active);
  // Nothing while remote access is not running or the grant cannot be signed. A client given a
  // grant is no longer denied: it paired again and proved its key.
  std::optional<RelayProvision> provision(const Data& clientPublicKey);

 private:
  const std::shared_ptr<RelaySettings> settings_;
  const Clock now_;
  std::mutex lock_;
  std::shared_ptr<const RelaySigner> signer_;
  std::vector<RelayEndpoint> relays_;
  bool active_ = false;
};

}  // namespace kelvaron::host
