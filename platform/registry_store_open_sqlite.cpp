// The opening of the store, and the statements that it keeps prepared.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <iterator>

#include "platform/registry_schema.h"
#include "platform/registry_store.h"
#include "platform/sqlite_file.h"

namespace platform::registry {
namespace {

// In the order of Sql.
constexpr const char* kSqlText[] = {
    "BEGIN IMMEDIATE",
    "COMMIT",
    "ROLLBACK",
    "SELECT seq FROM sqlite_sequence WHERE name='keys'",
    "PRAGMA data_version",
    "SELECT 1 FROM keys WHERE id=?",
    "SELECT id FROM keys WHERE parent=? AND fold=?",
    kInsertKeySql,
    "DELETE FROM keys WHERE id=?",
    "SELECT 1 FROM keys WHERE parent=? LIMIT 1",
    "SELECT count(*), max(length(fold)) FROM keys WHERE parent=?",
    "SELECT name, fold FROM keys WHERE parent=? AND fold>? ORDER BY fold LIMIT 1",
    "SELECT name, fold FROM keys WHERE parent=? AND fold>=? ORDER BY fold LIMIT 1",
    "SELECT name, fold FROM keys WHERE parent=? ORDER BY fold LIMIT 1 OFFSET ?",
    "SELECT type, data FROM vals WHERE key=? AND fold=?",
    ("INSERT INTO vals(key, fold, name, type, data) VALUES(?,?,?,?,?)"
     " ON CONFLICT(key, fold) DO UPDATE SET type=excluded.type, data=excluded.data"),
    "DELETE FROM vals WHERE key=? AND fold=?",
    "SELECT name, fold, type, data FROM vals WHERE key=? AND fold>? ORDER BY fold LIMIT 1",
    "SELECT name, fold, type, data FROM vals WHERE key=? AND fold>=? ORDER BY fold LIMIT 1",
    "SELECT name, fold, type, data FROM vals WHERE key=? ORDER BY fold LIMIT 1 OFFSET ?",
    "SELECT id, name FROM keys WHERE parent=? AND fold>? ORDER BY fold LIMIT ?",
    "SELECT fold, type, data FROM vals WHERE key=?",
    "SELECT name, type, data FROM vals WHERE key=? ORDER BY fold",
};
static_assert(std::size(kSqlText) == kSqlCount);

// Makes the file when absent, for its owner alone: the log and its index copy this mode.
ErrorCode TouchFile(const std::string& path, std::string& why) {
  struct stat present {};
  if (::stat(path.c_str(), &present) == 0 && S_ISREG(present.st_mode)) {
    // Not opened: its close would take the locks of other connections of this process away.
    if (::faccessat(AT_FDCWD, path.c_str(), R_OK | W_OK, AT_EACCESS) == 0) return ERROR_SUCCESS;
    why = path + ": " + std::strerror(errno);
    return ErrorCodeFromErrno(errno);
  }
  const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NONBLOCK, 0600);
  const int error = fd < 0 ? errno : 0;
  struct stat status {};
  const bool isFile = fd >= 0 && ::fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
  if (fd >= 0) ::close(fd);
  if (error != 0) {
    why = path + ": " + std::strerror(error);
    return error == ENOENT ? ERROR_PATH_NOT_FOUND : ErrorCodeFromErrno(error);
  }
  if (!isFile) {
    why = path + ": is not a file";
    return ERROR_REGISTRY_CORRUPT;
  }
  return ERROR_SUCCESS;
}

}  // namespace

ErrorCode Store::Open(const std::string& path, std::string& why) {
  if (const ErrorCode code = TouchFile(path, why); code != ERROR_SUCCESS) return code;
  if (const ErrorCode code = Connect(path, m_db, why); code != ERROR_SUCCESS) return code;
  bool isNew = false;
  if (const ErrorCode code = CheckOrigin(m_db.get(), path, isNew, why); code != ERROR_SUCCESS) return code;

  const auto fail = [&](ErrorCode code) {
    why = path + ": " + sqlite3_errmsg(m_db.get());
    return code;
  };
  std::string mode;
  {
    Prepared statement;
    int rc = Prepare(m_db.get(), "PRAGMA journal_mode=WAL", 0, statement);
    if (rc != SQLITE_OK) return fail(CodeFromSqlite(rc));
    Use use(statement);
    rc = use.Step();
    if (rc != SQLITE_ROW) return fail(CodeFromSqlite(rc));
    mode = use.Text(0);
  }
  if (mode != "wal") {
    why = path + ": the file system keeps no write-ahead log";
    return ERROR_REGISTRY_IO_FAILED;
  }
  const std::string settings =
      "PRAGMA synchronous=FULL; PRAGMA foreign_keys=ON; PRAGMA trusted_schema=OFF;"
      "PRAGMA journal_size_limit=" +
      std::to_string(kLogRoom) + ";";
  const int rc = Execute(m_db.get(), settings.c_str());
  if (rc != SQLITE_OK) return fail(CodeFromSqlite(rc));
  if (isNew) {
    if (const ErrorCode code = MakeSchema(m_db.get()); code != ERROR_SUCCESS) return fail(code);
  }
  for (std::size_t i = 0; i < kSqlCount; ++i) {
    const int result = Prepare(m_db.get(), kSqlText[i], SQLITE_PREPARE_PERSISTENT, m_sql[i]);
    if (result == SQLITE_ERROR) return fail(ERROR_REGISTRY_CORRUPT);  // a table or column is missing
    if (result != SQLITE_OK) return fail(CodeFromSqlite(result));
  }
  sqlite3_db_config(m_db.get(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 0, nullptr);
  NoteFiles();
  static std::atomic<std::uint64_t> lastNumber{0};
  m_number = ++lastNumber;
  m_path = sqlite::PlainPath(path);
  return ERROR_SUCCESS;
}

// By now the log is there: SQLite makes it with the first look into the tables.
void Store::NoteFiles() {
  const std::string name = sqlite3_db_filename(m_db.get(), "main");  // absolute, links followed
  m_files = {NamedFile{name}, NamedFile{name + "-wal"}};
  for (NamedFile& file : m_files) {
    struct stat status {};
    if (::stat(file.name.c_str(), &status) == 0) {
      file.device = status.st_dev;
      file.number = status.st_ino;
    }
  }
}

bool Store::AreFilesInPlace() const {
  for (const NamedFile& file : m_files) {
    struct stat status {};
    if (::stat(file.name.c_str(), &status) != 0 || status.st_dev != file.device || status.st_ino != file.number) {
      return false;
    }
  }
  return true;
}

}  // namespace platform::registry
