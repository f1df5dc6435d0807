// The calls of values, and those that enumerate (registry.h).
#include <chrono>
#include <cstring>
#include <limits>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/fault_point.h"
#include "platform/registry.h"
#include "platform/registry_call.h"
#include "platform/registry_names.h"
#include "platform/registry_value_data.h"

namespace platform {
namespace {

using registry::AskFault;
using registry::AskFaultOf;
using registry::AwaitTurn;
using registry::CheckValueName;
using registry::EnterToRead;
using registry::EnterToWrite;
using registry::Fold;
using registry::g_lock;
using registry::g_store;
using registry::Handle;
using registry::IsText;
using registry::Item;
using registry::kCopyTrust;
using registry::NumberOf;
using registry::TextOf;
using registry::ValueCopies;

// The values as they were a moment ago; null when the store itself is to be asked.
const ValueCopies* CopiesOf(const Handle& handle) QX_REQUIRES(g_lock) {
  const auto& copies = handle.copies;
  const bool good = copies && copies->changes == g_store->Changes() &&
                    std::chrono::steady_clock::now() - copies->made < kCopyTrust;
  return good ? &*copies : nullptr;
}

ErrorCode FindValue(const RegistryKey& key, std::u16string_view name, Item& out) {
  if (const ErrorCode code = AskFault(Operation::kRegQueryValue, name); code != ERROR_SUCCESS) return code;
  const MutexLock guard(g_lock);
  Handle* handle = nullptr;
  if (const ErrorCode code = EnterToRead(key, KEY_QUERY_VALUE, handle); code != ERROR_SUCCESS) return code;
  if (const ValueCopies* copies = CopiesOf(*handle)) {
    const ValueCopies::Value* value = copies->Find(Fold(name));
    if (value == nullptr) return ERROR_FILE_NOT_FOUND;
    const auto data = std::span(copies->bytes).subspan(value->data, value->end - value->data);
    out.type = value->type;
    out.data.assign(data.begin(), data.end());
    return ERROR_SUCCESS;
  }
  return g_store->Find(handle->place, name, out);
}

ErrorCode StoreValue(const RegistryKey& key, std::u16string_view name, std::uint32_t type, const void* data,
                     std::size_t size) {
  if (const ErrorCode code = AskFault(Operation::kRegSetValue, name); code != ERROR_SUCCESS) return code;
  if (const ErrorCode code = CheckValueName(name); code != ERROR_SUCCESS) return code;
  if (size > std::numeric_limits<std::uint32_t>::max()) return ERROR_INVALID_PARAMETER;
  MutexLock guard(g_lock);
  if (const ErrorCode code = AwaitTurn(guard); code != ERROR_SUCCESS) return code;
  Handle* handle = nullptr;
  if (const ErrorCode code = EnterToWrite(key, KEY_SET_VALUE, handle); code != ERROR_SUCCESS) return code;
  if (data == nullptr && size != 0) return ERROR_NOACCESS;
  return g_store->Set(*handle, name, type, data, size);
}

ErrorCode EnumItem(const RegistryKey& key, bool values, std::uint32_t index, Item& out) {
  const ErrorCode fault = AskFaultOf(key, values ? Operation::kRegEnumValue : Operation::kRegEnumKey);
  if (fault != ERROR_SUCCESS) return fault;
  const MutexLock guard(g_lock);
  Handle* handle = nullptr;
  const ErrorCode code = EnterToRead(key, values ? KEY_QUERY_VALUE : KEY_ENUMERATE_SUB_KEYS, handle);
  if (code != ERROR_SUCCESS) return code;
  return g_store->Enumerate(*handle, values, index, out);
}

// Gives data by the size protocol of reading values.
ErrorCode GiveData(const Item& item, std::uint32_t* type, void* data, std::uint32_t* size) {
  const std::size_t room = size != nullptr ? *size : 0;
  if (type != nullptr) *type = item.type;
  if (size != nullptr) *size = static_cast<std::uint32_t>(item.data.size());
  if (data == nullptr) return ERROR_SUCCESS;
  if (item.data.size() > room) return ERROR_MORE_DATA;
  if (!item.data.empty()) std::memcpy(data, item.data.data(), item.data.size());
  return ERROR_SUCCESS;
}

ErrorCode GiveName(const std::u16string& text, char16_t* name, std::uint32_t* length) {
  if (text.size() >= *length) return ERROR_MORE_DATA;
  std::memcpy(name, text.c_str(), (text.size() + 1) * sizeof(char16_t));
  *length = static_cast<std::uint32_t>(text.size());
  return ERROR_SUCCESS;
}

}  // namespace

// --- Values ---

ErrorCode QueryValue(const RegistryKey& key, std::u16string_view name, std::uint32_t* type, void* data,
                     std::uint32_t* size) {
  Item item;
  if (data != nullptr && size == nullptr) return ERROR_INVALID_PARAMETER;
  if (const ErrorCode code = FindValue(key, name, item); code != ERROR_SUCCESS) return code;
  return GiveData(item, type, data, size);
}

ErrorCode QueryValueBytes(const RegistryKey& key, std::u16string_view name, std::uint32_t& type,
                          std::vector<std::byte>& data) {
  Item item;
  if (const ErrorCode code = FindValue(key, name, item); code != ERROR_SUCCESS) return code;
  type = item.type;
  data = std::move(item.data);
  return ERROR_SUCCESS;
}

ErrorCode SetValue(const RegistryKey& key, std::u16string_view name, std::uint32_t type, const void* data,
                   std::uint32_t size) {
  char16_t last = u'\0';
  const bool isWholeText = IsText(type) && data != nullptr && size != 0 && size % sizeof(char16_t) == 0;
  if (isWholeText) {
    std::memcpy(&last, static_cast<const std::byte*>(data) + size - sizeof(char16_t), sizeof(char16_t));
  }
  if (!isWholeText || last == u'\0') return StoreValue(key, name, type, data, size);
  const auto* bytes = static_cast<const std::byte*>(data);
  std::vector<std::byte> terminated(bytes, bytes + size);
  terminated.resize(terminated.size() + sizeof(char16_t));
  return StoreValue(key, name, type, terminated.data(), terminated.size());
}

ErrorCode SetValue(const RegistryKey& key, std::u16string_view name, std::uint32_t type,
                   std::span<const std::byte> data) {
  if (data.size() > std::numeric_limits<std::uint32_t>::max()) return ERROR_INVALID_PARAMETER;
  return SetValue(key, name, type, data.data(), static_cast<std::uint32_t>(data.size()));
}

ErrorCode SetRawValue(const RegistryKey& key, std::u16string_view name, std::uint32_t type,
                      std::span<const std::byte> data) {
  return StoreValue(key, name, type, data.data(), data.size());
}

ErrorCode SetString(const RegistryKey& key, std::u16string_view name, std::u16string_view value) {
  const std::u16string terminated(value);
  return StoreValue(key, name, REG_SZ, terminated.c_str(), (terminated.size() + 1) * sizeof(char16_t));
}

ErrorCode SetDword(const RegistryKey& key, std::u16string_view name, std::uint32_t value) {
  return StoreValue(key, name, REG_DWORD, &value, sizeof(value));
}

ErrorCode DeleteValue(const RegistryKey& key, std::u16string_view name) {
  if (const ErrorCode code = AskFault(Operation::kRegDeleteValue, name); code != ERROR_SUCCESS) return code;
  MutexLock guard(g_lock);
  if (const ErrorCode code = AwaitTurn(guard); code != ERROR_SUCCESS) return code;
  Handle* handle = nullptr;
  if (const ErrorCode code = EnterToWrite(key, KEY_SET_VALUE, handle); code != ERROR_SUCCESS) return code;
  return g_store->Remove(*handle, name);
}

ErrorCode ReadRegistryString(const RegistryKey& key, std::u16string_view name, std::u16string& out) {
  Item item;
  if (const ErrorCode code = FindValue(key, name, item); code != ERROR_SUCCESS) return code;
  return TextOf(item.type, item.data, out);
}

ErrorCode ReadRegistryDword(const RegistryKey& key, std::u16string_view name, std::uint32_t& out) {
  Item item;
  if (const ErrorCode code = FindValue(key, name, item); code != ERROR_SUCCESS) return code;
  return NumberOf(item.type, item.data, out);
}

// --- Enumeration ---

ErrorCode EnumKey(const RegistryKey& key, std::uint32_t index, char16_t* name, std::uint32_t* length) {
  if (name == nullptr || length == nullptr) return ERROR_INVALID_PARAMETER;
  Item item;
  if (const ErrorCode code = EnumItem(key, false, index, item); code != ERROR_SUCCESS) return code;
  return GiveName(item.name, name, length);
}

ErrorCode EnumKey(const RegistryKey& key, std::uint32_t index, std::u16string& name) {
  Item item;
  if (const ErrorCode code = EnumItem(key, false, index, item); code != ERROR_SUCCESS) return code;
  name = std::move(item.name);
  return ERROR_SUCCESS;
}

ErrorCode EnumValue(const RegistryKey& key, std::uint32_t index, char16_t* name, std::uint32_t* length,
                    std::uint32_t* type, void* data, std::uint32_t* size) {
  if (name == nullptr || length == nullptr || (data != nullptr && size == nullptr)) return ERROR_INVALID_PARAMETER;
  Item item;
  if (const ErrorCode code = EnumItem(key, true, index, item); code != ERROR_SUCCESS) return code;
  if (const ErrorCode code = GiveName(item.name, name, length); code != ERROR_SUCCESS) return code;
  return GiveData(item, type, data, size);
}

ErrorCode EnumValue(const RegistryKey& key, std::uint32_t index, std::u16string& name, std::uint32_t& type,
                    std::vector<std::byte>& data) {
  Item item;
  if (const ErrorCode code = EnumItem(key, true, index, item); code != ERROR_SUCCESS) return code;
  name = std::move(item.name);
  type = item.type;
  data = std::move(item.data);
  return ERROR_SUCCESS;
}

}  // namespace platform
