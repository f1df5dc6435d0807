// platform/registry_scan.h: all sub keys of a key with some of their values, in one pass over the store's file.
//
// For somebody who takes in a hundred thousand sub keys at once, as the service does at its start: call by call most of
// the time goes into finding each value by its name. The pass has a connection of its own, which only reads, and one
// read transaction; it needs no open store. The values come in the order in which they lie in the file, not in that of
// the names; each sub key says which index it has in an enumeration.
// What was read may be used instead of calls for as long as Holds() says so.
// Threads: one object serves one thread at a time; Folded() and Size() from any, behind Open().
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/registry.h"

namespace platform {

// The file of the process's open store; empty without one.
[[nodiscard]] std::string RegistryStoreFile();

class RegistryScan {
 public:
  struct Value {
    bool isThere = false;
    std::uint32_t type = 0;
    std::span<const std::byte> data;
  };
  // Some sub keys, each with its index and the values that were asked for.
  class Batch {
   public:
    [[nodiscard]] std::size_t Size() const { return m_indexes.size(); }
    [[nodiscard]] std::uint32_t Index(std::size_t i) const { return m_indexes[i]; }
    // The value of names[which] of sub key number i of this batch.
    [[nodiscard]] Value At(std::size_t i, std::size_t which) const;

   private:
    friend class RegistryScan;
    struct Slice {
      bool isThere = false;
      std::uint32_t type = 0;
      std::uint32_t begin = 0;
      std::uint32_t size = 0;
    };
    std::size_t m_names = 0;
    std::vector<std::uint32_t> m_indexes;
    std::vector<Slice> m_slices;  // m_names for each sub key
    std::vector<std::byte> m_bytes;
  };

  RegistryScan();
  RegistryScan(const RegistryScan&) = delete;
  RegistryScan& operator=(const RegistryScan&) = delete;
  ~RegistryScan();

  // Opens the file and reads the order of the sub keys. Once. Asks Operation::kRegOpenStore.
  //   nativePath  the store's file
  //   returns     false: no such file, root or key, or it can't be read; nothing more can be done with the object
  [[nodiscard]] bool Open(const std::string& nativePath, Hive hive, std::u16string_view subKey);
  [[nodiscard]] std::size_t Size() const { return m_order.size(); }
  // The folded name of a sub key: each character in upper case, its high byte first.
  [[nodiscard]] std::span<const unsigned char> Folded(std::uint32_t index) const;

  // Reads the values. Once, behind Open().
  //   names    of the values, in ASCII
  //   atATime  sub keys in a batch, 1 or more
  //   give     gets each batch; false ends the pass
  //   returns  true: all sub keys were given
  [[nodiscard]] bool Read(std::span<const std::string_view> names, std::size_t atATime,
                          const std::function<bool(Batch&&)>& give);

  // Whether the process's open store is this file, and neither this process nor another has written since Open(). Never
  // while a test makes calls fail: it means the calls.
  [[nodiscard]] bool Holds();
  // Lets the enumeration of the key go on: EnumKey(key, index, ...) costs a step from there on.
  //   key  a handle of the key that was read, while Holds()
  void PlaceBefore(const RegistryKey& key, std::uint32_t index) const;

 private:
  struct SubKey {
    std::int64_t id = 0;
    std::uint32_t fold = 0;  // where its folded name begins, and its size
    std::uint32_t foldSize = 0;
  };
  struct Connection;

  [[nodiscard]] bool Locate(Hive hive, std::u16string_view subKey, std::int64_t& id) const;
  [[nodiscard]] bool ReadOrder(std::int64_t parent);
  [[nodiscard]] bool DataVersion(std::int64_t& version) const;

  std::string m_path;
  std::unique_ptr<Connection> m_connection;
  std::vector<SubKey> m_order;
  std::vector<unsigned char> m_folds;
  std::int64_t m_version = 0;
};

}  // namespace platform
