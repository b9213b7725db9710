#pragma once

#include <filesystem>

#include "coordinator/SqlDatabase.hpp"

struct sqlite3;

namespace kelvaron::coordinator {

// One SQLite file in write-ahead-log mode, so that the commands beside a running coordinator
// (minting invites, revoking) do not wait for it.
class SqliteDatabase final : public SqlDatabase {
 public:
  // Throws StoreError.
  explicit SqliteDatabase(const std::filesystem::path& file);
  ~SqliteDatabase() override;
  std::vector<SqlRow> run(std::string_view sql, const std::vector<SqlValue>& parameters) override;
  void transaction(const std::function<void()>& body) override;

 private:
  sqlite3* db_ = nullptr;
};

}  // namespace kelvaron::coordinator
