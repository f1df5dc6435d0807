// client/cli_record.h: qxsched record, which keeps a history of the service's events.
//
// The history is the file history.db in the state directory, or any other. It knows launches, not results.
// Threads: a command runs on one thread.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "client/cli_app.h"
#include "client/cli_online.h"
#include "client/cli_output.h"

namespace qx {

struct RecordArguments {
  std::string file;            // empty: history.db in the state directory
  std::string metrics;         // empty: none
  std::uint64_t sizeMib = 64;  // bound of the file
  std::uint32_t days = 90;     // age of the oldest entry
  std::function<bool()> stop;  // tests: asked in each turn
};
// Records until an interrupt, over losses of the service and the bus. Each entry is shown as it is made, with --json as
// a JSON text on its own line; nothing with --quiet. Doesn't start the service.
//   returns  kExitDone after an interrupt; kExitFailed: the file can't be used, with the cause on `err`;
//   kExitPermission
[[nodiscard]] int RunRecord(CliContext& context, const OnlineSettings& settings, const RecordArguments& arguments);

void AddRecordCommand(CLI::App& app, CliContext& context, CommandChoice& choice, const OnlineSettings& settings);

}  // namespace qx
