#include "platform/registry_value_data.h"

#include <cstring>
#include <string_view>

#include "platform/registry.h"

namespace platform::registry {

bool IsText(std::uint32_t type) {
  return type == REG_SZ || type == REG_EXPAND_SZ || type == REG_MULTI_SZ;
}

ErrorCode TextOf(std::uint32_t type, std::span<const std::byte> data, std::u16string& out) {
  if (!IsText(type) || data.size() % sizeof(char16_t) != 0) return ERROR_INVALID_DATA;
  std::u16string text(data.size() / sizeof(char16_t), u'\0');
  if (!text.empty()) std::memcpy(text.data(), data.data(), data.size());
  const std::u16string_view terminator(u"\0\0", type == REG_MULTI_SZ ? 2 : 1);
  if (!text.ends_with(terminator)) return ERROR_INVALID_DATA;
  out = text.substr(0, text.find(u'\0'));
  return ERROR_SUCCESS;
}

ErrorCode NumberOf(std::uint32_t type, std::span<const std::byte> data, std::uint32_t& out) {
  if (type != REG_DWORD || data.size() < sizeof(out)) return ERROR_INVALID_DATA;
  if (data.size() > sizeof(out)) return ERROR_MORE_DATA;
  std::memcpy(&out, data.data(), sizeof(out));
  return ERROR_SUCCESS;
}

}  // namespace platform::registry
