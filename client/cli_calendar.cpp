#include "client/cli_calendar.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <ostream>
#include <utility>

#include "client/calendar.h"
#include "client/calendar_page.h"
#include "client/calendar_text.h"
#include "client/cli_offline.h"
#include "client/cli_session.h"
#include "client/json_text.h"
#include "client/status_text.h"
#include "client/time_text.h"
#include "platform/file.h"
#include "platform/text.h"

namespace qx {
namespace {

using nlohmann::ordered_json;

// Windows that a day tells one by one; more are counted. A year of days has to stay a page that a browser likes.
constexpr std::size_t kKeptOfMonth = 40;
constexpr std::size_t kKeptOfYear = 12;
constexpr std::size_t kTextColumns = 80;  // where the output says nothing of its width

int RefuseSpan(CliContext& context, const char* option, const std::string& given, const char* form) {
  const std::string years = std::to_string(kFirstCalendarYear) + " to " + std::to_string(kLastCalendarYear);
  PrintError(context,
             std::string(option) + ": \"" + given + "\" has no calendar (allowed: " + form + ", years " + years + ")");
  return kExitUsage;
}

// The span that was asked for; nothing is one for the present month.
int ReadSpan(CliContext& context, const CalendarArguments& arguments, std::optional<CalendarSpan>& span) {
  if (!arguments.month.empty()) {
    span = ParseCalendarMonth(arguments.month);
    if (!span) return RefuseSpan(context, "--month", arguments.month, "YYYY-MM as 2026-12");
  } else if (!arguments.year.empty()) {
    span = ParseCalendarYear(arguments.year);
    if (!span) return RefuseSpan(context, "--year", arguments.year, "YYYY as 2026");
  }
  return kExitDone;
}

// A schedule without a name goes by the beginning of its ID.
std::string NameOf(const SCHEDULE_OBJECT& record, const std::string& otherwise) {
  const std::string name = platform::Utf8FromWide(record.bstrName.value_or(u""));
  return name.empty() ? otherwise : name;
}

int AddFile(CliContext& context, const std::string& file, bool allowRelativePaths, CalendarBuilder& builder) {
  CheckedFile checked;
  if (const int exit = ReadAndCheck(context, file, allowRelativePaths, checked); exit != kExitDone) return exit;
  // Rules in the past have no window from now on, but the month may lie there too.
  if (checked.status == kStatusBackdated) checked.findings.pop_back();
  for (const Finding& finding : checked.findings) PrintFinding(context, file, finding);
  if (HasErrors(checked.findings)) {
    PrintHint(context, DescribeStatus(checked.status).hint);
    return kExitRulesRefused;
  }
  const Status status = builder.Add(NameOf(checked.record, file), checked.record);
  if (status == kStatusOk) return kExitDone;
  PrintError(context, file + ": " + FormatStatus(status));
  return ExitCodeOf(status);
}

// The schedules that the words name, or all that can be read.
int AddSchedules(CliContext& context, Session& session, const std::vector<std::string>& words, bool all,
                 CalendarBuilder& builder) {
  std::vector<Target> targets;
  const int found = all ? session.FindAll(targets) : session.Find(words, targets);
  if (found != kExitDone) return found;
  for (const Target& target : targets) {
    SCHEDULE_OBJECT record;
    const std::string id = IdText(target.id);
    if (const int exit = session.Fetch(target, record); exit != kExitDone) {
      // Deleted since the list was read; of many that happens.
      if (!all || exit != kExitNotFound) return exit;
      PrintNote(context, id + ": is left out");
      continue;
    }
    if (const Status status = builder.Add(NameOf(record, id.substr(1, 8)), record); status != kStatusOk) {
      if (!all) return session.Fail(status, id);
      PrintNote(context, id + ": is left out: " + FormatStatus(status));
    }
  }
  return kExitDone;
}

int Collect(CliContext& context, const OnlineSettings& settings, const CalendarArguments& arguments,
            Calendar& calendar) {
  std::optional<CalendarSpan> span;
  if (const int exit = ReadSpan(context, arguments, span); exit != kExitDone) return exit;
  std::vector<std::string> files, words;
  for (const std::string& source : arguments.sources) (IsFileArgument(source) ? files : words).push_back(source);
  const bool all = arguments.sources.empty();
  Session session(context, settings);
  if (all || !words.empty()) {
    if (const int exit = session.Connect(); exit != kExitDone) return exit;
    if (!context.zoneChosen) {
      if (const int exit = session.UseServiceZone(); exit != kExitDone) return exit;
    }
  }
  const std::int64_t now = platform::NowSeconds();
  if (!span) span = CalendarMonthOf(now, platform::CurrentZone());
  CalendarBuilder builder(*span, now, span->month == 0 ? kKeptOfYear : kKeptOfMonth);
  for (const std::string& file : files) {
    if (const int exit = AddFile(context, file, arguments.allowRelativePaths, builder); exit != kExitDone) return exit;
  }
  if (all || !words.empty()) {
    if (const int exit = AddSchedules(context, session, words, all, builder); exit != kExitDone) return exit;
  }
  calendar = builder.Finish();
  return kExitDone;
}

ordered_json CalendarJson(const Calendar& calendar) {
  ordered_json days = ordered_json::array();
  for (const CalendarDay& day : calendar.days) {
    ordered_json item = {{"date", FormatDate(day.day)},        {"windows", day.windows},   {"restarts", day.restarts},
                         {"excluded", day.excluded},           {"open_by_hour", day.open}, {"change", day.change},
                         {"change_seconds", day.changeSeconds}};
    ordered_json entries = ordered_json::array();
    for (const CalendarEntry& entry : day.entries) {
      entries.push_back({{"start", entry.start},
                         {"end", entry.end},
                         {"schedule", calendar.schedules[entry.schedule].name},
                         {"reason", entry.reason},
                         {"opens", entry.opens},
                         {"restarts", entry.restarts},
                         {"last", entry.last}});
    }
    item["entries"] = std::move(entries);
    item["all_entries"] = day.allEntries;
    ordered_json exclusions = ordered_json::array();
    for (const CalendarExclusion& exclusion : day.exclusions) {
      exclusions.push_back({{"schedule", calendar.schedules[exclusion.schedule].name}, {"reason", exclusion.reason}});
    }
    item["exclusions"] = std::move(exclusions);
    days.push_back(std::move(item));
  }
  return {{"zone", calendar.zone},         {"schedules", calendar.schedules.size()}, {"windows", calendar.windows},
          {"restarts", calendar.restarts}, {"excluded", calendar.excluded},          {"days", std::move(days)}};
}

int WritePage(CliContext& context, const std::string& file, const std::string& page) {
  if (file == "-") {
    context.out << page;
    return kExitDone;
  }
  const platform::ErrorCode code = platform::DirectoryExists(file)
                                       ? platform::ERROR_ACCESS_DENIED
                                       : platform::ReplaceWholeFile(file, page, platform::Durable::kYes);
  if (code == platform::ERROR_SUCCESS) {
    PrintNote(context, "written: " + file);
    return kExitDone;
  }
  PrintError(context, file + ": the page can't be written: " + FormatStatus(0x80070000 | code));
  if (platform::FileExists(file)) PrintHint(context, "the page that was there is untouched");
  return code == platform::ERROR_ACCESS_DENIED ? kExitPermission : kExitFailed;
}

}  // namespace

int RunCalendar(CliContext& context, const OnlineSettings& settings, const CalendarArguments& arguments) {
  Calendar calendar;
  if (const int exit = Collect(context, settings, arguments, calendar); exit != kExitDone) return exit;
  if (!arguments.html.empty()) return WritePage(context, arguments.html, CalendarPage(calendar));
  if (context.options.json) {
    WriteJson(context.out, CalendarJson(calendar));
    return kExitDone;
  }
  BeginPaged(context);
  const std::size_t columns = settings.columns.value_or(context.columns);
  context.out << CalendarText(calendar,
                              {columns == 0 ? kTextColumns : columns, context.colourOut, !context.options.noLegend});
  return kExitDone;
}

void AddCalendarCommand(CLI::App& app, CliContext& context, CommandChoice& choice, const OnlineSettings& settings) {
  struct State {
    CalendarArguments arguments;
    std::string zone;
  };
  const auto state = std::make_shared<State>();
  CLI::App* command = app.add_subcommand("calendar", "Show the windows of a month or a year, also as a page");
  command->add_option("SCHEDULE|FILE", state->arguments.sources,
                      "Schedules, or schedule files, - for the input (all schedules of the service)");
  CLI::Option* month =
      command->add_option("--month", state->arguments.month, "The month (the present one)")->type_name("YYYY-MM");
  command->add_option("--year", state->arguments.year, "The whole year")->type_name("YYYY")->excludes(month);
  command->add_option("--html", state->arguments.html, "Write one HTML page, - for the output")->type_name("FILE");
  command->add_flag("--allow-relative-paths", state->arguments.allowRelativePaths, "Take relative paths in the files");
  command->add_option("--zone", state->zone, "Zone to compute in (that of the service, or the local one)")
      ->type_name("ZONE");
  command->callback([&context, &choice, &settings, state] {
    choice.run = [&context, &settings, state] {
      if (!state->zone.empty() && !UseZone(context, state->zone)) return static_cast<int>(kExitUsage);
      return RunCalendar(context, settings, state->arguments);
    };
  });
}

}  // namespace qx
