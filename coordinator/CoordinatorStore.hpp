#pragma once

// What the coordinator remembers: invites, each good for one host until it expires, and the hosts
// enrolled with them, each in the account its invite named, active or revoked. Safe from any
// thread; one statement or transaction at a time.

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "coordinator/SqlDatabase.hpp"

namespace kelvaron::coordinator {

struct EnrolledHost {
  Data hostKey;
  std::string account;
  bool revoked = false;
  friend bool operator==(const EnrolledHost&, const EnrolledHost&) = default;
};

class CoordinatorStore {
 public:
  explicit CoordinatorStore(std::unique_ptr<SqlDatabase> database);

  // Times are seconds since 1970. Every operation throws StoreError when the database fails.
  void addInvite(const std::string& code, const std::string& account, std::int64_t expiresAt);
  // Uses the invite for `hostKey` if it is unused and not expired at `now`: the host joins the
  // invite's account, and is active again if it had been revoked. The account, or nothing.
  std::optional<std::string> redeemInvite(const std::string& code, const Data& hostKey,
                                          std::int64_t now);
  std::optional<EnrolledHost> host(const Data& hostKey);
  // How many hosts were active and are revoked now.
  std::size_t revokeHost(const Data& hostKey, std::int64_t now);
  std::size_t revokeAccount(const std::string& account, std::int64_t now);
  std::vector<EnrolledHost> hosts();

 private:
  const std::unique_ptr<SqlDatabase> database_;
  std::mutex lock_;
};

}  // namespace kelvaron::coordinator
