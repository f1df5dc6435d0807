// client/cli_calendar.h: the command that shows coming windows as a month or a year.
//
// Threads: a command runs on one thread.
#pragma once

#include <string>
#include <vector>

#include "client/cli_app.h"
#include "client/cli_online.h"
#include "client/cli_output.h"

namespace qx {

struct CalendarArguments {
  std::vector<std::string> sources;  // schedules of the service, or files; none: all schedules of the service
  std::string month;                 // "2026-11"; at most one of the two; neither: the present month
  std::string year;                  // "2026"
  std::string html;                  // the file that the page goes to, "-" for the output; empty: text on the output
  bool allowRelativePaths = false;
};

// Writes the calendar. The service is asked only where a source is no file or there is none, and its zone is lived in
// then unless one was chosen; nothing is written before everything was read.
//   returns  kExitDone; kExitUsage for a month or year that has no calendar; kExitRulesRefused for a malformed file or
//            refused rules; kExitPermission or kExitFailed when the page can't be written: an old one is untouched;
//            else as for files and schedules that aren't there
[[nodiscard]] int RunCalendar(CliContext& context, const OnlineSettings& settings, const CalendarArguments& arguments);

// Gives the command its name and arguments.
void AddCalendarCommand(CLI::App& app, CliContext& context, CommandChoice& choice, const OnlineSettings& settings);

}  // namespace qx
