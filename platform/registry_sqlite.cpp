// The key store on one SQLite connection. Keys and values are rows; a name is stored as it was written and, beside it,
// folded to one case with its characters big end first, so that the order of the bytes is the order of the names.
// Each call copies what it reads and resets its statement before it returns: a statement left open would pin its
// snapshot and keep the write-ahead log growing.
#include "platform/registry.h"

#include <fcntl.h>
#include <locale.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>
#include <wctype.h>

#include <algorithm>
#include <atomic>
#include <array>
#include <bit>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <limits>
#include <mutex>
#include <optional>
#include <utility>

#include "platform/fault_point.h"
#include "platform/registry_inside.h"
#include "platform/registry_scan.h"
#include "platform/registry_sub_keys.h"
#include "platform/testing/registry_hook.h"
#include "platform/thread_annotations.h"

namespace platform {
namespace {

static_assert(std::endian::native == std::endian::little, "stored names and numbers have their little end first");

constexpr int kApplicationId = 0x51585247;  // "QXRG" in the file's header
constexpr int kSchemaVersion = 1;
constexpr int kBusyTimeoutMs = 5000;
constexpr std::uint32_t kMaxDamagedCopies = 1000;  // that may stand side by side
constexpr std::size_t kCopyBufferSize = 65536;

// --- Names ---

using Bytes = std::vector<unsigned char>;

// Upper case of each 16-bit unit, by the C library's Unicode table. The length never changes.
class FoldTable {
 public:
  FoldTable() {
    const locale_t unicode = ::newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    for (std::uint32_t unit = 0; unit < m_upper.size(); ++unit) {
      std::uint32_t upper = unit;
      // The dotless i and the long s would fall together with the ASCII letters I and S.
      if (unit != 0x131 && unit != 0x17F) {
        upper = unicode != nullptr ? ::towupper_l(unit, unicode) : (unit >= 'a' && unit <= 'z' ? unit - 32 : unit);
      }
      m_upper[unit] = static_cast<std::uint16_t>(upper <= 0xFFFF ? upper : unit);
    }
    if (unicode != nullptr) ::freelocale(unicode);
  }
  [[nodiscard]] std::uint16_t Upper(char16_t unit) const { return m_upper[unit]; }

 private:
  std::array<std::uint16_t, 0x10000> m_upper{};
};

Bytes Fold(std::u16string_view name) {
  static const FoldTable table;
  Bytes out;
  out.reserve(name.size() * 2);
  for (const char16_t unit : name) {
    const std::uint16_t upper = table.Upper(unit);
    out.push_back(static_cast<unsigned char>(upper >> 8));
    out.push_back(static_cast<unsigned char>(upper));
  }
  return out;
}

// For the details of the fault seam and for messages; a lone surrogate becomes "?".
[[maybe_unused]] std::string Narrow(std::u16string_view text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    std::uint32_t code = text[i];
    if (code >= 0xD800 && code < 0xDC00 && i + 1 < text.size() && text[i + 1] >= 0xDC00 && text[i + 1] < 0xE000) {
      code = 0x10000 + ((code - 0xD800) << 10) + (text[++i] - 0xDC00u);
    } else if (code >= 0xD800 && code < 0xE000) {
      code = '?';
    }
    if (code < 0x80) {
      out += static_cast<char>(code);
    } else if (code < 0x800) {
      out += static_cast<char>(0xC0 | (code >> 6));
      out += static_cast<char>(0x80 | (code & 0x3F));
    } else if (code < 0x10000) {
      out += static_cast<char>(0xE0 | (code >> 12));
      out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (code & 0x3F));
    } else {
      out += static_cast<char>(0xF0 | (code >> 18));
      out += static_cast<char>(0x80 | ((code >> 12) & 0x3F));
      out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (code & 0x3F));
    }
  }
  return out;
}

// Narrows only when a plan is installed.
ErrorCode AskFault([[maybe_unused]] Operation operation, [[maybe_unused]] std::u16string_view name) {
#ifdef QX_FAULT_SEAM
  if (detail::g_faultSeamArmed.load(std::memory_order_relaxed)) return FaultAt(operation, Narrow(name));
#endif
  return ERROR_SUCCESS;
}

ErrorCode SplitPath(std::u16string_view path, std::vector<std::u16string_view>& elements) {
  if (!path.empty() && path.front() == u'\\') return ERROR_BAD_PATHNAME;
  for (std::size_t begin = 0; begin < path.size();) {
    const std::size_t end = std::min(path.find(u'\\', begin), path.size());
    const std::u16string_view element = path.substr(begin, end - begin);
    if (element.size() > kMaxKeyNameLength || element.find(u'\0') != element.npos) return ERROR_INVALID_PARAMETER;
    if (!element.empty()) elements.push_back(element);
    begin = end + 1;
  }
  return ERROR_SUCCESS;
}

ErrorCode CheckValueName(std::u16string_view name) {
  return name.size() > kMaxValueNameLength || name.find(u'\0') != name.npos ? ERROR_INVALID_PARAMETER : ERROR_SUCCESS;
}

bool IsText(std::uint32_t type) {
  return type == REG_SZ || type == REG_EXPAND_SZ || type == REG_MULTI_SZ;
}

// --- SQLite ---

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

struct CloseConnection {
  void operator()(sqlite3* db) const { sqlite3_close(db); }
};
using Connection = std::unique_ptr<sqlite3, CloseConnection>;

