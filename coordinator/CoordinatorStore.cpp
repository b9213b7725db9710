#include "coordinator/CoordinatorStore.hpp"

namespace kelvaron::coordinator {

namespace {

EnrolledHost enrolledHost(const SqlRow& row) {
  return {std::get<Data>(row.at(0)), std::get<std::string>(row.at(1)),
          !std::holds_alternative<std::nullptr_t>(row.at(2))};
}

}  // namespace

CoordinatorStore::CoordinatorStore(std::unique_ptr<SqlDatabase> database)
    : database_(std::move(database)) {}

void CoordinatorStore::addInvite(const std::string& code, const std::string& account,
                                 std::int64_t expiresAt) {
  std::lock_guard guard(lock_);
  database_->run("INSERT INTO invites (code, account, expires_at) VALUES ($1, $2, $3)",
                 {code, account, expiresAt});
}

std::optional<std::string> CoordinatorStore::redeemInvite(const std::string& code,
                                                          const Data& hostKey, std::int64_t now) {
  std::lock_guard guard(lock_);
  std::optional<std::string> account;
  database_->transaction([&] {
    const auto used = database_->run(
        "UPDATE invites SET used_at = $2, used_by = $3 "
        "WHERE code = $1 AND used_at IS NULL AND expires_at > $2 RETURNING account",
        {code, now, hostKey});
    if (used.empty()) return;
    account = std::get<std::string>(used.front().at(0));
    database_->run(
        "INSERT INTO hosts (host_key, account, enrolled_at) VALUES ($1, $2, $3) "
        "ON CONFLICT (host_key) DO UPDATE SET account = excluded.account, "
        "enrolled_at = excluded.enrolled_at, revoked_at = NULL",
        {hostKey, *account, now});
  });
  return account;
}

std::optional<EnrolledHost> CoordinatorStore::host(const Data& hostKey) {
  std::lock_guard guard(lock_);
  const auto rows = database_->run(
      "SELECT host_key, account, revoked_at FROM hosts WHERE host_key = $1", {hostKey});
  if (rows.empty()) return std::nullopt;
  return enrolledHost(rows.front());
}

std::size_t CoordinatorStore::revokeHost(const Data& hostKey, std::int64_t now) {
  std::lock_guard guard(lock_);
  return database_
      ->run(
          "UPDATE hosts SET revoked_at = $2 WHERE host_key = $1 AND revoked_at IS NULL "
          "RETURNING host_key",
          {hostKey, now})
      .size();
}

std::size_t CoordinatorStore::revokeAccount(const std::string& account, std::int64_t now) {
  std::lock_guard guard(lock_);
  return database_
      ->run(
          "UPDATE hosts SET revoked_at = $2 WHERE account = $1 AND revoked_at IS NULL "
          "RETURNING host_key",
          {account, now})
      .size();
}

std::vector<EnrolledHost> CoordinatorStore::hosts() {
  std::lock_guard guard(lock_);
  std::vector<EnrolledHost> all;
  for (const auto& row : database_->run(
           "SELECT host_key, account, revoked_at FROM hosts ORDER BY account, enrolled_at", {})) {
    all.push_back(enrolledHost(row));
  }
  return all;
}

}  // namespace kelvaron::coordinator
