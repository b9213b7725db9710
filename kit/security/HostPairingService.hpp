#pragma once

#include <asio/awaitable.hpp>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "kit/security/PairingURL.hpp"
#include "kit/security/Stores.hpp"
#include "kit/transport/Connection.hpp"

namespace kelvaron {

// Asks the person at the host whether the six digits on both screens match. It yields false, or is
// cancelled, without side effects: the gate may lose interest at any moment.
class PairingConfirming {
 public:
  virtual ~PairingConfirming() = default;
  virtual asio::awaitable<bool> confirm(std::string deviceName, std::string code) = 0;
};

struct PairingToken {
  Data value;  // 16 random bytes
  WallClock::time_point expiresAt;
  friend bool operator==(const PairingToken&, const PairingToken&) = default;
};

// The host-wide side of pairing, shared by every connection's gate: the one pairing token, the
// rate limit on attempts, the authenticated live connections, and the store of paired devices.
// Safe from any thread; the change handler runs outside its lock.
class HostPairingService {
 public:
  enum class Redemption { success, invalid, expired };

  HostPairingService(UUID hostID, std::string hostName, Data hostFingerprint,
                     std::shared_ptr<PairedDeviceStore> store,
                     std::shared_ptr<PairingConfirming> confirmer,
                     std::function<WallClock::time_point()> clock);

  const UUID& hostID() const { return hostID_; }
  const Data& hostFingerprint() const { return hostFingerprint_; }
  const std::shared_ptr<PairedDeviceStore>& store() const { return store_; }
  const std::shared_ptr<PairingConfirming>& confirmer() const { return confirmer_; }
  WallClock::time_point now() const { return clock_(); }

  void setChangeHandler(std::function<void()> handler);
  void notifyChange() const;

  // A fresh token valid for 300 s; any earlier token stops working at once.
  PairingToken issueToken();
  void cancelToken();
  PairingURL pairingURL(const PairingToken& token) const;
  // Single use: a right proof consumes the token; a wrong one leaves it for the rate limit.
  Redemption redeem(ByteView proof, ByteView publicKey, const UUID& deviceID);

  // A slot of the host-wide limit of 3 attempts in a sliding 60 s, or nothing.
  std::optional<UUID> beginAttempt();
  // A successful pairing gives its slot back; a failed one stays charged until it ages out.
  void endAttempt(const UUID& id, bool success);

  void registerConnection(const UUID& tag, const UUID& deviceID,
                          std::weak_ptr<Connection> connection);
  void unregisterConnection(const UUID& tag);
  // Forgets the device and ends its running sessions at once, without a word to the peer.
  void revoke(const UUID& deviceID);
  std::set<UUID> connectedDeviceIDs() const;

 private:
  struct Attempt {
    UUID id;
    WallClock::time_point at;
  };
  struct Live {
    UUID tag;
    UUID deviceID;
    std::weak_ptr<Connection> connection;
  };

  const UUID hostID_;
  const std::string hostName_;
  const Data hostFingerprint_;
  const std::shared_ptr<PairedDeviceStore> store_;
  const std::shared_ptr<PairingConfirming> confirmer_;
  const std::function<WallClock::time_point()> clock_;

  mutable std::mutex lock_;
  std::optional<PairingToken> token_;
  std::vector<Attempt> attempts_;
  std::vector<Live> live_;
  std::function<void()> changeHandler_;
};

}  // namespace kelvaron
