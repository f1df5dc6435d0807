#include "client/cli_change.h"

#include <algorithm>
#include <istream>
#include <nlohmann/json.hpp>
#include <optional>
#include <ostream>
#include <set>

#include "client/backup.h"
#include "client/cli_offline.h"
#include "client/cli_session.h"
#include "client/json_text.h"
#include "client/schedule_file.h"
#include "client/schedule_json.h"
#include "client/schedule_keys.h"
#include "client/status_text.h"
#include "client/terminal_text.h"
#include "client/time_text.h"
#include "platform/clock.h"
#include "platform/file.h"
#include "platform/foreground.h"
#include "platform/host.h"
#include "platform/input_file.h"
#include "platform/terminal.h"
#include "platform/text.h"

namespace qx {
namespace {

using nlohmann::ordered_json;
using platform::ErrorCode;
using platform::Utf8FromWide;

int FileFailure(CliContext& context, const std::string& file, ErrorCode code) {
  PrintError(context, file + ": " + FormatStatus(0x80070000 | code));
  return code == platform::ERROR_ACCESS_DENIED ? kExitPermission : kExitFailed;
}

void PrintFixed(CliContext& context, const std::string& about, const std::string& key) {
  PrintError(context, about + ": " + key + " is fixed after creation; nothing is changed");
  PrintHint(context, key == "job.pass_id"
                         ? "the service would go back to the old value at its next start; make a new schedule of it: "
                           "export, change the file, add, rm"
                         : DescribeStatus(kStatusImmutable).hint);
}

void PrintChanges(CliContext& context, const std::vector<KeyDifference>& differences) {
  for (const KeyDifference& difference : differences) {
    if (difference.before) {
      context.out << Paint(context.colourOut, Colour::kRed,
                           Printable("- " + difference.key + " = " + *difference.before))
                  << "\n";
    }
    if (difference.after) {
      context.out << Paint(context.colourOut, Colour::kGreen,
                           Printable("+ " + difference.key + " = " + *difference.after))
                  << "\n";
    }
  }
}

// The times of the next window, for a note behind a change.
std::string NextText(const SCHEDULE_OBJECT& record) {
  Status status = kStatusOk;
  const auto windows = ComingWindows(record, platform::NowSeconds(), 1, status);
  return windows.empty() ? "no window to come" : "next " + FormatInstant(windows[0].start, platform::CurrentZone());
}

// Whether a day that is left out and has passed would still have a restart to come: of a window over midnight.
bool WouldStillRun(const SCHEDULE_OBJECT& record, std::int64_t day, std::int64_t now, const platform::Zone& zone) {
  if (day != LocalDay(now, zone) - 1) return false;
  SCHEDULE_OBJECT with = record;
  auto& dates = with.stScheduleRules.alExcludeDates;
  const auto end = std::find(dates.begin(), dates.end(), 0);
  std::fill(std::remove_if(dates.begin(), end, [&](std::int32_t date) { return LocalDay(date, zone) == day; }), end, 0);
  Status status = kStatusOk;
  const auto windows = ComingWindows(with, now, 1, status);
  return !windows.empty() && windows[0].day == day;
}

ordered_json ChangesJson(const Target& target, const std::vector<KeyDifference>& differences) {
  ordered_json out = ordered_json::object();
  out["id"] = IdText(target.id);
  out["changes"] = ordered_json::array();
  for (const KeyDifference& difference : differences) {
    ordered_json item = ordered_json::object();
    item["key"] = difference.key;
    item["before"] = difference.before ? ordered_json(*difference.before) : ordered_json(nullptr);
    item["after"] = difference.after ? ordered_json(*difference.after) : ordered_json(nullptr);
    out["changes"].push_back(std::move(item));
  }
  return out;
}

// --- edit ---

constexpr const char* kEditNotice =
    "# An unchanged or empty text changes nothing. application, object_id, task_code and pass_id are fixed.\n";

// The user's editor as a command line of the shell, and where it is named.
std::string EditorCommand() {
  for (const char16_t* variable : {u"VISUAL", u"EDITOR"}) {
    const auto value = platform::EnvironmentVariable(variable);
    if (value && !value->empty()) return Utf8FromWide(*value);
  }
  return platform::FileExists("/usr/bin/editor") ? "editor" : "vi";
}

// The file that an editor works on; deleted at the end unless it is to be kept.
class WorkingFile {
 public:
  WorkingFile(CliContext& context, const Target& target) : m_context(context), m_target(target) {}
  WorkingFile(const WorkingFile&) = delete;
  WorkingFile& operator=(const WorkingFile&) = delete;
  ~WorkingFile() {
    if (m_name.empty()) return;
    if (m_keep) {
      PrintNote(m_context, "your text is kept: " + m_name);
      return;
    }
    const ErrorCode code = platform::DeleteFile(m_name);
    if (code != platform::ERROR_SUCCESS && code != platform::ERROR_FILE_NOT_FOUND) {
      PrintNote(m_context, "the file of the editor is left behind: " + m_name);
    }
  }
  ErrorCode Create(const std::string& text) {
    const std::string directory = BackupDirectory(m_context);
    if (directory.empty()) return platform::ERROR_PATH_NOT_FOUND;
    ErrorCode code = platform::CreateDirectories(directory);
    const std::string id = IdText(m_target.id);
    platform::File file;
    for (int i = 0; code == platform::ERROR_SUCCESS && m_name.empty(); ++i) {
      const std::string name =
          directory + "/edit-" + id.substr(1, 8) + (i == 0 ? "" : "-" + std::to_string(i)) + ".toml";
      code = file.Open(name, platform::File::Access::kWrite, platform::File::Disposition::kCreateNew);
      if (code == platform::ERROR_SUCCESS) m_name = name;
      if (code == platform::ERROR_FILE_EXISTS && i < kMostNames) code = platform::ERROR_SUCCESS;
    }
    return code == platform::ERROR_SUCCESS ? file.WriteAll(text) : code;
  }
  // Runs the editor; false after a failure that has been told.
  bool Edit(std::string& text) {
    const std::string editor = EditorCommand();
    std::uint32_t exitCode = 0;
    // The shell outlives an interrupt from the keyboard that the editor takes for itself.
    const std::string script = "trap : INT QUIT; " + editor + " \"$1\"";
    ErrorCode code = platform::RunInForeground({"/bin/sh", "-c", script, "edit", m_name}, exitCode);
    if (code == platform::ERROR_SUCCESS && exitCode != 0) {
      PrintError(m_context, "the editor \"" + editor + "\" ended with " + std::to_string(exitCode) +
                                "; nothing is changed");
      PrintHint(m_context, "$VISUAL or $EDITOR names the editor");
      return false;
    }
    text.clear();
    if (code == platform::ERROR_SUCCESS) code = platform::ReadWholeFile(m_name, text);
    if (code == platform::ERROR_SUCCESS) return true;
    (void)FileFailure(m_context, m_name, code);
    return false;
  }
  void Keep() { m_keep = true; }
  // Whether it may have more than the text that it was made with.
  [[nodiscard]] bool HasMoreThan(const std::string& text) const {
    std::string present;
    const ErrorCode code = platform::ReadWholeFile(m_name, present);
    return code == platform::ERROR_SUCCESS ? present != text : code != platform::ERROR_FILE_NOT_FOUND;
  }
  [[nodiscard]] const std::string& Name() const { return m_name; }

