#include "common/service_install.h"

#include "common/bus_records.h"
#include "platform/file.h"
#include "platform/host.h"
#include "platform/service_record.h"
#include "platform/state_home.h"
#include "platform/text.h"

namespace qx {
namespace {

using platform::ERROR_SUCCESS;
using platform::ErrorCode;

}  // namespace

bool ConcernsHost(const std::string& destination, const std::string& stateDirectory) {
  return !destination.empty() || stateDirectory == platform::HostStateDirectory();
}

platform::ServerInstallation Installation(const std::string& destination, const std::string& program,
                                          const std::string& stateDirectory, bool asService) {
  platform::ServerInstallation installation;
  installation.destination = destination;
  installation.forUser = destination.empty() && !platform::RunsAsRoot();
  installation.asService = asService;
  installation.service = platform::Utf8FromWide(kServiceName);
  installation.description = platform::Utf8FromWide(kServiceTitle);
  const bool below = !destination.empty() && program.starts_with(destination + "/");
  // Both named, since an account of its own would have other defaults.
  installation.command = {below ? program.substr(destination.size()) : program, "--root", stateDirectory, "--bus",
                          installation.forUser ? "session" : "system"};
  if (installation.forUser) installation.serviceArguments = {"--foreground"};
  installation.stateDirectory = stateDirectory;
  installation.busName = kBusName;
  installation.group = kClientGroup;
  installation.fencedPort = kStandardNodePort;
  return installation;
}

ErrorCode ConfigureServiceAccount(std::string_view account, const std::string& destination, std::string& problem) {
  const auto failed = [&problem](ErrorCode code, std::string text) {
    problem = std::move(text);
    return code;
  };
  if (const ErrorCode rc = platform::OpenService(kServiceName); rc != ERROR_SUCCESS) {
    return failed(rc, rc == platform::ERROR_FILE_NOT_FOUND
                          ? "no service is installed; install it with: QxSchedService -Service"
                          : "the service's record can't be opened");
  }
  const std::u16string wide = platform::WideFromUtf8(account);
  const bool root = wide.empty() || platform::IsLocalSystemAccount(wide);
  if (!root && !platform::IsAccount(account)) {
    return failed(platform::ERROR_INVALID_PARAMETER, "\"" + std::string(account) + "\" is no account of this host");
  }
  if (const ErrorCode rc = platform::ChangeServiceAccount(kServiceName, root ? std::u16string() : wide);
      rc != ERROR_SUCCESS) {
    return failed(rc, "the service's record can't be written");
  }
  const std::string state = platform::StateDirectory();
  if (!ConcernsHost(destination, state)) return ERROR_SUCCESS;
  const platform::ServerInstallation installation = Installation(destination, {}, state, true);
  if (installation.forUser) return ERROR_SUCCESS;  // a user's own unit runs as the user
  std::string file;
  const ErrorCode rc = platform::InstallAccount(installation, root ? std::string_view() : account, file);
  return rc == ERROR_SUCCESS ? rc : failed(rc, file + " can't be written");
}

}  // namespace qx
