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

 private:
  // Write locks at once, so that two writers never deadlock half-way.
  std::string_view beginStatement() const override { return "BEGIN IMMEDIATE"; }

  sqlite3* db_ = nullptr;
};

}  // namespace kelvaron::coordinator
