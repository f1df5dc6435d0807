#include "platform/registry_scan.h"

#include <sqlite3.h>

#include <algorithm>
#include <iterator>
#include <limits>
#include <utility>

#include "platform/fault_point.h"
#include "platform/registry_call.h"
#include "platform/registry_connection.h"
#include "platform/registry_names.h"
#include "platform/sqlite_file.h"

namespace platform {
namespace {

constexpr int kBusyTimeoutMs = 5000;

constexpr const char* kChildSql = "SELECT id FROM keys WHERE parent=? AND fold=?";
// Both columns lie in the index of that order.
constexpr const char* kOrderSql = "SELECT id, fold FROM keys WHERE parent=? ORDER BY fold";
constexpr const char* kValuesSql = "SELECT key, fold, type, data FROM vals WHERE key BETWEEN ? AND ?";

struct FinalizeStatement {
  void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using Statement = std::unique_ptr<sqlite3_stmt, FinalizeStatement>;

Statement Prepare(sqlite3* db, const char* sql) {
  sqlite3_stmt* raw = nullptr;
  (void)sqlite3_prepare_v2(db, sql, -1, &raw, nullptr);
  return Statement(raw);
}

bool Execute(sqlite3* db, const char* sql) { return sqlite3_exec(db, sql, nullptr, nullptr, nullptr) == SQLITE_OK; }

std::span<const unsigned char> Blob(sqlite3_stmt* row, int column) {
  const auto* data = static_cast<const unsigned char*>(sqlite3_column_blob(row, column));
  return {data, data == nullptr ? 0 : static_cast<std::size_t>(sqlite3_column_bytes(row, column))};
}

// Whether the process's store is open, is that file, and holds nothing that isn't committed.
//   path  of PlainPath()
bool IsStoreAtRest(const std::string& path) {
  const MutexLock guard(registry::g_lock);
  return registry::g_store && registry::g_store->Path() == path && !registry::g_store->OpenBatch();
}

// Lets an enumeration of sub keys stand on one, as if EnumKey() had just given it.
//   fold  its folded name
void PlaceEnumeration(const RegistryKey& key, std::uint32_t index, std::span<const unsigned char> fold) {
  const MutexLock guard(registry::g_lock);
  registry::Handle* handle = nullptr;
  std::int64_t dataVersion = 0;
  if (registry::EnterToRead(key, KEY_ENUMERATE_SUB_KEYS, handle) != ERROR_SUCCESS ||
      registry::g_store->DataVersion(dataVersion) != ERROR_SUCCESS) {
    return;
  }
  handle->keys = {true, index, registry::Bytes(fold.begin(), fold.end()), registry::g_store->Changes(), dataVersion};
}

}  // namespace

struct RegistryScan::Connection {
  sqlite3* db = nullptr;

