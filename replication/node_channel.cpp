#include "replication/node_channel.h"

#include "foundation/include/zfclog.h"
#include "platform/file.h"
#include "platform/security.h"
#include "platform/text.h"

namespace qx {

using platform::SecurityLoad;
using ZepFoundation::ForLog;
using ZepFoundation::ServiceLog;

INodeChannel::Security CNodeChannel::LoadSecurityLibrary(platform::ErrorCode& code) {
  std::string file, why;
  const std::string standard = platform::StateDirectory() + "/" + std::string(kCredentialsFileName);
  switch (platform::UseCredentialsFile(standard, file, why)) {
    case platform::ERROR_SUCCESS:
      break;
    case platform::ERROR_ACCESS_DENIED:
      ServiceLog(0, u"LoadSecurityLibrary: the credentials file is not used: %s", ForLog(platform::WideFromUtf8(why)));
      break;
    default:
      ServiceLog(3,
                 u"LoadSecurityLibrary: there is no credentials file %s; other nodes are reached through a realm only",
                 ForLog(platform::WideFromUtf8(file)));
  }
  switch (platform::LoadSecurityPackage(code)) {
    case SecurityLoad::kLoaded:
      return Security::kLoaded;
    case SecurityLoad::kNoLibrary:
      return Security::kNoLibrary;
    case SecurityLoad::kNoEntry:
      break;
  }
  return Security::kNoEntry;
}

void CNodeChannel::FreeSecurityLibrary() { platform::FreeSecurityPackage(); }

}  // namespace qx
