// Keys and values are rows, in two tables.
#include "platform/registry_schema.h"

#include <bit>
#include <cstdint>
#include <string_view>

#include "platform/registry_names.h"

namespace platform::registry {
namespace {

static_assert(std::endian::native == std::endian::little, "stored names and numbers have their little end first");

constexpr int kApplicationId = 0x51585247;  // "QXRG" in the file's header
constexpr int kSchemaVersion = 1;

constexpr const char* kSchemaSql =
    "CREATE TABLE keys(id INTEGER PRIMARY KEY AUTOINCREMENT,"
    " parent INTEGER REFERENCES keys(id) ON DELETE CASCADE,"
    " name BLOB NOT NULL, fold BLOB NOT NULL, UNIQUE(parent, fold));"
    "CREATE TABLE vals(key INTEGER NOT NULL REFERENCES keys(id) ON DELETE CASCADE,"
    " fold BLOB NOT NULL, name BLOB NOT NULL, type INTEGER NOT NULL, data BLOB NOT NULL,"
    " PRIMARY KEY(key, fold)) WITHOUT ROWID;";

}  // namespace

ErrorCode CheckOrigin(sqlite3* db, const std::string& path, bool& isNew, std::string& why) {
  std::int64_t application = 0;
  std::int64_t version = 0;
  std::int64_t objects = 0;
  int rc = QueryInt(db, "PRAGMA application_id", application);
  if (rc == SQLITE_OK) rc = QueryInt(db, "PRAGMA user_version", version);
  if (rc == SQLITE_OK) rc = QueryInt(db, "SELECT count(*) FROM sqlite_master", objects);
  if (rc != SQLITE_OK) {
    why = path + ": " + sqlite3_errmsg(db);
    return CodeFromSqlite(rc);
  }
  isNew = application == 0 && version == 0 && objects == 0;
  if (isNew) return ERROR_SUCCESS;
  if (application != kApplicationId || version < kSchemaVersion) {
    why = path + ": is not a registry store";
    return ERROR_REGISTRY_CORRUPT;
  }
  if (version > kSchemaVersion) {
    why = path + ": written by a newer version (schema " + std::to_string(version) + ", this program knows " +
          std::to_string(kSchemaVersion) + ")";
    return ERROR_NOT_SUPPORTED;
  }
  return ERROR_SUCCESS;
}

ErrorCode MakeSchema(sqlite3* db) {
  if (const int rc = Execute(db, "BEGIN IMMEDIATE"); rc != SQLITE_OK) return CodeFromSqlite(rc);
  const auto fill = [&]() -> int {
    // Another process may have been first.
    std::int64_t version = 0;
    if (const int rc = QueryInt(db, "PRAGMA user_version", version); rc != SQLITE_OK || version != 0) return rc;
    const std::string stamp = "PRAGMA application_id=" + std::to_string(kApplicationId) +
                              "; PRAGMA user_version=" + std::to_string(kSchemaVersion) + ";";
    for (const char* sql : {kSchemaSql, stamp.c_str()}) {
      if (const int rc = Execute(db, sql); rc != SQLITE_OK) return rc;
    }
    Prepared root;
    Prepared child;
    int rc = Prepare(db, "INSERT INTO keys(id, name, fold) VALUES(?,?,?)", 0, root);
    if (rc == SQLITE_OK) rc = Prepare(db, kInsertKeySql, 0, child);
    if (rc != SQLITE_OK) return rc;
    for (const Root& row : kRoots) {
      const Bytes fold = Fold(row.shortName);
      if (rc = Use(root).Arg(row.id).Arg(row.shortName).Arg(fold).Step(); rc != SQLITE_DONE) return rc;
    }
    for (const Root& row : kRoots) {
      for (const std::u16string_view name : row.firstChildren) {
        if (name.empty()) continue;
        const Bytes fold = Fold(name);
        if (rc = Use(child).Arg(row.id).Arg(name).Arg(fold).Step(); rc != SQLITE_DONE) return rc;
      }
    }
    return SQLITE_OK;
  };
  int rc = fill();
  if (rc == SQLITE_OK) rc = Execute(db, "COMMIT");
  if (rc != SQLITE_OK && sqlite3_get_autocommit(db) == 0) (void)Execute(db, "ROLLBACK");
  return CodeFromSqlite(rc);
}

}  // namespace platform::registry
