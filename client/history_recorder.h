// client/history_recorder.h: what the events of a service prove about launches and windows.
//
// What the service tells, and what follows from it:
// - NextTimeWindow_Modify comes once for every job that the scheduler has launched, and for nothing else of its own. A
//   launch that failed counts as one there, so an entry "launch" says that the service came to it, no more. Jobs that
//   start through run_now raise no such event.
// - A window that the service passes over without a launch raises nothing. It shows when the window that was due lies
//   in the past, no launch was heard, and the list has another window.
// - A window between the leaving of one process of the service and the coming of the next can't have been launched.
//   When it was the same process, only its link to the bus was lost, and it may have launched.
// - What passed while nobody recorded can't be known.
//
// The recorder makes entries; it reads the clock, and writes and asks nothing itself. It is told of everything in the
// order in which it happened. Threads: one at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "client/history_store.h"
#include "interface/ISchedulerService.h"
#include "interface/list_row.h"

namespace qx {

class HistoryRecorder : public ISchedulerServiceEvents {
 public:
  // Seconds behind a window until the lack of a launch is looked into, and until what was seen is believed.
  static constexpr std::int64_t kGraceSeconds = 5;
  static constexpr std::uint32_t kConfirmMs = 2000;
  // Least time between two lists: while changes come, and while a window that is past stays in the list.
  static constexpr std::uint32_t kListPauseMs = 2000;
  static constexpr std::uint32_t kStuckPauseMs = 60000;

  //   known  what the last recorder knew
  explicit HistoryRecorder(std::map<std::string, KnownSchedule> known);

  // --- the service's events ---

  void Schedule_Add(const ScheduleGuid& id) override;
  void Schedule_Modify(const ScheduleGuid& id) override;
  void Schedule_Delete(const ScheduleGuid& id) override;
  void NextTimeWindow_Modify(const ScheduleGuid& id, std::int32_t nextTimeWindow) override;
  void SystemTime_Change(std::int32_t count, const std::vector<std::u16string>& ids,
                         const std::vector<std::int32_t>& nextTimeWindows) override;

  // --- the recorder's own link ---

  // The bus is there: events are heard from now on. The service isn't known to be there yet.
  void BeginHearing();
  // Nothing is heard any more.
  void EndHearing(const std::string& reason);
  // The service is on the bus.
  //   process  its process; 0: not known
  void ServiceUp(std::uint32_t process);
  void ServiceDown();

  // --- the list ---

  // Whether the list of the service is to be read now. Only while it is up.
  [[nodiscard]] bool WantsList() const;
  // Ahead of asking for it: events that come until TakeList() are newer than the list.
  void BeginList();
  // The whole list, after the events that came ahead of its last page.
  void TakeList(const std::vector<ListRow>& rows);
  // It couldn't be had; wanted again after a pause.
  void ListFailed();
  // Makes entries of what was seen and has proved true. Called now and then.
  void Settle();

  // --- what came of it ---

  // What there is to write since the last call of Clear().
  [[nodiscard]] const std::vector<HistoryEntry>& Entries() const { return m_entries; }
  [[nodiscard]] const std::map<std::string, std::optional<KnownSchedule>>& Changes() const { return m_changes; }
  void Clear();
  // All that is known, for a file that is begun anew.
  void ChangeAll();

  [[nodiscard]] bool IsUp() const { return m_up; }
  [[nodiscard]] std::size_t ScheduleCount() const { return m_known.size(); }
  // The earliest window that is due or to come; nothing when there is none.
  [[nodiscard]] std::optional<std::int64_t> NextWindow() const;
  // How many entries of a kind were made.
  [[nodiscard]] std::uint64_t Count(HistoryKind kind) const { return m_counts[static_cast<std::size_t>(kind)]; }
  [[nodiscard]] std::optional<std::int64_t> LastLaunch() const { return m_lastLaunch; }

 private:
  struct Absence {
    std::int64_t from = 0;
    std::optional<std::int64_t> to;  // nothing while it lasts
    bool proved = false;             // another process came back
  };
  // A window that seems to have passed without a launch.
  struct Suspicion {
    std::int64_t window = 0;
    std::optional<std::int64_t> next;
    std::uint32_t seen = 0;  // tick count
  };
  using Suspicions = std::map<std::string, Suspicion>;

  void Make(HistoryKind kind, const std::string& schedule, std::optional<std::int64_t> window,
            std::optional<std::int64_t> next, std::string reason = "");
  // A window that is past, of a schedule that is about to be given `next`, when that is known.
  void Judge(const std::string& schedule, std::int64_t window, std::optional<std::int64_t> next, std::int64_t now);
  // The known window, where it is past.
  [[nodiscard]] std::optional<std::int64_t> PastWindow(const std::string& schedule, std::int64_t now) const;
  // Makes entries of what is open of a schedule that is changed or goes, as an event tells; a launch would have been
  // heard ahead of that.
  //   why  of a window that is past now: the schedule may have been changed, or gone, ahead of it
  void CloseWindow(const std::string& schedule, const char* why);
  // Makes an entry of a suspicion, which ends with it. Returns the next one.
  Suspicions::iterator Close(Suspicions::iterator seen, HistoryKind kind, const char* reason);
  // Whether the service was away, or nobody listened, until the window was past; since the last list.
  [[nodiscard]] bool PassedUnheard(std::int64_t window) const;
  void SetNext(const std::string& schedule, std::int64_t next);
  void SetName(const std::string& schedule, const std::string& name);
  void Forget(const std::string& schedule);

  std::map<std::string, KnownSchedule> m_known;
  std::set<std::pair<std::int64_t, std::string>> m_due;  // windows that aren't negative
  Suspicions m_suspicions;
  std::vector<Absence> m_absences;  // since the last list
  std::int64_t m_heardSince = 0;
  bool m_hearing = false;
  bool m_up = false;
  std::uint32_t m_process = 0;
  bool m_listNeeded = false;
  std::optional<std::uint32_t> m_lastList;  // tick count
  std::uint32_t m_listBegun = 0;            // tick count
  std::uint32_t m_listPause = kListPauseMs;
  bool m_stuck = false;             // the last list had a window that is past
  std::set<std::string> m_touched;  // by events since BeginList()
  std::vector<HistoryEntry> m_entries;
  std::map<std::string, std::optional<KnownSchedule>> m_changes;
  std::uint64_t m_counts[kHistoryKinds] = {};
  std::optional<std::int64_t> m_lastLaunch;
};

}  // namespace qx
