#include "client/history_recorder.h"

#include <algorithm>
#include <iterator>

#include "common/bus_records.h"
#include "platform/clock.h"
#include "platform/guid.h"
#include "platform/text.h"

namespace qx {
namespace {

// The service rests from lists this many times as long as the last one took.
constexpr std::uint32_t kListRest = 20;

constexpr const char* kNotHeard = "no launch was heard";
constexpr const char* kChanged = "the schedule was changed";
constexpr const char* kGone = "the schedule is gone";
constexpr const char* kLeft = "the service left the bus";

std::string TextOf(const ScheduleGuid& id) {
  return platform::Utf8FromWide(platform::GuidText(id));
}

// An ID that came as a text, as the other events write it; nothing for any other text. Every member of the group may
// have the service tell of a change of its clock, in any words.
std::optional<std::string> ReadId(std::u16string_view text) {
  ScheduleGuid id{};
  if (!ParseScheduleId(platform::Utf8FromWide(text), id)) return std::nullopt;
  return TextOf(id);
}

}  // namespace

HistoryRecorder::HistoryRecorder(std::map<std::string, KnownSchedule> known) : m_known(std::move(known)) {
  for (const auto& [schedule, facts] : m_known) {
    if (facts.next >= 0) m_due.emplace(facts.next, schedule);
  }
}

void HistoryRecorder::Make(HistoryKind kind, const std::string& schedule, std::optional<std::int64_t> window,
                           std::optional<std::int64_t> next, std::string reason) {
  HistoryEntry entry{platform::NowSeconds(), kind, schedule, "", window, next, std::move(reason)};
  if (const auto at = m_known.find(schedule); at != m_known.end()) entry.name = at->second.name;
  m_entries.push_back(std::move(entry));
  ++m_counts[static_cast<std::size_t>(kind)];
}

void HistoryRecorder::SetNext(const std::string& schedule, std::int64_t next) {
  KnownSchedule& facts = m_known[schedule];
  m_due.erase({facts.next, schedule});
  facts.next = next;
  if (next >= 0) m_due.emplace(next, schedule);
  m_changes[schedule] = facts;
}

void HistoryRecorder::SetName(const std::string& schedule, const std::string& name) {
  KnownSchedule& facts = m_known[schedule];
  if (facts.name == name) return;
  facts.name = name;
  m_changes[schedule] = facts;
}

std::optional<std::int64_t> HistoryRecorder::PastWindow(const std::string& schedule, std::int64_t now) const {
  const auto at = m_known.find(schedule);
  if (at == m_known.end() || at->second.next < 0 || at->second.next > now) return std::nullopt;
  return at->second.next;
}

void HistoryRecorder::CloseWindow(const std::string& schedule, const char* why) {
  if (const auto seen = m_suspicions.find(schedule); seen != m_suspicions.end()) {
    (void)Close(seen, HistoryKind::kMissed, kNotHeard);
  }
  const std::int64_t now = platform::NowSeconds();
  if (const auto window = PastWindow(schedule, now)) Judge(schedule, *window, std::nullopt, now);
  if (const auto seen = m_suspicions.find(schedule); seen != m_suspicions.end()) {
    (void)Close(seen, HistoryKind::kUnknown, why);
  }
}

HistoryRecorder::Suspicions::iterator HistoryRecorder::Close(Suspicions::iterator seen, HistoryKind kind,
                                                             const char* reason) {
  Make(kind, seen->first, seen->second.window, seen->second.next, reason);
  return m_suspicions.erase(seen);
}

bool HistoryRecorder::PassedUnheard(std::int64_t window) const {
  return !m_absences.empty() && window <= m_absences.back().to.value_or(platform::NowSeconds());
}

void HistoryRecorder::Forget(const std::string& schedule) {
  const auto at = m_known.find(schedule);
  if (at == m_known.end()) return;
  m_due.erase({at->second.next, schedule});
  m_known.erase(at);
  m_changes[schedule] = std::nullopt;
}

// --- events ---

void HistoryRecorder::Schedule_Add(const ScheduleGuid& id) {
  const std::string schedule = TextOf(id);
  m_touched.insert(schedule);
  Make(HistoryKind::kAdded, schedule, std::nullopt, std::nullopt);
  m_listNeeded = true;  // the event has neither name nor window
}

void HistoryRecorder::Schedule_Modify(const ScheduleGuid& id) {
  const std::string schedule = TextOf(id);
  m_touched.insert(schedule);
  CloseWindow(schedule, kChanged);
  // The window that was known may be none of its windows any more.
  if (m_known.contains(schedule)) SetNext(schedule, -1);
  Make(HistoryKind::kModified, schedule, std::nullopt, std::nullopt);
  m_listNeeded = true;
}

void HistoryRecorder::Schedule_Delete(const ScheduleGuid& id) {
  const std::string schedule = TextOf(id);
  m_touched.insert(schedule);
  CloseWindow(schedule, kGone);
  Make(HistoryKind::kDeleted, schedule, std::nullopt, std::nullopt);
  Forget(schedule);
}

void HistoryRecorder::NextTimeWindow_Modify(const ScheduleGuid& id, std::int32_t nextTimeWindow) {
  const std::string schedule = TextOf(id);
  const std::int64_t now = platform::NowSeconds();
  m_touched.insert(schedule);
  std::optional<std::int64_t> window;
  const auto seen = m_suspicions.find(schedule);
  const std::optional<std::int64_t> due = PastWindow(schedule, now);
  if (seen != m_suspicions.end() && (!due || seen->second.next == nextTimeWindow)) {
    // The list was ahead of the event: the window was launched, only late.
    window = seen->second.window;
    m_suspicions.erase(seen);
  } else if (due) {
    if (seen != m_suspicions.end()) (void)Close(seen, HistoryKind::kMissed, kNotHeard);
    if (PassedUnheard(*due)) {
      Judge(schedule, *due, nextTimeWindow, now);  // this is the launch of a later one
    } else {
      window = due;
    }
  }
  Make(HistoryKind::kLaunch, schedule, window, nextTimeWindow);
  m_lastLaunch = now;
  SetNext(schedule, nextTimeWindow);
}

// Every schedule with a window to come is in it. No window that the clock jumped over is launched any more.
void HistoryRecorder::SystemTime_Change(std::int32_t, const std::vector<std::u16string>& ids,
                                        const std::vector<std::int32_t>& nextTimeWindows) {
  const std::int64_t now = platform::NowSeconds();
  // A clock that was set back doesn't make what comes unheard.
  m_heardSince = std::min(m_heardSince, now);
  const std::size_t count = std::min(ids.size(), nextTimeWindows.size());
  std::map<std::string, std::int64_t> windows;
  for (std::size_t i = 0; i < count; ++i) {
    if (const auto schedule = ReadId(ids[i])) windows[*schedule] = nextTimeWindows[i];
  }
  Make(HistoryKind::kClockChange, "", std::nullopt, std::nullopt,
       std::to_string(windows.size()) + " schedules have a window");
  std::vector<std::pair<std::string, std::int64_t>> passed;
  for (const auto& [window, schedule] : m_due) {
    const auto given = windows.find(schedule);
    const std::int64_t next = given == windows.end() ? -1 : given->second;
    if (next != window) passed.emplace_back(schedule, next);
  }
  for (const auto& [schedule, next] : passed) {
    const std::int64_t window = m_known[schedule].next;
    if (window <= now && window > m_heardSince) {
      Make(HistoryKind::kMissed, schedule, window, next, "the clock or the zone changed");
    } else if (window <= now) {
      Judge(schedule, window, next, now);
    }
    SetNext(schedule, next);
  }
  for (const auto& [schedule, next] : windows) {
    m_touched.insert(schedule);
    if (m_known[schedule].next != next) SetNext(schedule, next);
  }
  m_listNeeded = true;  // for the names of those that came back
}

// --- the link ---

void HistoryRecorder::BeginHearing() {
  m_hearing = true;
  m_up = false;
  m_process = 0;
  m_heardSince = platform::NowSeconds();
  m_absences = {{m_heardSince, std::nullopt, false}};
  Make(HistoryKind::kRecordBegin, "", std::nullopt, std::nullopt);
}

void HistoryRecorder::EndHearing(const std::string& reason) {
  if (!m_hearing) return;
  m_hearing = false;
  m_up = false;
  Settle();
  while (!m_suspicions.empty()) (void)Close(m_suspicions.begin(), HistoryKind::kUnknown, "the record ended");
  Make(HistoryKind::kRecordEnd, "", std::nullopt, std::nullopt, reason);
}

void HistoryRecorder::ServiceUp(std::uint32_t process) {
  if (m_up) ServiceDown();  // one came in the place of another
  m_up = true;
  if (!m_absences.empty() && !m_absences.back().to) {
    m_absences.back().to = platform::NowSeconds();
    m_absences.back().proved = m_process != 0 && process != 0 && process != m_process;
  }
  Make(HistoryKind::kServiceUp, "", std::nullopt, std::nullopt,
       m_process != 0 && process == m_process ? "the same process: only its link to the bus was lost" : "");
  m_process = process;
  m_listNeeded = true;
  m_lastList.reset();
}

void HistoryRecorder::ServiceDown() {
  if (!m_up) return;
  m_up = false;
  Settle();
  // Its last words may have been unsaid.
  while (!m_suspicions.empty()) (void)Close(m_suspicions.begin(), HistoryKind::kUnknown, kLeft);
  m_absences.push_back({platform::NowSeconds(), std::nullopt, false});
  Make(HistoryKind::kServiceDown, "", std::nullopt, std::nullopt);
}

// --- the list ---

bool HistoryRecorder::WantsList() const {
  if (!m_up) return false;
  const std::uint32_t passed = m_lastList ? platform::TickCount() - *m_lastList : UINT32_MAX;
  if (m_listNeeded) return passed >= m_listPause;
  const bool overdue = !m_due.empty() && m_due.begin()->first + kGraceSeconds <= platform::NowSeconds();
  return overdue && passed >= (m_stuck ? std::max(kStuckPauseMs, m_listPause) : m_listPause);
}

void HistoryRecorder::BeginList() {
  m_touched.clear();
  m_listNeeded = false;
  m_listBegun = platform::TickCount();
}

void HistoryRecorder::TakeList(const std::vector<ListRow>& rows) {
  const std::int64_t now = platform::NowSeconds();
  m_stuck = false;
  std::set<std::string> listed;
  for (const ListRow& row : rows) {
    const auto id = ReadId(row.id);
    if (!id) continue;  // a key that is no schedule's
    const std::string& schedule = *id;
    listed.insert(schedule);
    if (row.nextWindow == kDamagedKey) continue;
    const auto at = m_known.find(schedule);
    if (m_touched.contains(schedule)) {
      // Its window may be older than the event; its name serves unless the next list has another.
      if (at != m_known.end()) SetName(schedule, platform::Utf8FromWide(row.name));
      continue;
    }
    const std::int64_t window = at == m_known.end() ? -1 : at->second.next;
    if (window >= 0 && window <= now && window != row.nextWindow) Judge(schedule, window, row.nextWindow, now);
    if (at == m_known.end() || window != row.nextWindow) SetNext(schedule, row.nextWindow);
    SetName(schedule, platform::Utf8FromWide(row.name));
    m_stuck |= row.nextWindow >= 0 && row.nextWindow + kGraceSeconds <= now;
  }
  std::vector<std::string> gone;
  for (const auto& [schedule, facts] : m_known) {
    if (!listed.contains(schedule) && !m_touched.contains(schedule)) gone.push_back(schedule);
  }
  for (const std::string& schedule : gone) {
    // Nobody heard when it went, and so what of its windows were still to come.
    if (const auto seen = m_suspicions.find(schedule); seen != m_suspicions.end()) {
      (void)Close(seen, HistoryKind::kUnknown, kGone);
    }
    if (const auto window = PastWindow(schedule, now)) {
      Make(HistoryKind::kUnknown, schedule, window, std::nullopt, kGone);
    }
    Forget(schedule);
  }
  m_absences.clear();
  m_lastList = platform::TickCount();
  m_listPause = std::max(kListPauseMs, kListRest * (*m_lastList - m_listBegun));
}

void HistoryRecorder::ListFailed() {
  m_listNeeded = true;
  m_lastList = platform::TickCount();
}

void HistoryRecorder::Judge(const std::string& schedule, std::int64_t window, std::optional<std::int64_t> next,
                            std::int64_t now) {
  if (window <= m_heardSince) {
    Make(HistoryKind::kUnknown, schedule, window, next, "nobody recorded");
    return;
  }
  for (const Absence& absence : m_absences) {
    const std::int64_t to = absence.to.value_or(now);
    // The launch of the second in which it left may have had no time to be told of.
    if (window <= absence.from) {
      Make(HistoryKind::kUnknown, schedule, window, next, kLeft);
      return;
    }
    if (window > to) continue;
    if (absence.proved) {
      Make(HistoryKind::kMissed, schedule, window, next, "the service was down");
    } else {
      Make(HistoryKind::kUnknown, schedule, window, next, "the service was not on the bus");
    }
    return;
  }
  if (const auto seen = m_suspicions.find(schedule); seen != m_suspicions.end()) {
    (void)Close(seen, HistoryKind::kMissed, kNotHeard);
  }
  m_suspicions[schedule] = {window, next, platform::TickCount()};
}

void HistoryRecorder::Settle() {
  const std::uint32_t tick = platform::TickCount();
  for (auto at = m_suspicions.begin(); at != m_suspicions.end();) {
    at = tick - at->second.seen < kConfirmMs ? std::next(at) : Close(at, HistoryKind::kMissed, kNotHeard);
  }
}

// --- results ---

void HistoryRecorder::Clear() {
  m_entries.clear();
  m_changes.clear();
}

void HistoryRecorder::ChangeAll() {
  for (const auto& [schedule, facts] : m_known) m_changes[schedule] = facts;
}

std::optional<std::int64_t> HistoryRecorder::NextWindow() const {
  return m_due.empty() ? std::nullopt : std::optional(m_due.begin()->first);
}

}  // namespace qx
