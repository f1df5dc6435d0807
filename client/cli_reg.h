// client/cli_reg.h: the commands `qxsched reg ...` over the key store of the state directory.
//
// Threads: a command runs on one thread.
#pragma once

#include <functional>

#include "client/cli_output.h"

namespace qx {

// Opens the key store, runs `command` over it and closes it.
//   create   make the store when the state directory has none
//   command  its result is the exit code
//   returns  kExitNotFound: no store; kExitPermission; kExitFailed: another process keeps it, or it is damaged; all
//            told on `err`
[[nodiscard]] int WithKeyStore(CliContext& context, bool create, const std::function<int()>& command);

}  // namespace qx
