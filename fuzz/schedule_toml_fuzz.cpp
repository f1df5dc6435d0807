// Schedule files: every finding has a place, and a record without an error is written and read again.
#include "client/schedule_file.h"
#include "fuzz/fuzz_target.h"
#include "platform/clock.h"

using qx::fuzz::Require;

QX_FUZZ_TARGET(schedule_toml) {
  const std::string_view text = qx::fuzz::Text(data, size);
  const platform::Zone& zone = platform::CurrentZone();
  const qx::ScheduleFileOptions options{zone, platform::NowSeconds(), false, {}};
  const qx::ScheduleFile file = qx::ParseScheduleFile(text, options);
  for (const qx::Finding& finding : file.findings) {
    Require(!finding.text.empty(), "a finding says something");
    Require(qx::FormatFinding("f", finding).find('\n') == std::string::npos, "a finding is one line");
  }
  if (qx::HasErrors(file.findings)) return 0;
  (void)qx::CheckRecord(file.record);
  const std::string written = qx::WriteScheduleFile(file.record, zone);
  const qx::ScheduleFile again = qx::ParseScheduleFile(written, options);
  Require(!qx::HasErrors(again.findings), "what was written can be read");
  Require(qx::WriteScheduleFile(again.record, zone) == written, "what was read again is written the same");
  return 0;
}
