#include "client/cli_online.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <istream>
#include <nlohmann/json.hpp>
#include <ostream>
#include <utility>

#include "client/backup.h"
#include "client/cli_offline.h"
#include "client/cli_session.h"
#include "client/json_text.h"
#include "client/schedule_file.h"
#include "client/schedule_json.h"
#include "client/status_text.h"
#include "client/terminal_text.h"
#include "client/time_text.h"
#include "platform/clock.h"
#include "platform/file.h"
#include "platform/host.h"
#include "platform/interrupt.h"
#include "platform/terminal.h"
#include "platform/text.h"

namespace qx {
namespace {

using nlohmann::ordered_json;
using platform::Utf8FromWide;

constexpr std::int64_t kWindowsShown = 3;
// How long monitor may take to hear of an interrupt.
constexpr std::uint32_t kMonitorTurnMs = 250;
constexpr std::size_t kEventWidth = 21;  // of the longest event's name

ordered_json WindowJson(std::int32_t window) {
  if (window < 0) return nullptr;
  return window;
}

// --- rm ---

struct Removal {
  Target target;
  std::string backup;
  Status status = kStatusOk;
};

int WriteBackups(CliContext& context, Session& session, std::vector<Removal>& removals) {
  const std::string directory = BackupDirectory(context);
  for (Removal& removal : removals) {
    SCHEDULE_OBJECT record;
    int exit = session.Fetch(removal.target, record);
    if (exit == kExitDone) {
      const platform::ErrorCode code = WriteBackup(directory, removal.target.id, record, "deleted", removal.backup);
      if (code == platform::ERROR_SUCCESS) {
        PrintNote(context, "backup: " + removal.backup);
        continue;
      }
      PrintError(context, "the backup can't be written to " + (directory.empty() ? "any directory" : directory) + ": " +
                              FormatStatus(0x80070000 | code));
      exit = code == platform::ERROR_ACCESS_DENIED ? kExitPermission : kExitFailed;
    }
    PrintError(context, "nothing is deleted");
    // What is there and can't be read can still be deleted.
    const bool there = exit != kExitNotFound || removal.target.listed;
    if (there && exit != kExitUnreachable) PrintHint(context, "--no-backup deletes without a backup");
    return exit;
  }
  return kExitDone;
}

bool Confirmed(CliContext& context, const std::vector<Removal>& removals) {
  for (const Removal& removal : removals) context.err << "  " << Printable(Naming(removal.target)) << "\n";
  context.err << "Delete " << (removals.size() == 1 ? "this schedule" : "these schedules") << "? [y/N] ";
  context.err.flush();
  std::string answer;
  std::getline(context.in, answer);
  return answer == "y" || answer == "Y" || answer == "yes";
}

// Deletes one.
//   exit      the exit code so far
//   answered  cleared when no answer of the service came
//   returns   the exit code with what it met
int Delete(CliContext& context, Session& session, Removal& removal, int exit, bool& answered) {
  removal.status = session.Wait("delete the schedule", true,
                                [&] { return session.Link().Service().DeleteSchedule(removal.target.id); });
  if (removal.status == kStatusOk) {
    PrintNote(context, "deleted: " + Naming(removal.target));
    return exit;
  }
  answered = !session.Link().LastError().IsSet();
  const bool lost = session.IsLost();
  const int failed = session.Fail(removal.status, Naming(removal.target));
  if (lost) PrintHint(context, "whether it was deleted isn't known; see qxsched show " + IdText(removal.target.id));
  return exit == kExitDone ? failed : exit;
}

// --- monitor ---

// Writes each event as a line.
class EventPrinter : public ISchedulerServiceEvents {
 public:
  explicit EventPrinter(CliContext& context) : m_context(context) {}

  void Schedule_Add(const ScheduleGuid& id) override { Print("Schedule_Add", id, std::nullopt); }
  void Schedule_Modify(const ScheduleGuid& id) override { Print("Schedule_Modify", id, std::nullopt); }
  void Schedule_Delete(const ScheduleGuid& id) override { Print("Schedule_Delete", id, std::nullopt); }
  void NextTimeWindow_Modify(const ScheduleGuid& id, std::int32_t nextTimeWindow) override {
    Print("NextTimeWindow_Modify", id, nextTimeWindow);
  }
  void SystemTime_Change(std::int32_t, const std::vector<std::u16string>& ids,
                         const std::vector<std::int32_t>& nextTimeWindows) override {
    const std::size_t count = std::min(ids.size(), nextTimeWindows.size());
    ordered_json schedules = ordered_json::array();
    if (!m_context.options.json) m_context.out << Head("SystemTime_Change") << count << " schedules\n";
    for (std::size_t i = 0; i < count; ++i) {
      if (m_context.options.json) {
        schedules.push_back({{"id", Utf8FromWide(ids[i])}, {"next_window", WindowJson(nextTimeWindows[i])}});
      } else {
        m_context.out << "    " << Printable(Utf8FromWide(ids[i])) << "  " << Next(nextTimeWindows[i]) << "\n";
      }
    }
    if (m_context.options.json) {
      ordered_json out = ordered_json::object();
      out["event"] = "SystemTime_Change";
      out["schedules"] = std::move(schedules);
      WriteJson(m_context.out, out);
    }
    m_context.out.flush();
  }

