#include "coordinator/PostgresDatabase.hpp"

#include <libpq-fe.h>

#include <memory>

#include "kit/relay/RelayWire.hpp"

namespace kelvaron::coordinator {

namespace {

// Type identifiers of the columns the store reads (pg_type.oid).
constexpr Oid kBytea = 17, kInt8 = 20;

// Each parameter as libpq takes it: integers and text as text, bytes as binary.
struct Parameters {
  explicit Parameters(const std::vector<SqlValue>& values) {
    for (const auto& value : values) {
      if (const auto* number = std::get_if<std::int64_t>(&value)) {
        texts.push_back(std::to_string(*number));
      } else if (const auto* text = std::get_if<std::string>(&value)) {
        texts.push_back(*text);
      } else {
        texts.emplace_back();
      }
    }
    for (std::size_t i = 0; i < values.size(); ++i) {
      const auto* bytes = std::get_if<Data>(&values[i]);
      const bool null = std::holds_alternative<std::nullptr_t>(values[i]);
      pointers.push_back(null    ? nullptr
                         : bytes ? reinterpret_cast<const char*>(bytes->data())
                                 : texts[i].c_str());
      lengths.push_back(bytes ? int(bytes->size()) : int(texts[i].size()));
      formats.push_back(bytes ? 1 : 0);
    }
  }
  std::vector<std::string> texts;
  std::vector<const char*> pointers;
  std::vector<int> lengths, formats;
};

SqlValue column(const PGresult* result, int row, int index) {
  if (PQgetisnull(result, row, index)) return nullptr;
  const char* value = PQgetvalue(result, row, index);
  const auto size = std::size_t(PQgetlength(result, row, index));
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(value);
  switch (PQftype(result, index)) {
    case kInt8:
      return std::int64_t(RelayWire::readBigEndian(ByteView(bytes, size)));
    case kBytea:
      return Data(bytes, bytes + size);
    default:
      return std::string(value, size);
  }
}

constexpr const char* kSchema = R"(
CREATE TABLE IF NOT EXISTS invites (code TEXT PRIMARY KEY, account TEXT NOT NULL,
  expires_at BIGINT NOT NULL, used_at BIGINT, used_by BYTEA);
CREATE TABLE IF NOT EXISTS hosts (host_key BYTEA PRIMARY KEY, account TEXT NOT NULL,
  enrolled_at BIGINT NOT NULL, revoked_at BIGINT);
)";

}  // namespace

PostgresDatabase::PostgresDatabase(const std::string& connection)
    : db_(PQconnectdb(connection.c_str())) {
  if (PQstatus(db_) != CONNECTION_OK) {
    const std::string problem = PQerrorMessage(db_);
    PQfinish(db_);
    throw StoreError("cannot reach PostgreSQL: " + problem);
  }
  // Quiet: "relation already exists, skipping" is no news.
  PQsetNoticeProcessor(
      db_, [](void*, const char*) {}, nullptr);
  const std::unique_ptr<PGresult, decltype(&PQclear)> result(PQexec(db_, kSchema), PQclear);
  if (PQresultStatus(result.get()) != PGRES_COMMAND_OK) {
    const std::string problem = PQerrorMessage(db_);
    PQfinish(db_);
    throw StoreError("cannot set up the tables: " + problem);
  }
}

PostgresDatabase::~PostgresDatabase() { PQfinish(db_); }

std::vector<SqlRow> PostgresDatabase::run(std::string_view sql,
                                          const std::vector<SqlValue>& parameters) {
  // A connection the server dropped is made again once before a statement fails for it.
  if (PQstatus(db_) != CONNECTION_OK) PQreset(db_);
  const Parameters p(parameters);
  const std::string text(sql);
  const std::unique_ptr<PGresult, decltype(&PQclear)> result(
      PQexecParams(db_, text.c_str(), int(parameters.size()), nullptr, p.pointers.data(),
                   p.lengths.data(), p.formats.data(), 1),
      PQclear);
  const ExecStatusType status = PQresultStatus(result.get());
  if (status != PGRES_TUPLES_OK && status != PGRES_COMMAND_OK) {
    throw StoreError(PQerrorMessage(db_));
  }
  std::vector<SqlRow> rows;
  for (int r = 0; r < PQntuples(result.get()); ++r) {
    SqlRow& row = rows.emplace_back();
    for (int c = 0; c < PQnfields(result.get()); ++c) row.push_back(column(result.get(), r, c));
  }
  return rows;
}

}  // namespace kelvaron::coordinator
