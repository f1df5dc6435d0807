// platform/registry_inside.h: what the store tells of its file to those who read it past the calls (registry_scan.h).
// Included by them alone. Threads: any.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/registry.h"

namespace platform::detail {

// A name as the file compares and orders it.
[[nodiscard]] std::vector<unsigned char> FoldName(std::u16string_view name);
// A root's row; 0 for a root that is never there.
[[nodiscard]] std::int64_t RootRow(Hive hive);
// A file's name as SQLite takes it.
[[nodiscard]] std::string PlainStorePath(const std::string& nativePath);
// Whether the process's store is open, is that file, and holds nothing that isn't committed.
//   path  of PlainStorePath()
[[nodiscard]] bool IsStoreAtRest(const std::string& path);
// Lets an enumeration of sub keys stand on one, as if EnumKey() had just given it.
//   fold     its folded name
//   returns  false: nothing has changed
[[nodiscard]] bool PlaceEnumeration(const RegistryKey& key, std::uint32_t index, std::span<const unsigned char> fold);

}  // namespace platform::detail
