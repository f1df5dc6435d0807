// platform/registry_names.h: names of keys and values as the key store folds, orders and refuses them, and its roots.
//
// For the files of the store alone. Threads: any.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/fault_point.h"
#include "platform/registry.h"

namespace platform::registry {

using Bytes = std::vector<unsigned char>;

// A name in one case, as the file compares and orders it: each character in upper case, its high byte first.
[[nodiscard]] Bytes Fold(std::u16string_view name);
// Whether two folded names are the same; the default value's is empty.
[[nodiscard]] inline bool IsSameFold(std::span<const std::byte> a, std::span<const std::byte> b) {
  return a.size() == b.size() && (a.empty() || std::memcmp(a.data(), b.data(), a.size()) == 0);
}

// A path's elements, which point into it; empty ones are left out.
//   returns  ERROR_BAD_PATHNAME (161): begins with a backslash; ERROR_INVALID_PARAMETER (87): an element is too long or
//            holds a NUL
[[nodiscard]] ErrorCode SplitPath(std::u16string_view path, std::vector<std::u16string_view>& elements);
// ERROR_INVALID_PARAMETER (87): too long, or with a NUL.
[[nodiscard]] ErrorCode CheckValueName(std::u16string_view name);

// Asks the fault point about a call that names a key or a value.
[[nodiscard]] ErrorCode AskFault(Operation operation, std::u16string_view name);

struct Root {
  Hive hive;
  std::int64_t id;  // row in keys; part of the file's format
  std::u16string_view shortName;
  std::u16string_view longName;
  std::u16string_view firstChildren[2];  // made with the store
  bool takesNewChildren;
};
inline constexpr Root kRoots[] = {
    {Hive::kClassesRoot, 1, u"HKCR", u"HKEY_CLASSES_ROOT", {}, true},
    {Hive::kCurrentUser, 2, u"HKCU", u"HKEY_CURRENT_USER", {u"Software"}, true},
    {Hive::kLocalMachine, 3, u"HKLM", u"HKEY_LOCAL_MACHINE", {u"SOFTWARE", u"SYSTEM"}, false},
    {Hive::kUsers, 4, u"HKU", u"HKEY_USERS", {u".DEFAULT"}, false},
    {Hive::kCurrentConfig, 6, u"HKCC", u"HKEY_CURRENT_CONFIG", {}, true},
};
inline constexpr std::int64_t kLastRootId = 6;

// Null: there is never such a root.
[[nodiscard]] const Root* FindRoot(Hive hive);
// Whether the key of this row is a root in which nobody makes keys.
[[nodiscard]] bool RefusesNewChildren(std::int64_t id);

}  // namespace platform::registry
