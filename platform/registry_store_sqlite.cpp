// Each call copies what it reads and resets its statement before it returns: a statement left open would pin its
// snapshot and keep the write-ahead log growing.
#include "platform/registry_store.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <exception>
#include <utility>

#include "platform/registry_names.h"

namespace platform::registry {

// --- Batches ---

// Joins the open batch or begins one. A batch that nobody joins is taken back by FailedWrite().
ErrorCode Store::Begin() {
  if (m_batch) return ERROR_SUCCESS;
  auto batch = std::make_shared<Batch>();
  if (const int rc = Run(kBegin); rc != SQLITE_DONE) return CodeFromSqlite(rc);
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
  if (sqlite3_get_autocommit(m_db.get()) != 0 || m_batch->writers == 0) Lose(code);
  return code;
}

// Keys of a path that were made already go; the batch goes with them where they don't.
ErrorCode Store::FailedPath(ErrorCode code) {
  if (sqlite3_get_autocommit(m_db.get()) == 0 &&
      Execute(m_db.get(), "ROLLBACK TO path; RELEASE path") != SQLITE_OK) {
    Lose(code);
  }
  return FailedWrite(code);
}

// What a writing call began ends with it, too, where no memory was left for it: nobody else would end the batch, and
// every other thread would wait for that.
class Store::Undoing {
 public:
  explicit Undoing(Store& store) : m_store(store) {}
  Undoing(const Undoing&) = delete;
  Undoing& operator=(const Undoing&) = delete;
  ~Undoing() {
    if (std::uncaught_exceptions() == m_before) return;
    (void)(m_hasPath ? m_store.FailedPath(ERROR_NOT_ENOUGH_MEMORY) : m_store.FailedWrite(ERROR_NOT_ENOUGH_MEMORY));
  }
  void PathBegins() { m_hasPath = true; }

 private:
  Store& m_store;
  const int m_before = std::uncaught_exceptions();
  bool m_hasPath = false;
};

void Store::Lose(ErrorCode code) {
  if (sqlite3_get_autocommit(m_db.get()) == 0) (void)Run(kRollback);
  m_batch->isLost = true;
  m_batch->code = code;
  ++m_changes;
  EndBatch();
}

ErrorCode Store::Settle() {
  const bool isOpen = sqlite3_get_autocommit(m_db.get()) == 0;
  if (isOpen && !m_batch) {
    const int rc = Run(kRollback);
    return rc == SQLITE_DONE ? ErrorCode{ERROR_SUCCESS} : CodeFromSqlite(rc);
  }
  if (isOpen || !m_batch) return ERROR_SUCCESS;
  const ErrorCode code = CodeFromSqlite(sqlite3_extended_errcode(m_db.get()));
  Lose(code == ERROR_SUCCESS ? ErrorCode{ERROR_REGISTRY_IO_FAILED} : code);
  return ERROR_SUCCESS;
}

ErrorCode Store::Commit() {
  if (!AreFilesInPlace()) {
    Lose(ERROR_REGISTRY_IO_FAILED);
    return ERROR_REGISTRY_IO_FAILED;
  }
  if (const int rc = Run(kCommit); rc != SQLITE_DONE) {
    const ErrorCode code = CodeFromSqlite(rc);
    Lose(code);
    return code;
  }
  EndBatch();
  return ERROR_SUCCESS;
}

void Store::EndBatch() {
  m_batch->isOpen = false;
  m_batch->ended.NotifyAll();
  m_batch.reset();
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
  Undoing undoing(*this);
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
    undoing.PathBegins();
  }
  for (const std::u16string_view element : elements.subspan(present)) {
    std::int64_t id = 0;
    if (code = InsertChild(out.id, element, id); code != ERROR_SUCCESS) {
      return several ? FailedPath(code) : FailedWrite(code);
    }
    out = {id, out.depth + 1};
  }
  if (several) {
    if (const int rc = Execute(m_db.get(), "RELEASE path"); rc != SQLITE_OK) return FailedPath(CodeFromSqlite(rc));
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
  const Undoing undoing(*this);
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
  std::int64_t dataVersion = 0;
  {
    Use version(m_sql[kDataVersion]);  // not reset before the values are read: one transaction for all
    if (const int rc = version.Step(); rc != SQLITE_ROW) return CodeFromSqlite(rc);
    dataVersion = version.Int(0);
    if (m_asked.place == place.id && m_asked.copies.changes == m_changes && m_asked.dataVersion == dataVersion) {
      m_asked.copies.made = std::chrono::steady_clock::now();
      copies = m_asked.copies;
      out = m_asked.info;
      return ERROR_SUCCESS;
    }
    Use keys(m_sql[kKeyStats]);
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
    m_asked = {place.id, info, read, dataVersion};
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
  const Bytes fold = Fold(name);
  if (const ErrorCode code = Begin(); code != ERROR_SUCCESS) return code;
  const int rc =
      Use(m_sql[kSetValue]).Arg(handle.place.id).Arg(fold).Arg(name).Arg(std::int64_t{type}).Arg(data, size).Step();
  if (rc != SQLITE_DONE) return FailedWrite(CodeFromSqlite(rc));
  ++m_changes;
  Join(handle);
  return ERROR_SUCCESS;
}

ErrorCode Store::Remove(Handle& handle, std::u16string_view name) {
  const Bytes fold = Fold(name);
  if (const ErrorCode code = Begin(); code != ERROR_SUCCESS) return code;
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

ErrorCode Store::Values(Place place, std::vector<Item>& out) {
  {
    Use values(m_sql[kNamedValues]);
    values.Arg(place.id);
    int rc = SQLITE_OK;
    while ((rc = values.Step()) == SQLITE_ROW) {
      const auto data = values.Blob(2);
      out.push_back({values.Name(0), static_cast<std::uint32_t>(values.Int(1)), {data.begin(), data.end()}});
    }
    if (rc != SQLITE_DONE) return CodeFromSqlite(rc);
  }
  return out.empty() ? Exists(place) : ErrorCode{ERROR_SUCCESS};
}

ErrorCode Store::LimitGrowth(std::uint32_t morePages) {
  std::int64_t pages = 0;
  if (const int rc = QueryInt(m_db.get(), "PRAGMA page_count", pages); rc != SQLITE_OK) return CodeFromSqlite(rc);
  const std::string sql = "PRAGMA max_page_count=" + std::to_string(pages + morePages);
  return CodeFromSqlite(Execute(m_db.get(), sql.c_str()));
}

}  // namespace platform::registry
