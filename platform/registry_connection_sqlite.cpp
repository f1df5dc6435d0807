#include "platform/registry_connection.h"

#include "platform/sqlite_file.h"

namespace platform::registry {
namespace {

constexpr int kBusyTimeoutMs = 5000;

}  // namespace

ErrorCode CodeFromSqlite(int rc) {
  struct Row {
    int result;
    ErrorCode code;
  };
  // Extended results first, then the plain ones.
  static constexpr Row kRows[] = {
      {SQLITE_CONSTRAINT_FOREIGNKEY, ERROR_KEY_DELETED},
      {SQLITE_IOERR_NOMEM, ERROR_NOT_ENOUGH_MEMORY},
      {SQLITE_OK, ERROR_SUCCESS},
      {SQLITE_FULL, ERROR_DISK_FULL},
      {SQLITE_BUSY, ERROR_BUSY},
      {SQLITE_LOCKED, ERROR_BUSY},
      {SQLITE_CORRUPT, ERROR_REGISTRY_CORRUPT},
      {SQLITE_NOTADB, ERROR_REGISTRY_CORRUPT},
      {SQLITE_READONLY, ERROR_ACCESS_DENIED},
      {SQLITE_PERM, ERROR_ACCESS_DENIED},
      {SQLITE_AUTH, ERROR_ACCESS_DENIED},
      {SQLITE_NOMEM, ERROR_NOT_ENOUGH_MEMORY},
      {SQLITE_TOOBIG, ERROR_INVALID_PARAMETER},
      {SQLITE_IOERR, ERROR_REGISTRY_IO_FAILED},
  };
  for (const Row& row : kRows) {
    if (row.result == rc) return row.code;
  }
  for (const Row& row : kRows) {
    if (row.result == (rc & 0xFF)) return row.code;
  }
  return ERROR_REGISTRY_IO_FAILED;
}

int Prepare(sqlite3* db, const char* sql, unsigned flags, Prepared& out) {
  sqlite3_stmt* raw = nullptr;
  const int rc = sqlite3_prepare_v3(db, sql, -1, flags, &raw, nullptr);
  out.reset(raw);
  return rc;
}

int Execute(sqlite3* db, const char* sql) {
  return sqlite3_exec(db, sql, nullptr, nullptr, nullptr);
}

ErrorCode Connect(const std::string& path, Connection& db, std::string& why) {
  if (sqlite::HasLostItsBeginning(path)) {
    why = path + ": is empty, and its write-ahead log isn't";
    return ERROR_REGISTRY_CORRUPT;
  }
  sqlite3* raw = nullptr;
  constexpr int kFlags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX;
  const int rc = sqlite3_open_v2(sqlite::PlainPath(path).c_str(), &raw, kFlags, nullptr);
  db.reset(raw);
  if (rc != SQLITE_OK) {
    why = path + ": " + (raw != nullptr ? sqlite3_errmsg(raw) : sqlite3_errstr(rc));
    return CodeFromSqlite(rc);
  }
  sqlite3_extended_result_codes(raw, 1);
  sqlite3_busy_timeout(raw, kBusyTimeoutMs);
  sqlite3_db_config(raw, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
  return ERROR_SUCCESS;
}

int QueryInt(sqlite3* db, const char* sql, std::int64_t& out) {
  Prepared statement;
  if (const int rc = Prepare(db, sql, 0, statement); rc != SQLITE_OK) return rc;
  Use use(statement);
  const int rc = use.Step();
  if (rc != SQLITE_ROW) return rc == SQLITE_DONE ? SQLITE_ERROR : rc;
  out = use.Int(0);
  return SQLITE_OK;
}

}  // namespace platform::registry
