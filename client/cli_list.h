// client/cli_list.h: the command that lists all schedules.
//
// Threads: as cli_online.h.
#pragma once

#include "client/cli_online.h"

namespace qx {

// All schedules by next window.
[[nodiscard]] int RunList(CliContext& context, const OnlineSettings& settings);

}  // namespace qx
