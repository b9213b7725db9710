#pragma once

#include <string>

#include "coordinator/SqlDatabase.hpp"

struct pg_conn;

namespace kelvaron::coordinator {

// A PostgreSQL database through libpq, which several coordinators behind a load balancer share:
// an invite is used once whichever of them takes it, because its row is updated under a lock.
class PostgresDatabase final : public SqlDatabase {
 public:
  // `connection`: libpq's connection string ("host=/run/postgresql dbname=tovu" or a
  // "postgresql://" URI). Throws StoreError.
  explicit PostgresDatabase(const std::string& connection);
  ~PostgresDatabase() override;
  std::vector<SqlRow> run(std::string_view sql, const std::vector<SqlValue>& parameters) override;

 private:
  std::string_view beginStatement() const override { return "BEGIN"; }

  pg_conn* db_ = nullptr;
};

}  // namespace kelvaron::coordinator
