// client/cli_change.h: the commands that change one schedule: set, edit, skip, run; and export and restore.
//
// A modification is read back and compared with what was asked for; one that the service took back is a failure. Every
// command returns an ExitCode; a failure has been told on `err`.
// Threads: a command runs on one thread.
#pragma once

#include <string>
#include <vector>

#include "client/cli_online.h"

namespace qx {

struct SetArguments {
  std::string schedule;
  std::vector<std::string> assignments;  // KEY=VALUE, KEY+=VALUE, KEY-=VALUE
  bool allowRelativePaths = false;
  bool dryRun = false;  // tell what would change, change nothing
};
[[nodiscard]] int RunSet(CliContext& context, const OnlineSettings& settings, const SetArguments& arguments);

// Opens the schedule as a file in $VISUAL, $EDITOR or the system's editor, and again while the text has errors and the
// user wants to. A backup is written before the change; a text that isn't used is kept and its place told.
[[nodiscard]] int RunEdit(CliContext& context, const OnlineSettings& settings, const std::string& schedule,
                          bool allowRelativePaths);

// Excludes the day of the next window.
//   undo  takes the earliest exclusion from today on back instead
[[nodiscard]] int RunSkip(CliContext& context, const OnlineSettings& settings, const std::string& schedule, bool undo);

// Has the service start the job now: the unchanged record with bRunNow 1 as a modification.
[[nodiscard]] int RunLaunch(CliContext& context, const OnlineSettings& settings, const std::string& schedule);

struct ExportArguments {
  std::vector<std::string> schedules;  // none: all
  std::string directory;               // a file each in it; empty: to the output, which takes one schedule
  bool force = false;                  // write over files that are there
};
[[nodiscard]] int RunExport(CliContext& context, const OnlineSettings& settings, const ExportArguments& arguments);

struct RestoreArguments {
  std::string file;
  bool copy = false;  // also while the schedule of the backup is still there
};
// Creates a schedule from a backup. It has a new ID.
[[nodiscard]] int RunRestore(CliContext& context, const OnlineSettings& settings, const RestoreArguments& arguments);

}  // namespace qx
