#include "kit/security/HostPairingService.hpp"

#include "kit/crypto/AuthCrypto.hpp"

namespace kelvaron {

namespace {
using namespace std::chrono_literals;
constexpr auto kTokenLifetime = 300s;
constexpr auto kAttemptWindow = 60s;
constexpr std::size_t kAttemptsPerWindow = 3;
}  // namespace

HostPairingService::HostPairingService(UUID hostID, std::string hostName, Data hostFingerprint,
                                       std::shared_ptr<PairedDeviceStore> store,
                                       std::shared_ptr<PairingConfirming> confirmer,
                                       std::function<WallClock::time_point()> clock)
    : hostID_(hostID),
      hostName_(std::move(hostName)),
      hostFingerprint_(std::move(hostFingerprint)),
      store_(std::move(store)),
      confirmer_(std::move(confirmer)),
      clock_(std::move(clock)) {}

void HostPairingService::setChangeHandler(std::function<void()> handler) {
  std::lock_guard guard(lock_);
  changeHandler_ = std::move(handler);
}

void HostPairingService::notifyChange() const {
  std::function<void()> handler;
  {
    std::lock_guard guard(lock_);
    handler = changeHandler_;
  }
  if (handler) handler();
}

PairingToken HostPairingService::issueToken() {
  PairingToken token{AuthCrypto::randomBytes(AuthCrypto::kTokenSize), clock_() + kTokenLifetime};
  std::lock_guard guard(lock_);
  token_ = token;
  return token;
}

void HostPairingService::cancelToken() {
  std::lock_guard guard(lock_);
  token_.reset();
}

PairingURL HostPairingService::pairingURL(const PairingToken& token) const {
  return {hostID_, hostName_, hostFingerprint_, token.value};
}

HostPairingService::Redemption HostPairingService::redeem(ByteView proof, ByteView publicKey,
                                                          const UUID& deviceID) {
  std::lock_guard guard(lock_);
  if (!token_) return Redemption::invalid;
  if (!(clock_() < token_->expiresAt)) {
    token_.reset();
    return Redemption::expired;
  }
  const Data expected =
      AuthCrypto::pairingProof(token_->value, hostFingerprint_, publicKey, deviceID);
  if (!AuthCrypto::constantTimeEqual(expected, proof)) return Redemption::invalid;
  token_.reset();
  return Redemption::success;
}

std::optional<UUID> HostPairingService::beginAttempt() {
  const auto now = clock_();
  std::lock_guard guard(lock_);
  std::erase_if(attempts_, [&](const Attempt& a) { return now - a.at >= kAttemptWindow; });
  if (attempts_.size() >= kAttemptsPerWindow) return std::nullopt;
  const UUID id = AuthCrypto::randomUUID();
  attempts_.push_back({id, now});
  return id;
}

void HostPairingService::endAttempt(const UUID& id, bool success) {
  if (!success) return;
  std::lock_guard guard(lock_);
  std::erase_if(attempts_, [&](const Attempt& a) { return a.id == id; });
}

void HostPairingService::registerConnection(const UUID& tag, const UUID& deviceID,
                                            std::weak_ptr<Connection> connection) {
  {
    std::lock_guard guard(lock_);
    live_.push_back({tag, deviceID, std::move(connection)});
  }
  store_->touch(deviceID, clock_());
  notifyChange();
}

void HostPairingService::unregisterConnection(const UUID& tag) {
  std::lock_guard guard(lock_);
  std::erase_if(live_, [&](const Live& l) { return l.tag == tag; });
}

void HostPairingService::revoke(const UUID& deviceID) {
  store_->remove(deviceID);
  std::vector<std::weak_ptr<Connection>> ended;
  {
    std::lock_guard guard(lock_);
    for (const Live& l : live_) {
      if (l.deviceID == deviceID) ended.push_back(l.connection);
    }
    std::erase_if(live_, [&](const Live& l) { return l.deviceID == deviceID; });
  }
  for (const auto& weak : ended) {
    if (auto connection = weak.lock()) connection->close();
  }
  notifyChange();
}

std::set<UUID> HostPairingService::connectedDeviceIDs() const {
  std::lock_guard guard(lock_);
  std::set<UUID> ids;
  for (const Live& l : live_) ids.insert(l.deviceID);
  return ids;
}

}  // namespace kelvaron
