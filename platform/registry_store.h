// platform/registry_store.h: the open key store: keys, values and batches on one SQLite connection.
//
// For the files of the store alone. Threads: every member is called under the store's lock (registry_call.h).
#pragma once

#include <sys/types.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/registry.h"
#include "platform/registry_connection.h"
#include "platform/registry_handle.h"

namespace platform::registry {

// Bytes of the write-ahead log: a longer one is cut to them when it begins anew. It does so when it holds 1000 pages of
// 4096 bytes, each with a header of 24, unless one batch is longer.
inline constexpr std::int64_t kLogRoom = 4194304;

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
  kNamedValues,
  kSqlCount
};

struct Item {
  std::u16string name;
  std::uint32_t type = 0;
  std::vector<std::byte> data;
};

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
  [[nodiscard]] ErrorCode Values(Place place, std::vector<Item>& out);

  void Join(Handle& handle);
  [[nodiscard]] ErrorCode Commit();
  void Lose(ErrorCode code);
  // Ahead of each call. SQLite takes a transaction back on its own also where a read of any thread found no memory or a
  // failing disk: what comes behind would each be a transaction of its own. And where memory ran out it may not have
  // been there to take one back either: that would keep every writer out for good.
  //   returns  why a lost batch still can't be taken back: until then nothing may be read or written
  [[nodiscard]] ErrorCode Settle();
  [[nodiscard]] ErrorCode LimitGrowth(std::uint32_t morePages);
  [[nodiscard]] ErrorCode MakeLogRoom();

 private:
  class Undoing;
  [[nodiscard]] ErrorCode Begin();
  [[nodiscard]] ErrorCode Exists(Place place);
  [[nodiscard]] ErrorCode LocateAnew(Place from, std::span<const std::u16string_view> elements, Place& out);
  [[nodiscard]] ErrorCode FindChild(std::int64_t parent, const Bytes& fold, std::int64_t& id);
  [[nodiscard]] ErrorCode InsertChild(std::int64_t parent, std::u16string_view name, std::int64_t& id);
  [[nodiscard]] ErrorCode LocateForDeletion(Place from, std::span<const std::u16string_view> elements,
                                            bool withChildren, Place& out);
  [[nodiscard]] ErrorCode FailedWrite(ErrorCode code);
  [[nodiscard]] ErrorCode FailedPath(ErrorCode code);
  void EndBatch();
  void NoteFiles();
  // Whether a start would find the files that this store writes into: neither removed nor replaced since it was opened.
  [[nodiscard]] bool AreFilesInPlace() const;
  [[nodiscard]] int Run(Sql sql) { return Use(m_sql[sql]).Step(); }

  std::uint64_t m_number = 0;
  std::string m_path;
  // The file and its log, as the kernel knows them.
  struct NamedFile {
    std::string name;
    dev_t device = 0;
    ino_t number = 0;
  };
  std::array<NamedFile, 2> m_files;
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

  // The last key that was asked about, unless its values were too many: a change of it asks twice.
  struct Asked {
    std::int64_t place = 0;
    KeyInfo info;
    ValueCopies copies;  // with the changes
    std::int64_t dataVersion = 0;
  } m_asked;
};

}  // namespace platform::registry
