// client/cli_history.h: qxsched history, which shows what `qxsched record` kept.
//
// Threads: a command runs on one thread.
#pragma once

#include <string>

#include "client/cli_app.h"
#include "client/cli_output.h"

namespace qx {

struct HistoryArguments {
  // Empty: history.db in the state directory; where that isn't, in the directory qxsched-record beside it.
  std::string file;
  std::string schedule;  // ID, beginning of its digits, or name; empty: all
  std::string since;     // an instant, or a length of time back from now; empty: all
  bool missed = false;   // only missed windows, and those of which nobody knows
};
// Shows entries, oldest first. The service isn't asked: a schedule that is gone is found by what was recorded.
//   returns  kExitDone; kExitUsage: no such time; kExitNotFound: no history, or no such schedule in it; kExitFailed
[[nodiscard]] int RunHistory(CliContext& context, const HistoryArguments& arguments);

void AddHistoryCommand(CLI::App& app, CliContext& context, CommandChoice& choice);

}  // namespace qx
