#include "platform/public_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/fault_point.h"
#include "platform/file.h"

namespace platform {

ErrorCode ReplacePublicFile(const std::string& name, std::string_view contents) {
  const bool isNew = !FileExists(name);
  if (const ErrorCode code = ReplaceWholeFile(name, contents, Durable::kNo); code != ERROR_SUCCESS) return code;
  if (!isNew) return ERROR_SUCCESS;
  ErrorCode code = FaultAt(Operation::kWriteFile, name);
  if (code == ERROR_SUCCESS && ::chmod(name.c_str(), 0644) != 0) code = ErrorCodeFromErrno(errno);
  // Else its mode would be kept by all that follow.
  if (code != ERROR_SUCCESS) (void)::unlink(name.c_str());
  return code;
}

}  // namespace platform
