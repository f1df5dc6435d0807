#include "platform/service_record.h"

#include <algorithm>
#include <span>
#include <utility>

#include "platform/fault_point.h"
#include "platform/registry.h"
#include "platform/text.h"

namespace platform {
namespace {

constexpr std::u16string_view kServicesKey = u"SYSTEM\\CurrentControlSet\\Services\\";

std::u16string KeyOf(std::u16string_view name) {
  return std::u16string(kServicesKey) + std::u16string(name);
}

// A list of one string: the string, its terminator, and the list's.
ErrorCode SetStringList(const RegistryKey& key, std::u16string_view name, const std::u16string& text) {
  std::u16string list = text;
  list.append(2, u'\0');
  return SetRawValue(key, name, REG_MULTI_SZ, std::as_bytes(std::span(list.data(), list.size())));
}

ErrorCode SetValues(const RegistryKey& key, const ServiceRecord& record) {
  const std::pair<std::u16string_view, std::uint32_t> numbers[] = {
      {u"Type", kServiceOwnProcess}, {u"Start", kServiceAutoStart}, {u"ErrorControl", kServiceErrorNormal}};
  for (const auto& [name, value] : numbers) {
    if (const ErrorCode rc = SetDword(key, name, value); rc != ERROR_SUCCESS) return rc;
  }
  const std::u16string_view account = record.account.empty() ? kLocalSystemAccount : record.account;
  const std::pair<std::u16string_view, std::u16string_view> texts[] = {{u"ImagePath", record.binaryPath},
                                                                       {u"DisplayName", record.displayName},
                                                                       {u"Description", record.description},
                                                                       {u"ObjectName", account}};
  for (const auto& [name, value] : texts) {
    if (const ErrorCode rc = SetString(key, name, value); rc != ERROR_SUCCESS) return rc;
  }
  return record.dependency.empty() ? ERROR_SUCCESS : SetStringList(key, u"DependOnService", record.dependency);
}

}  // namespace

bool IsLocalSystemAccount(std::u16string_view account) {
  return std::equal(account.begin(), account.end(), kLocalSystemAccount.begin(), kLocalSystemAccount.end(),
                    [](char16_t a, char16_t b) { return ToUpperSimple(a) == ToUpperSimple(b); });
}

ErrorCode OpenServiceManager() {
  if (const ErrorCode rc = FaultAt(Operation::kOpenServiceManager); rc != ERROR_SUCCESS) return rc;
  return IsRegistryStoreOpen() ? ERROR_SUCCESS : ERROR_BADDB;
}

ErrorCode OpenService(std::u16string_view name) {
  if (const ErrorCode rc = FaultAt(Operation::kOpenService); rc != ERROR_SUCCESS) return rc;
  RegistryKey key;
  return OpenKey(Hive::kLocalMachine, KeyOf(name), KEY_READ, key);
}

ErrorCode CreateServiceRecord(std::u16string_view name, const ServiceRecord& record) {
  if (const ErrorCode rc = FaultAt(Operation::kCreateService); rc != ERROR_SUCCESS) return rc;
  RegistryKey key;
  bool created = false;
  if (const ErrorCode rc = CreateKey(Hive::kLocalMachine, KeyOf(name), KEY_ALL_ACCESS, key, &created);
      rc != ERROR_SUCCESS) {
    return rc;
  }
  if (!created) return ERROR_ALREADY_EXISTS;
  const ErrorCode set = SetValues(key, record);
  const ErrorCode closed = key.Close();
  if (set == ERROR_SUCCESS && closed == ERROR_SUCCESS) return ERROR_SUCCESS;
  (void)DeleteKey(Hive::kLocalMachine, KeyOf(name));  // what is left of it; the first failure is the one to tell
  return set != ERROR_SUCCESS ? set : closed;
}

ErrorCode DeleteServiceRecord(std::u16string_view name) {
  if (const ErrorCode rc = FaultAt(Operation::kDeleteService); rc != ERROR_SUCCESS) return rc;
  return DeleteTree(Hive::kLocalMachine, KeyOf(name));
}

ErrorCode QueryServiceAccount(std::u16string_view name, std::u16string& account) {
  if (const ErrorCode rc = FaultAt(Operation::kQueryServiceConfig); rc != ERROR_SUCCESS) return rc;
  RegistryKey key;
  if (const ErrorCode rc = OpenKey(Hive::kLocalMachine, KeyOf(name), KEY_READ, key); rc != ERROR_SUCCESS) return rc;
  return ReadRegistryString(key, u"ObjectName", account);
}

ErrorCode ChangeServiceAccount(std::u16string_view name, std::u16string_view account) {
  if (const ErrorCode rc = FaultAt(Operation::kChangeServiceConfig); rc != ERROR_SUCCESS) return rc;
  RegistryKey key;
  if (const ErrorCode rc = OpenKey(Hive::kLocalMachine, KeyOf(name), KEY_ALL_ACCESS, key); rc != ERROR_SUCCESS) {
    return rc;
  }
  const ErrorCode set = SetString(key, u"ObjectName", account.empty() ? kLocalSystemAccount : account);
  const ErrorCode closed = key.Close();
  return set != ERROR_SUCCESS ? set : closed;
}

}  // namespace platform
