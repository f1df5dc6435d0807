// platform/registry_sub_keys.h: many sub keys of a key with some of their values, or all values of a key, in one look
// at the store, for lists.
//
// Failures as told in registry.h. Threads: any; the store's one lock is held for the whole of a look.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/registry.h"

namespace platform {

namespace detail {
struct SubKeyReading;
}

// What the store was at a moment. While it stays equal nobody wrote, neither this process nor another one.
struct RegistryStamp {
  std::uint64_t store = 0;       // counts the stores that this process opened; 0: none
  std::uint64_t changes = 0;     // of this process, each write and each loss of a batch
  std::int64_t dataVersion = 0;  // changes with each commit of another process
  friend bool operator==(const RegistryStamp&, const RegistryStamp&) = default;
};
[[nodiscard]] ErrorCode ReadRegistryStamp(const RegistryKey& key, RegistryStamp& out);

// One sub key and those of its values that were asked for. Lives during the call that gets it.
class SubKeyValues {
 public:
  [[nodiscard]] const std::u16string& Name() const { return m_name; }
  // The value of names[which], as ReadRegistryString() and ReadRegistryDword() give it.
  [[nodiscard]] ErrorCode Text(std::size_t which, std::u16string& out) const;
  [[nodiscard]] ErrorCode Dword(std::size_t which, std::uint32_t& out) const;

 private:
  friend struct detail::SubKeyReading;
  struct Value {
    std::u16string_view name;
    bool isThere = false;
    std::uint32_t type = 0;
    std::vector<std::byte> data;
  };
  std::u16string m_name;
  std::vector<Value> m_values;
  ErrorCode m_failure = ERROR_SUCCESS;  // of reading the values
};

// Reads sub keys with some of their values, in order of names, as they are at one moment.
//   after    begins behind this name, whether it is there or not; empty: with the first sub key
//   most     at most so many; fewer come only where the sub keys end
//   names    of the values
//   seen     called for each one; makes no registry calls. What can't be read of a sub key fails in its values alone
//   returns  0, also when there are none; ERROR_ACCESS_DENIED (5) without KEY_READ. Before a failure `seen` may have
//            been called for some
[[nodiscard]] ErrorCode ReadSubKeys(const RegistryKey& key, std::u16string_view after, std::size_t most,
                                    std::span<const std::u16string_view> names,
                                    const std::function<void(const SubKeyValues&)>& seen);

// A value as it is stored.
struct RegistryValue {
  std::u16string name;
  std::uint32_t type = 0;
  std::vector<std::byte> data;
};

// Reads all values of a key, in order of names, as they are at one moment.
//   values   gets them in the place of what it held
//   returns  0, also when there are none; ERROR_ACCESS_DENIED (5) without KEY_QUERY_VALUE
[[nodiscard]] ErrorCode ReadRegistryValues(const RegistryKey& key, std::vector<RegistryValue>& values);

}  // namespace platform
