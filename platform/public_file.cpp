#include "platform/public_file.h"

#include "platform/file.h"

namespace platform {

ErrorCode ReplacePublicFile(const std::string& name, std::string_view contents) {
  const bool isNew = !FileExists(name);
  FileReplacement file;
  ErrorCode code = file.Begin(name, contents, Durable::kNo);
  if (code == ERROR_SUCCESS && isNew) code = file.LetAllRead();
  return code == ERROR_SUCCESS ? file.Finish() : code;
}

}  // namespace platform
