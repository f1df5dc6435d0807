#include "client/cli_apply.h"

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <ostream>
#include <vector>

#include "client/backup.h"
#include "client/cli_offline.h"
#include "client/cli_session.h"
#include "client/json_text.h"
#include "client/schedule_file.h"
#include "client/schedule_keys.h"
#include "client/status_text.h"
#include "client/terminal_text.h"
#include "common/bus_records.h"
#include "platform/clock.h"
#include "platform/file.h"
#include "platform/input_file.h"
#include "platform/text.h"

namespace qx {
namespace {

using nlohmann::ordered_json;
using platform::Utf8FromWide;

enum class Step { kCreate, kChange, kKeep };

// One file and what is to be done for it.
struct Item {
  std::string file;
  SCHEDULE_OBJECT record;
  Step step = Step::kCreate;
  Target target;           // of a change
  SCHEDULE_OBJECT before;  // of a change
  std::vector<KeyDifference> differences;
  std::optional<int> exit;  // once it was tried
  bool sent = false;        // the change, to the service
  std::string backup;
};

// The schedule files of a directory; any other path is one itself. What lies in a directory isn't waited for.
int FilesOf(CliContext& context, const std::string& path, std::vector<std::string>& files) {
  if (!platform::DirectoryExists(path)) {
    files = {path};
    return kExitDone;
  }
  std::vector<std::string> names;
  if (const platform::ErrorCode code = platform::ListDirectory(path, names); code != platform::ERROR_SUCCESS) {
    PrintError(context, path + ": " + FormatStatus(0x80070000 | code));
    return code == platform::ERROR_ACCESS_DENIED ? kExitPermission : kExitFailed;
  }
  for (const std::string& name : names) {
    if (name.ends_with(".toml") && !name.starts_with('.')) {
      files.push_back(path + (path.ends_with('/') ? "" : "/") + name);
    }
  }
  for (const std::string& file : files) {
    if (!platform::IsStream(file)) continue;
    PrintError(context, file + ": is a pipe or a device, which is read only where it is named itself");
    return kExitNotFound;
  }
  if (!files.empty()) return kExitDone;
  PrintError(context, path + ": the directory has no file *.toml");
  return kExitNotFound;
}

// Whether the service would have another name of the schedule after a start: the file would find it no more.
bool HasPassingName(const SCHEDULE_OBJECT& record) {
  const std::vector<Finding> findings = CheckRecord(record);
  return std::any_of(findings.begin(), findings.end(), [](const Finding& f) { return f.key == "bstrName"; });
}

// Reads and checks every file; all findings are told.
int ReadFiles(CliContext& context, const std::vector<std::string>& files, bool allowRelativePaths,
              std::vector<Item>& items) {
  int exit = kExitDone;
  const auto refuse = [&](int code) {
    if (exit == kExitDone) exit = code;
  };
  std::map<std::u16string, std::string> names;
  for (const std::string& file : files) {
    CheckedFile checked;
    if (const int unread = ReadAndCheck(context, file, allowRelativePaths, checked); unread != kExitDone) {
      refuse(unread);
      continue;
    }
    for (const Finding& finding : checked.findings) PrintFinding(context, file, finding);
    if (HasErrors(checked.findings)) {
      if (checked.status != kStatusOk) PrintHint(context, DescribeStatus(checked.status).hint);
      refuse(kExitRulesRefused);
      continue;
    }
    const std::u16string name = checked.record.bstrName.value_or(u"");
    if (name.empty()) {
      PrintError(context, file + ": has no name: a file belongs to the schedule that bears its name");
      refuse(kExitRulesRefused);
    } else if (HasPassingName(checked.record)) {
      PrintError(context, file + ": has a name that the service would change at its next start: a file belongs to the "
                                 "schedule that bears its name");
      refuse(kExitRulesRefused);
    } else if (const auto [at, fresh] = names.emplace(name, file); !fresh) {
      PrintError(context, file + ": has the name of " + at->second + ": \"" + Utf8FromWide(name) + "\"");
      refuse(kExitNotFound);
    }
    Item item;
    item.file = file;
    item.record = std::move(checked.record);
    items.push_back(std::move(item));
  }
  return exit;
}

// Finds the schedule of each file, and what differs.
int Match(CliContext& context, Session& session, std::vector<Item>& items) {
  std::vector<ListRow> rows;
  if (const int exit = session.AllRows(rows); exit != kExitDone) return exit;
  const platform::Zone& zone = platform::CurrentZone();
  int exit = kExitDone;
  for (Item& item : items) {
    std::vector<const ListRow*> bearers;
    for (const ListRow& row : rows) {
      if (row.nextWindow != kDamagedKey && row.name == *item.record.bstrName) bearers.push_back(&row);
    }
    if (bearers.empty()) {
      item.differences = CompareKeys({}, KeysOf(AsServiceKeeps(item.record), zone));
      continue;
    }
    if (bearers.size() > 1) {
      PrintError(context, item.file + ": " + std::to_string(bearers.size()) + " schedules bear the name \"" +
                              Utf8FromWide(*item.record.bstrName) + "\":");
      for (const ListRow* row : bearers) context.err << "  " << Printable(Utf8FromWide(row->id)) << "\n";
      PrintHint(context, "give each a name of its own: qxsched set ID name=...");
      exit = kExitNotFound;
      continue;
    }
    if (!ParseScheduleId(Utf8FromWide(bearers[0]->id), item.target.id)) continue;
    item.target.name = Utf8FromWide(bearers[0]->name);
    item.target.listed = true;
    if (const int failed = session.Fetch(item.target, item.before); failed != kExitDone) return failed;
    SCHEDULE_RULE& rules = item.record.stScheduleRules;
    // A repeat without an anchor counts from the day of its creation.
    if (rules.bRepeatInterval != 0 && rules.lAnchorDate == 0) {
      rules.lAnchorDate = item.before.stScheduleRules.lAnchorDate;
    }
    item.differences =
        CompareKeys(KeysOf(AsServiceKeeps(item.before), zone), KeysOf(AsServiceKeeps(item.record), zone));
    item.step = item.differences.empty() ? Step::kKeep : Step::kChange;
    if (const auto key = ChangedFixedKey(item.differences)) {
      PrintError(context, item.file + ": " + *key + " of " + Naming(item.target) + " is fixed after creation");
      PrintHint(context, "give the file another name, or delete the schedule first");
      if (exit == kExitDone) exit = kExitFailed;
    }
  }
  return exit;
}

// Everything that happens ahead of the first change.
int Plan(CliContext& context, Session& session, const std::string& path, bool allowRelativePaths,
         std::vector<Item>& items) {
  // The service first: the times in the files are those of its zone.
  if (const int exit = session.Begin(); exit != kExitDone) return exit;
  std::vector<std::string> files;
  if (const int exit = FilesOf(context, path, files); exit != kExitDone) return exit;
  int exit = ReadFiles(context, files, allowRelativePaths, items);
  const int matched = exit == kExitDone ? Match(context, session, items) : kExitDone;
  return exit == kExitDone ? matched : exit;
}

void PrintDifferences(CliContext& context, const Item& item) {
  for (const KeyDifference& difference : item.differences) {
    const auto line = [&](const char* sign, Colour colour, const std::optional<std::string>& value) {
      if (!value) return;
      context.out << Paint(context.colourOut, colour, Printable(sign + difference.key + " = " + *value)) << "\n";
    };
    line("- ", Colour::kRed, difference.before);
    line("+ ", Colour::kGreen, difference.after);
  }
}

const char* StepWord(Step step, bool done) {
  switch (step) {
    case Step::kCreate:
      return done ? "created" : "create";
    case Step::kChange:
      return done ? "changed" : "change";
    case Step::kKeep:
      break;
  }
  return "unchanged";
}

std::string ItemText(const Item& item) {
  const bool named = item.target.id != ScheduleGuid{};
  return item.file + ": " + (named ? IdText(item.target.id) + " " : "") + "\"" + Utf8FromWide(*item.record.bstrName) +
         "\"";
}

ordered_json ItemJson(const Item& item, const std::string& result) {
  ordered_json out = ordered_json::object();
  out["file"] = item.file;
  out["name"] = Utf8FromWide(*item.record.bstrName);
  out["id"] = item.target.id == ScheduleGuid{} ? ordered_json(nullptr) : ordered_json(IdText(item.target.id));
  out["action"] = StepWord(item.step, false);
  out["result"] = result;
  out["backup"] = item.backup.empty() ? ordered_json(nullptr) : ordered_json(item.backup);
  out["changes"] = ordered_json::array();
  for (const KeyDifference& difference : item.differences) {
    ordered_json change = ordered_json::object();
    change["key"] = difference.key;
    change["before"] = difference.before ? ordered_json(*difference.before) : ordered_json(nullptr);
    change["after"] = difference.after ? ordered_json(*difference.after) : ordered_json(nullptr);
    out["changes"].push_back(std::move(change));
  }
  return out;
}

int CarryOut(CliContext& context, Session& session, Item& item) {
  if (item.step == Step::kKeep) return kExitDone;
  if (item.step == Step::kCreate) {
    item.sent = true;
    const Status status = session.Wait("create the schedule", true, [&] {
      return session.Link().Service().CreateSchedule(item.record, item.target.id);
    });
    if (status == kStatusOk) return kExitDone;
    item.target.id = {};
    return session.Fail(status, item.file);
  }
  // The files ahead of this one may have taken a while.
  if (const int exit = session.CheckUnchanged(item.target, item.before); exit != kExitDone) return exit;
  const std::string directory = BackupDirectory(context);
  if (const platform::ErrorCode code =
          WriteBackup(directory, item.target.id, item.before, "before an apply", item.backup);
      code != platform::ERROR_SUCCESS) {
    item.backup.clear();
    PrintError(context, item.file + ": not changed: no backup can be written to " + directory + ": " +
                            FormatStatus(0x80070000 | code));
    return code == platform::ERROR_ACCESS_DENIED ? kExitPermission : kExitFailed;
  }
  item.sent = true;
  const int exit = session.Modify(item.target, item.before, item.record);
  if (exit == kExitDone) PrintNote(context, "backup: " + item.backup);
  return exit;
}

// What became of an item.
std::string ResultOf(const Item& item, bool lost) {
  if (!item.exit) return "not done";
  if (*item.exit == kExitDone) return StepWord(item.step, true);
  if (!lost || *item.exit != kExitUnreachable) return "failed";
  return item.sent ? "unknown" : "not done";
}

}  // namespace

int RunApply(CliContext& context, const OnlineSettings& settings, const ApplyArguments& arguments) {
  Session session(context, settings);
  std::vector<Item> items;
  if (const int exit = Plan(context, session, arguments.path, arguments.allowRelativePaths, items); exit != kExitDone) {
    if (!items.empty() && exit != kExitUnreachable) PrintError(context, "nothing is changed");
    return exit;
  }
  if (arguments.dryRun) {
    ordered_json report = ordered_json::array();
    for (const Item& item : items) {
      if (context.options.json) {
        report.push_back(ItemJson(item, "not done"));
        continue;
      }
      context.out << "would " << (item.step == Step::kKeep ? "keep" : StepWord(item.step, false)) << " "
                  << Printable(ItemText(item)) << "\n";
      if (item.step == Step::kChange) PrintDifferences(context, item);
    }
    if (context.options.json) WriteJson(context.out, report);
    return kExitDone;
  }
  int exit = kExitDone;
  bool lost = false;
  for (Item& item : items) {
    item.exit = CarryOut(context, session, item);
    if (*item.exit != kExitDone && exit == kExitDone) exit = *item.exit;
    lost = *item.exit == kExitUnreachable;
    if (lost) break;  // nobody is there for the others
    if (*item.exit == kExitDone && !context.options.json) {
      context.out << StepWord(item.step, true) << " " << Printable(ItemText(item)) << "\n";
    }
  }
  if (context.options.json) {
    ordered_json report = ordered_json::array();
    for (const Item& item : items) report.push_back(ItemJson(item, ResultOf(item, lost)));
    WriteJson(context.out, report);
  }
  if (exit == kExitDone) return exit;
  std::map<std::string, std::size_t> counts;
  for (const Item& item : items) ++counts[ResultOf(item, lost)];
  std::string summary;
  for (const char* word : {"created", "changed", "unchanged", "failed", "unknown", "not done"}) {
    if (counts[word] > 0) summary += (summary.empty() ? "" : ", ") + std::to_string(counts[word]) + " " + word;
  }
  PrintError(context, "of " + std::to_string(items.size()) + (items.size() == 1 ? " file: " : " files: ") + summary);
  for (const Item& item : items) {
    const std::string result = ResultOf(item, lost);
    if (result == "unknown") {
      PrintHint(context, item.file + ": whether the service carried it out isn't known; apply again, which changes "
                                     "only what differs");
    } else if (result == "not done") {
      context.err << "  not done: " << Printable(ItemText(item)) << "\n";
    }
  }
  return exit;
}

int RunDiff(CliContext& context, const OnlineSettings& settings, const DiffArguments& arguments) {
  Session session(context, settings);
  std::vector<Item> items;
  if (const int exit = Plan(context, session, arguments.path, arguments.allowRelativePaths, items); exit != kExitDone) {
    return exit;
  }
  BeginPaged(context);
  bool differs = false;
  ordered_json report = ordered_json::array();
  for (const Item& item : items) {
    differs = differs || item.step != Step::kKeep;
    if (context.options.json) {
      report.push_back(ItemJson(item, "not done"));
    } else if (item.step != Step::kKeep) {
      const std::string theirs = item.step == Step::kCreate ? "(not on the service)" : Naming(item.target);
      context.out << Paint(context.colourOut, Colour::kBold, "--- " + Printable(theirs)) << "\n"
                  << Paint(context.colourOut, Colour::kBold, "+++ " + Printable(item.file)) << "\n";
      PrintDifferences(context, item);
    }
  }
  if (context.options.json) WriteJson(context.out, report);
  if (!differs && !context.options.json) PrintNote(context, "no difference");
  return differs && arguments.exitCode ? kExitFailed : kExitDone;
}

}  // namespace qx