 private:
  static std::string Next(std::int32_t window) {
    return window < 0 ? "no window to come" : "next " + FormatInstant(window, platform::CurrentZone());
  }
  [[nodiscard]] std::string Head(const std::string& event) const {
    std::string padded = event;
    padded.resize(std::max(padded.size(), kEventWidth), ' ');
    return FormatInstant(platform::NowSeconds(), platform::CurrentZone()) + "  " +
           Paint(m_context.colourOut, Colour::kBold, padded) + "  ";
  }
  void Print(const std::string& event, const ScheduleGuid& id, std::optional<std::int32_t> window) {
    if (m_context.options.json) {
      ordered_json out = ordered_json::object();
      out["event"] = event;
      out["id"] = IdText(id);
      if (window) out["next_window"] = WindowJson(*window);
      WriteJson(m_context.out, out);
    } else {
      m_context.out << Head(event) << IdText(id) << (window ? "  " + Next(*window) : "") << "\n";
    }
    m_context.out.flush();
  }

  CliContext& m_context;
};

}  // namespace

int RunShow(CliContext& context, const OnlineSettings& settings, const std::string& schedule) {
  Session session(context, settings);
  Target target;
  if (const int exit = session.BeginWith(schedule, target); exit != kExitDone) return exit;
  SCHEDULE_OBJECT record;
  if (const int exit = session.Fetch(target, record); exit != kExitDone) return exit;
  if (context.options.json) {
    WriteJson(context.out, RecordToJson(record));
    return kExitDone;
  }
  BeginPaged(context);
  const platform::Zone& zone = platform::CurrentZone();
  context.out << "# id: " << IdText(target.id) << "\n";
  Status status = kStatusOk;
  const auto windows = ComingWindows(record, platform::NowSeconds(), kWindowsShown, status);
  for (const ComingWindow& window : windows) {
    context.out << "# next: " << FormatInstant(window.start, zone) << " to " << FormatInstant(window.end, zone)
                << (window.last ? ", the last one" : "") << "\n";
  }
  if (windows.empty()) {
    context.out << "# next: none" << (status == kStatusOk ? "" : ", " + FormatStatus(status)) << "\n";
  }
  context.out << WriteScheduleFile(record, zone);
  return kExitDone;
}

int RunStatus(CliContext& context, const OnlineSettings& settings) {
  Session session(context, settings);
  SentListRows list;
  int exit = session.Begin();
  if (exit == kExitDone) exit = session.AllRows(list);
  if (exit != kExitDone) {
    if (context.options.json) WriteJson(context.out, {{"reachable", false}});
    return exit;
  }
  const ServiceProperties& properties = session.Properties();
  const std::size_t count = list.Count();
  std::size_t due = 0, damaged = 0;
  list.ForEach([&](const SentListRow& row) {
    if (row.nextWindow >= 0) ++due;
    if (row.nextWindow == kDamagedKey) ++damaged;
  });
  const std::size_t without = count - due - damaged;
  if (context.options.json) {
    ordered_json out = ordered_json::object();
    out["reachable"] = true;
    out["version"] = properties.version;
    out["zone"] = properties.zone;
    out["port"] = properties.port;
    out["trace_level"] = properties.traceLevel;
    out["next_wake_up"] = properties.nextWakeUp < 0 ? ordered_json(nullptr) : ordered_json(properties.nextWakeUp);
    out["state_directory"] = properties.stateDirectory;
    out["schedules"] = count;
    out["with_window"] = due;
    out["without_window"] = without;
    out["damaged"] = damaged;
    WriteJson(context.out, out);
    return kExitDone;
  }
  const std::string wakeUp =
      properties.nextWakeUp < 0 ? "none" : FormatInstant(properties.nextWakeUp, platform::CurrentZone());
  context.out << "Service:          " << Paint(context.colourOut, Colour::kGreen, "running") << ", version "
              << Printable(properties.version) << "\n"
              << "Zone:             " << Printable(properties.zone) << "\n"
              << "Port:             " << (properties.port == 0 ? "none" : std::to_string(properties.port)) << "\n"
              << "Log level:        " << properties.traceLevel << "\n"
              << "Next wake-up:     " << wakeUp << "\n"
              << "State directory:  " << Printable(properties.stateDirectory) << "\n"
              << "Schedules:        " << count << " (" << due << " with a window to come, " << without
              << " without, " << damaged << " damaged)\n";
  return kExitDone;
}

int RunAdd(CliContext& context, const OnlineSettings& settings, const std::string& file, bool allowRelativePaths) {
  Session session(context, settings);
  // The service first: the times in the file are those of its zone.
  if (const int exit = session.Begin(); exit != kExitDone) return exit;
  CheckedFile checked;
  if (const int exit = ReadAndCheck(context, file, allowRelativePaths, checked); exit != kExitDone) return exit;
  for (const Finding& finding : checked.findings) PrintFinding(context, file, finding);
  if (HasErrors(checked.findings)) {
    if (checked.status != kStatusOk) PrintHint(context, DescribeStatus(checked.status).hint);
    return kExitRulesRefused;
  }
  ScheduleGuid id;
  const Status status = session.Wait("create the schedule", true,
                                     [&] { return session.Link().Service().CreateSchedule(checked.record, id); });
  const bool answered = !session.Link().LastError().IsSet();
  if (context.options.json && answered) {
    const ordered_json idJson = status == kStatusOk ? ordered_json(IdText(id)) : ordered_json(nullptr);
    WriteJson(context.out, {{"status", HexStatus(status)}, {"id", idJson}});
  }
  if (status != kStatusOk) {
    const bool lost = session.IsLost();
    const int exit = session.Fail(status, file);
    if (lost) PrintHint(context, "whether the schedule was created isn't known; see qxsched list");
    return exit;
  }
  if (!context.options.json) context.out << IdText(id) << "\n";
  KeepMadeId(context, IdText(id));
  return kExitDone;
}

int RunRemove(CliContext& context, const OnlineSettings& settings, const RemoveArguments& arguments) {
  Session session(context, settings);
  if (const int exit = session.Begin(); exit != kExitDone) return exit;
  std::vector<Target> targets;
  if (const int exit = session.Find(arguments.schedules, targets); exit != kExitDone) return exit;
  std::vector<Removal> removals;
  for (Target& target : targets) removals.push_back({std::move(target), "", kStatusOk});
  const bool ask = settings.confirm.value_or(platform::IsTerminal(platform::StandardStream::kInput));
  if (ask && !arguments.yes && !Confirmed(context, removals)) {
    PrintError(context, "nothing is deleted");
    return kExitFailed;
  }
  if (!arguments.noBackup) {
    if (const int exit = WriteBackups(context, session, removals); exit != kExitDone) return exit;
  }
  int exit = kExitDone;
  bool answered = true;  // else nobody is there for the others
  ordered_json report = ordered_json::array();
  for (Removal& removal : removals) {
    ordered_json status = nullptr;
    if (answered) {
      exit = Delete(context, session, removal, exit, answered);
      status = HexStatus(removal.status);
    } else {
      PrintError(context, "not deleted: " + Naming(removal.target));
    }
    report.push_back({{"id", IdText(removal.target.id)},
                      {"status", std::move(status)},
                      {"backup", removal.backup.empty() ? ordered_json(nullptr) : ordered_json(removal.backup)}});
  }
  if (context.options.json) WriteJson(context.out, report);
  return exit;
}

int RunMonitor(CliContext& context, const OnlineSettings& settings) {
  Session session(context, settings);
  if (const int exit = session.Begin(); exit != kExitDone) return exit;
  std::atomic<bool> stop = false;
  const platform::InterruptWatch watch(platform::InterruptWatch::kNever, {}, [&] { stop = true; });
  EventPrinter printer(context);
  if (const Status status = session.Link().Listen(printer); status != kStatusOk) return session.Fail(status, "");
  PrintNote(context, "waiting for events, Ctrl-C ends");
  context.err.flush();
  while (!stop && context.out) {
    if (!session.Link().WaitForEvents(kMonitorTurnMs)) {
      PrintError(context, "the bus of the service is lost");
      PrintHint(context, "events are not repeated; see qxsched list for what is there now");
      return kExitUnreachable;
    }
  }
  return kExitDone;
}

int RunRefresh(CliContext& context, const OnlineSettings& settings) {
  Session session(context, settings);
  if (const int exit = session.Connect(); exit != kExitDone) return exit;
  const Status status = session.Wait("read its store again", true, [&] { return session.Link().Service().Refresh(); });
  if (status != kStatusOk) return session.Fail(status, "");
  PrintNote(context, "the service has read its store again");
  return kExitDone;
}

int FetchSchedule(CliContext& context, const OnlineSettings& settings, const std::string& schedule, bool keepZone,
                  SCHEDULE_OBJECT& record) {
  Session session(context, settings);
  if (const int exit = session.Connect(); exit != kExitDone) return exit;
  if (!keepZone) {
    if (const int exit = session.UseServiceZone(); exit != kExitDone) return exit;
  }
  std::vector<Target> targets;
  const int exit = session.Find({schedule}, targets);
  return exit == kExitDone ? session.Fetch(targets.front(), record) : exit;
}

}  // namespace qx
