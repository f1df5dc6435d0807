#include "client/cli_offline.h"

#include <algorithm>
#include <array>
#include <istream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <optional>
#include <ostream>
#include <utility>

#include "client/batch.h"
#include "client/json_text.h"
#include "client/rule_object.h"
#include "client/schedule_file.h"
#include "client/schedule_json.h"
#include "client/schedule_weekdays.h"
#include "client/status_text.h"
#include "client/terminal_text.h"
#include "client/time_text.h"
#include "common/schedule_adapter.h"
#include "platform/clock.h"
#include "platform/file.h"
#include "platform/host.h"
#include "platform/input_file.h"
#include "platform/text.h"

namespace qx {
namespace {

using nlohmann::ordered_json;

// Excluded dates that one window is said to skip; more are counted only.
constexpr std::size_t kMostExclusionsShown = 3;

struct ShownWindow {
  ZepTime start = 0;
  ZepTime end = 0;
  std::int64_t day = 0;  // on which the window opens: of a restart behind midnight the day before
  bool last = false;
  std::uint32_t match = 0;
  std::vector<std::int64_t> skipped;  // excluded dates that would have been run days ahead of it
};

// --- files ---

bool FileNamed(std::u16string_view clientPath) {
  return platform::FileExists(platform::NativePath(clientPath));
}

bool EndsWith(std::string_view text, std::string_view end) {
  return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

// Reads at most one byte more than a schedule file may have.
int ReadText(CliContext& context, const std::string& file, std::string& text) {
  if (file == "-") {
    std::istreambuf_iterator<char> at(context.in), end;
    for (; at != end && text.size() <= kScheduleFileLimit; ++at) text += *at;
    return kExitDone;
  }
  const platform::ErrorCode code = platform::ReadInput(file, kScheduleFileLimit + 1, text);
  if (code == platform::ERROR_SUCCESS) return kExitDone;
  if (code == platform::ERROR_DIRECTORY) {
    PrintError(context, file + ": is a directory");
    return kExitNotFound;
  }
  PrintError(context, file + ": " + platform::Utf8FromWide(platform::SystemErrorText(code)));
  switch (code) {
    case platform::ERROR_FILE_NOT_FOUND:
    case platform::ERROR_PATH_NOT_FOUND:
      return kExitNotFound;
    case platform::ERROR_ACCESS_DENIED:
      return kExitPermission;
    default:
      return kExitFailed;
  }
}

void ReadRecordJson(std::string_view text, CheckedFile& checked) {
  const auto refuse = [&](std::string sentence) {
    checked.findings.push_back({Severity::kError, {}, "", std::move(sentence), ""});
  };
  if (text.size() > kScheduleFileLimit) return refuse("the file is too large for a schedule");
  try {
    std::string error;
    if (!RecordFromJson(nlohmann::json::parse(text), checked.record, error)) return refuse(error);
    checked.findings = CheckRecord(checked.record);
  } catch (const nlohmann::json::exception& error) {
    refuse(error.what());
  }
}

// The place that a refusal of the rules belongs to: the key it speaks of, else the table.
TextPosition PlaceOf(const std::map<std::string, TextPosition>& positions, Status status) {
  static constexpr std::pair<Status, const char*> kKeys[] = {
      {kStatusRestartTooLong, "window.restart"}, {kStatusNoRunDay, "days"}, {kStatusBackdated, "days"}};
  for (const auto& [code, key] : kKeys) {
    if (const auto at = positions.find(key); code == status && at != positions.end()) return at->second;
  }
  return {};
}

// What the service does with the record before it takes it: load, validate, look for a window to come.
Status ValidateRecord(const SCHEDULE_OBJECT& record) {
  const RuleObject schedule = NewRuleObject();
  if (!schedule) return kStatusFailure;
  CZEPScheduleObj adapter;
  adapter.m_pSchedule = schedule.get();
  const Status status = adapter.Validate_ScheduleRules(&record);
  if (status != kStatusOk) return status;
  return static_cast<std::int32_t>(adapter.GetNextTimeWindow()) < 0 ? kStatusBackdated : kStatusOk;
}

Finding PlaceWarning(const ScheduleFile& file, const std::string& key, const std::string& text) {
  const auto at = file.positions.find(key);
  return {Severity::kWarning, at == file.positions.end() ? TextPosition{} : at->second, key, key + " " + text, ""};
}

// The program that a command line names by its path: its first word, or what stands in quotes. Empty for any other.
std::u16string_view ProgramNamed(std::u16string_view commandLine) {
  const bool quoted = commandLine.starts_with(u'"');
  if (quoted) commandLine.remove_prefix(1);
  if (!commandLine.starts_with(u'/')) return {};
  return commandLine.substr(0, commandLine.find(quoted ? u'"' : u' '));
}

// A program may be on the service's host and not here.
std::vector<Finding> CheckProgram(const ScheduleFile& file) {
  const std::u16string wrapper = file.record.bstrWrapperBinaryName.value_or(u"");
  const std::u16string_view program = ProgramNamed(wrapper);
  if (program.empty() || FileNamed(program)) return {};
  return {PlaceWarning(file, "job.wrapper",
                       "names a program that doesn't exist on this machine: " + platform::Utf8FromWide(program))};
}

std::vector<Finding> CheckDirectories(const ScheduleFile& file) {
  const BSTR& xml = file.record.bstrXMLFilePathName;
  if (!xml || xml->find_first_of(u"/\\") == std::u16string::npos) return {};
  const std::string directory = platform::DirectoryOf(platform::NativePath(*xml));
  if (platform::DirectoryExists(directory)) return {};
  return {PlaceWarning(file, "job.xml", "lies in a directory that doesn't exist on this machine: " + directory)};
}

// --- windows ---

// The excluded dates in (ref, start] that a schedule without exclusions would run on.
std::vector<std::int64_t> SkippedDates(zepISchedule2& unexcluded, const std::vector<std::int64_t>& excluded,
                                       ZepTime ref, ZepTime start, const platform::Zone& zone) {
  std::vector<std::int64_t> skipped;
  for (const std::int64_t day : excluded) {
    if (day < LocalDay(ref, zone) || day >= LocalDay(start, zone)) continue;
    // Ask from the date's first second less one; the answer's own date tells.
    const ZepTime from = std::max<ZepTime>(ref, zone.ToSeconds(day * 86400) - 1);
    ZepTime at = 0;
    ZepTime end = 0;
    zepByte last = 0;
    if (unexcluded.GetNextTimeWindow(0, 0, from, &at, &end, &last) == ZEP_S_OK && LocalDay(at, zone) == day) {
      skipped.push_back(day);
    }
  }
  return skipped;
}

std::vector<ShownWindow> ComputeWindows(const SCHEDULE_OBJECT& record, std::int64_t from, std::int64_t count,
                                        bool withSkipped, Status& status) {
  std::vector<ShownWindow> windows;
  const platform::Zone& zone = platform::CurrentZone();
  const RuleObject schedule = NewRuleObject();
  const RuleObject unexcluded = NewRuleObject();
  if (!schedule || !unexcluded) {
    status = kStatusFailure;
    return windows;
  }
  CZEPScheduleObj adapter;
  adapter.m_pSchedule = unexcluded.get();
  (void)adapter.Validate_ScheduleRules(&record);
  unexcluded->ClearSpecificDates(ZEP_SPECIFIC_EXCLUDE);
  adapter.m_pSchedule = schedule.get();
  status = adapter.Validate_ScheduleRules(&record);
  if (status != kStatusOk) return windows;
  std::vector<std::int64_t> excluded;
  for (const std::int32_t date : record.stScheduleRules.alExcludeDates) {
    if (date == 0) break;
    excluded.push_back(LocalDay(date, zone));
  }
  std::sort(excluded.begin(), excluded.end());
  excluded.erase(std::unique(excluded.begin(), excluded.end()), excluded.end());
  ZepTime startTime = 0;
  (void)schedule->get_StartTime(&startTime);
  const std::int32_t opensAt = LocalTimeOfDay(startTime, zone);
  ZepTime ref = from;
  for (std::int64_t i = 0; i < count; ++i) {
    ShownWindow window;
    zepByte last = 0;
    if (schedule->GetNextTimeWindowEx(0, 0, ref, &window.start, &window.end, &last, &window.match) != ZEP_S_OK) break;
    window.last = last != 0;
    window.day = LocalDay(window.start, zone);
    if (window.start < zone.ToSeconds(window.day * 86400 + opensAt)) --window.day;
    if (withSkipped) window.skipped = SkippedDates(*unexcluded, excluded, ref, window.start, zone);
    windows.push_back(window);
    // A window may end at its own start, but the next one never begins there.
    ref = window.start;
  }
  return windows;
}

// The weeks of the month whose rule holds a day: "every tue", "second tue+last tue"; empty where none does.
std::string WeekdayRule(const SCHEDULE_RULE& rules, std::int64_t day) {
  const auto weekday = static_cast<std::size_t>((day % 7 + 11) % 7);  // day 0 was a Thursday
  const auto isSet = [&](std::size_t week) { return (rules.*kWeekFields[week])[weekday] != 0; };
  bool all = true;
  for (std::size_t week = 0; week < std::size(kWeekFields); ++week) all = all && isSet(week);
  if (all) return std::string("every ") + kWeekdayNames[weekday];
  const platform::CivilDate date = platform::CivilFromDays(day);
  const auto week = static_cast<std::size_t>((date.day - 1) / 7);
  const bool isLast = platform::CivilFromDays(day + 7).month != date.month;
  std::string names;
  if (week < 4 && isSet(week)) names = std::string(kWeekKeys[week]) + " " + kWeekdayNames[weekday];
  if (isLast && isSet(4)) names += (names.empty() ? "" : "+") + std::string("last ") + kWeekdayNames[weekday];
  return names;
}

// The days of the month whose rule holds a day: "day 31+last day"; empty where none does.
std::string MonthDayRule(const SCHEDULE_RULE& rules, std::int64_t day) {
  const int ofMonth = platform::CivilFromDays(day).day;
  std::string names;
  if (rules.adwDaysOfMonth[static_cast<std::size_t>(ofMonth - 1)] != 0) names = "day " + std::to_string(ofMonth);
  const bool isLast = platform::CivilFromDays(day + 1).day == 1;
  if (isLast && rules.adwDaysOfMonth[kDaysOfMonthCount - 1] != 0) names += names.empty() ? "last day" : "+last day";
  return names;
}

bool IsIncluded(const SCHEDULE_RULE& rules, std::int64_t day) {
  const platform::Zone& zone = platform::CurrentZone();
  for (const std::int32_t date : rules.alIncludeDates) {
    if (date == 0) break;
    if (LocalDay(date, zone) == day) return true;
  }
  return false;
}

bool HasZoneChange(const ShownWindow& window, const platform::Zone& zone) {
  return IsChangeDay(LocalDay(window.start, zone), zone) || IsChangeDay(LocalDay(window.end, zone), zone);
}

std::string Marks(const ShownWindow& window, const platform::Zone& zone) {
  std::vector<std::string> marks;
  if (HasZoneChange(window, zone)) marks.push_back("zone change");
  for (std::size_t i = 0; i < window.skipped.size() && i < kMostExclusionsShown; ++i) {
    marks.push_back("skips " + FormatDate(window.skipped[i]));
  }
  if (window.skipped.size() > kMostExclusionsShown) {
    marks.push_back("skips " + std::to_string(window.skipped.size() - kMostExclusionsShown) + " more");
  }
  if (window.last) marks.push_back("last window");
  std::string text;
  for (const std::string& mark : marks) text += (text.empty() ? "" : ", ") + mark;
  return text;
}

std::string ZoneName(const platform::Zone& zone) {
  return zone.Name().empty() ? "local" : zone.Name();
}

void PrintWindowTable(CliContext& context, const std::vector<ShownWindow>& windows, const SCHEDULE_RULE* why) {
  const platform::Zone& zone = platform::CurrentZone();
  std::vector<std::string> rules;
  std::size_t width = 0;
  for (const ShownWindow& window : windows) {
    std::string text;
    if (why != nullptr) {
      for (const std::string& rule : RuleNames(window.match, window.day, *why)) {
        text += (text.empty() ? "" : ", ") + rule;
      }
    }
    width = std::max({width, text.size(), std::size_t{4}});
    rules.push_back(std::move(text));
  }
  if (!context.options.noLegend) {
    std::string head = "START                      DAY  END                        ";
    if (why != nullptr) head += "RULE" + std::string(width - 2, ' ');
    context.out << Paint(context.colourOut, Colour::kBold, head + "MARKS") << "\n";
  }
  for (std::size_t i = 0; i < windows.size(); ++i) {
    const ShownWindow& window = windows[i];
    std::string line = FormatInstant(window.start, zone) + "  " + WeekdayOf(LocalDay(window.start, zone)) + "  " +
                       FormatInstant(window.end, zone);
    if (why != nullptr) {
      rules[i].resize(width, ' ');
      line += "  " + rules[i];
    }
    const std::string marks = Marks(window, zone);
    if (!marks.empty()) line += "  " + Paint(context.colourOut, Colour::kYellow, marks);
    line.erase(line.find_last_not_of(' ') + 1);
    context.out << line << "\n";
  }
  if (!context.options.noLegend) {
    context.out << "\n"
                << windows.size() << (windows.size() == 1 ? " window" : " windows") << ", zone "
                << Printable(ZoneName(zone)) << ".\n";
  }
}

void PrintWindowJson(CliContext& context, const std::vector<ShownWindow>& windows, const SCHEDULE_RULE& rules) {
  const platform::Zone& zone = platform::CurrentZone();
  ordered_json list = ordered_json::array();
  for (const ShownWindow& window : windows) {
    ordered_json item = ordered_json::object();
    item["start"] = window.start;
    item["end"] = window.end;
    item["last"] = window.last;
    item["match"] = window.match;
    item["rules"] = RuleNames(window.match, window.day, rules);
    item["zone_change"] = HasZoneChange(window, zone);
    item["skipped"] = ordered_json::array();
    for (const std::int64_t day : window.skipped) item["skipped"].push_back(FormatDate(day));
    list.push_back(std::move(item));
  }
  ordered_json out = ordered_json::object();
  out["zone"] = ZoneName(platform::CurrentZone());
  out["windows"] = std::move(list);
  WriteJson(context.out, out);
}

// --- check ---

ordered_json FindingJson(const Finding& finding) {
  ordered_json out = ordered_json::object();
  out["severity"] = finding.severity == Severity::kError ? "error" : "warning";
  out["line"] = finding.position.line;
  out["column"] = finding.position.column;
  out["key"] = finding.key;
  out["text"] = finding.text;
  out["allowed"] = finding.allowed;
  return out;
}

}  // namespace

bool IsFileArgument(const std::string& source) {
  return source == "-" || source.find('/') != std::string::npos || EndsWith(source, ".toml") ||
         EndsWith(source, ".json") || platform::FileExists(source);
}

std::vector<std::string> RuleNames(std::uint32_t match, std::int64_t day, const SCHEDULE_RULE& rules) {
  // Where a day of the repeat rule comes ahead of another rule's, the match is still that of the other one: so a rule
  // counts that holds the day itself.
  std::vector<std::string> names;
  if ((match & ZEP_RULE_INCLUDE_DATE) != 0 && IsIncluded(rules, day)) names.push_back("include");
  if ((match & ZEP_RULE_DAY_OF_WEEK) != 0) names.push_back(WeekdayRule(rules, day));
  if ((match & ZEP_RULE_DAY_OF_MONTH) != 0) names.push_back(MonthDayRule(rules, day));
  std::erase(names, "");
  if (!names.empty()) return names;
  if (match == 0 || rules.bRepeatInterval != 0) return {"every " + std::to_string(rules.dwRepeatInterval) + " days"};
  // A day that the zone leaves out: its window stands on the one behind it.
  if ((match & ZEP_RULE_INCLUDE_DATE) != 0) names.push_back("include");
  if ((match & ZEP_RULE_DAY_OF_WEEK) != 0) names.push_back("weekday");
  if ((match & ZEP_RULE_DAY_OF_MONTH) != 0) names.push_back("day of month");
  return names;
}

std::vector<ComingWindow> ComingWindows(const SCHEDULE_OBJECT& record, std::int64_t from, std::int64_t count,
                                        Status& status) {
  std::vector<ComingWindow> windows;
  for (const ShownWindow& window : ComputeWindows(record, from, count, false, status)) {
    windows.push_back({window.start, window.end, window.day, window.last});
  }
  return windows;
}

CheckedFile CheckText(const std::string& text, bool allowRelativePaths) {
  CheckedFile checked;
  std::map<std::string, TextPosition> positions;
  const std::size_t first = text.find_first_not_of(" \t\r\n");
  if (first != std::string::npos && text[first] == '{') {
    ReadRecordJson(text, checked);
  } else {
    ScheduleFile parsed =
        ParseScheduleFile(text, {platform::CurrentZone(), platform::NowSeconds(), allowRelativePaths, FileNamed});
    if (!HasErrors(parsed.findings)) {
      checked.advice = CheckProgram(parsed);
      for (Finding& finding : CheckDirectories(parsed)) parsed.findings.push_back(std::move(finding));
      SortFindings(parsed.findings);
    }
    checked.record = std::move(parsed.record);
    checked.findings = std::move(parsed.findings);
    positions = std::move(parsed.positions);
  }
  if (HasErrors(checked.findings)) return checked;
  checked.status = ValidateRecord(checked.record);
  if (checked.status != kStatusOk) {
    checked.findings.push_back(
        {Severity::kError, PlaceOf(positions, checked.status), "", FormatStatus(checked.status), ""});
  }
  return checked;
}

int ReadAndCheck(CliContext& context, const std::string& file, bool allowRelativePaths, CheckedFile& checked) {
  std::string text;
  if (const int exit = ReadText(context, file, text); exit != kExitDone) return exit;
  checked = CheckText(text, allowRelativePaths);
  return kExitDone;
}

int RunNext(CliContext& context, const NextArguments& arguments, const RecordSource& schedules) {
  auto from = ParseInstant(arguments.from, platform::CurrentZone(), platform::NowSeconds());
  if (!from || *from > ZEP_MAX_TIME || *from < 0) {
    PrintError(context, "--from: isn't an instant from 1970 to 2037: \"" + arguments.from +
                            "\" (allowed: now, @SECONDS, 2026-12-01, \"2026-12-01 10:00\")");
    return kExitUsage;
  }
  SCHEDULE_OBJECT record;
  if (IsFileArgument(arguments.source)) {
    CheckedFile checked;
    const int exit = ReadAndCheck(context, arguments.source, arguments.allowRelativePaths, checked);
    if (exit != kExitDone) return exit;
    // Rules in the past have no window from now on, but they may have some from --from on.
    const bool onlyBackdated = checked.status == kStatusBackdated;
    if (onlyBackdated) checked.findings.pop_back();
    for (const Finding& finding : checked.findings) PrintFinding(context, arguments.source, finding);
    if (HasErrors(checked.findings)) {
      PrintHint(context, DescribeStatus(checked.status).hint);
      return kExitRulesRefused;
    }
    record = std::move(checked.record);
  } else if (schedules) {
    if (const int exit = schedules(context, arguments.source, record); exit != kExitDone) return exit;
  } else {
    PrintError(context, arguments.source + ": no such file");
    return kExitNotFound;
  }
  // A schedule of the service may have brought the service's zone with it.
  const platform::Zone& zone = platform::CurrentZone();
  from = ParseInstant(arguments.from, zone, platform::NowSeconds());
  if (!from) return kExitUsage;
  Status status = kStatusOk;
  const auto windows = ComputeWindows(record, *from, arguments.count, true, status);
  if (status != kStatusOk) {
    PrintError(context, arguments.source + ": " + FormatStatus(status));
    PrintHint(context, DescribeStatus(status).hint);
    return kExitRulesRefused;
  }
  if (context.options.json) {
    PrintWindowJson(context, windows, record.stScheduleRules);
  } else if (windows.empty()) {
    PrintNote(context, "no window after " + FormatInstant(*from, zone));
  } else {
    BeginPaged(context);
    PrintWindowTable(context, windows, arguments.why ? &record.stScheduleRules : nullptr);
  }
  return kExitDone;
}

int RunNextBatch(CliContext& context) {
  if (RunBatch(context.in, context.out)) return kExitDone;
  PrintError(context, "the output can't be written");
  return kExitFailed;
}

int RunCheck(CliContext& context, const CheckArguments& arguments) {
  int exit = kExitDone;
  ordered_json report = ordered_json::array();
  for (const std::string& file : arguments.files) {
    CheckedFile checked;
    if (const int unread = ReadAndCheck(context, file, arguments.allowRelativePaths, checked); unread != kExitDone) {
      if (exit == kExitDone) exit = unread;
      continue;
    }
    checked.findings.insert(checked.findings.begin(), checked.advice.begin(), checked.advice.end());
    const bool refused = HasErrors(checked.findings) || (arguments.strict && !checked.findings.empty());
    if (refused) exit = kExitRulesRefused;
    if (context.options.json) {
      ordered_json item = ordered_json::object();
      item["file"] = file;
      item["ok"] = !refused;
      item["status"] = HexStatus(checked.status);
      item["findings"] = ordered_json::array();
      for (const Finding& finding : checked.findings) item["findings"].push_back(FindingJson(finding));
      report.push_back(std::move(item));
      continue;
    }
    for (const Finding& finding : checked.findings) PrintFinding(context, file, finding);
    if (checked.status != kStatusOk) PrintHint(context, DescribeStatus(checked.status).hint);
    if (!refused && !context.options.quiet) {
      context.out << Printable(file) << ": " << Paint(context.colourOut, Colour::kGreen, "ok") << "\n";
    }
  }
  if (context.options.json) {
    WriteJson(context.out, report);
  }
  return exit;
}

}  // namespace qx
