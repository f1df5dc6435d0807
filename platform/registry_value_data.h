// platform/registry_value_data.h: a value's bytes as a text and as a number.
//
// For the files of the store alone. Threads: any.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "platform/error_codes.h"

namespace platform::registry {

// Types of text.
[[nodiscard]] bool IsText(std::uint32_t type);
// With the check and the failures of ReadRegistryString().
[[nodiscard]] ErrorCode TextOf(std::uint32_t type, std::span<const std::byte> data, std::u16string& out);
// With those of ReadRegistryDword().
[[nodiscard]] ErrorCode NumberOf(std::uint32_t type, std::span<const std::byte> data, std::uint32_t& out);

}  // namespace platform::registry