struct FinalizeStatement {
  void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using Prepared = std::unique_ptr<sqlite3_stmt, FinalizeStatement>;

int Prepare(sqlite3* db, const char* sql, unsigned flags, Prepared& out) {
  sqlite3_stmt* raw = nullptr;
  const int rc = sqlite3_prepare_v3(db, sql, -1, flags, &raw, nullptr);
  out.reset(raw);
  return rc;
}

int Execute(sqlite3* db, const char* sql) {
  return sqlite3_exec(db, sql, nullptr, nullptr, nullptr);
}

// One use of a prepared statement, reset at its end. Arguments are borrowed until then.
class Use {
 public:
  explicit Use(const Prepared& statement) : m_statement(statement.get()) {}
  Use(const Use&) = delete;
  Use& operator=(const Use&) = delete;
  ~Use() {
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

constexpr const char* kSchemaSql =
    "CREATE TABLE keys(id INTEGER PRIMARY KEY AUTOINCREMENT,"
    " parent INTEGER REFERENCES keys(id) ON DELETE CASCADE,"
    " name BLOB NOT NULL, fold BLOB NOT NULL, UNIQUE(parent, fold));"
    "CREATE TABLE vals(key INTEGER NOT NULL REFERENCES keys(id) ON DELETE CASCADE,"
    " fold BLOB NOT NULL, name BLOB NOT NULL, type INTEGER NOT NULL, data BLOB NOT NULL,"
    " PRIMARY KEY(key, fold)) WITHOUT ROWID;";

// The statements that stay prepared.
enum Sql : std::size_t {
  kBegin,
  kCommit,
  kRollback,
  kLastId,
  kDataVersion,
  kKeyExists,
  kFindKey,
  kInsertKey,
  kDeleteKey,
  kHasChild,
  kKeyStats,
  kNextKey,
  kSameKey,
  kKeyAt,
  kFindValue,
  kSetValue,
  kDeleteValue,
  kNextValue,
  kSameValue,
  kValueAt,
  kSubKeys,
  kValues,
  kSqlCount
};
// In the order of Sql.
constexpr const char* kSqlText[] = {
    "BEGIN IMMEDIATE",
    "COMMIT",
    "ROLLBACK",
    "SELECT seq FROM sqlite_sequence WHERE name='keys'",
    "PRAGMA data_version",
    "SELECT 1 FROM keys WHERE id=?",
    "SELECT id FROM keys WHERE parent=? AND fold=?",
    "INSERT INTO keys(parent, name, fold) VALUES(?,?,?)",
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
};
static_assert(std::size(kSqlText) == kSqlCount);

// --- Roots ---

struct Root {
  Hive hive;
  std::int64_t id;  // row in keys; part of the file's format
  std::u16string_view shortName;
  std::u16string_view longName;
  std::u16string_view firstChildren[2];  // made with the store
  bool takesNewChildren;
};
constexpr Root kRoots[] = {
    {Hive::kClassesRoot, 1, u"HKCR", u"HKEY_CLASSES_ROOT", {}, true},
    {Hive::kCurrentUser, 2, u"HKCU", u"HKEY_CURRENT_USER", {u"Software"}, true},
    {Hive::kLocalMachine, 3, u"HKLM", u"HKEY_LOCAL_MACHINE", {u"SOFTWARE", u"SYSTEM"}, false},
    {Hive::kUsers, 4, u"HKU", u"HKEY_USERS", {u".DEFAULT"}, false},
    {Hive::kCurrentConfig, 6, u"HKCC", u"HKEY_CURRENT_CONFIG", {}, true},
};
constexpr std::int64_t kLastRootId = 6;

const Root* FindRoot(Hive hive) {
  const auto* root = std::find_if(std::begin(kRoots), std::end(kRoots), [&](const Root& r) { return r.hive == hive; });
  return root == std::end(kRoots) ? nullptr : root;
}

bool RefusesNewChildren(std::int64_t id) {
  return std::any_of(std::begin(kRoots), std::end(kRoots),
                     [&](const Root& root) { return root.id == id && !root.takesNewChildren; });
}

// --- The lock ---

class QX_CAPABILITY("mutex") Mutex {
 public:
  void Lock() QX_ACQUIRE() { m_mutex.lock(); }
  void Unlock() QX_RELEASE() { m_mutex.unlock(); }

 private:
  std::mutex m_mutex;
};

class QX_SCOPED_CAPABILITY Guard {
 public:
  explicit Guard(Mutex& mutex) QX_ACQUIRE(mutex) : m_mutex(mutex) { m_mutex.Lock(); }
  ~Guard() QX_RELEASE() { m_mutex.Unlock(); }
  Guard(const Guard&) = delete;
  Guard& operator=(const Guard&) = delete;

 private:
  Mutex& m_mutex;
};

// --- State of handles ---

// The writes between a BEGIN and its end.
struct Batch {
  bool isLost = false;
  bool isOpen = true;
  ErrorCode code = ERROR_SUCCESS;  // why it was lost
  std::int64_t lastIdBefore = 0;   // ids above this one go with the batch when it is lost, and are given anew later
  std::uint32_t writers = 0;       // handles that wrote into it
};

// Where an enumeration stands.
struct Cursor {
  bool isValid = false;
  std::uint32_t index = 0;
  Bytes fold;
  std::uint64_t changes = 0;
  std::int64_t dataVersion = 0;
};

struct Place {
  std::int64_t id = 0;
  std::uint32_t depth = 0;
};

// The values of a key as they were when somebody asked about the key: whoever does so is about to read them, one by one,
// and each look at the store costs a transaction. Good for kCopyTrust, and only as long as this process doesn't write.
constexpr std::chrono::milliseconds kCopyTrust{5};
constexpr std::size_t kMostCopied = 65536;  // bytes of all values of a key; more aren't copied
constexpr std::size_t kUsualValues = 16;    // of a key, and their bytes
constexpr std::size_t kUsualBytes = 1024;
struct ValueCopies {
  struct Value {
    std::uint32_t type = 0;
    std::size_t fold = 0;  // where the folded name begins, its end and the end of the data behind it
    std::size_t data = 0;
    std::size_t end = 0;
  };
  std::chrono::steady_clock::time_point made;
  std::uint64_t changes = 0;  // of the store, likewise
  std::vector<Value> values;
  std::vector<std::byte> bytes;

  void Add(std::span<const std::byte> fold, std::uint32_t type, std::span<const std::byte> data) {
    const std::size_t begin = bytes.size();
    bytes.insert(bytes.end(), fold.begin(), fold.end());
    bytes.insert(bytes.end(), data.begin(), data.end());
    values.push_back({type, begin, begin + fold.size(), bytes.size()});
  }
  [[nodiscard]] const Value* Find(const Bytes& fold) const {
    const auto at = std::find_if(values.begin(), values.end(), [&](const Value& value) {
      return value.data - value.fold == fold.size() && std::memcmp(&bytes[value.fold], fold.data(), fold.size()) == 0;
    });
    return at == values.end() ? nullptr : &*at;
  }
};

}  // namespace

namespace detail {
struct RegistryKeyState {
  std::uint64_t storeNumber = 0;
  Place place;
  std::uint32_t access = 0;
  std::u16string name;           // last element, for the fault seam
  std::shared_ptr<Batch> seen;   // open when this handle was opened: its key may go with it
  std::shared_ptr<Batch> wrote;  // the last one that this handle wrote into
  Cursor keys;
  Cursor values;
  std::optional<ValueCopies> copies;

  static RegistryKeyState* Of(const RegistryKey& key) { return key.m_state.get(); }
  static void Put(RegistryKey& key, std::unique_ptr<RegistryKeyState> state) {
    RegistryKey fresh;
    fresh.m_state = std::move(state);
    key = std::move(fresh);
  }
};
}  // namespace detail

namespace {

using Handle = detail::RegistryKeyState;

struct Item {
  std::u16string name;
  std::uint32_t type = 0;
  std::vector<std::byte> data;
};

// --- The store. Every member is called under the lock. ---

class Store {
 public:
  [[nodiscard]] ErrorCode Open(const std::string& path, std::string& why);
  [[nodiscard]] ErrorCode Shut() { return m_batch ? Commit() : ERROR_SUCCESS; }

  [[nodiscard]] std::uint64_t Number() const { return m_number; }
  [[nodiscard]] const std::string& Path() const { return m_path; }
  [[nodiscard]] std::uint64_t Changes() const { return m_changes; }
  [[nodiscard]] ErrorCode DataVersion(std::int64_t& out);
  [[nodiscard]] std::shared_ptr<Batch> OpenBatch() const { return m_batch; }

  [[nodiscard]] ErrorCode Locate(Place from, std::span<const std::u16string_view> elements, Place& out);
  [[nodiscard]] ErrorCode Create(Place from, std::span<const std::u16string_view> elements, Place& out, bool& created);
  [[nodiscard]] ErrorCode Delete(Handle& parent, std::span<const std::u16string_view> elements, bool withChildren);
  // `copies` gets the values, unless they are too many.
  [[nodiscard]] ErrorCode Info(Place place, KeyInfo& out, std::optional<ValueCopies>& copies);
  [[nodiscard]] ErrorCode Find(Place place, std::u16string_view name, Item& out);
  [[nodiscard]] ErrorCode Set(Handle& handle, std::u16string_view name, std::uint32_t type, const void* data,
                              std::size_t size);
  [[nodiscard]] ErrorCode Remove(Handle& handle, std::u16string_view name);
  [[nodiscard]] ErrorCode Enumerate(Handle& handle, bool values, std::uint32_t index, Item& out);
  // For each sub key `value` with every one of its values, then `subKey` with its name.
  using SubKeySeen = std::function<void(std::u16string name, ErrorCode failure)>;
  using ValueSeen = std::function<void(std::span<const std::byte> fold, std::uint32_t type,
                                       std::span<const std::byte> data)>;
  [[nodiscard]] ErrorCode SubKeys(Place place, std::u16string_view after, std::size_t most, const ValueSeen& value,
                                  const SubKeySeen& subKey);

  void Join(Handle& handle);
  [[nodiscard]] ErrorCode Commit();
  void Lose(ErrorCode code);
  [[nodiscard]] ErrorCode LimitGrowth(std::uint32_t morePages);

 private:
  [[nodiscard]] ErrorCode MakeSchema();
  [[nodiscard]] ErrorCode Begin();
  [[nodiscard]] ErrorCode Exists(Place place);
  [[nodiscard]] ErrorCode LocateAnew(Place from, std::span<const std::u16string_view> elements, Place& out);
  [[nodiscard]] ErrorCode FindChild(std::int64_t parent, const Bytes& fold, std::int64_t& id);
  [[nodiscard]] ErrorCode InsertChild(std::int64_t parent, std::u16string_view name, std::int64_t& id);
  [[nodiscard]] ErrorCode LocateForDeletion(Place from, std::span<const std::u16string_view> elements,
                                            bool withChildren, Place& out);
  [[nodiscard]] ErrorCode FailedWrite(ErrorCode code);
  [[nodiscard]] int Run(Sql sql) { return Use(m_sql[sql]).Step(); }

  std::uint64_t m_number = 0;
  std::string m_path;
  Connection m_db;
  std::array<Prepared, kSqlCount> m_sql;
  std::shared_ptr<Batch> m_batch;
  std::uint64_t m_changes = 0;  // of this process, a loss included

