#pragma once

// The little of SQL the coordinator's store needs, over SQLite or PostgreSQL: statements with
// numbered parameters ($1, $2 …) in one dialect both understand, and transactions.

#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "kit/wire/Bytes.hpp"

namespace kelvaron::coordinator {

using SqlValue = std::variant<std::nullptr_t, std::int64_t, std::string, Data>;
using SqlRow = std::vector<SqlValue>;

// The database failed or cannot be reached; what it said, for the log.
class StoreError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class SqlDatabase {
 public:
  virtual ~SqlDatabase() = default;
  // Runs one statement; the rows it returns. Throws StoreError.
  virtual std::vector<SqlRow> run(std::string_view sql,
                                  const std::vector<SqlValue>& parameters) = 0;
  // Runs `body` as one transaction, committed unless it throws. (Statements that must not race
  // between coordinators say so themselves: an update's condition under the row's lock.)
  void transaction(const std::function<void()>& body) {
    run(beginStatement(), {});
    try {
      body();
    } catch (...) {
      try {
        run("ROLLBACK", {});
      } catch (const StoreError&) {
      }
      throw;
    }
    run("COMMIT", {});
  }

 private:
  virtual std::string_view beginStatement() const = 0;
};

}  // namespace kelvaron::coordinator
