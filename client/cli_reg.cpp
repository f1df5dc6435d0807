#include "client/cli_reg.h"

#include <string>
#include <vector>

#include "client/cli_registry.h"
#include "platform/file.h"
#include "platform/registry.h"

namespace qx {

int WithKeyStore(CliContext& context, bool create, const std::function<int()>& command) {
  const std::string directory = platform::StateDirectory();
  const std::string file = directory + "/registry.db";
  if (directory.empty() || (!platform::FileExists(file) && (!create || !platform::DirectoryExists(directory)))) {
    std::vector<std::string> names;
    if (!directory.empty() && platform::ListDirectory(directory, names) == platform::ERROR_ACCESS_DENIED) {
      PrintError(context, directory + ": can't be looked into by this account");
      return kExitPermission;
    }
    PrintError(context, "no key store: " + file);
    PrintHint(context, "name the state directory with --root, or register the service first");
    return kExitNotFound;
  }
  std::string why;
  if (const platform::ErrorCode code = platform::OpenRegistryStore(file, &why); code != platform::ERROR_SUCCESS) {
    PrintError(context, why.empty() ? file + ": " + std::string(client::RegistryErrorSentence(code)) : why);
    return code == platform::ERROR_ACCESS_DENIED ? kExitPermission : kExitFailed;
  }
  const int exit = command();
  if (const platform::ErrorCode code = platform::CloseRegistryStore(); code != platform::ERROR_SUCCESS) {
    PrintError(context, file + ": " + std::string(client::RegistryErrorSentence(code)));
    return exit == kExitDone ? kExitFailed : exit;
  }
  return exit;
}

}  // namespace qx
