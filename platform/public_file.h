// platform/public_file.h: a file that programs of other users read.
//
// Threads: as ReplaceWholeFile().
#pragma once

#include <string>
#include <string_view>

#include "platform/error_codes.h"

namespace platform {

// As ReplaceWholeFile() without syncing, but a new file can be read by everybody (mode 0644); one that is there keeps
// its mode.
//   returns  as ReplaceWholeFile(); there is no new file when its mode couldn't be set
[[nodiscard]] ErrorCode ReplacePublicFile(const std::string& name, std::string_view contents);

}  // namespace platform
