#include "client/cli_session.h"

#include <algorithm>
#include <iterator>
#include <optional>
#include <ostream>
#include <utility>

#include "client/schedule_keys.h"
#include "client/schedule_json.h"
#include "client/schedule_word.h"
#include "client/status_text.h"
#include "client/terminal_text.h"
#include "client/time_text.h"
#include "common/bus_records.h"
#include "platform/clock.h"
#include "platform/host.h"
#include "platform/interrupt.h"
#include "platform/text.h"
#include "platform/thread.h"

namespace qx {
namespace {

using platform::Utf8FromWide;

bool IsGone(const platform::BusError& error) {
  static constexpr std::string_view kGone[] = {platform::kBusErrorServiceUnknown, platform::kBusErrorNameHasNoOwner,
                                               platform::kBusErrorNoReply, platform::kBusErrorDisconnected};
  return std::find(std::begin(kGone), std::end(kGone), error.name) != std::end(kGone);
}

// The command that starts the service which the options speak of.
std::string StartCommand(const GlobalOptions& options, const platform::BusAddress& address) {
  if (address.kind == platform::BusAddress::Kind::kSystem) return "systemctl start QxSchedService";
  std::string command = "QxSchedService";
  if (!options.root.empty()) command += " --root=" + options.root;
  command += " --foreground";
  if (!options.bus.empty()) command += " --bus=" + options.bus;
  return command;
}

// --- identifiers ---

bool ParseFullId(const std::string& text, ScheduleGuid& id) {
  return ParseScheduleId(text, id) || ParseScheduleId("{" + text + "}", id);
}

// What to do about a schedule that can't be read; null where the status says it itself.
const char* HintOfReading(Status status) {
  const bool isOfTheRules = status == kStatusFailure || IsOfRulesLibrary(status);
  return isOfTheRules ? "the file of its rules, its ID with .ini, is missing or damaged; see qxsched log" : nullptr;
}

}  // namespace

std::string IdText(const ScheduleGuid& id) {
  return Utf8FromWide(platform::GuidText(id));
}

std::string ZoneText() {
  const std::string& name = platform::CurrentZone().Name();
  return name.empty() ? "local" : name;
}

std::string Naming(const Target& target) {
  return IdText(target.id) + (target.name.empty() ? "" : " \"" + target.name + "\"");
}

platform::BusAddress Session::Address() const {
  const std::string& bus = m_context.options.bus;
  if (bus == "session") return platform::BusAddress::Session();
  if (bus == "system") return platform::BusAddress::System();
  if (!bus.empty()) return platform::BusAddress::Explicit(bus);
  return platform::RunsAsRoot() ? platform::BusAddress::System() : platform::BusAddress::Session();
}

Status Session::Wait(const std::string& doing, bool changes, const std::function<Status()>& call) {
  CliContext& context = m_context;
  const auto late = [&] {
    PrintNote(context, "waiting for the service to " + doing +
                           (changes ? " (Ctrl-C leaves; the operation goes on)" : " (Ctrl-C leaves)"));
  };
  const auto interrupted = [&] {
    if (changes) PrintError(context, "left; the service goes on to " + doing);
    platform::EndByInterrupt();
  };
  const platform::InterruptWatch watch(m_settings.noticeAfterMs, late, interrupted);
  return call();
}

int Session::Unreachable(const std::string& why) {
  PrintError(m_context, "the service can't be reached: " + why);
  PrintHint(m_context, "start it with: " + StartCommand(m_context.options, Address()));
  return kExitUnreachable;
}

int Session::BusUnreachable(const std::string& why) {
  using Kind = platform::BusAddress::Kind;
  const platform::BusAddress address = Address();
  if (address.kind == Kind::kExplicit) {
    PrintError(m_context, "the service can't be reached: no message bus at " + address.address + ": " + why);
    PrintHint(m_context, "--bus takes session, system or the address of a bus that runs");
  } else if (address.kind == Kind::kSystem) {
    PrintError(m_context, "the service can't be reached: no message bus of the system: " + why);
    PrintHint(m_context, "start it with: systemctl start dbus; --bus names another bus");
  } else {
    PrintError(m_context, "the service can't be reached: no message bus of this session: " + why);
    PrintHint(m_context, "dbus-run-session -- bash gives a shell with a bus of its own; --bus names another bus");
  }
  return kExitUnreachable;
}

int Session::Fail(Status status, const std::string& about, const char* hint) {
  const platform::BusError error = m_link->LastError();
  if (error.IsSet()) {
    const std::string why = error.text + " (" + HexStatus(status) + ", " + error.name + ")";
    if (IsGone(error)) return Unreachable(why);
    if (error.name == platform::kBusErrorAccessDenied) {
      PrintError(m_context, "the service may not be used: " + why);
      PrintHint(m_context, "root and the members of the group qxsched may use it");
      return kExitPermission;
    }
    PrintError(m_context, (about.empty() ? "" : about + ": ") + "the service refuses the call: " + why);
    return error.name == platform::kBusErrorInvalidArgs ? kExitRulesRefused : kExitFailed;
  }
  PrintError(m_context, (about.empty() ? "" : about + ": ") + FormatStatus(status));
  PrintHint(m_context, hint != nullptr ? hint : DescribeStatus(status).hint);
  return ExitCodeOf(status);
}

int Session::Connect() {
  const platform::ErrorCode code = m_settings.connect(Address(), m_link);
  if (code != platform::ERROR_SUCCESS) {
    const std::string why = FormatStatus(0x80070000 | code);
    if (code != platform::ERROR_ACCESS_DENIED) return BusUnreachable(why);
    PrintError(m_context, "the bus may not be used: " + why);
    PrintHint(m_context, "root and the members of the group qxsched may use the service");
    return kExitPermission;
  }
  const Status status = Wait("answer", false, [&] { return m_link->ReadProperties(m_properties); });
  return status == kStatusOk ? static_cast<int>(kExitDone) : Fail(status, "");
}

int Session::UseServiceZone() {
  const std::string& zone = m_properties.zone;
  if (zone.empty() || zone == platform::CurrentZone().Name()) return kExitDone;
  if (!IsToldZone(zone)) {
    PrintError(m_context, "the zone of the service is unknown here: \"" + zone + "\"");
    PrintHint(m_context, "install the zone files (tzdata)");
    return kExitFailed;
  }
  (void)platform::PutEnvironment(("TZ=" + zone).c_str());
  platform::TzSet();
  return kExitDone;
}

int Session::AllRows(std::vector<ListRow>& rows) {
  const Status status = Wait("list the schedules", false, [&] { return m_link->ListAll(rows); });
  return status == kStatusOk ? static_cast<int>(kExitDone) : Fail(status, "");
}

int Session::AllRows(SentListRows& list) {
  const Status status = Wait("list the schedules", false, [&] { return m_link->ListRows(list); });
  return status == kStatusOk ? static_cast<int>(kExitDone) : Fail(status, "");
}

int Session::FindInList(const std::string& word, const std::vector<ListRow>& rows, Target& target) {
  std::vector<NamedId> listed;
  listed.reserve(rows.size());
  for (const ListRow& row : rows) {
    listed.push_back({Utf8FromWide(row.id), row.nextWindow == kDamagedKey ? "" : Utf8FromWide(row.name)});
  }
  std::size_t at = 0;
  const int exit = FindByWord(m_context, word, listed, "no such schedule", "see qxsched list", at);
  if (exit != kExitDone) return exit;
  if (!ParseScheduleId(listed[at].id, target.id)) {
    PrintError(m_context, word + ": the service lists it under an ID that is none: " + listed[at].id);
    return kExitFailed;
  }
  target.name = Utf8FromWide(rows[at].name);
  target.listed = true;
  return kExitDone;
}

int Session::Find(const std::vector<std::string>& words, std::vector<Target>& targets) {
  std::optional<std::vector<ListRow>> rows;
  for (const std::string& word : words) {
    Target target;
    if (!ParseFullId(word, target.id)) {
      if (!rows) {
        rows.emplace();
        if (const int exit = AllRows(*rows); exit != kExitDone) return exit;
      }
      if (const int exit = FindInList(word, *rows, target); exit != kExitDone) return exit;
    }
    const auto same = [&](const Target& other) { return other.id == target.id; };
    if (std::none_of(targets.begin(), targets.end(), same)) targets.push_back(std::move(target));
  }
  return kExitDone;
}

int Session::FindAll(std::vector<Target>& targets) {
  std::vector<ListRow> rows;
  if (const int exit = AllRows(rows); exit != kExitDone) return exit;
  for (const ListRow& row : rows) {
    Target target;
    if (row.nextWindow == kDamagedKey) {
      PrintError(m_context, Utf8FromWide(row.id) + ": is damaged and left out");
    } else if (ParseScheduleId(Utf8FromWide(row.id), target.id)) {
      target.name = Utf8FromWide(row.name);
      target.listed = true;
      targets.push_back(std::move(target));
    }
  }
  return kExitDone;
}

int Session::Fetch(const Target& target, SCHEDULE_OBJECT& record) {
  ScheduleInfo info;
  const Status status =
      Wait("read the schedule", false, [&] { return m_link->Service().GetScheduleInfo(target.id, info); });
  if (status != kStatusOk) return Fail(status, IdText(target.id), HintOfReading(status));
  if (info.size() != 1) {
    PrintError(m_context, IdText(target.id) + ": the service answers without a record");
    return kExitFailed;
  }
  record = info.records()[0];
  return kExitDone;
}

int Session::Begin() {
  // Making the zone's table takes as long as the service needs for its first answer.
  platform::Thread zone;
  (void)platform::Thread::Start("qxsched-zone", [] { (void)platform::CurrentZone(); }, zone);  // else it is made later
  const int exit = Connect();
  zone.Join();
  return exit == kExitDone ? UseServiceZone() : exit;
}

int Session::BeginWith(const std::string& schedule, Target& target) {
  if (const int exit = Begin(); exit != kExitDone) return exit;
  std::vector<Target> targets;
  const int exit = Find({schedule}, targets);
  if (exit == kExitDone) target = targets.front();
  return exit;
}

bool Session::IsLost() const {
  return IsGone(m_link->LastError());
}

int Session::CheckUnchanged(const Target& target, const SCHEDULE_OBJECT& before) {
  SCHEDULE_OBJECT present;
  if (const int exit = Fetch(target, present); exit != kExitDone) return exit;
  const platform::Zone& zone = platform::CurrentZone();
  if (CompareKeys(KeysOf(AsServiceKeeps(before), zone), KeysOf(AsServiceKeeps(present), zone)).empty()) {
    return kExitDone;
  }
  PrintError(m_context, Naming(target) + ": somebody else changed the schedule meanwhile; it stays as it is now");
  return kExitFailed;
}

int Session::Modify(const Target& target, const SCHEDULE_OBJECT& before, const SCHEDULE_OBJECT& after) {
  const Status status =
      Wait("modify the schedule", true, [&] { return m_link->Service().ModifySchedule(target.id, after); });
  if (status != kStatusOk) {
    const bool lost = IsLost();
    const int exit = Fail(status, Naming(target));
    if (lost) PrintHint(m_context, "whether the change was made isn't known; see qxsched show " + IdText(target.id));
    return exit;
  }
  SCHEDULE_OBJECT read;
  if (const int exit = Fetch(target, read); exit != kExitDone) {
    PrintError(m_context, Naming(target) + ": the change was taken, but it can't be read back");
    return exit;
  }
  const platform::Zone& zone = platform::CurrentZone();
  const auto wanted = KeysOf(AsServiceKeeps(after), zone);
  const auto found = KeysOf(AsServiceKeeps(read), zone);
  const auto differences = CompareKeys(wanted, found);
  if (differences.empty()) return kExitDone;
  if (CompareKeys(KeysOf(AsServiceKeeps(before), zone), found).empty()) {
    PrintError(m_context, Naming(target) + ": the service took the change back; the schedule is as it was");
    PrintHint(m_context, "see qxsched log for the step that failed");
    return kExitFailed;
  }
  PrintError(m_context, Naming(target) + ": the schedule isn't as it was asked for:");
  for (const KeyDifference& difference : differences) {
    m_context.err << "  " << Printable(difference.key) << " is " << Printable(difference.after.value_or("not set"))
                  << ", asked for: " << Printable(difference.before.value_or("not set")) << "\n";
  }
  PrintHint(m_context, "somebody else may have changed it meanwhile; see qxsched show " + IdText(target.id));
  return kExitFailed;
}

}  // namespace qx
