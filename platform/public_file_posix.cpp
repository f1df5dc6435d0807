#include "platform/public_file.h"

#include <sys/stat.h>

#include <cerrno>

#include "platform/file.h"

namespace platform {

ErrorCode ReplacePublicFile(const std::string& name, std::string_view contents) {
  const bool isNew = !FileExists(name);
  if (const ErrorCode code = ReplaceWholeFile(name, contents, Durable::kNo); code != ERROR_SUCCESS) return code;
  if (!isNew || ::chmod(name.c_str(), 0644) == 0) return ERROR_SUCCESS;
  return ErrorCodeFromErrno(errno);
}

}  // namespace platform
