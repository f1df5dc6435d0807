// client/backup.h: files that keep a schedule as it was before a change.
//
// Threads: every function may be called from any thread.
#pragma once

#include <string>

#include "client/cli_output.h"
#include "interface/records.h"
#include "platform/error_codes.h"

namespace qx {

// Where backups go: the state directory's "backups" for root and where a state directory is named, else
// qxsched/backups in the user's own state. Empty for a user without a home.
[[nodiscard]] std::string BackupDirectory(const CliContext& context);

// Writes a schedule into a new file "ID-YYYYMMDD-HHMMSS.toml" (UTC) of the directory, which is made when missing;
// synced. Its first line is "# {ID}, REASON". An existing file is never written over.
//   file     the file's name, on success
//   returns  0; ERROR_PATH_NOT_FOUND (3) for no directory; the code of the file: nothing is left behind
[[nodiscard]] platform::ErrorCode WriteBackup(const std::string& directory, const ScheduleGuid& id,
                                              const SCHEDULE_OBJECT& record, const std::string& reason,
                                              std::string& file);

// The ID that the first line of a backup names; false for any other text, `id` untouched.
[[nodiscard]] bool ReadBackupId(const std::string& text, ScheduleGuid& id);

}  // namespace qx
