// client/cli_apply.h: bringing the service's schedules to what files say: apply and diff.
//
// A file belongs to the schedule that bears its name. Everything is read, checked and matched before the first change;
// what belongs to several schedules is never guessed.
// Threads: a command runs on one thread.
#pragma once

#include <string>

#include "client/cli_online.h"

namespace qx {

struct ApplyArguments {
  std::string path;  // a file, or a directory: its files *.toml
  bool allowRelativePaths = false;
  bool dryRun = false;  // tell what would be done
};
// Creates what isn't there and modifies what differs; schedules without a file stay. A backup is written before each
// modification. When the service is lost on the way, tells what was done, what wasn't, and what isn't known.
//   returns  an ExitCode, told on `err`
[[nodiscard]] int RunApply(CliContext& context, const OnlineSettings& settings, const ApplyArguments& arguments);

struct DiffArguments {
  std::string path;  // as for apply
  bool allowRelativePaths = false;
  bool exitCode = false;  // kExitFailed when something differs
};
// Shows what apply would change, key by key.
[[nodiscard]] int RunDiff(CliContext& context, const OnlineSettings& settings, const DiffArguments& arguments);

}  // namespace qx
