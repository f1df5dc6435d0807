#include "client/cli_key_store.h"

#include <algorithm>
#include <iterator>
#include <string>
#include <vector>

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
    PrintError(context, why.empty() ? file + ": " + std::string(RegistryErrorSentence(code)) : why);
    return code == platform::ERROR_ACCESS_DENIED ? kExitPermission : kExitFailed;
  }
  const int exit = command();
  if (const platform::ErrorCode code = platform::CloseRegistryStore(); code != platform::ERROR_SUCCESS) {
    PrintError(context, file + ": " + std::string(RegistryErrorSentence(code)));
    return exit == kExitDone ? kExitFailed : exit;
  }
  return exit;
}

std::string_view RegistryErrorSentence(platform::ErrorCode code) {
  struct Row {
    platform::ErrorCode code;
    std::string_view sentence;
  };
  static constexpr Row kRows[] = {
      {platform::ERROR_FILE_NOT_FOUND, "no such key or value"},
      {platform::ERROR_PATH_NOT_FOUND, "no such directory"},
      {platform::ERROR_ACCESS_DENIED, "not allowed"},
      {platform::ERROR_INVALID_HANDLE, "this root is not there"},
      {platform::ERROR_NOT_ENOUGH_MEMORY, "not enough memory"},
      {platform::ERROR_NOT_SUPPORTED, "the key store was written by a newer version"},
      {platform::ERROR_INVALID_PARAMETER,
       "a key's name has 1 to 255 characters, a value's name at most 16383, keys nest 512 deep, and nothing is made "
       "directly below HKLM and HKU"},
      {platform::ERROR_DISK_FULL, "the disk is full"},
      {platform::ERROR_BAD_PATHNAME, "a key's path has no backslash in front"},
      {platform::ERROR_BUSY, "another program keeps the key store busy"},
      {platform::ERROR_BADDB, "the key store is not open"},
      {platform::ERROR_REGISTRY_CORRUPT, "the key store is damaged"},
      {platform::ERROR_REGISTRY_IO_FAILED, "the key store could not be read or written"},
      {platform::ERROR_KEY_DELETED, "the key was deleted meanwhile"},
  };
  const auto* row = std::find_if(std::begin(kRows), std::end(kRows), [&](const Row& r) { return r.code == code; });
  return row == std::end(kRows) ? std::string_view("the key store failed") : row->sentence;
}

}  // namespace qx