  // The last path of several elements that was followed, and where it led to.
  struct Followed {
    std::int64_t from = 0;
    std::vector<std::u16string> elements;
    Place place;
    std::uint64_t changes = 0;
    std::int64_t dataVersion = 0;
  } m_followed;
};

Mutex g_lock;
std::unique_ptr<Store> g_store QX_GUARDED_BY(g_lock);

// SQLite gives some names a meaning of their own.
std::string PlainPath(const std::string& path) {
  return path.empty() || path.front() == '/' ? path : "./" + path;
}

// Opens a connection that leaves the file as it is: the log is not written back when it closes.
ErrorCode Connect(const std::string& path, Connection& db, std::string& why) {
  sqlite3* raw = nullptr;
  const int rc = sqlite3_open_v2(PlainPath(path).c_str(), &raw, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
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

// Whose file this is. Changes nothing in it.
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
  const int rc = Execute(m_db.get(),
                         "PRAGMA synchronous=FULL; PRAGMA foreign_keys=ON; PRAGMA journal_size_limit=4194304;"
                         "PRAGMA trusted_schema=OFF;");
  if (rc != SQLITE_OK) return fail(CodeFromSqlite(rc));
  if (isNew) {
    if (const ErrorCode code = MakeSchema(); code != ERROR_SUCCESS) return fail(code);
  }
  for (std::size_t i = 0; i < kSqlCount; ++i) {
    const int result = Prepare(m_db.get(), kSqlText[i], SQLITE_PREPARE_PERSISTENT, m_sql[i]);
    if (result == SQLITE_ERROR) return fail(ERROR_REGISTRY_CORRUPT);  // a table or column is missing
    if (result != SQLITE_OK) return fail(CodeFromSqlite(result));
  }
  sqlite3_db_config(m_db.get(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 0, nullptr);
  static std::atomic<std::uint64_t> lastNumber{0};
  m_number = ++lastNumber;
  m_path = PlainPath(path);
  return ERROR_SUCCESS;
}

ErrorCode Store::MakeSchema() {
  sqlite3* db = m_db.get();
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
    if (rc == SQLITE_OK) rc = Prepare(db, kSqlText[kInsertKey], 0, child);
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

// --- Batches ---

// Joins the open batch or begins one. A batch that nobody joins is taken back by FailedWrite().
ErrorCode Store::Begin() {
  if (m_batch) return ERROR_SUCCESS;
  if (const int rc = Run(kBegin); rc != SQLITE_DONE) return CodeFromSqlite(rc);
  auto batch = std::make_shared<Batch>();
  {
    Use use(m_sql[kLastId]);
    const int rc = use.Step();
    if (rc == SQLITE_ROW) batch->lastIdBefore = use.Int(0);
  }
  m_batch = std::move(batch);
  return ERROR_SUCCESS;
}

void Store::Join(Handle& handle) {
  if (handle.wrote == m_batch) return;
  handle.wrote = m_batch;
  ++m_batch->writers;
}

// The disk may have taken the whole transaction back on its own.
ErrorCode Store::FailedWrite(ErrorCode code) {
  if (!m_batch) return code;
  if (sqlite3_get_autocommit(m_db.get()) != 0) {
    Lose(code);
  } else if (m_batch->writers == 0) {
    (void)Run(kRollback);
    Lose(code);
  }
  return code;
}

void Store::Lose(ErrorCode code) {
  if (sqlite3_get_autocommit(m_db.get()) == 0) (void)Run(kRollback);
  m_batch->isLost = true;
  m_batch->isOpen = false;
  m_batch->code = code;
  m_batch.reset();
  ++m_changes;
}

ErrorCode Store::Commit() {
  if (const int rc = Run(kCommit); rc != SQLITE_DONE) {
    const ErrorCode code = CodeFromSqlite(rc);
    Lose(code);
    return code;
  }
  m_batch->isOpen = false;
  m_batch.reset();
  return ERROR_SUCCESS;
}

// --- Keys ---

ErrorCode Store::Exists(Place place) {
  const int rc = Use(m_sql[kKeyExists]).Arg(place.id).Step();
  if (rc == SQLITE_ROW) return ERROR_SUCCESS;
  return rc == SQLITE_DONE ? ERROR_KEY_DELETED : CodeFromSqlite(rc);
}

ErrorCode Store::FindChild(std::int64_t parent, const Bytes& fold, std::int64_t& id) {
  Use use(m_sql[kFindKey]);
  const int rc = use.Arg(parent).Arg(fold).Step();
  if (rc == SQLITE_DONE) return ERROR_FILE_NOT_FOUND;
  if (rc != SQLITE_ROW) return CodeFromSqlite(rc);
  id = use.Int(0);
  return ERROR_SUCCESS;
}

ErrorCode Store::InsertChild(std::int64_t parent, std::u16string_view name, std::int64_t& id) {
  const Bytes fold = Fold(name);
  const int rc = Use(m_sql[kInsertKey]).Arg(parent).Arg(name).Arg(fold).Step();
  if (rc != SQLITE_DONE) return CodeFromSqlite(rc);
  id = sqlite3_last_insert_rowid(m_db.get());
  ++m_changes;
  return ERROR_SUCCESS;
}

// Follows the elements; on ERROR_FILE_NOT_FOUND `out` is the last key that is there.
ErrorCode Store::Locate(Place from, std::span<const std::u16string_view> elements, Place& out) {
  if (elements.size() < 2) return LocateAnew(from, elements, out);
  Use version(m_sql[kDataVersion]);  // not reset before the end: one transaction for all
  if (const int rc = version.Step(); rc != SQLITE_ROW) return CodeFromSqlite(rc);
  const std::int64_t dataVersion = version.Int(0);
  if (m_followed.changes == m_changes && m_followed.dataVersion == dataVersion && m_followed.from == from.id &&
      std::equal(elements.begin(), elements.end(), m_followed.elements.begin(), m_followed.elements.end())) {
    out = m_followed.place;
    return ERROR_SUCCESS;
  }
  const ErrorCode code = LocateAnew(from, elements, out);
  if (code == ERROR_SUCCESS) m_followed = {from.id, {elements.begin(), elements.end()}, out, m_changes, dataVersion};
  return code;
}

ErrorCode Store::LocateAnew(Place from, std::span<const std::u16string_view> elements, Place& out) {
  out = from;
  if (elements.empty()) return Exists(from);
  for (const std::u16string_view element : elements) {
    std::int64_t id = 0;
    const ErrorCode code = FindChild(out.id, Fold(element), id);
    if (code == ERROR_FILE_NOT_FOUND && out.depth == from.depth) {
      if (const ErrorCode gone = Exists(from); gone != ERROR_SUCCESS) return gone;
    }
    if (code != ERROR_SUCCESS) return code;
    out = {id, out.depth + 1};
  }
  return ERROR_SUCCESS;
}

ErrorCode Store::Create(Place from, std::span<const std::u16string_view> elements, Place& out, bool& created) {
  created = false;
  ErrorCode code = Locate(from, elements, out);
  if (code != ERROR_FILE_NOT_FOUND) {
    // Deliberate: an empty path opens the parent itself and says that a key was made.
    created = code == ERROR_SUCCESS && elements.empty();
    return code;
  }
  if (from.depth + elements.size() > kMaxKeyDepth) return ERROR_INVALID_PARAMETER;
  if (out.depth == 0 && RefusesNewChildren(out.id)) return ERROR_INVALID_PARAMETER;
  if (code = Begin(); code != ERROR_SUCCESS) return code;
  // Once more: another process may have changed the keys until the batch began.
  code = Locate(from, elements, out);
  if (code == ERROR_SUCCESS) {
    if (m_batch->writers == 0) (void)FailedWrite(code);
    return code;
  }
  if (code != ERROR_FILE_NOT_FOUND) return FailedWrite(code);
  if (out.depth == 0 && RefusesNewChildren(out.id)) return FailedWrite(ERROR_INVALID_PARAMETER);
  const std::size_t present = out.depth - from.depth;
  const bool several = elements.size() - present > 1;
  if (several) {
    if (const int rc = Execute(m_db.get(), "SAVEPOINT path"); rc != SQLITE_OK) return FailedWrite(CodeFromSqlite(rc));
  }
  for (const std::u16string_view element : elements.subspan(present)) {
    std::int64_t id = 0;
    if (code = InsertChild(out.id, element, id); code != ERROR_SUCCESS) {
      if (several && sqlite3_get_autocommit(m_db.get()) == 0) {
        (void)Execute(m_db.get(), "ROLLBACK TO path; RELEASE path");
      }
      return FailedWrite(code);
    }
    out = {id, out.depth + 1};
  }
  if (several) {
    if (const int rc = Execute(m_db.get(), "RELEASE path"); rc != SQLITE_OK) return FailedWrite(CodeFromSqlite(rc));
  }
  created = true;
  return ERROR_SUCCESS;
}

ErrorCode Store::LocateForDeletion(Place from, std::span<const std::u16string_view> elements, bool withChildren,
                                   Place& out) {
  if (const ErrorCode code = Locate(from, elements, out); code != ERROR_SUCCESS) return code;
  if (out.id <= kLastRootId) return ERROR_ACCESS_DENIED;
  if (withChildren) return ERROR_SUCCESS;
  const int rc = Use(m_sql[kHasChild]).Arg(out.id).Step();
  if (rc == SQLITE_ROW) return ERROR_ACCESS_DENIED;
  return rc == SQLITE_DONE ? ERROR_SUCCESS : CodeFromSqlite(rc);
}

ErrorCode Store::Delete(Handle& parent, std::span<const std::u16string_view> elements, bool withChildren) {
  Place place;
  // First without the file's lock: most refusals need none.
  ErrorCode code = LocateForDeletion(parent.place, elements, withChildren, place);
  if (code != ERROR_SUCCESS) return code;
  if (code = Begin(); code != ERROR_SUCCESS) return code;
  if (code = LocateForDeletion(parent.place, elements, withChildren, place); code != ERROR_SUCCESS) {
    return FailedWrite(code);
  }
  // Everything below goes with its key, values too.
  if (const int rc = Use(m_sql[kDeleteKey]).Arg(place.id).Step(); rc != SQLITE_DONE) {
    return FailedWrite(CodeFromSqlite(rc));
  }
  ++m_changes;
  Join(parent);
  return ERROR_SUCCESS;
}

ErrorCode Store::Info(Place place, KeyInfo& out, std::optional<ValueCopies>& copies) {
  KeyInfo info;
  ValueCopies read;
  {
    Use keys(m_sql[kKeyStats]);  // not reset before the values are read: one transaction for both
    if (const int rc = keys.Arg(place.id).Step(); rc != SQLITE_ROW) return CodeFromSqlite(rc);
    info.subKeyCount = static_cast<std::uint32_t>(keys.Int(0));
    info.maxSubKeyLength = static_cast<std::uint32_t>(keys.Int(1) / 2);
    Use values(m_sql[kValues]);
    values.Arg(place.id);
    read.values.reserve(kUsualValues);
    read.bytes.reserve(kUsualBytes);
    int rc = SQLITE_OK;
    while ((rc = values.Step()) == SQLITE_ROW) {
      const auto fold = values.Blob(0);
      const auto data = values.Blob(2);
      ++info.valueCount;
      info.maxValueNameLength = std::max(info.maxValueNameLength, static_cast<std::uint32_t>(fold.size() / 2));
      info.maxValueLength = std::max(info.maxValueLength, static_cast<std::uint32_t>(data.size()));
      if (read.bytes.size() <= kMostCopied) read.Add(fold, static_cast<std::uint32_t>(values.Int(1)), data);
    }
    if (rc != SQLITE_DONE) return CodeFromSqlite(rc);
  }
  if (info.subKeyCount == 0 && info.valueCount == 0) {
    if (const ErrorCode code = Exists(place); code != ERROR_SUCCESS) return code;
  }
  copies.reset();
  if (read.bytes.size() <= kMostCopied) {
    read.made = std::chrono::steady_clock::now();
    read.changes = m_changes;
    copies = std::move(read);
  }
  out = info;
  return ERROR_SUCCESS;
}

// --- Values ---

ErrorCode Store::Find(Place place, std::u16string_view name, Item& out) {
  {
    const Bytes fold = Fold(name);
    Use use(m_sql[kFindValue]);
    const int rc = use.Arg(place.id).Arg(fold).Step();
    if (rc == SQLITE_ROW) {
      const auto blob = use.Blob(1);
      out.type = static_cast<std::uint32_t>(use.Int(0));
      out.data.assign(blob.begin(), blob.end());
      return ERROR_SUCCESS;
    }
    if (rc != SQLITE_DONE) return CodeFromSqlite(rc);
  }
  const ErrorCode code = Exists(place);
  return code == ERROR_SUCCESS ? ERROR_FILE_NOT_FOUND : code;
}

ErrorCode Store::Set(Handle& handle, std::u16string_view name, std::uint32_t type, const void* data, std::size_t size) {
  if (const ErrorCode code = Begin(); code != ERROR_SUCCESS) return code;
  const Bytes fold = Fold(name);
  const int rc =
      Use(m_sql[kSetValue]).Arg(handle.place.id).Arg(fold).Arg(name).Arg(std::int64_t{type}).Arg(data, size).Step();
  if (rc != SQLITE_DONE) return FailedWrite(CodeFromSqlite(rc));
  ++m_changes;
  Join(handle);
  return ERROR_SUCCESS;
}

ErrorCode Store::Remove(Handle& handle, std::u16string_view name) {
  if (const ErrorCode code = Begin(); code != ERROR_SUCCESS) return code;
  const Bytes fold = Fold(name);
  const int rc = Use(m_sql[kDeleteValue]).Arg(handle.place.id).Arg(fold).Step();
  if (rc != SQLITE_DONE) return FailedWrite(CodeFromSqlite(rc));
  if (sqlite3_changes(m_db.get()) == 0) {
    const ErrorCode code = Exists(handle.place);
    return FailedWrite(code == ERROR_SUCCESS ? ERROR_FILE_NOT_FOUND : code);
  }
  ++m_changes;
  Join(handle);
  return ERROR_SUCCESS;
}

// --- Enumeration ---

ErrorCode Store::DataVersion(std::int64_t& out) {
  Use use(m_sql[kDataVersion]);
  if (const int rc = use.Step(); rc != SQLITE_ROW) return CodeFromSqlite(rc);
  out = use.Int(0);
  return ERROR_SUCCESS;
}

// Counting to an index costs as much as the index is high; the step from the last name costs the same everywhere, and
// holds as long as nobody changed anything.
ErrorCode Store::Enumerate(Handle& handle, bool values, std::uint32_t index, Item& out) {
  Cursor& cursor = values ? handle.values : handle.keys;
  std::int64_t dataVersion = 0;
  if (const ErrorCode code = DataVersion(dataVersion); code != ERROR_SUCCESS) return code;
  const bool holds = cursor.isValid && cursor.changes == m_changes && cursor.dataVersion == dataVersion;
  const bool isSame = holds && index == cursor.index;
  const bool isNext = holds && index == std::uint64_t{cursor.index} + 1;
  const Sql sql = isSame   ? (values ? kSameValue : kSameKey)
                  : isNext ? (values ? kNextValue : kNextKey)
                           : (values ? kValueAt : kKeyAt);
  {
    const Bytes last = cursor.fold;
    Use use(m_sql[sql]);
    use.Arg(handle.place.id);
    if (isSame || isNext) {
      use.Arg(last);
    } else {
      use.Arg(std::int64_t{index});
    }
    const int rc = use.Step();
    if (rc == SQLITE_ROW) {
      out.name = use.Name(0);
      const auto fold = use.Blob(1);
      cursor.fold.resize(fold.size());
      if (!fold.empty()) std::memcpy(cursor.fold.data(), fold.data(), fold.size());
      if (values) {
        out.type = static_cast<std::uint32_t>(use.Int(2));
        const auto blob = use.Blob(3);
        out.data.assign(blob.begin(), blob.end());
      }
      cursor.index = index;
      cursor.changes = m_changes;
      cursor.dataVersion = dataVersion;
      cursor.isValid = true;
      return ERROR_SUCCESS;
    }
    if (rc != SQLITE_DONE) return CodeFromSqlite(rc);
  }
  const ErrorCode code = Exists(handle.place);
  return code == ERROR_SUCCESS ? ERROR_NO_MORE_ITEMS : code;
}

// One transaction for all, or each statement would take and give back the locks of the file anew.
ErrorCode Store::SubKeys(Place place, std::u16string_view after, std::size_t most, const ValueSeen& value,
                         const SubKeySeen& subKey) {
  struct Transaction {
    sqlite3* db = nullptr;
    ~Transaction() {
      if (db != nullptr) (void)Execute(db, "COMMIT");
    }
  } transaction;
  if (sqlite3_get_autocommit(m_db.get()) != 0) {
    if (const int rc = Execute(m_db.get(), "BEGIN"); rc != SQLITE_OK) return CodeFromSqlite(rc);
    transaction.db = m_db.get();
  }
  bool any = false;
  {
    const Bytes fold = Fold(after);
    Use keys(m_sql[kSubKeys]);
    keys.Arg(place.id).Arg(fold).Arg(static_cast<std::int64_t>(most));
    int rc = SQLITE_OK;
    while ((rc = keys.Step()) == SQLITE_ROW) {
      any = true;
      if (!value) {
        subKey(keys.Name(1), ERROR_SUCCESS);
        continue;
      }
      Use values(m_sql[kValues]);
      values.Arg(keys.Int(0));
      int read = SQLITE_OK;
      while ((read = values.Step()) == SQLITE_ROW) {
        value(values.Blob(0), static_cast<std::uint32_t>(values.Int(1)), values.Blob(2));
      }
      subKey(keys.Name(1), read == SQLITE_DONE ? ErrorCode{ERROR_SUCCESS} : CodeFromSqlite(read));
    }
    if (rc != SQLITE_DONE) return CodeFromSqlite(rc);
  }
  return any ? ErrorCode{ERROR_SUCCESS} : Exists(place);
}

ErrorCode Store::LimitGrowth(std::uint32_t morePages) {
  std::int64_t pages = 0;
  if (const int rc = QueryInt(m_db.get(), "PRAGMA page_count", pages); rc != SQLITE_OK) return CodeFromSqlite(rc);
  const std::string sql = "PRAGMA max_page_count=" + std::to_string(pages + morePages);
  return CodeFromSqlite(Execute(m_db.get(), sql.c_str()));
}

// --- What every call does first ---

// The key's handle, when it can be worked with.
ErrorCode Enter(const RegistryKey& key, Handle*& out) QX_REQUIRES(g_lock) {
  Handle* handle = Handle::Of(key);
  if (handle == nullptr) return ERROR_INVALID_HANDLE;
  if (!g_store) return ERROR_BADDB;
  if (handle->storeNumber != g_store->Number()) return ERROR_INVALID_HANDLE;
  // Its number may have been given to another key since.
  if (handle->seen && handle->seen->isLost && handle->place.id > handle->seen->lastIdBefore) return ERROR_KEY_DELETED;
  out = handle;
  return ERROR_SUCCESS;
}

ErrorCode EnterToRead(const RegistryKey& key, std::uint32_t right, Handle*& out) QX_REQUIRES(g_lock) {
  if (const ErrorCode code = Enter(key, out); code != ERROR_SUCCESS) return code;
  return (out->access & right) == right ? ERROR_SUCCESS : ERROR_ACCESS_DENIED;
}

// A handle whose batch was lost writes no more: what came after would stand without what came before.
ErrorCode EnterToWrite(const RegistryKey& key, std::uint32_t right, Handle*& out) QX_REQUIRES(g_lock) {
  if (Handle* handle = Handle::Of(key); handle != nullptr && handle->wrote && handle->wrote->isLost) {
    return handle->wrote->code;
  }
  return EnterToRead(key, right, out);
}

// A handle for one of the roots, for the time of a call.
ErrorCode EnterRoot(Hive hive, Handle& out) QX_REQUIRES(g_lock) {
  if (!g_store) return ERROR_BADDB;
  const Root* root = FindRoot(hive);
  if (root == nullptr) return ERROR_INVALID_HANDLE;
  out.storeNumber = g_store->Number();
  out.place = {root->id, 0};
  return ERROR_SUCCESS;
}

std::unique_ptr<Handle> MakeHandle(Place place, std::uint32_t access, std::span<const std::u16string_view> elements)
    QX_REQUIRES(g_lock) {
  auto handle = std::make_unique<Handle>();
  handle->storeNumber = g_store->Number();
  handle->place = place;
  handle->access = access;
  if (!elements.empty()) handle->name = elements.back();
  handle->seen = g_store->OpenBatch();
  return handle;
}

ErrorCode OpenBelow(const Handle& parent, std::u16string_view subKey, std::uint32_t access,
                    std::unique_ptr<Handle>& out) QX_REQUIRES(g_lock) {
  std::vector<std::u16string_view> elements;
  if (const ErrorCode code = SplitPath(subKey, elements); code != ERROR_SUCCESS) return code;
  Place place;
  if (const ErrorCode code = g_store->Locate(parent.place, elements, place); code != ERROR_SUCCESS) return code;
  out = MakeHandle(place, access, elements);
  if (elements.empty()) out->name = parent.name;
  return ERROR_SUCCESS;
}

ErrorCode CreateBelow(const Handle& parent, std::u16string_view subKey, std::uint32_t access,
                      std::unique_ptr<Handle>& out, bool& created) QX_REQUIRES(g_lock) {
  std::vector<std::u16string_view> elements;
  if (const ErrorCode code = SplitPath(subKey, elements); code != ERROR_SUCCESS) return code;
  Place place;
  if (const ErrorCode code = g_store->Create(parent.place, elements, place, created); code != ERROR_SUCCESS) {
    return code;
  }
  out = MakeHandle(place, access, elements);
  if (elements.empty()) {
    out->name = parent.name;
  } else if (created) {
    g_store->Join(*out);
  }
  return ERROR_SUCCESS;
}

ErrorCode DeleteBelow(Handle& parent, std::u16string_view subKey, bool withChildren) QX_REQUIRES(g_lock) {
  std::vector<std::u16string_view> elements;
  if (const ErrorCode code = SplitPath(subKey, elements); code != ERROR_SUCCESS) return code;
  return g_store->Delete(parent, elements, withChildren);
}

ErrorCode DeleteFromRoot(Hive hive, std::u16string_view subKey, bool withChildren) {
  if (const ErrorCode code = AskFault(Operation::kRegDeleteKey, subKey); code != ERROR_SUCCESS) return code;
  if (subKey.data() == nullptr) return ERROR_INVALID_PARAMETER;
  const Guard guard(g_lock);
  Handle root;
  if (const ErrorCode code = EnterRoot(hive, root); code != ERROR_SUCCESS) return code;
  if (const ErrorCode code = DeleteBelow(root, subKey, withChildren); code != ERROR_SUCCESS) return code;
  return g_store->Commit();
}

ErrorCode DeleteFromKey(const RegistryKey& parent, std::u16string_view subKey, bool withChildren) {
  if (const ErrorCode code = AskFault(Operation::kRegDeleteKey, subKey); code != ERROR_SUCCESS) return code;
  const Guard guard(g_lock);
  Handle* handle = nullptr;
  if (const ErrorCode code = EnterToWrite(parent, 0, handle); code != ERROR_SUCCESS) return code;
  if (subKey.data() == nullptr) return ERROR_INVALID_PARAMETER;
  return DeleteBelow(*handle, subKey, withChildren);
}

// The values as they were a moment ago; null when the store itself is to be asked.
const ValueCopies* CopiesOf(const Handle& handle) QX_REQUIRES(g_lock) {
  const auto& copies = handle.copies;
  const bool good = copies && copies->changes == g_store->Changes() &&
                    std::chrono::steady_clock::now() - copies->made < kCopyTrust;
  return good ? &*copies : nullptr;
}

ErrorCode FindValue(const RegistryKey& key, std::u16string_view name, Item& out) {
  if (const ErrorCode code = AskFault(Operation::kRegQueryValue, name); code != ERROR_SUCCESS) return code;
  const Guard guard(g_lock);
  Handle* handle = nullptr;
  if (const ErrorCode code = EnterToRead(key, KEY_QUERY_VALUE, handle); code != ERROR_SUCCESS) return code;
  if (const ValueCopies* copies = CopiesOf(*handle)) {
    const ValueCopies::Value* value = copies->Find(Fold(name));
    if (value == nullptr) return ERROR_FILE_NOT_FOUND;
    const auto data = std::span(copies->bytes).subspan(value->data, value->end - value->data);
    out.type = value->type;
    out.data.assign(data.begin(), data.end());
    return ERROR_SUCCESS;
  }
  return g_store->Find(handle->place, name, out);
}

ErrorCode StoreValue(const RegistryKey& key, std::u16string_view name, std::uint32_t type, const void* data,
                     std::size_t size) {
  if (const ErrorCode code = AskFault(Operation::kRegSetValue, name); code != ERROR_SUCCESS) return code;
  if (const ErrorCode code = CheckValueName(name); code != ERROR_SUCCESS) return code;
  if (size > std::numeric_limits<std::uint32_t>::max()) return ERROR_INVALID_PARAMETER;
  const Guard guard(g_lock);
  Handle* handle = nullptr;
  if (const ErrorCode code = EnterToWrite(key, KEY_SET_VALUE, handle); code != ERROR_SUCCESS) return code;
  if (data == nullptr && size != 0) return ERROR_NOACCESS;
  return g_store->Set(*handle, name, type, data, size);
}

ErrorCode EnumItem(const RegistryKey& key, bool values, std::uint32_t index, Item& out) {
  const Handle* named = Handle::Of(key);
  const Operation operation = values ? Operation::kRegEnumValue : Operation::kRegEnumKey;
  const ErrorCode fault = AskFault(operation, named != nullptr ? std::u16string_view(named->name) : u"");
  if (fault != ERROR_SUCCESS) return fault;
  const Guard guard(g_lock);
  Handle* handle = nullptr;
  const ErrorCode code = EnterToRead(key, values ? KEY_QUERY_VALUE : KEY_ENUMERATE_SUB_KEYS, handle);
  if (code != ERROR_SUCCESS) return code;
  return g_store->Enumerate(*handle, values, index, out);
}

// Gives data by the size protocol of reading values.
ErrorCode GiveData(const Item& item, std::uint32_t* type, void* data, std::uint32_t* size) {
  const std::size_t room = size != nullptr ? *size : 0;
  if (type != nullptr) *type = item.type;
  if (size != nullptr) *size = static_cast<std::uint32_t>(item.data.size());
  if (data == nullptr) return ERROR_SUCCESS;
  if (item.data.size() > room) return ERROR_MORE_DATA;
  if (!item.data.empty()) std::memcpy(data, item.data.data(), item.data.size());
  return ERROR_SUCCESS;
}

ErrorCode TextOf(std::uint32_t type, std::span<const std::byte> data, std::u16string& out) {
  if (!IsText(type) || data.size() % sizeof(char16_t) != 0) return ERROR_INVALID_DATA;
  std::u16string text(data.size() / sizeof(char16_t), u'\0');
  if (!text.empty()) std::memcpy(text.data(), data.data(), data.size());
  const std::u16string_view terminator(u"\0\0", type == REG_MULTI_SZ ? 2 : 1);
  if (!text.ends_with(terminator)) return ERROR_INVALID_DATA;
  out = text.substr(0, text.find(u'\0'));
  return ERROR_SUCCESS;
}

ErrorCode NumberOf(std::uint32_t type, std::span<const std::byte> data, std::uint32_t& out) {
  if (type != REG_DWORD || data.size() < sizeof(out)) return ERROR_INVALID_DATA;
  if (data.size() > sizeof(out)) return ERROR_MORE_DATA;
  std::memcpy(&out, data.data(), sizeof(out));
  return ERROR_SUCCESS;
}

ErrorCode GiveName(const std::u16string& text, char16_t* name, std::uint32_t* length) {
  if (text.size() >= *length) return ERROR_MORE_DATA;
  std::memcpy(name, text.c_str(), (text.size() + 1) * sizeof(char16_t));
  *length = static_cast<std::uint32_t>(text.size());
  return ERROR_SUCCESS;
}

}  // namespace

// --- The store's life ---

ErrorCode OpenRegistryStore(const std::string& nativePath, std::string* why) {
  std::string unused;
  std::string& reason = why != nullptr ? *why : unused;
  if (const ErrorCode code = FaultAt(Operation::kRegOpenStore, nativePath); code != ERROR_SUCCESS) {
    reason = nativePath + ": can't be opened";
    return code;
  }
  const Guard guard(g_lock);
  if (g_store) {
    reason = nativePath + ": a store is open already";
    return ERROR_BUSY;
  }
  auto store = std::make_unique<Store>();
  if (const ErrorCode code = store->Open(nativePath, reason); code != ERROR_SUCCESS) return code;
  g_store = std::move(store);
  return ERROR_SUCCESS;
}

ErrorCode CloseRegistryStore() {
  const Guard guard(g_lock);
  if (!g_store) return ERROR_BADDB;
  const ErrorCode code = g_store->Shut();
  g_store.reset();
  return code;
}

bool IsRegistryStoreOpen() {
  const Guard guard(g_lock);
  return g_store != nullptr;
}

ErrorCode LimitRegistryGrowth(std::uint32_t morePages) {
  const Guard guard(g_lock);
  return g_store ? g_store->LimitGrowth(morePages) : ERROR_BADDB;
}

ErrorCode CheckRegistryStore(const std::string& nativePath, std::string& where) {
  if (const ErrorCode code = FaultAt(Operation::kRegOpenStore, nativePath); code != ERROR_SUCCESS) return code;
  struct stat status {};
  if (::stat(nativePath.c_str(), &status) != 0) {
    where = nativePath + ": " + std::strerror(errno);
    return ErrorCodeFromErrno(errno);
  }
  std::string found;
  Connection db;
  bool isNew = false;
  ErrorCode code = Connect(nativePath, db, found);
  if (code == ERROR_SUCCESS) code = CheckOrigin(db.get(), nativePath, isNew, found);
  struct Check {
    const char* sql;
    bool isRowGood;  // a row "ok" is the good answer, else no row is
  };
  for (const Check& check : {Check{"PRAGMA quick_check(20)", true}, Check{"PRAGMA foreign_key_check", false}}) {
    if (code != ERROR_SUCCESS) break;
    Prepared statement;
    int rc = Prepare(db.get(), check.sql, 0, statement);
    Use use(statement);
    while (rc == SQLITE_OK && (rc = use.Step()) == SQLITE_ROW) {
      rc = SQLITE_OK;
      const std::string text = use.Text(0);
      if (check.isRowGood && text == "ok") continue;
      if (!found.empty()) found += '\n';
      found += nativePath + ": " + (check.isRowGood ? text : text + ": row " + use.Text(1) + " has no key");
      code = ERROR_REGISTRY_CORRUPT;
    }
    if (rc != SQLITE_DONE) {
      if (!found.empty()) found += '\n';
      found += nativePath + ": " + sqlite3_errmsg(db.get());
      code = CodeFromSqlite(rc);
    }
  }
  where = found;
  return code;
}

namespace {

class Descriptor {
 public:
  Descriptor(const std::string& path, int flags) : m_fd(::open(path.c_str(), flags | O_CLOEXEC, 0600)) {}
  ~Descriptor() {
    if (m_fd >= 0) ::close(m_fd);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  [[nodiscard]] int Get() const { return m_fd; }

 private:
  int m_fd;
};

// Up to `size` bytes, fewer only at the end of the file; -1 on failure.
ssize_t ReadBlock(int fd, unsigned char* buffer, std::size_t size) {
  std::size_t got = 0;
  while (got < size) {
    const ssize_t n = ::read(fd, buffer + got, size - got);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return -1;
    if (n == 0) break;
    got += static_cast<std::size_t>(n);
  }
  return static_cast<ssize_t>(got);
}

// A file that isn't there equals one that isn't there.
bool AreEqualFiles(const std::string& left, const std::string& right) {
  const Descriptor a(left, O_RDONLY);
  const Descriptor b(right, O_RDONLY);
  if (a.Get() < 0 || b.Get() < 0) return a.Get() < 0 && b.Get() < 0;
  Bytes bytesA(kCopyBufferSize);
  Bytes bytesB(kCopyBufferSize);
  for (;;) {
    const ssize_t gotA = ReadBlock(a.Get(), bytesA.data(), bytesA.size());
    const ssize_t gotB = ReadBlock(b.Get(), bytesB.data(), bytesB.size());
    if (gotA < 0 || gotA != gotB) return false;
    if (gotA == 0) return true;
    if (!std::equal(bytesA.begin(), bytesA.begin() + gotA, bytesB.begin())) return false;
  }
}

ErrorCode CopyFileTo(const std::string& from, const std::string& to) {
  if (const ErrorCode code = FaultAt(Operation::kCreateFile, to); code != ERROR_SUCCESS) return code;
  const Descriptor in(from, O_RDONLY);
  if (in.Get() < 0) return ErrorCodeFromErrno(errno);
  const Descriptor out(to, O_WRONLY | O_CREAT | O_EXCL);
  if (out.Get() < 0) return ErrorCodeFromErrno(errno);
  Bytes bytes(kCopyBufferSize);
  const auto fail = [&] {
    const ErrorCode code = ErrorCodeFromErrno(errno);
    ::unlink(to.c_str());
    return code;
  };
  for (;;) {
    const ssize_t got = ReadBlock(in.Get(), bytes.data(), bytes.size());
    if (got < 0) return fail();
    if (got == 0) break;
    for (ssize_t done = 0; done < got;) {
      const ssize_t n = ::write(out.Get(), bytes.data() + done, static_cast<std::size_t>(got - done));
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) return fail();
      done += n;
    }
  }
  return ::fsync(out.Get()) != 0 ? fail() : ERROR_SUCCESS;
}

}  // namespace

ErrorCode KeepDamagedCopy(const std::string& nativePath, std::string& copyPath) {
  // Closing any descriptor of the file would drop the open connection's locks on it.
  const Guard guard(g_lock);
  if (g_store) return ERROR_BUSY;
  const std::string logPath = nativePath + "-wal";
  for (std::uint32_t number = 1; number <= kMaxDamagedCopies; ++number) {
    const std::string name = nativePath + ".damaged" + (number == 1 ? "" : "." + std::to_string(number));
    struct stat status {};
    if (::lstat(name.c_str(), &status) == 0) {
      if (!AreEqualFiles(nativePath, name) || !AreEqualFiles(logPath, name + "-wal")) continue;
      copyPath = name;
      return ERROR_SUCCESS;
    }
    if (const ErrorCode code = CopyFileTo(nativePath, name); code != ERROR_SUCCESS) return code;
    const ErrorCode code =
        ::stat(logPath.c_str(), &status) == 0 ? CopyFileTo(logPath, name + "-wal") : ErrorCode{ERROR_SUCCESS};
    if (code != ERROR_SUCCESS) {
      ::unlink(name.c_str());
      return code;
    }
    copyPath = name;
    return ERROR_SUCCESS;
  }
  return ERROR_ALREADY_EXISTS;
}

bool ParseKeyPath(std::u16string_view text, Hive& hive, std::u16string& subKey) {
  const std::size_t end = std::min(text.find(u'\\'), text.size());
  const Bytes name = Fold(text.substr(0, end));
  struct Extra {
    Hive hive;
    std::u16string_view name;
  };
  // Roots that have a name, though they are never there.
  static constexpr Extra kNamesOnly[] = {{Hive::kPerformanceData, u"HKEY_PERFORMANCE_DATA"},
                                         {Hive::kDynData, u"HKEY_DYN_DATA"}};
  std::optional<Hive> found;
  for (const Root& root : kRoots) {
    if (name == Fold(root.shortName) || name == Fold(root.longName)) found = root.hive;
  }
  for (const Extra& extra : kNamesOnly) {
    if (name == Fold(extra.name)) found = extra.hive;
  }
  if (!found) return false;
  hive = *found;
  subKey = end < text.size() ? text.substr(end + 1) : std::u16string_view();
  return true;
}

// --- RegistryKey ---

RegistryKey::RegistryKey() noexcept = default;
RegistryKey::RegistryKey(RegistryKey&& other) noexcept = default;

RegistryKey& RegistryKey::operator=(RegistryKey&& other) noexcept {
  if (this == &other) return *this;
  if (m_state) (void)Close();
  m_state = std::move(other.m_state);
  return *this;
}

RegistryKey::~RegistryKey() {
  if (m_state) (void)Close();
}

ErrorCode RegistryKey::Close() {
  const std::unique_ptr<Handle> state = std::move(m_state);
  if (!state) return ERROR_INVALID_HANDLE;
  const ErrorCode fault = AskFault(Operation::kRegCloseKey, state->name);
  const Guard guard(g_lock);
  const std::shared_ptr<Batch>& wrote = state->wrote;
  if (wrote && wrote->isLost) return wrote->code;
  if (!g_store || state->storeNumber != g_store->Number()) return ERROR_INVALID_HANDLE;
  if (!wrote || !wrote->isOpen) return fault;
  if (fault == ERROR_SUCCESS) return g_store->Commit();
  g_store->Lose(fault);
  return fault;
}

// --- Keys ---

ErrorCode OpenKey(Hive parent, std::u16string_view subKey, std::uint32_t access, RegistryKey& out) {
  std::unique_ptr<Handle> opened;
  ErrorCode code = AskFault(Operation::kRegOpenKey, subKey);
  if (code == ERROR_SUCCESS) {
    const Guard guard(g_lock);
    Handle root;
    code = EnterRoot(parent, root);
    if (code == ERROR_SUCCESS) code = OpenBelow(root, subKey, access, opened);
  }
  Handle::Put(out, std::move(opened));
  return code;
}

ErrorCode OpenKey(const RegistryKey& parent, std::u16string_view subKey, std::uint32_t access, RegistryKey& out) {
  std::unique_ptr<Handle> opened;
  ErrorCode code = AskFault(Operation::kRegOpenKey, subKey);
  if (code == ERROR_SUCCESS) {
    const Guard guard(g_lock);
    Handle* handle = nullptr;
    code = Enter(parent, handle);
    if (code == ERROR_SUCCESS) code = OpenBelow(*handle, subKey, access, opened);
  }
  Handle::Put(out, std::move(opened));
  return code;
}

ErrorCode CreateKey(Hive parent, std::u16string_view subKey, std::uint32_t access, RegistryKey& out, bool* created) {
  std::unique_ptr<Handle> opened;
  bool isNew = false;
  ErrorCode code = AskFault(Operation::kRegCreateKey, subKey);
  if (code == ERROR_SUCCESS) {
    const Guard guard(g_lock);
    Handle root;
    code = EnterRoot(parent, root);
    if (code == ERROR_SUCCESS) code = CreateBelow(root, subKey, access, opened, isNew);
  }
  Handle::Put(out, std::move(opened));
  if (code == ERROR_SUCCESS && created != nullptr) *created = isNew;
  return code;
}

ErrorCode CreateKey(const RegistryKey& parent, std::u16string_view subKey, std::uint32_t access, RegistryKey& out,
                    bool* created) {
  std::unique_ptr<Handle> opened;
  bool isNew = false;
  ErrorCode code = AskFault(Operation::kRegCreateKey, subKey);
  if (code == ERROR_SUCCESS) {
    const Guard guard(g_lock);
    Handle* handle = nullptr;
    code = EnterToWrite(parent, 0, handle);
    if (code == ERROR_SUCCESS) code = CreateBelow(*handle, subKey, access, opened, isNew);
  }
  Handle::Put(out, std::move(opened));
  if (code == ERROR_SUCCESS && created != nullptr) *created = isNew;
  return code;
}

ErrorCode QueryInfoKey(const RegistryKey& key, KeyInfo& out) {
  const Handle* named = Handle::Of(key);
  const ErrorCode fault =
      AskFault(Operation::kRegQueryInfoKey, named != nullptr ? std::u16string_view(named->name) : u"");
  if (fault != ERROR_SUCCESS) return fault;
  const Guard guard(g_lock);
  Handle* handle = nullptr;
  if (const ErrorCode code = EnterToRead(key, KEY_QUERY_VALUE, handle); code != ERROR_SUCCESS) return code;
  return g_store->Info(handle->place, out, handle->copies);
}

ErrorCode DeleteKey(Hive parent, std::u16string_view subKey) {
  return DeleteFromRoot(parent, subKey, false);
}
ErrorCode DeleteKey(const RegistryKey& parent, std::u16string_view subKey) {
  return DeleteFromKey(parent, subKey, false);
}
ErrorCode DeleteTree(Hive parent, std::u16string_view subKey) {
  return DeleteFromRoot(parent, subKey, true);
}
ErrorCode DeleteTree(const RegistryKey& parent, std::u16string_view subKey) {
  return DeleteFromKey(parent, subKey, true);
}

// --- Values ---

ErrorCode QueryValue(const RegistryKey& key, std::u16string_view name, std::uint32_t* type, void* data,
                     std::uint32_t* size) {
  Item item;
  if (data != nullptr && size == nullptr) return ERROR_INVALID_PARAMETER;
  if (const ErrorCode code = FindValue(key, name, item); code != ERROR_SUCCESS) return code;
  return GiveData(item, type, data, size);
}

ErrorCode QueryValueBytes(const RegistryKey& key, std::u16string_view name, std::uint32_t& type,
                          std::vector<std::byte>& data) {
  Item item;
  if (const ErrorCode code = FindValue(key, name, item); code != ERROR_SUCCESS) return code;
  type = item.type;
  data = std::move(item.data);
  return ERROR_SUCCESS;
}

ErrorCode SetValue(const RegistryKey& key, std::u16string_view name, std::uint32_t type, const void* data,
                   std::uint32_t size) {
  char16_t last = u'\0';
  const bool isWholeText = IsText(type) && data != nullptr && size != 0 && size % sizeof(char16_t) == 0;
  if (isWholeText) {
    std::memcpy(&last, static_cast<const std::byte*>(data) + size - sizeof(char16_t), sizeof(char16_t));
  }
  if (!isWholeText || last == u'\0') return StoreValue(key, name, type, data, size);
  const auto* bytes = static_cast<const std::byte*>(data);
  std::vector<std::byte> terminated(bytes, bytes + size);
  terminated.resize(terminated.size() + sizeof(char16_t));
  return StoreValue(key, name, type, terminated.data(), terminated.size());
}

ErrorCode SetValue(const RegistryKey& key, std::u16string_view name, std::uint32_t type,
                   std::span<const std::byte> data) {
  if (data.size() > std::numeric_limits<std::uint32_t>::max()) return ERROR_INVALID_PARAMETER;
  return SetValue(key, name, type, data.data(), static_cast<std::uint32_t>(data.size()));
}

ErrorCode SetRawValue(const RegistryKey& key, std::u16string_view name, std::uint32_t type,
                      std::span<const std::byte> data) {
  return StoreValue(key, name, type, data.data(), data.size());
}

ErrorCode SetString(const RegistryKey& key, std::u16string_view name, std::u16string_view value) {
  const std::u16string terminated(value);
  return StoreValue(key, name, REG_SZ, terminated.c_str(), (terminated.size() + 1) * sizeof(char16_t));
}

ErrorCode SetDword(const RegistryKey& key, std::u16string_view name, std::uint32_t value) {
  return StoreValue(key, name, REG_DWORD, &value, sizeof(value));
}

ErrorCode DeleteValue(const RegistryKey& key, std::u16string_view name) {
  if (const ErrorCode code = AskFault(Operation::kRegDeleteValue, name); code != ERROR_SUCCESS) return code;
  const Guard guard(g_lock);
  Handle* handle = nullptr;
  if (const ErrorCode code = EnterToWrite(key, KEY_SET_VALUE, handle); code != ERROR_SUCCESS) return code;
  return g_store->Remove(*handle, name);
}

ErrorCode ReadRegistryString(const RegistryKey& key, std::u16string_view name, std::u16string& out) {
  Item item;
  if (const ErrorCode code = FindValue(key, name, item); code != ERROR_SUCCESS) return code;
  return TextOf(item.type, item.data, out);
}

ErrorCode ReadRegistryDword(const RegistryKey& key, std::u16string_view name, std::uint32_t& out) {
  Item item;
  if (const ErrorCode code = FindValue(key, name, item); code != ERROR_SUCCESS) return code;
  return NumberOf(item.type, item.data, out);
}

// --- Enumeration ---

ErrorCode EnumKey(const RegistryKey& key, std::uint32_t index, char16_t* name, std::uint32_t* length) {
  if (name == nullptr || length == nullptr) return ERROR_INVALID_PARAMETER;
  Item item;
  if (const ErrorCode code = EnumItem(key, false, index, item); code != ERROR_SUCCESS) return code;
  return GiveName(item.name, name, length);
}

ErrorCode EnumKey(const RegistryKey& key, std::uint32_t index, std::u16string& name) {
  Item item;
  if (const ErrorCode code = EnumItem(key, false, index, item); code != ERROR_SUCCESS) return code;
  name = std::move(item.name);
  return ERROR_SUCCESS;
}

ErrorCode EnumValue(const RegistryKey& key, std::uint32_t index, char16_t* name, std::uint32_t* length,
                    std::uint32_t* type, void* data, std::uint32_t* size) {
  if (name == nullptr || length == nullptr || (data != nullptr && size == nullptr)) return ERROR_INVALID_PARAMETER;
  Item item;
  if (const ErrorCode code = EnumItem(key, true, index, item); code != ERROR_SUCCESS) return code;
  if (const ErrorCode code = GiveName(item.name, name, length); code != ERROR_SUCCESS) return code;
  return GiveData(item, type, data, size);
}

ErrorCode EnumValue(const RegistryKey& key, std::uint32_t index, std::u16string& name, std::uint32_t& type,
                    std::vector<std::byte>& data) {
  Item item;
  if (const ErrorCode code = EnumItem(key, true, index, item); code != ERROR_SUCCESS) return code;
  name = std::move(item.name);
  type = item.type;
  data = std::move(item.data);
  return ERROR_SUCCESS;
}

// --- Many sub keys in one look ---

ErrorCode ReadRegistryStamp(const RegistryKey& key, RegistryStamp& out) {
  const Guard guard(g_lock);
  Handle* handle = nullptr;
  if (const ErrorCode code = Enter(key, handle); code != ERROR_SUCCESS) return code;
  RegistryStamp stamp{g_store->Number(), g_store->Changes(), 0};
  if (const ErrorCode code = g_store->DataVersion(stamp.dataVersion); code != ERROR_SUCCESS) return code;
  out = stamp;
  return ERROR_SUCCESS;
}

namespace detail {

struct SubKeyReading {
  SubKeyValues current;
  std::vector<Bytes> folds;

  explicit SubKeyReading(std::span<const std::u16string_view> names) {
    for (const std::u16string_view name : names) {
      folds.push_back(Fold(name));
      current.m_values.emplace_back().name = name;
    }
  }
  void Note(std::span<const std::byte> fold, std::uint32_t type, std::span<const std::byte> data) {
    for (std::size_t i = 0; i < folds.size(); ++i) {
      if (folds[i].size() != fold.size() || std::memcmp(folds[i].data(), fold.data(), fold.size()) != 0) continue;
      SubKeyValues::Value& value = current.m_values[i];
      value.isThere = true;
      value.type = type;
      value.data.assign(data.begin(), data.end());
      return;
    }
  }
  void Tell(std::u16string name, ErrorCode failure, const std::function<void(const SubKeyValues&)>& seen) {
    current.m_name = std::move(name);
    current.m_failure = failure;
    seen(current);
    for (SubKeyValues::Value& value : current.m_values) value.isThere = false;
  }
};

}  // namespace detail

ErrorCode SubKeyValues::Text(std::size_t which, std::u16string& out) const {
  const Value& value = m_values[which];
  if (const ErrorCode code = AskFault(Operation::kRegQueryValue, value.name); code != ERROR_SUCCESS) return code;
  if (m_failure != ERROR_SUCCESS) return m_failure;
  return value.isThere ? TextOf(value.type, value.data, out) : ErrorCode{ERROR_FILE_NOT_FOUND};
}

ErrorCode SubKeyValues::Dword(std::size_t which, std::uint32_t& out) const {
  const Value& value = m_values[which];
  if (const ErrorCode code = AskFault(Operation::kRegQueryValue, value.name); code != ERROR_SUCCESS) return code;
  if (m_failure != ERROR_SUCCESS) return m_failure;
  return value.isThere ? NumberOf(value.type, value.data, out) : ErrorCode{ERROR_FILE_NOT_FOUND};
}

ErrorCode ReadSubKeys(const RegistryKey& key, std::u16string_view after, std::size_t most,
                      std::span<const std::u16string_view> names,
                      const std::function<void(const SubKeyValues&)>& seen) {
  const Handle* named = Handle::Of(key);
  const ErrorCode fault =
      AskFault(Operation::kRegEnumKey, named != nullptr ? std::u16string_view(named->name) : u"");
  if (fault != ERROR_SUCCESS) return fault;
  detail::SubKeyReading reading(names);
  const Guard guard(g_lock);
  Handle* handle = nullptr;
  if (const ErrorCode code = EnterToRead(key, KEY_READ, handle); code != ERROR_SUCCESS) return code;
  Store::ValueSeen note;
  if (!names.empty()) {
    note = [&](std::span<const std::byte> fold, std::uint32_t type, std::span<const std::byte> data) {
      reading.Note(fold, type, data);
    };
  }
  return g_store->SubKeys(
      handle->place, after, most, note,
      [&](std::u16string name, ErrorCode failure) { reading.Tell(std::move(name), failure, seen); });
}

// --- For a pass over the file (registry_scan.h) ---

std::vector<unsigned char> detail::FoldName(std::u16string_view name) { return Fold(name); }

std::int64_t detail::RootRow(Hive hive) {
  const Root* root = FindRoot(hive);
  return root != nullptr ? root->id : 0;
}

std::string RegistryStoreFile() {
  const Guard guard(g_lock);
  return g_store ? g_store->Path() : std::string();
}

std::string detail::PlainStorePath(const std::string& nativePath) { return PlainPath(nativePath); }

bool detail::IsStoreAtRest(const std::string& path) {
  const Guard guard(g_lock);
  return g_store && g_store->Path() == path && !g_store->OpenBatch();
}

bool detail::PlaceEnumeration(const RegistryKey& key, std::uint32_t index, std::span<const unsigned char> fold) {
  const Guard guard(g_lock);
  Handle* handle = nullptr;
  std::int64_t dataVersion = 0;
  if (EnterToRead(key, KEY_ENUMERATE_SUB_KEYS, handle) != ERROR_SUCCESS ||
      g_store->DataVersion(dataVersion) != ERROR_SUCCESS) {
    return false;
  }
  handle->keys = {true, index, Bytes(fold.begin(), fold.end()), g_store->Changes(), dataVersion};
  return true;
}

}  // namespace platform
