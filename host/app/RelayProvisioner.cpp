#include "host/app/RelayProvisioner.hpp"

#include "kit/relay/RelayJoinGrant.hpp"

namespace kelvaron::host {

RelayProvisioner::RelayProvisioner(std::shared_ptr<RelaySettings> settings, Clock now)
    : settings_(std::move(settings)), now_(std::move(now)) {}

void RelayProvisioner::update(std::shared_ptr<const RelaySigner> signer,
                              std::vector<RelayEndpoint> relays, bool active) {
  std::lock_guard guard(lock_);
  signer_ = std::move(signer);
  relays_ = std::move(relays);
  active_ = active;
}

std::optional<RelayProvision> RelayProvisioner::provision(const Data& clientPublicKey) {
  std::shared_ptr<const RelaySigner> signer;
  std::vector<RelayEndpoint> relays;
  {
    std::lock_guard guard(lock_);
    if (!active_ || relays_.empty() || !signer_) return std::nullopt;
    signer = signer_;
    relays = relays_;
  }
  try {
    Data grant =
        RelayJoinGrant::issue(clientPublicKey, *signer, RelayJoinGrant::defaultLifetime, now_());
    settings_->allow(clientPublicKey);
    return RelayProvision{std::move(relays), std::move(grant)};
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

}  // namespace kelvaron::host
