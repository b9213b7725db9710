#include "coordinator/SqliteDatabase.hpp"

#include <sqlite3.h>

#include <memory>

namespace kelvaron::coordinator {

namespace {

void bind(sqlite3_stmt* statement, int index, const SqlValue& value) {
  std::visit(
      [&](const auto& v) {
        using T = std::decay_t<decltype(v)>;
        if constexpr (std::is_same_v<T, std::nullptr_t>) {
          sqlite3_bind_null(statement, index);
        } else if constexpr (std::is_same_v<T, std::int64_t>) {
          sqlite3_bind_int64(statement, index, v);
        } else if constexpr (std::is_same_v<T, std::string>) {
          sqlite3_bind_text(statement, index, v.data(), int(v.size()), SQLITE_TRANSIENT);
        } else {
          sqlite3_bind_blob(statement, index, v.data(), int(v.size()), SQLITE_TRANSIENT);
        }
      },
      value);
}

SqlValue column(sqlite3_stmt* statement, int index) {
  switch (sqlite3_column_type(statement, index)) {
    case SQLITE_INTEGER:
      return std::int64_t(sqlite3_column_int64(statement, index));
    case SQLITE_TEXT:
      return std::string(reinterpret_cast<const char*>(sqlite3_column_text(statement, index)),
                         std::size_t(sqlite3_column_bytes(statement, index)));
    case SQLITE_BLOB: {
      const auto* bytes = static_cast<const std::uint8_t*>(sqlite3_column_blob(statement, index));
      return Data(bytes, bytes + sqlite3_column_bytes(statement, index));
    }
    default:
      return nullptr;
  }
}

constexpr const char* kSchema = R"(
CREATE TABLE IF NOT EXISTS invites (code TEXT PRIMARY KEY, account TEXT NOT NULL,
  expires_at INTEGER NOT NULL, used_at INTEGER, used_by BLOB);
CREATE TABLE IF NOT EXISTS hosts (host_key BLOB PRIMARY KEY, account TEXT NOT NULL,
  enrolled_at INTEGER NOT NULL, revoked_at INTEGER);
)";

}  // namespace

SqliteDatabase::SqliteDatabase(const std::filesystem::path& file) {
  if (sqlite3_open_v2(file.c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr) !=
      SQLITE_OK) {
    const std::string problem = db_ ? sqlite3_errmsg(db_) : "out of memory";
    sqlite3_close(db_);
    throw StoreError("cannot open " + file.string() + ": " + problem);
  }
  sqlite3_busy_timeout(db_, 5000);
  char* problem = nullptr;
  const std::string setup = std::string("PRAGMA journal_mode=WAL;") + kSchema;
  if (sqlite3_exec(db_, setup.c_str(), nullptr, nullptr, &problem) != SQLITE_OK) {
    const std::string text = problem ? problem : "unknown";
    sqlite3_free(problem);
    sqlite3_close(db_);
    throw StoreError("cannot set up " + file.string() + ": " + text);
  }
}

SqliteDatabase::~SqliteDatabase() { sqlite3_close(db_); }

std::vector<SqlRow> SqliteDatabase::run(std::string_view sql,
                                        const std::vector<SqlValue>& parameters) {
  sqlite3_stmt* raw = nullptr;
  if (sqlite3_prepare_v2(db_, sql.data(), int(sql.size()), &raw, nullptr) != SQLITE_OK) {
    throw StoreError(sqlite3_errmsg(db_));
  }
  const std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_finalize)> statement(raw, sqlite3_finalize);
  for (std::size_t i = 0; i < parameters.size(); ++i) {
    std::string name = "$";
    name += std::to_string(i + 1);
    if (const int index = sqlite3_bind_parameter_index(raw, name.c_str())) {
      bind(raw, index, parameters[i]);
    }
  }
  std::vector<SqlRow> rows;
  for (int step; (step = sqlite3_step(raw)) != SQLITE_DONE;) {
    if (step != SQLITE_ROW) throw StoreError(sqlite3_errmsg(db_));
    SqlRow& row = rows.emplace_back();
    for (int c = 0; c < sqlite3_column_count(raw); ++c) row.push_back(column(raw, c));
  }
  return rows;
}

}  // namespace kelvaron::coordinator
