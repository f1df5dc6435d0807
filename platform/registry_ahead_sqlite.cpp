#include "platform/registry_ahead.h"

#include <malloc.h>
#include <sqlite3.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <iterator>
#include <utility>

namespace platform::detail {
namespace {

constexpr std::size_t kKeysPerRead = 64;    // in one look at the store, and given on together
constexpr std::size_t kKeysReady = 1024;    // read and not taken yet: the reader waits then

constexpr std::size_t kUsualValues = 16;    // of a key
constexpr std::size_t kUsualBytes = 1024;
// A key's values lie anywhere in the file: without room for most of its pages each would be read many times.
constexpr const char* kCacheSql = "PRAGMA cache_size=-131072";  // KiB; taken as pages are read, given back at the end
constexpr std::int64_t kLengthFactor = 65536;  // above the bytes of any key's name

constexpr const char* kKeysSql =
    "SELECT id, name, fold, (SELECT count(*)*65536+max(length(fold)) FROM keys c WHERE c.parent=k.id)"
    " FROM keys k WHERE parent=? AND fold>? ORDER BY fold LIMIT ?";
constexpr const char* kValuesSql = "SELECT fold, type, data FROM vals WHERE key=? ORDER BY fold";

struct CloseConnection {
  void operator()(sqlite3* db) const { sqlite3_close(db); }
};
struct FinalizeStatement {
  void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using Statement = std::unique_ptr<sqlite3_stmt, FinalizeStatement>;

Statement Prepare(sqlite3* db, const char* sql) {
  sqlite3_stmt* raw = nullptr;
  (void)sqlite3_prepare_v2(db, sql, -1, &raw, nullptr);
  return Statement(raw);
}

std::span<const std::byte> Blob(sqlite3_stmt* row, int column) {
  const void* data = sqlite3_column_blob(row, column);
  const int size = sqlite3_column_bytes(row, column);
  return {static_cast<const std::byte*>(data), data == nullptr ? 0 : static_cast<std::size_t>(size)};
}

std::size_t Append(std::vector<std::byte>& bytes, std::span<const std::byte> more) {
  bytes.insert(bytes.end(), more.begin(), more.end());
  return bytes.size();
}

std::shared_ptr<AheadKey> ReadKey(sqlite3_stmt* row) {
  auto key = std::make_shared<AheadKey>();
  key->id = sqlite3_column_int64(row, 0);
  const auto name = Blob(row, 1);
  const auto fold = Blob(row, 2);
  key->name.resize(name.size() / sizeof(char16_t));
  if (!key->name.empty()) std::memcpy(key->name.data(), name.data(), key->name.size() * sizeof(char16_t));
  key->fold.resize(fold.size());
  if (!fold.empty()) std::memcpy(key->fold.data(), fold.data(), fold.size());
  const std::int64_t below = sqlite3_column_int64(row, 3);  // both numbers of the sub keys; null, so 0, without any
  key->info.subKeyCount = static_cast<std::uint32_t>(below / kLengthFactor);
  key->info.maxSubKeyLength = static_cast<std::uint32_t>(below % kLengthFactor / 2);
  return key;
}

bool ReadValues(sqlite3_stmt* values, AheadKey& key) {
  key.values.reserve(kUsualValues);
  key.bytes.reserve(kUsualBytes);
  sqlite3_bind_int64(values, 1, key.id);
  int rc = SQLITE_OK;
  while ((rc = sqlite3_step(values)) == SQLITE_ROW) {
    const auto fold = Blob(values, 0);
    const auto data = Blob(values, 2);
    AheadKey::Value value;
    value.fold = key.bytes.size();
    value.data = Append(key.bytes, fold);
    value.type = static_cast<std::uint32_t>(sqlite3_column_int64(values, 1));
    value.end = Append(key.bytes, data);
    key.info.maxValueNameLength = std::max(key.info.maxValueNameLength, static_cast<std::uint32_t>(fold.size() / 2));
    key.info.maxValueLength = std::max(key.info.maxValueLength, static_cast<std::uint32_t>(data.size()));
    key.values.push_back(value);
  }
  key.info.valueCount = static_cast<std::uint32_t>(key.values.size());
  sqlite3_reset(values);
  return rc == SQLITE_DONE;
}

bool Execute(sqlite3* db, const char* sql) { return sqlite3_exec(db, sql, nullptr, nullptr, nullptr) == SQLITE_OK; }

// The sub keys behind `last`, none at the end; false on failure. One transaction for each look: a long one would keep
// the write-ahead log growing.
template <typename Keys>
bool ReadSome(sqlite3* db, sqlite3_stmt* names, sqlite3_stmt* values, std::int64_t parent,
              std::vector<unsigned char>& last, std::size_t most, Keys& out) {
  if (!Execute(db, "BEGIN")) return false;
  sqlite3_bind_int64(names, 1, parent);
  sqlite3_bind_blob(names, 2, last.empty() ? static_cast<const void*>("") : last.data(), static_cast<int>(last.size()),
                    SQLITE_TRANSIENT);
  sqlite3_bind_int64(names, 3, static_cast<sqlite3_int64>(most));
  int rc = SQLITE_OK;
  while ((rc = sqlite3_step(names)) == SQLITE_ROW) {
    std::shared_ptr<AheadKey> key = ReadKey(names);
    if (!ReadValues(values, *key)) break;
    out.push_back(std::move(key));
  }
  sqlite3_reset(names);
  if (!out.empty()) last = out.back()->fold;
  return Execute(db, "COMMIT") && rc == SQLITE_DONE;
}

}  // namespace

const AheadKey::Value* AheadKey::Find(std::span<const unsigned char> wanted) const {
  for (const Value& value : values) {
    if (value.data - value.fold == wanted.size() &&
        (wanted.empty() || std::memcmp(bytes.data() + value.fold, wanted.data(), wanted.size()) == 0)) {
      return &value;
    }
  }
  return nullptr;
}

AheadReader::~AheadReader() {
  Stop();
  m_thread.Join();
}

ErrorCode AheadReader::Start(std::string path, std::int64_t parent, std::vector<unsigned char> after, std::size_t most,
                             Seen seen) {
  return Thread::Start(
      "registry-ahead",
      [this, path = std::move(path), parent, after = std::move(after), most, seen = std::move(seen)] {
        try {
          Run(path, parent, after, most, seen);
        } catch (const std::exception&) {
          // Without memory nothing more is read ahead.
        }
        malloc_trim(0);  // the pages' room goes back to the system; the allocator would keep it
        const std::lock_guard hold(m_lock);
        m_ended = true;
        m_given.notify_all();
      },
      m_thread);
}

std::shared_ptr<const AheadKey> AheadReader::Next() {
  if (m_mine.empty()) {
    std::unique_lock hold(m_lock);
    m_given.wait(hold, [this] { return !m_ready.empty() || m_ended || m_stopped; });
    if (m_stopped) return nullptr;
    m_mine.swap(m_ready);
    m_taken.notify_all();
  }
  if (m_mine.empty()) return nullptr;
  std::shared_ptr<const AheadKey> key = std::move(m_mine.front());
  m_mine.pop_front();
  return key;
}

void AheadReader::Stop() {
  const std::lock_guard hold(m_lock);
  m_stopped = true;
  m_taken.notify_all();
}

// False when nobody wants any more.
bool AheadReader::Give(Keys& keys) {
  std::unique_lock hold(m_lock);
  m_taken.wait(hold, [this] { return m_ready.size() < kKeysReady || m_stopped; });
  if (m_stopped) return false;
  std::move(keys.begin(), keys.end(), std::back_inserter(m_ready));
  keys.clear();
  m_given.notify_all();
  return true;
}

void AheadReader::Run(const std::string& path, std::int64_t parent, std::vector<unsigned char> last, std::size_t most,
                      const Seen& seen) {
  sqlite3* raw = nullptr;
  const int opened = sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READONLY | SQLITE_OPEN_NOMUTEX, nullptr);
  const std::unique_ptr<sqlite3, CloseConnection> db(raw);
  if (opened != SQLITE_OK || !Execute(db.get(), kCacheSql)) return;
  const Statement keys = Prepare(db.get(), kKeysSql);
  const Statement values = Prepare(db.get(), kValuesSql);
  if (!keys || !values) return;
  for (Keys some; most > 0 &&
                  ReadSome(db.get(), keys.get(), values.get(), parent, last, std::min(most, kKeysPerRead), some);) {
    if (some.empty()) return;
    most -= some.size();
    for (const auto& key : some) {
      if (seen) seen(*key);
    }
    if (!Give(some)) return;
  }
}

}  // namespace platform::detail