  Connection() = default;
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  ~Connection() { sqlite3_close(db); }
};

RegistryScan::Value RegistryScan::Batch::At(std::size_t i, std::size_t which) const {
  const Slice& slice = m_slices[i * m_names + which];
  return {slice.isThere, slice.type, std::span(m_bytes).subspan(slice.begin, slice.size)};
}

RegistryScan::RegistryScan() = default;
RegistryScan::~RegistryScan() = default;

bool RegistryScan::Open(const std::string& nativePath, Hive hive, std::u16string_view subKey) {
  if (FaultAt(Operation::kRegOpenStore, nativePath) != ERROR_SUCCESS) return false;
  if (sqlite::HasLostItsBeginning(nativePath)) return false;
  m_path = sqlite::PlainPath(nativePath);
  m_connection = std::make_unique<Connection>();
  // Opened for writing, or a file without its log couldn't be read; it writes nothing, and leaves the log as it is.
  const int opened =
      sqlite3_open_v2(m_path.c_str(), &m_connection->db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
  sqlite3* const db = m_connection->db;
  if (opened != SQLITE_OK) return false;
  sqlite3_db_config(db, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
  sqlite3_busy_timeout(db, kBusyTimeoutMs);
  std::int64_t parent = 0;
  // The version counts from here on only when the transaction reads: the order does.
  return Execute(db, "PRAGMA query_only=ON; BEGIN") && Locate(hive, subKey, parent) && DataVersion(m_version) &&
         ReadOrder(parent);
}

bool RegistryScan::Locate(Hive hive, std::u16string_view subKey, std::int64_t& id) const {
  const Statement child = Prepare(m_connection->db, kChildSql);
  const registry::Root* root = registry::FindRoot(hive);
  if (!child || root == nullptr) return false;
  id = root->id;
  while (!subKey.empty()) {
    const std::u16string_view element = subKey.substr(0, subKey.find(u'\\'));
    subKey.remove_prefix(std::min(element.size() + 1, subKey.size()));
    if (element.empty()) continue;
    const std::vector<unsigned char> fold = registry::Fold(element);
    sqlite3_bind_int64(child.get(), 1, id);
    sqlite3_bind_blob(child.get(), 2, fold.data(), static_cast<int>(fold.size()), SQLITE_TRANSIENT);
    if (sqlite3_step(child.get()) != SQLITE_ROW) return false;
    id = sqlite3_column_int64(child.get(), 0);
    sqlite3_reset(child.get());
  }
  return true;
}

bool RegistryScan::DataVersion(std::int64_t& version) const {
  const Statement asked = Prepare(m_connection->db, "PRAGMA data_version");
  if (!asked || sqlite3_step(asked.get()) != SQLITE_ROW) return false;
  version = sqlite3_column_int64(asked.get(), 0);
  return true;
}

bool RegistryScan::ReadOrder(std::int64_t parent) {
  const Statement rows = Prepare(m_connection->db, kOrderSql);
  if (!rows) return false;
  sqlite3_bind_int64(rows.get(), 1, parent);
  int rc = SQLITE_OK;
  while ((rc = sqlite3_step(rows.get())) == SQLITE_ROW) {
    const auto fold = Blob(rows.get(), 1);
    m_order.push_back({sqlite3_column_int64(rows.get(), 0), static_cast<std::uint32_t>(m_folds.size()),
                       static_cast<std::uint32_t>(fold.size())});
    m_folds.insert(m_folds.end(), fold.begin(), fold.end());
    if (m_folds.size() > std::numeric_limits<std::uint32_t>::max()) return false;
  }
  return rc == SQLITE_DONE;
}

std::span<const unsigned char> RegistryScan::Folded(std::uint32_t index) const {
  return std::span(m_folds).subspan(m_order[index].fold, m_order[index].foldSize);
}

bool RegistryScan::Read(std::span<const std::string_view> names, std::size_t atATime,
                        const std::function<bool(Batch&&)>& give) {
  sqlite3* const db = m_connection->db;
  std::vector<std::vector<unsigned char>> wanted;
  for (const std::string_view name : names) {
    wanted.push_back(registry::Fold(std::u16string(name.begin(), name.end())));
  }
  std::vector<std::pair<std::int64_t, std::uint32_t>> rows;  // of the sub keys, as they lie in the file
  rows.reserve(m_order.size());
  for (const SubKey& key : m_order) rows.emplace_back(key.id, static_cast<std::uint32_t>(rows.size()));
  std::sort(rows.begin(), rows.end());

  const Statement values = Prepare(db, kValuesSql);
  if (!values) return false;
  sqlite3_bind_int64(values.get(), 1, rows.empty() ? 0 : rows.front().first);
  sqlite3_bind_int64(values.get(), 2, rows.empty() ? -1 : rows.back().first);
  int rc = sqlite3_step(values.get());
  std::size_t bytes = 0;  // of the batch before
  for (std::size_t begin = 0; begin < rows.size(); begin += atATime) {
    Batch batch;
    batch.m_names = names.size();
    batch.m_bytes.reserve(bytes + bytes / 8);
    const std::size_t end = std::min(begin + atATime, rows.size());
    batch.m_indexes.reserve(end - begin);
    batch.m_slices.resize((end - begin) * names.size());
    for (std::size_t at = begin; at < end; ++at) {
      Batch::Slice* const slices = batch.m_slices.data() + (at - begin) * names.size();
      batch.m_indexes.push_back(rows[at].second);
      for (; rc == SQLITE_ROW; rc = sqlite3_step(values.get())) {
        const std::int64_t key = sqlite3_column_int64(values.get(), 0);
        if (key > rows[at].first) break;
        if (key < rows[at].first) continue;  // of another parent
        const auto fold = Blob(values.get(), 1);
        const auto which = std::find_if(wanted.begin(), wanted.end(), [&](const auto& name) {
          return registry::IsSameFold(std::as_bytes(std::span(name)), std::as_bytes(fold));
        });
        if (which == wanted.end()) continue;
        const auto data = Blob(values.get(), 3);
        Batch::Slice& slice = slices[which - wanted.begin()];
        slice = {true, static_cast<std::uint32_t>(sqlite3_column_int64(values.get(), 2)),
                 static_cast<std::uint32_t>(batch.m_bytes.size()), static_cast<std::uint32_t>(data.size())};
        const auto* const from = reinterpret_cast<const std::byte*>(data.data());
        batch.m_bytes.insert(batch.m_bytes.end(), from, from + data.size());
      }
      if (rc != SQLITE_ROW && rc != SQLITE_DONE) return false;
    }
    if (batch.m_bytes.size() > std::numeric_limits<std::uint32_t>::max()) return false;
    bytes = batch.m_bytes.size();
    if (!give(std::move(batch))) return false;
  }
  sqlite3_reset(values.get());
  return Execute(db, "COMMIT");
}

bool RegistryScan::Holds() {
  if (detail::g_faultSeamArmed.load(std::memory_order_relaxed)) return false;
  std::int64_t version = 0;
  // First what this process has begun to write: once it is committed, the version tells of it.
  return m_connection && IsStoreAtRest(m_path) && DataVersion(version) && version == m_version;
}

void RegistryScan::PlaceBefore(const RegistryKey& key, std::uint32_t index) const {
  if (index > 0) PlaceEnumeration(key, index - 1, Folded(index - 1));
}

}  // namespace platform
