#include "platform/registry_sub_keys.h"

#include <utility>

#include "platform/fault_point.h"
#include "platform/registry_call.h"
#include "platform/registry_names.h"
#include "platform/registry_value_data.h"

namespace platform {
namespace {

using registry::AskFault;
using registry::AskFaultOf;
using registry::Bytes;
using registry::Enter;
using registry::EnterToRead;
using registry::Fold;
using registry::g_lock;
using registry::g_store;
using registry::Handle;
using registry::NumberOf;
using registry::Store;
using registry::TextOf;

}  // namespace

ErrorCode ReadRegistryStamp(const RegistryKey& key, RegistryStamp& out) {
  const MutexLock guard(g_lock);
  Handle* handle = nullptr;
  if (const ErrorCode code = Enter(key, handle); code != ERROR_SUCCESS) return code;
  RegistryStamp stamp{g_store->Number(), g_store->Changes(), 0};
  if (const ErrorCode code = g_store->DataVersion(stamp.dataVersion); code != ERROR_SUCCESS) return code;
  out = stamp;
  return ERROR_SUCCESS;
}

namespace detail {

struct SubKeyReading {
  SubKeyValues current;
  std::vector<Bytes> folds;

  explicit SubKeyReading(std::span<const std::u16string_view> names) {
    for (const std::u16string_view name : names) {
      folds.push_back(Fold(name));
      current.m_values.emplace_back().name = name;
    }
  }
  void Note(std::span<const std::byte> fold, std::uint32_t type, std::span<const std::byte> data) {
    for (std::size_t i = 0; i < folds.size(); ++i) {
      if (!registry::IsSameFold(std::as_bytes(std::span(folds[i])), fold)) continue;
      SubKeyValues::Value& value = current.m_values[i];
      value.isThere = true;
      value.type = type;
      value.data.assign(data.begin(), data.end());
      return;
    }
  }
  void Tell(std::u16string name, ErrorCode failure, const std::function<void(const SubKeyValues&)>& seen) {
    current.m_name = std::move(name);
    current.m_failure = failure;
    seen(current);
    for (SubKeyValues::Value& value : current.m_values) value.isThere = false;
  }
};

}  // namespace detail

ErrorCode SubKeyValues::Text(std::size_t which, std::u16string& out) const {
  const Value& value = m_values[which];
  if (const ErrorCode code = AskFault(Operation::kRegQueryValue, value.name); code != ERROR_SUCCESS) return code;
  if (m_failure != ERROR_SUCCESS) return m_failure;
  return value.isThere ? TextOf(value.type, value.data, out) : ErrorCode{ERROR_FILE_NOT_FOUND};
}

ErrorCode SubKeyValues::Dword(std::size_t which, std::uint32_t& out) const {
  const Value& value = m_values[which];
  if (const ErrorCode code = AskFault(Operation::kRegQueryValue, value.name); code != ERROR_SUCCESS) return code;
  if (m_failure != ERROR_SUCCESS) return m_failure;
  return value.isThere ? NumberOf(value.type, value.data, out) : ErrorCode{ERROR_FILE_NOT_FOUND};
}

ErrorCode ReadSubKeys(const RegistryKey& key, std::u16string_view after, std::size_t most,
                      std::span<const std::u16string_view> names,
                      const std::function<void(const SubKeyValues&)>& seen) {
  if (const ErrorCode fault = AskFaultOf(key, Operation::kRegEnumKey); fault != ERROR_SUCCESS) return fault;
  detail::SubKeyReading reading(names);
  const MutexLock guard(g_lock);
  Handle* handle = nullptr;
  if (const ErrorCode code = EnterToRead(key, KEY_READ, handle); code != ERROR_SUCCESS) return code;
  Store::ValueSeen note;
  if (!names.empty()) {
    note = [&](std::span<const std::byte> fold, std::uint32_t type, std::span<const std::byte> data) {
      reading.Note(fold, type, data);
    };
  }
  return g_store->SubKeys(
      handle->place, after, most, note,
      [&](std::u16string name, ErrorCode failure) { reading.Tell(std::move(name), failure, seen); });
}

ErrorCode ReadRegistryValues(const RegistryKey& key, std::vector<RegistryValue>& values) {
  if (const ErrorCode fault = AskFaultOf(key, Operation::kRegEnumValue); fault != ERROR_SUCCESS) return fault;
  const MutexLock guard(g_lock);
  Handle* handle = nullptr;
  if (const ErrorCode code = EnterToRead(key, KEY_QUERY_VALUE, handle); code != ERROR_SUCCESS) return code;
  std::vector<registry::Item> items;
  if (const ErrorCode code = g_store->Values(handle->place, items); code != ERROR_SUCCESS) return code;
  values.clear();
  for (registry::Item& item : items) values.push_back({std::move(item.name), item.type, std::move(item.data)});
  return ERROR_SUCCESS;
}

}  // namespace platform
