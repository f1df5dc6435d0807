#include "service/service_account.h"

#include <cstddef>
#include <string>

#include "foundation/include/zfclog.h"
#include "platform/event_log.h"
#include "platform/memory.h"
#include "platform/service_record.h"
#include "service/service_registration.h"

namespace qx {
namespace {

using platform::ERROR_SUCCESS;
using ZepFoundation::ServiceLog;

constexpr std::size_t kConfigurationBytes = 8192;  // the most that a service's configuration takes (winsvc.h)

constexpr char16_t kLocalSystemText[] =
    u"Scheduler service is running in the localsystem account. Please configure the service with any user account "
    u"which is valid on all the nodes of the cluster. The user should have privileges to change the registry on the "
    u"current node.";

}  // namespace

bool CheckIfRunningAsLocalSystem() {
  if (platform::OpenServiceManager() == ERROR_SUCCESS && platform::OpenService(kServiceName) == ERROR_SUCCESS) {
    if (!platform::NamedBuffer<std::byte>(kConfigurationBytes, "CheckIfRunningAsLocalSystem")) {
      ServiceLog(0, u"CheckIfRunningAsLocalSystem: memory allocation using new failed.");
      ServiceLog(0, u"Unable to check the system account");
      return false;
    }
    std::u16string account;
    if (platform::QueryServiceAccount(kServiceName, account) == ERROR_SUCCESS &&
        !platform::IsLocalSystemAccount(account)) {
      return false;
    }
  }
  ServiceLog(0, kLocalSystemText);
  // The event has no number of its own: its text says all.
  platform::ReportEvent(kServiceTitle, platform::EventKind::kError, 0, kLocalSystemText);
  return true;
}

}  // namespace qx
