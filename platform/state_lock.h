// platform/state_lock.h: the file that a service keeps locked while it works on its state directory
// (LockStateDirectory()).
#pragma once

#include <string>

#include "platform/file.h"

namespace platform {

[[nodiscard]] inline std::string StateLockFile() { return StateDirectory() + "/lock"; }

}  // namespace platform
