#include "client/history_store.h"

#include <algorithm>
#include <iterator>
#include <limits>

namespace qx {
namespace {

using platform::Database;
using platform::ERROR_SUCCESS;
using platform::ErrorCode;
using platform::Statement;

constexpr std::int64_t kApplicationId = 0x51585248;  // "QXRH" in the file's header
constexpr std::int64_t kSchemaVersion = 1;
constexpr std::uint64_t kPageSize = 4096;
constexpr int kMostSetAside = 1000;
// Trimmed to this part of the bound, so that what comes until the next trimming finds room.
constexpr std::int64_t kFullPercent = 90;

constexpr const char* kKindTexts[] = {"launch",       "missed",       "unknown",      "added",
                                      "modified",     "deleted",      "clock-change", "service-up",
                                      "service-down", "record-begin", "record-end"};
static_assert(std::size(kKindTexts) == kHistoryKinds);

// auto_vacuum has to stand ahead of the first table.
constexpr const char* kSchema =
    "PRAGMA page_size=4096; PRAGMA auto_vacuum=INCREMENTAL; PRAGMA journal_mode=WAL;"
    "BEGIN IMMEDIATE;"
    "CREATE TABLE entries(id INTEGER PRIMARY KEY AUTOINCREMENT, at INTEGER NOT NULL, kind TEXT NOT NULL,"
    " schedule TEXT NOT NULL, name TEXT NOT NULL, window INTEGER, next INTEGER, reason TEXT NOT NULL);"
    "CREATE INDEX entries_at ON entries(at);"
    "CREATE TABLE windows(schedule TEXT PRIMARY KEY, name TEXT NOT NULL, next INTEGER NOT NULL) WITHOUT ROWID;"
    "CREATE TABLE facts(name TEXT PRIMARY KEY, value TEXT NOT NULL) WITHOUT ROWID;"
    "PRAGMA application_id=1364742728; PRAGMA user_version=1;"
    "COMMIT";
static_assert(kApplicationId == 1364742728 && kSchemaVersion == 1, "as in the schema");

// The log beside the file stays small; a power cut may take the last entries, never the file.
constexpr const char* kWriterSettings =
    "PRAGMA synchronous=NORMAL; PRAGMA wal_autocheckpoint=128; PRAGMA journal_size_limit=1048576";

constexpr const char* kColumns = "SELECT at, kind, schedule, name, window, next, reason FROM entries ";

// Beyond it no clock of ours goes, and sums with a zone's offset would overflow.
constexpr std::int64_t kFarthestTime = std::int64_t{1} << 40;

bool IsTime(const Statement& row, int column) {
  return row.IsNull(column) || (row.Int(column) <= kFarthestTime && row.Int(column) >= -kFarthestTime);
}

bool ReadEntry(const Statement& row, HistoryEntry& entry) {
  const std::string kind = row.Text(1);
  if (!IsTime(row, 0) || !IsTime(row, 4) || !IsTime(row, 5)) return false;  // of somebody else
  const auto* const known = std::find(std::begin(kKindTexts), std::end(kKindTexts), kind);
  if (known == std::end(kKindTexts)) return false;  // of a later version
  entry.at = row.Int(0);
  entry.kind = static_cast<HistoryKind>(known - std::begin(kKindTexts));
  entry.schedule = row.Text(2);
  entry.name = row.Text(3);
  entry.window = row.IsNull(4) ? std::nullopt : std::optional(row.Int(4));
  entry.next = row.IsNull(5) ? std::nullopt : std::optional(row.Int(5));
  entry.reason = row.Text(6);
  return true;
}

// Whether a file that can't be read as a database may be what is left of one: it begins as one does (SQLite's "Database
// File Format", 1.3), or with what a power cut leaves of a page. Any other is somebody else's.
bool MayBeDatabase(const std::string& name) {
  constexpr std::string_view kMagic("SQLite format 3\0", 16);
  platform::File file;
  std::string begin(kMagic.size(), '\0');
  std::size_t count = 0;
  if (file.Open(name, platform::File::Access::kRead, platform::File::Disposition::kOpenExisting) != ERROR_SUCCESS ||
      file.Read(begin, count) != ERROR_SUCCESS) {
    return true;
  }
  return begin == kMagic || begin.find_first_not_of('\0') == std::string::npos;
}

// The name that the file has now. Its log goes with it: it may hold what the file lacks.
ErrorCode SetAside(const std::string& name, std::string& aside) {
  for (int number = 1; number <= kMostSetAside; ++number) {
    const std::string target = name + ".damaged" + (number == 1 ? "" : "." + std::to_string(number));
    const ErrorCode code = platform::RenameToNewFile(name, target);
    if (code == platform::ERROR_FILE_EXISTS) continue;
    if (code != ERROR_SUCCESS) return code;
    aside = target;
    (void)platform::DeleteFile(name + "-shm");
    const ErrorCode log = platform::RenameFile(name + "-wal", target + "-wal");
    return log == platform::ERROR_FILE_NOT_FOUND ? ErrorCode{ERROR_SUCCESS} : log;
  }
  return platform::ERROR_ALREADY_EXISTS;
}

// Undoes a transaction that wasn't committed.
class Transaction {
 public:
  explicit Transaction(Database& database) : m_database(database) {}
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;
  ~Transaction() {
    if (m_open) (void)m_database.Run("ROLLBACK");
  }
  ErrorCode Begin() {
    const ErrorCode code = m_database.Run("BEGIN IMMEDIATE");
    m_open = code == ERROR_SUCCESS;
    return code;
  }
  ErrorCode Commit() {
    const ErrorCode code = m_database.Run("COMMIT");
    if (code == ERROR_SUCCESS) m_open = false;
    return code;
  }

