#include "common/ini_recovery.h"

#include <string>

#include "foundation/include/zfclog.h"
#include "platform/file.h"

namespace qx {

using ZepFoundation::ForLog;
using ZepFoundation::ServiceLog;

bool RestoreOldIniFile(std::u16string_view path) {
  const std::string file = platform::NativePath(path);
  if (file.empty() || platform::FileExists(file)) return false;
  const std::string old = platform::NativePath(std::u16string(path).append(kOldIniSuffix));
  if (!platform::FileExists(old)) return false;
  const platform::ErrorCode rc = platform::RenameToNewFile(old, file, platform::Durable::kYes);
  if (rc == platform::ERROR_FILE_EXISTS) return false;  // the modification has put its new file there meanwhile
  // Only the directory's sync can have failed where the file is there.
  if (rc != platform::ERROR_SUCCESS && !platform::FileExists(file)) {
    ServiceLog(1, u"The schedule file %s is missing and its .old copy can't be moved back, error : %d", ForLog(path),
               rc);
    return false;
  }
  ServiceLog(1, u"The schedule file %s was missing and was restored from its .old copy", ForLog(path));
  return true;
}

}  // namespace qx
