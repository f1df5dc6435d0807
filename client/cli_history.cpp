#include "client/cli_history.h"

#include <CLI/CLI.hpp>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <ostream>
#include <vector>

#include "client/cli_session.h"
#include "client/history_store.h"
#include "client/history_text.h"
#include "client/json_text.h"
#include "client/schedule_word.h"
#include "client/time_text.h"
#include "platform/clock.h"
#include "platform/file.h"

namespace qx {
namespace {

using nlohmann::ordered_json;
using platform::ERROR_SUCCESS;
using platform::ErrorCode;

// The history of the recorder's unit lies beside the state directory.
std::string FileToShow(const std::string& given) {
  const std::string file = HistoryFileOf(given);
  if (!given.empty() || platform::FileExists(file)) return file;
  const std::string state = platform::StateDirectory();
  const std::string ofUnit = state.substr(0, state.rfind('/') + 1) + "qxsched-record/history.db";
  return platform::FileExists(ofUnit) ? ofUnit : file;
}

// The one recorded schedule that a word names.
int FindRecorded(CliContext& context, const std::map<std::string, std::string>& names, const std::string& word,
                 std::string& id) {
  std::vector<NamedId> recorded;
  for (const auto& [schedule, name] : names) recorded.push_back({schedule, name});
  std::size_t at = 0;
  const int exit = FindByWord(context, word, recorded, "no such schedule in the history",
                              "nothing was recorded of it, or the entries were too old; see qxsched list", at);
  if (exit == kExitDone) id = recorded[at].id;
  return exit;
}

std::optional<std::int64_t> ParseSince(const std::string& text, const platform::Zone& zone) {
  const std::int64_t now = platform::NowSeconds();
  if (const auto back = ParseDuration(text)) return now - *back / static_cast<std::int64_t>(kMillisecondsPerSecond);
  return ParseInstant(text, zone, now);
}

}  // namespace

int RunHistory(CliContext& context, const HistoryArguments& arguments) {
  const std::string file = FileToShow(arguments.file);
  HistoryStore store;
  std::string zoneText;
  std::map<std::string, KnownSchedule> known;
  std::map<std::string, std::string> names;
  ErrorCode code = store.OpenForReading(file);
  if (code == platform::ERROR_FILE_NOT_FOUND || code == platform::ERROR_PATH_NOT_FOUND) {
    PrintError(context, "no history: " + file);
    PrintHint(context, "qxsched record keeps one, while it runs");
    return kExitNotFound;
  }
  if (code == ERROR_SUCCESS) code = store.Fact(kZoneFact, zoneText);
  if (code == ERROR_SUCCESS) code = store.Windows(known);
  if (code == ERROR_SUCCESS) code = store.Schedules(names);
  if (code != ERROR_SUCCESS) return FailHistory(context, file, code);
  for (auto& [schedule, name] : names) {
    if (const auto at = known.find(schedule); at != known.end() && !at->second.name.empty()) name = at->second.name;
  }
  const platform::Zone zone = HistoryZoneOf(zoneText);
  HistoryQuery query;
  query.missed = arguments.missed;
  if (!arguments.since.empty()) {
    query.since = ParseSince(arguments.since, zone);
    if (!query.since) {
      PrintError(context,
                 "--since: not a time: \"" + arguments.since +
                     "\" (allowed: a length of time back from now as 2h or 1d12h, now, a date as 2026-12-01, a "
                     "date and time as 2026-12-01T22:00, with Z or +01:00 behind it where wanted, @SECONDS)");
      return kExitUsage;
    }
  }
  if (!arguments.schedule.empty()) {
    query.schedule.emplace();
    const int exit = FindRecorded(context, names, arguments.schedule, *query.schedule);
    if (exit != kExitDone) return exit;
  }
  std::vector<HistoryEntry> entries;
  if (code = store.Entries(query, entries); code != ERROR_SUCCESS) return FailHistory(context, file, code);
  // An entry may be older than the knowledge of the name.
  for (HistoryEntry& entry : entries) {
    if (const auto at = names.find(entry.schedule); entry.name.empty() && at != names.end()) entry.name = at->second;
  }
  if (context.options.json) {
    ordered_json out = ordered_json::array();
    for (const HistoryEntry& entry : entries) out.push_back(HistoryJson(entry));
    WriteJson(context.out, out);
    return kExitDone;
  }
  BeginPaged(context);
  for (const HistoryEntry& entry : entries) context.out << HistoryLine(context, entry, zone) << "\n";
  if (context.options.noLegend) return kExitDone;
  context.out << "\n"
              << entries.size() << (entries.size() == 1 ? " entry" : " entries")
              << "; launches are known, results are not.\n";
  return kExitDone;
}

void AddHistoryCommand(CLI::App& app, CliContext& context, CommandChoice& choice) {
  const auto history = std::make_shared<HistoryArguments>();
  CLI::App* historyCommand = app.add_subcommand("history", "Show what was launched, changed and missed, as recorded");
  historyCommand->add_option("SCHEDULE", history->schedule, "ID, the beginning of its digits (4 or more), or name");
  historyCommand->add_option("--since", history->since, "Only from this time on, or so long back: 2h, 2026-12-01T22:00")
      ->type_name("TIME");
  historyCommand->add_flag("--missed", history->missed, "Only missed windows, and those of which nobody knows");
  historyCommand
      ->add_option("--file", history->file,
                   "History file (history.db in the state directory), else that of the unit qxsched-record")
      ->type_name("FILE");
  historyCommand->footer(kLaunchesAreKnown);
  historyCommand->callback(
      [&context, &choice, history] { choice.run = [&context, history] { return RunHistory(context, *history); }; });
}

}  // namespace qx
