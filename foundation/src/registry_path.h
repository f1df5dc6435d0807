// foundation/src/registry_path.h: keys and values behind paths, for CRegistry and CConfigInfo. Threads: any.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "foundation/include/zfcpath.h"
#include "foundation/include/zfcregistry.h"
#include "platform/registry.h"

namespace ZepFoundation::detail {

inline constexpr std::uint32_t kPathAccess = 0x2001F;  // reading and writing of keys and values
inline constexpr std::uint32_t kEnumSize = 255;        // characters of a name with its terminator, bytes of data

// Opens the key that the path's first elements name, all but `behind` ones. Needs CRegistry::Instance().
[[nodiscard]] platform::ErrorCode OpenPath(const CPath& path, std::size_t behind, platform::RegistryKey& key);

// The last element's text; empty for a path without elements.
[[nodiscard]] std::u16string LastName(const CPath& path);

// As CRegistry::FetchValue, on an open key.
[[nodiscard]] platform::ErrorCode ReadNumber(const platform::RegistryKey& key, std::u16string_view name,
                                             std::uint32_t& number);
[[nodiscard]] platform::ErrorCode ReadText(const platform::RegistryKey& key, std::u16string_view name, wcstring& text);

// One record of the enumerations.
[[nodiscard]] platform::ErrorCode ReadSubKey(const platform::RegistryKey& key, std::uint32_t index, KeyValue& record);
[[nodiscard]] platform::ErrorCode ReadValue(const platform::RegistryKey& key, std::uint32_t index, RegValue& record);

}  // namespace ZepFoundation::detail
