// platform/service_record.h: the records of installed services, as the service manager keeps them.
//
// On this host a record is the key "SYSTEM\CurrentControlSet\Services\NAME" of the registry store, with the value names
// of the described system. The store must be open.
// Threads: every function may be called from any thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/error_codes.h"

namespace platform {

// Fields of a record (winsvc.h).
inline constexpr std::uint32_t kServiceOwnProcess = 16;
inline constexpr std::uint32_t kServiceAutoStart = 2;
inline constexpr std::uint32_t kServiceErrorNormal = 1;
// The account that a service without one runs under; stands for root.
inline constexpr std::u16string_view kLocalSystemAccount = u"LocalSystem";

// Whether a name stands for it: in any case of letters.
[[nodiscard]] bool IsLocalSystemAccount(std::u16string_view account);

struct ServiceRecord {
  std::u16string displayName;
  std::u16string description;
  std::u16string binaryPath;  // the command line, in quotation marks
  std::u16string dependency;  // one service's name; empty for none
  std::u16string account;     // empty: kLocalSystemAccount
};

// Asks whether the manager can be worked with. Asks Operation::kOpenServiceManager.
//   returns  0; ERROR_BADDB (1009) without an open store
[[nodiscard]] ErrorCode OpenServiceManager();

// Whether a service of that name is installed. Asks Operation::kOpenService.
//   returns  0; ERROR_FILE_NOT_FOUND (2): it isn't; codes of the store
[[nodiscard]] ErrorCode OpenService(std::u16string_view name);

// Installs a service that starts by itself, in a process of its own. Asks Operation::kCreateService.
//   returns  0; ERROR_ALREADY_EXISTS (183): unchanged; codes of the store: nothing was made
[[nodiscard]] ErrorCode CreateServiceRecord(std::u16string_view name, const ServiceRecord& record);

// Asks Operation::kDeleteService.
//   returns  0; ERROR_FILE_NOT_FOUND (2); codes of the store
[[nodiscard]] ErrorCode DeleteServiceRecord(std::u16string_view name);

// The configured account. Asks Operation::kQueryServiceConfig.
//   returns  0; ERROR_FILE_NOT_FOUND (2): no such service, or its record names none; ERROR_INVALID_DATA (13)
[[nodiscard]] ErrorCode QueryServiceAccount(std::u16string_view name, std::u16string& account);

// Changes the configured account. Asks Operation::kChangeServiceConfig.
//   account  empty: kLocalSystemAccount
//   returns  0; ERROR_FILE_NOT_FOUND (2): no such service; codes of the store: the record is unchanged
[[nodiscard]] ErrorCode ChangeServiceAccount(std::u16string_view name, std::u16string_view account);

}  // namespace platform