 private:
  Database& m_database;
  bool m_open = false;
};

}  // namespace

const char* HistoryKindText(HistoryKind kind) {
  return kKindTexts[static_cast<std::size_t>(kind)];
}

ErrorCode HistoryStore::ReadNumber(const char* sql, std::int64_t& number) {
  Statement statement;
  bool row = false;
  ErrorCode code = statement.Prepare(m_database, sql);
  if (code == ERROR_SUCCESS) code = statement.Step(row);
  if (code == ERROR_SUCCESS && row) number = statement.Int(0);
  return code;
}

ErrorCode HistoryStore::OpenOnce(const std::string& name) {
  ErrorCode code = m_database.Open(name, Database::Access::kReadWrite);
  std::int64_t application = 0;
  std::int64_t version = 0;
  std::int64_t tables = 0;
  if (code == ERROR_SUCCESS) code = ReadNumber("PRAGMA application_id", application);
  if (code == ERROR_SUCCESS) code = ReadNumber("PRAGMA user_version", version);
  if (code == ERROR_SUCCESS) code = ReadNumber("SELECT count(*) FROM sqlite_schema", tables);
  if (code != ERROR_SUCCESS) return code;
  if (tables == 0 && application == 0) {
    if (code = m_database.Run(kSchema); code != ERROR_SUCCESS) return code;
  } else if (application != kApplicationId || version != kSchemaVersion) {
    return platform::ERROR_BADDB;
  } else if (code = m_database.Check(); code != ERROR_SUCCESS) {
    return code;
  }
  if (code = m_database.Run(kWriterSettings); code != ERROR_SUCCESS) return code;
  // No lower than what is there; trimming makes it smaller.
  const std::string bound = "PRAGMA max_page_count=" + std::to_string(m_bounds.bytes / kPageSize);
  return m_database.Run(bound.c_str());
}

ErrorCode HistoryStore::OpenForWriting(const std::string& name, const HistoryBounds& bounds, std::string& setAside) {
  using platform::File;
  setAside.clear();
  m_bounds = bounds;
  m_bounds.bytes = std::max(m_bounds.bytes, kLeastHistoryBytes);
  if (!m_lock.IsOpen()) {
    ErrorCode code = m_lock.Open(name + ".lock", File::Access::kReadWrite, File::Disposition::kOpenAlways);
    if (code == ERROR_SUCCESS) code = m_lock.TryLockByte(0);
    if (code != ERROR_SUCCESS) {
      m_lock.Close();
      return code;
    }
  }
  ErrorCode code = OpenOnce(name);
  if (code == platform::ERROR_FILE_CORRUPT) {
    m_database.Close();
    code = MayBeDatabase(name) ? SetAside(name, setAside) : ErrorCode{platform::ERROR_BADDB};
    if (code == ERROR_SUCCESS) code = OpenOnce(name);
  }
  if (code != ERROR_SUCCESS) m_database.Close();
  return code;
}

ErrorCode HistoryStore::OpenForReading(const std::string& name) {
  std::int64_t application = 0;
  std::int64_t version = 0;
  ErrorCode code = m_database.Open(name, Database::Access::kRead);
  if (code == ERROR_SUCCESS) code = ReadNumber("PRAGMA application_id", application);
  if (code == ERROR_SUCCESS) code = ReadNumber("PRAGMA user_version", version);
  if (code == ERROR_SUCCESS && (application != kApplicationId || version != kSchemaVersion))
    code = platform::ERROR_BADDB;
  if (code == platform::ERROR_FILE_CORRUPT && !MayBeDatabase(name)) code = platform::ERROR_BADDB;
  if (code != ERROR_SUCCESS) m_database.Close();
  return code;
}

ErrorCode HistoryStore::Append(const std::vector<HistoryEntry>& entries,
                               const std::map<std::string, std::optional<KnownSchedule>>& windows) {
  if (entries.empty() && windows.empty()) return ERROR_SUCCESS;
  Transaction transaction(m_database);
  ErrorCode code = transaction.Begin();
  Statement insert, keep, forget;
  if (code == ERROR_SUCCESS) {
    code = insert.Prepare(m_database,
                          "INSERT INTO entries(at, kind, schedule, name, window, next, reason)"
                          " VALUES(?,?,?,?,?,?,?)");
  }
  if (code == ERROR_SUCCESS) code = keep.Prepare(m_database, "INSERT OR REPLACE INTO windows VALUES(?,?,?)");
  if (code == ERROR_SUCCESS) code = forget.Prepare(m_database, "DELETE FROM windows WHERE schedule=?");
  for (const HistoryEntry& entry : entries) {
    if (code != ERROR_SUCCESS) return code;
    insert.Bind(0, entry.at).Bind(1, HistoryKindText(entry.kind)).Bind(2, entry.schedule).Bind(3, entry.name);
    if (entry.window) insert.Bind(4, *entry.window);
    if (entry.next) insert.Bind(5, *entry.next);
    code = insert.Bind(6, entry.reason).Run();
  }
  for (const auto& [schedule, known] : windows) {
    if (code != ERROR_SUCCESS) return code;
    code =
        known ? keep.Bind(0, schedule).Bind(1, known->name).Bind(2, known->next).Run() : forget.Bind(0, schedule).Run();
  }
  return code == ERROR_SUCCESS ? transaction.Commit() : code;
}

ErrorCode HistoryStore::Trim(std::int64_t now) {
  Statement old;
  ErrorCode code = old.Prepare(m_database, "DELETE FROM entries WHERE at<?");
  if (code == ERROR_SUCCESS) code = old.Bind(0, now - m_bounds.seconds).Run();
  // An eighth at a time: ends when the file fits or no entry is left.
  std::int64_t before = std::numeric_limits<std::int64_t>::max();
  while (code == ERROR_SUCCESS) {
    std::uint64_t bytes = 0;
    std::int64_t entries = 0;
    code = Size(bytes);
    if (code == ERROR_SUCCESS) code = ReadNumber("SELECT count(*) FROM entries", entries);
    if (code != ERROR_SUCCESS || entries == 0 || bytes <= m_bounds.bytes / 100 * kFullPercent) break;
    // Of a damaged file the index counts entries that aren't there.
    if (entries >= before) return platform::ERROR_FILE_CORRUPT;
    before = entries;
    Statement oldest;
    code = oldest.Prepare(m_database, "DELETE FROM entries WHERE id IN (SELECT id FROM entries ORDER BY id LIMIT ?)");
    if (code == ERROR_SUCCESS) code = oldest.Bind(0, std::max<std::int64_t>(1, entries / 8)).Run();
  }
  return code == ERROR_SUCCESS ? m_database.Run("PRAGMA incremental_vacuum") : code;
}

ErrorCode HistoryStore::SetFact(std::string_view name, std::string_view value) {
  Statement set;
  const ErrorCode code = set.Prepare(m_database, "INSERT OR REPLACE INTO facts VALUES(?,?)");
  return code == ERROR_SUCCESS ? set.Bind(0, name).Bind(1, value).Run() : code;
}

ErrorCode HistoryStore::Fact(std::string_view name, std::string& value) {
  Statement get;
  bool row = false;
  ErrorCode code = get.Prepare(m_database, "SELECT value FROM facts WHERE name=?");
  if (code == ERROR_SUCCESS) code = get.Bind(0, name).Step(row);
  if (code == ERROR_SUCCESS) value = row ? get.Text(0) : "";
  return code;
}

ErrorCode HistoryStore::Windows(std::map<std::string, KnownSchedule>& windows) {
  Statement all;
  bool row = false;
  std::map<std::string, KnownSchedule> read;
  ErrorCode code = all.Prepare(m_database, "SELECT schedule, name, next FROM windows");
  while (code == ERROR_SUCCESS && (code = all.Step(row)) == ERROR_SUCCESS && row) {
    if (IsTime(all, 2)) read[all.Text(0)] = {all.Text(1), all.Int(2)};
  }
  if (code == ERROR_SUCCESS) windows = std::move(read);
  return code;
}

ErrorCode HistoryStore::Entries(const HistoryQuery& query, std::vector<HistoryEntry>& entries) {
  std::string sql = std::string(kColumns) + "WHERE 1";
  if (query.schedule) sql += " AND schedule=?1";
  if (query.since) sql += " AND at>=?2";
  if (query.missed) sql += " AND kind IN ('missed','unknown')";
  sql += " ORDER BY id";
  Statement select;
  bool row = false;
  std::vector<HistoryEntry> read;
  ErrorCode code = select.Prepare(m_database, sql.c_str());
  if (code == ERROR_SUCCESS && query.schedule) select.Bind(0, *query.schedule);
  if (code == ERROR_SUCCESS && query.since) select.Bind(1, *query.since);
  while (code == ERROR_SUCCESS && (code = select.Step(row)) == ERROR_SUCCESS && row) {
    if (HistoryEntry entry; ReadEntry(select, entry)) read.push_back(std::move(entry));
  }
  if (code == ERROR_SUCCESS) entries = std::move(read);
  return code;
}

ErrorCode HistoryStore::Last(std::optional<HistoryEntry>& entry) {
  Statement select;
  bool row = false;
  ErrorCode code = select.Prepare(m_database, (std::string(kColumns) + "ORDER BY id DESC LIMIT 1").c_str());
  if (code == ERROR_SUCCESS) code = select.Step(row);
  if (code != ERROR_SUCCESS) return code;
  HistoryEntry read;
  entry = row && ReadEntry(select, read) ? std::optional(read) : std::nullopt;
  return ERROR_SUCCESS;
}

ErrorCode HistoryStore::Schedules(std::map<std::string, std::string>& names) {
  Statement select;
  bool row = false;
  std::map<std::string, std::string> read;
  ErrorCode code =
      select.Prepare(m_database, "SELECT schedule, name, max(id) FROM entries WHERE schedule<>'' GROUP BY schedule");
  while (code == ERROR_SUCCESS && (code = select.Step(row)) == ERROR_SUCCESS && row)
    read[select.Text(0)] = select.Text(1);
  if (code == ERROR_SUCCESS) names = std::move(read);
  return code;
}

ErrorCode HistoryStore::Size(std::uint64_t& bytes) {
  std::int64_t pages = 0;
  std::int64_t free = 0;
  ErrorCode code = ReadNumber("PRAGMA page_count", pages);
  if (code == ERROR_SUCCESS) code = ReadNumber("PRAGMA freelist_count", free);
  if (code == ERROR_SUCCESS) bytes = static_cast<std::uint64_t>(pages - free) * kPageSize;
  return code;
}

}  // namespace qx
