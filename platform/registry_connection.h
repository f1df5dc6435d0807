// platform/registry_connection.h: SQLite as the key store uses it: connections, prepared statements, results as codes.
//
// For the files of the store alone. Threads: one connection serves one thread at a time.
#pragma once

#include <sqlite3.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "platform/error_codes.h"
#include "platform/registry_names.h"

namespace platform::registry {

[[nodiscard]] ErrorCode CodeFromSqlite(int rc);

struct CloseConnection {
  void operator()(sqlite3* db) const { sqlite3_close(db); }
};
using Connection = std::unique_ptr<sqlite3, CloseConnection>;

struct FinalizeStatement {
  void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using Prepared = std::unique_ptr<sqlite3_stmt, FinalizeStatement>;

// Both give SQLite's own result.
[[nodiscard]] int Prepare(sqlite3* db, const char* sql, unsigned flags, Prepared& out);
[[nodiscard]] int Execute(sqlite3* db, const char* sql);
// Gives the number in the first column of the first row; SQLITE_ERROR without a row.
[[nodiscard]] int QueryInt(sqlite3* db, const char* sql, std::int64_t& out);

// Opens a connection that leaves the file as it is: the log is not written back when it closes.
//   why      gets the reason of a failure
//   returns  ERROR_REGISTRY_CORRUPT (1015) where sqlite::HasLostItsBeginning() says so; the codes of SQLite
[[nodiscard]] ErrorCode Connect(const std::string& path, Connection& db, std::string& why);

// One use of a prepared statement, reset at its end. Arguments are borrowed until then.
class Use {
 public:
  explicit Use(const Prepared& statement) : m_statement(statement.get()) {}
  Use(const Use&) = delete;
  Use& operator=(const Use&) = delete;
  // A statement that couldn't be prepared is none: Step() says so.
  ~Use() {
    if (m_statement == nullptr) return;
    sqlite3_reset(m_statement);
    sqlite3_clear_bindings(m_statement);
  }

  Use& Arg(std::int64_t value) { return Bound(sqlite3_bind_int64(m_statement, ++m_index, value)); }
  Use& Arg(const void* data, std::size_t size) {
    // A null pointer would bind the value NULL.
    return Bound(sqlite3_bind_blob64(m_statement, ++m_index, size == 0 ? "" : data, size, SQLITE_STATIC));
  }
  Use& Arg(const Bytes& bytes) { return Arg(bytes.data(), bytes.size()); }
  Use& Arg(std::u16string_view name) { return Arg(name.data(), name.size() * sizeof(char16_t)); }

  int Step() { return m_bindResult != SQLITE_OK ? m_bindResult : sqlite3_step(m_statement); }

  [[nodiscard]] std::int64_t Int(int column) const { return sqlite3_column_int64(m_statement, column); }
  [[nodiscard]] std::span<const std::byte> Blob(int column) const {
    const void* data = sqlite3_column_blob(m_statement, column);
    const int size = sqlite3_column_bytes(m_statement, column);
    return {static_cast<const std::byte*>(data), data == nullptr ? 0 : static_cast<std::size_t>(size)};
  }
  [[nodiscard]] std::u16string Name(int column) const {
    const auto bytes = Blob(column);
    std::u16string out(bytes.size() / sizeof(char16_t), u'\0');
    if (!out.empty()) std::memcpy(out.data(), bytes.data(), out.size() * sizeof(char16_t));
    return out;
  }
  [[nodiscard]] std::string Text(int column) const {
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(m_statement, column));
    return text == nullptr ? std::string() : std::string(text);
  }

 private:
  Use& Bound(int rc) {
    if (m_bindResult == SQLITE_OK) m_bindResult = rc;
    return *this;
  }
  sqlite3_stmt* m_statement;
  int m_index = 0;
  int m_bindResult = SQLITE_OK;
};

}  // namespace platform::registry
