#include "client/backup.h"

#include <cstdio>

#include "client/schedule_file.h"
#include "common/bus_records.h"
#include "platform/clock.h"
#include "platform/file.h"
#include "platform/host.h"
#include "platform/state_home.h"
#include "platform/text.h"

namespace qx {
namespace {

constexpr int kMostBackupsOfOneSecond = 1000;

// "20261130-130000", UTC, so that names sort by time in any zone.
std::string StampOf(std::int64_t seconds) {
  constexpr std::int64_t kDay = 86400;
  const platform::CivilDate date = platform::CivilFromDays(seconds / kDay);
  const int second = static_cast<int>(seconds % kDay);
  char text[32];
  std::snprintf(text, sizeof text, "%04d%02d%02d-%02d%02d%02d", static_cast<int>(date.year), date.month, date.day,
                second / 3600, second / 60 % 60, second % 60);
  return text;
}

}  // namespace

std::string BackupDirectory(const CliContext& context) {
  if (!context.options.root.empty() || platform::RunsAsRoot()) return platform::StateDirectory() + "/backups";
  const std::string home = platform::UserStateHome();
  return home.empty() ? "" : home + "/qxsched/backups";
}

platform::ErrorCode WriteBackup(const std::string& directory, const ScheduleGuid& scheduleId,
                                const SCHEDULE_OBJECT& record, const std::string& reason, std::string& file) {
  using platform::File;
  if (directory.empty()) return platform::ERROR_PATH_NOT_FOUND;
  if (const platform::ErrorCode code = platform::CreateDirectories(directory); code != platform::ERROR_SUCCESS) {
    return code;
  }
  const std::string id = platform::Utf8FromWide(platform::GuidText(scheduleId));
  const std::string stem = directory + "/" + id.substr(1, id.size() - 2) + "-" + StampOf(platform::NowSeconds());
  // Under a name that no backup bears until it is whole; whoever has that name has the backup's too.
  std::string part;
  File handle;
  platform::ErrorCode code = platform::ERROR_FILE_EXISTS;
  for (int i = 1; code == platform::ERROR_FILE_EXISTS && i <= kMostBackupsOfOneSecond; ++i) {
    file = stem + (i == 1 ? "" : "-" + std::to_string(i)) + ".toml";
    part = file + ".part";
    if (platform::FileExists(file)) continue;
    code = handle.Open(part, File::Access::kWrite, File::Disposition::kCreateNew);
    if (code != platform::ERROR_SUCCESS || !platform::FileExists(file)) continue;
    handle.Close();  // another one was made meanwhile
    (void)platform::DeleteFile(part);
    code = platform::ERROR_FILE_EXISTS;
  }
  if (code != platform::ERROR_SUCCESS) return code;
  code = handle.WriteAll("# " + id + ", " + reason + "\n" + WriteScheduleFile(record, platform::CurrentZone()));
  if (code == platform::ERROR_SUCCESS) code = handle.Sync();
  handle.Close();
  if (code == platform::ERROR_SUCCESS) code = platform::RenameFile(part, file, platform::Durable::kYes);
  if (code != platform::ERROR_SUCCESS) (void)platform::DeleteFile(part);
  return code;
}

bool ReadBackupId(const std::string& text, ScheduleGuid& id) {
  constexpr std::string_view kMark = "# ";
  if (!text.starts_with(kMark) || text.size() < kMark.size() + platform::kGuidTextLength + 1) return false;
  if (text[kMark.size() + platform::kGuidTextLength] != ',') return false;
  return ParseScheduleId(std::string_view(text).substr(kMark.size(), platform::kGuidTextLength), id);
}

}  // namespace qx