 private:
  static constexpr int kMostNames = 1000;
  CliContext& m_context;
  const Target& m_target;
  std::string m_name;
  bool m_keep = false;
};

// Without anybody to answer, no.
bool EditAgain(CliContext& context, const OnlineSettings& settings) {
  if (!settings.confirm.value_or(platform::IsTerminal(platform::StandardStream::kInput))) return false;
  context.err << "Edit again? [Y/n] ";
  context.err.flush();
  std::string answer;
  if (!std::getline(context.in, answer)) return false;
  return answer.empty() || answer == "y" || answer == "Y" || answer == "yes";
}

// Sends what the editor left.
//   again  set when another text may do better
int SendEdited(CliContext& context, Session& session, const Target& target, const SCHEDULE_OBJECT& before,
               const SCHEDULE_OBJECT& after, bool& again) {
  const platform::Zone& zone = platform::CurrentZone();
  const auto keysBefore = KeysOf(AsServiceKeeps(before), zone);
  const auto differences = CompareKeys(keysBefore, KeysOf(AsServiceKeeps(after), zone));
  if (differences.empty() && after.bRunNow == 0) {
    PrintNote(context, "nothing to change: " + Naming(target));
    return kExitDone;
  }
  if (const auto key = ChangedFixedKey(differences)) {
    PrintFixed(context, Naming(target), *key);
    again = true;
    return kExitRulesRefused;
  }
  if (const int exit = session.CheckUnchanged(target, before); exit != kExitDone) {
    if (exit == kExitFailed) PrintHint(context, "begin again with qxsched edit " + IdText(target.id));
    return exit;
  }
  std::string backup;
  if (const ErrorCode code = WriteBackup(BackupDirectory(context), target.id, before, "before an edit", backup);
      code != platform::ERROR_SUCCESS) {
    PrintError(context, "nothing is changed: no backup can be written");
    return FileFailure(context, BackupDirectory(context), code);
  }
  PrintNote(context, "backup: " + backup);
  const int exit = session.Modify(target, before, after);
  again = exit == kExitRulesRefused;
  if (exit == kExitDone) PrintNote(context, "changed: " + Naming(target) + ", " + NextText(after));
  return exit;
}

// --- export ---

// A file's name for a schedule: what a name has beside letters, digits, "." and "_" becomes "-".
std::string FileNameOf(const Target& target, const SCHEDULE_OBJECT& record, std::set<std::string>& taken) {
  std::string stem;
  for (const char c : Utf8FromWide(record.bstrName.value_or(u""))) {
    const auto byte = static_cast<unsigned char>(c);
    const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
                       (c == '.' && !stem.empty()) || byte >= 0x80;
    if (plain) {
      stem += c;
    } else if (!stem.empty() && stem.back() != '-') {
      stem += '-';
    }
  }
  while (!stem.empty() && stem.back() == '-') stem.pop_back();
  constexpr std::size_t kLongestStem = 200;
  const std::string id = IdText(target.id);
  const std::string digits = id.substr(1, id.size() - 2);
  if (stem.empty() || stem.size() > kLongestStem) stem = digits;
  while (!taken.insert(stem).second) stem += "-" + digits;  // a name may end in another's digits
  return stem + ".toml";
}

std::string ExportText(const Target& target, const SCHEDULE_OBJECT& record) {
  return "# " + IdText(target.id) + ", exported\n" + WriteScheduleFile(record, platform::CurrentZone());
}

}  // namespace

int RunSet(CliContext& context, const OnlineSettings& settings, const SetArguments& arguments) {
  Session session(context, settings);
  Target target;
  if (const int exit = session.BeginWith(arguments.schedule, target); exit != kExitDone) return exit;
  SCHEDULE_OBJECT before;
  if (const int exit = session.Fetch(target, before); exit != kExitDone) return exit;
  const platform::Zone& zone = platform::CurrentZone();
  std::vector<ScheduleKey> keys = KeysOf(AsServiceKeeps(before), zone);
  const std::vector<ScheduleKey> keysBefore = keys;
  std::set<std::string> named;
  for (const std::string& assignment : arguments.assignments) {
    std::string key;
    if (const std::string error = AssignKey(keys, assignment, key); !error.empty()) {
      PrintError(context, error);
      return kExitUsage;
    }
    named.insert(key);
  }
  if (const auto key = ChangedFixedKey(CompareKeys(keysBefore, keys))) {
    PrintFixed(context, Naming(target), *key);
    return kExitFailed;
  }
  const std::string text = TextOfKeys(keys);
  CheckedFile checked = CheckText(text, true);
  if (!arguments.allowRelativePaths) {
    // Only the paths that were named here are held to it.
    for (Finding& finding : CheckText(text, false).findings) {
      const auto same = std::find(checked.findings.begin(), checked.findings.end(), finding);
      if (same == checked.findings.end() && named.contains(finding.key)) checked.findings.push_back(std::move(finding));
    }
  }
  for (Finding finding : checked.findings) {
    // What isn't TOML has no key; the text has one a line. What the rules answer is about all of them.
    const bool hasLine = finding.position.line > 0 && finding.position.line <= keys.size();
    if (checked.status == kStatusOk && finding.key.empty() && hasLine) {
      finding.text = keys[finding.position.line - 1].name + ": " + finding.text;
    }
    finding.position = {};
    PrintFinding(context, "set", finding);
  }
  if (HasErrors(checked.findings)) {
    if (checked.status != kStatusOk) PrintHint(context, DescribeStatus(checked.status).hint);
    return kExitRulesRefused;
  }
  const auto differences = CompareKeys(keysBefore, KeysOf(AsServiceKeeps(checked.record), zone));
  if (!differences.empty() && !arguments.dryRun) {
    if (const int exit = session.CheckUnchanged(target, before); exit != kExitDone) return exit;
    if (const int exit = session.Modify(target, before, checked.record); exit != kExitDone) return exit;
  }
  if (context.options.json) {
    WriteJson(context.out, ChangesJson(target, differences));
  } else if (differences.empty()) {
    PrintNote(context, "nothing to change: " + Naming(target));
  } else {
    PrintChanges(context, differences);
    PrintNote(context, (arguments.dryRun ? "would change: " : "changed: ") + Naming(target) + ", " +
                           NextText(checked.record));
  }
  return kExitDone;
}

int RunEdit(CliContext& context, const OnlineSettings& settings, const std::string& schedule,
            bool allowRelativePaths) {
  Session session(context, settings);
  Target target;
  if (const int exit = session.BeginWith(schedule, target); exit != kExitDone) return exit;
  SCHEDULE_OBJECT before;
  if (const int exit = session.Fetch(target, before); exit != kExitDone) return exit;
  const std::string text =
      "# " + Naming(target) + "\n" + kEditNotice + WriteScheduleFile(before, platform::CurrentZone());
  WorkingFile file(context, target);
  if (const ErrorCode code = file.Create(text); code != platform::ERROR_SUCCESS) {
    return FileFailure(context, BackupDirectory(context), code);
  }
  for (std::string edited;;) {
    const bool worked = file.Edit(edited);
    if (!worked || edited == text || edited.find_first_not_of(" \t\r\n") == std::string::npos) {
      if (worked) {
        PrintNote(context, "nothing to change: " + Naming(target));
        return kExitDone;
      }
      // What was written ahead of an editor's failure is somebody's work.
      if (file.HasMoreThan(text)) file.Keep();
      return kExitFailed;
    }
    const CheckedFile checked = CheckText(edited, allowRelativePaths);
    for (const Finding& finding : checked.findings) PrintFinding(context, file.Name(), finding);
    bool again = HasErrors(checked.findings);
    int exit = kExitRulesRefused;
    if (again) {
      PrintHint(context, checked.status != kStatusOk ? DescribeStatus(checked.status).hint : "");
    } else {
      exit = SendEdited(context, session, target, before, checked.record, again);
    }
    if (exit == kExitDone) return exit;
    if (!again || !EditAgain(context, settings)) {
      file.Keep();
      return exit;
    }
  }
}

int RunSkip(CliContext& context, const OnlineSettings& settings, const std::string& schedule, bool undo) {
  Session session(context, settings);
  Target target;
  if (const int exit = session.BeginWith(schedule, target); exit != kExitDone) return exit;
  SCHEDULE_OBJECT before;
  if (const int exit = session.Fetch(target, before); exit != kExitDone) return exit;
  const platform::Zone& zone = platform::CurrentZone();
  const std::int64_t now = platform::NowSeconds();
  std::int64_t day = 0;
  if (undo) {
    std::optional<std::int64_t> earliest;
    for (const std::int32_t date : before.stScheduleRules.alExcludeDates) {
      if (date == 0) break;
      const std::int64_t excluded = LocalDay(date, zone);
      const bool toCome = excluded >= LocalDay(now, zone) || WouldStillRun(before, excluded, now, zone);
      if (toCome && (!earliest || excluded < *earliest)) earliest = excluded;
    }
    if (!earliest) {
      PrintError(context, Naming(target) + ": no day from today on is left out; nothing is changed");
      return kExitFailed;
    }
    day = *earliest;
  } else {
    Status status = kStatusOk;
    const auto windows = ComingWindows(before, now, 1, status);
    if (windows.empty()) {
      const std::string why = status == kStatusOk ? "" : " (" + FormatStatus(status) + ")";
      PrintError(context, Naming(target) + ": there is no window to come" + why + "; nothing is changed");
      return kExitFailed;
    }
    day = windows[0].day;
  }
  std::vector<ScheduleKey> keys = KeysOf(AsServiceKeeps(before), zone);
  std::string key;
  std::string error = AssignKey(keys, "days.exclude" + std::string(undo ? "-=" : "+=") + FormatDate(day), key);
  const CheckedFile checked = CheckText(TextOfKeys(keys), true);
  for (const Finding& finding : checked.findings) {
    if (error.empty() && finding.severity == Severity::kError) error = finding.text;
  }
  if (!error.empty()) {
    PrintError(context, Naming(target) + ": " + error + "; nothing is changed");
    if (checked.status == kStatusBackdated) PrintHint(context, "it was the last window; rm deletes the schedule");
    return kExitRulesRefused;
  }
  if (const int exit = session.CheckUnchanged(target, before); exit != kExitDone) return exit;
  if (const int exit = session.Modify(target, before, checked.record); exit != kExitDone) return exit;
  const std::string date = FormatDate(day) + " (" + WeekdayOf(day) + ")";
  if (context.options.json) {
    ordered_json out = ordered_json::object();
    out["id"] = IdText(target.id);
    out[undo ? "restored" : "skipped"] = FormatDate(day);
    WriteJson(context.out, out);
  } else {
    PrintNote(context, Naming(target) + ": " + (undo ? "runs on " + date + " again" : "leaves out " + date) + ", " +
                           NextText(checked.record));
    if (!undo) PrintHint(context, "qxsched skip --undo takes it back");
  }
  return kExitDone;
}

int RunLaunch(CliContext& context, const OnlineSettings& settings, const std::string& schedule) {
  Session session(context, settings);
  Target target;
  if (const int exit = session.BeginWith(schedule, target); exit != kExitDone) return exit;
  SCHEDULE_OBJECT before;
  if (const int exit = session.Fetch(target, before); exit != kExitDone) return exit;
  SCHEDULE_OBJECT after = before;
  after.bRunNow = 1;
  if (const int exit = session.CheckUnchanged(target, before); exit != kExitDone) return exit;
  const int exit = session.Modify(target, before, after);
  if (exit == kExitRulesRefused) PrintHint(context, "a schedule that has run out can't be started this way");
  if (exit != kExitDone) return exit;
  if (context.options.json) {
    WriteJson(context.out, {{"id", IdText(target.id)}, {"asked", true}});
  } else {
    PrintNote(context, Naming(target) + ": the service was told to start the job");
    PrintHint(context, "it doesn't say whether the job started; see qxsched log");
  }
  return kExitDone;
}

int RunExport(CliContext& context, const OnlineSettings& settings, const ExportArguments& arguments) {
  Session session(context, settings);
  if (const int exit = session.Begin(); exit != kExitDone) return exit;
  std::vector<Target> targets;
  const bool all = arguments.schedules.empty();
  const int found = all ? session.FindAll(targets) : session.Find(arguments.schedules, targets);
  if (found != kExitDone) return found;
  const bool toOutput = arguments.directory.empty();
  if (toOutput && !context.options.json && targets.size() != 1) {
    PrintError(context, "export: " + std::to_string(targets.size()) +
                            " schedules don't go into one file; --output names a directory for a file each");
    return kExitUsage;
  }
  // Everything is fetched before the first file is written.
  std::vector<SCHEDULE_OBJECT> records(targets.size());
  for (std::size_t i = 0; i < targets.size(); ++i) {
    if (const int exit = session.Fetch(targets[i], records[i]); exit != kExitDone) return exit;
  }
  if (toOutput) {
    if (!context.options.json) {
      context.out << ExportText(targets[0], records[0]);
      return kExitDone;
    }
    ordered_json list = ordered_json::array();
    for (std::size_t i = 0; i < targets.size(); ++i) {
      list.push_back({{"id", IdText(targets[i].id)}, {"record", RecordToJson(records[i])}});
    }
    WriteJson(context.out, list);
    return kExitDone;
  }
  std::set<std::string> taken;
  std::vector<std::string> files;
  for (std::size_t i = 0; i < targets.size(); ++i) {
    files.push_back(arguments.directory + "/" + FileNameOf(targets[i], records[i], taken));
    if (arguments.force || !platform::FileExists(files.back())) continue;
    PrintError(context, files.back() + ": is there already; nothing is written");
    PrintHint(context, "--force writes over files");
    return kExitFailed;
  }
  if (const ErrorCode code = platform::CreateDirectories(arguments.directory); code != platform::ERROR_SUCCESS) {
    return FileFailure(context, arguments.directory, code);
  }
  ordered_json report = ordered_json::array();
  for (std::size_t i = 0; i < targets.size(); ++i) {
    const ErrorCode code =
        platform::ReplaceWholeFile(files[i], ExportText(targets[i], records[i]), platform::Durable::kYes);
    if (code != platform::ERROR_SUCCESS) return FileFailure(context, files[i], code);
    report.push_back({{"id", IdText(targets[i].id)}, {"file", files[i]}});
    if (!context.options.json) context.out << Printable(files[i]) << "\n";
  }
  if (context.options.json) WriteJson(context.out, report);
  return kExitDone;
}

int RunRestore(CliContext& context, const OnlineSettings& settings, const RestoreArguments& arguments) {
  Session session(context, settings);
  if (const int exit = session.Begin(); exit != kExitDone) return exit;
  std::string text;
  if (const ErrorCode code = platform::ReadInput(arguments.file, kScheduleFileLimit + 1, text);
      code != platform::ERROR_SUCCESS) {
    if (code == platform::ERROR_DIRECTORY) {
      PrintError(context, arguments.file + ": is a directory");
      return kExitNotFound;
    }
    const int exit = FileFailure(context, arguments.file, code);
    return code == platform::ERROR_FILE_NOT_FOUND || code == platform::ERROR_PATH_NOT_FOUND ? kExitNotFound : exit;
  }
  CheckedFile checked = CheckText(text, true);
  for (const Finding& finding : checked.findings) PrintFinding(context, arguments.file, finding);
  if (HasErrors(checked.findings)) {
    if (checked.status != kStatusOk) PrintHint(context, DescribeStatus(checked.status).hint);
    return kExitRulesRefused;
  }
  ScheduleGuid old{};
  const bool known = ReadBackupId(text, old);
  if (known && !arguments.copy) {
    std::vector<ListRow> rows;
    if (const int exit = session.AllRows(rows); exit != kExitDone) return exit;
    const std::u16string id = platform::GuidText(old);
    if (std::any_of(rows.begin(), rows.end(), [&](const ListRow& row) { return row.id == id; })) {
      PrintError(context, arguments.file + ": the schedule " + IdText(old) + " is still there; nothing is restored");
      PrintHint(context, "qxsched apply FILE brings it back to this file; restore --copy makes a second schedule");
      return kExitFailed;
    }
  }
  // A backup brings a schedule back; it starts no job.
  checked.record.bRunNow = 0;
  ScheduleGuid id{};
  const Status status = session.Wait("create the schedule", true,
                                     [&] { return session.Link().Service().CreateSchedule(checked.record, id); });
  if (status != kStatusOk) {
    const bool lost = session.IsLost();
    const int exit = session.Fail(status, arguments.file);
    if (lost) PrintHint(context, "whether the schedule was created isn't known; see qxsched list");
    return exit;
  }
  if (context.options.json) {
    WriteJson(context.out, {{"id", IdText(id)}, {"was", known ? ordered_json(IdText(old)) : ordered_json(nullptr)}});
  } else {
    context.out << IdText(id) << "\n";
    PrintNote(context, "restored under a new ID" + (known ? "; it was " + IdText(old) : ""));
  }
  KeepMadeId(context, IdText(id));
  return kExitDone;
}

}  // namespace qx
