// fuzz/schedule_check.h: what holds for a rule object however it was loaded.
#pragma once

#include <algorithm>
#include <cstring>
#include <string>

#include "common/Schedule.h"
#include "fuzz/fuzz_target.h"

namespace qx::fuzz {

// A rule object with a reference, given back at the end of the scope.
class LoadedSchedule {
 public:
  LoadedSchedule() : m_schedule(new CSchedule) { m_schedule->AddRef(); }
  ~LoadedSchedule() { m_schedule->Release(); }
  LoadedSchedule(const LoadedSchedule&) = delete;
  LoadedSchedule& operator=(const LoadedSchedule&) = delete;
  CSchedule& operator*() { return *m_schedule; }
  CSchedule* operator->() { return m_schedule; }

 private:
  CSchedule* m_schedule;
};

// The memory form of a schedule.
inline std::string MemoryForm(CSchedule& schedule) {
  std::uint32_t size = 0;
  Require(schedule.MemorySizeMax(&size) == ZEP_S_OK, "the size is told");
  std::string bytes(size, '\0');
  Require(schedule.Save(bytes.data(), 0, size) == ZEP_S_OK, "a schedule can be saved to memory");
  return bytes;
}

// What a form can hold as the duration: a binary one has a sign.
enum class Durations { kPositive, kOfAnySign };

// Every question ends. A window of a valid schedule ends behind its start, unless its duration is below 0 or it starts
// in the hour that the clock leaves out.
inline void AskSchedule(CSchedule& schedule, Durations durations) {
  constexpr ZepTime kReference = 1796040000;
  constexpr ZepTime kNoEnd = -1;
  constexpr ZepTime kLeftOut = 3600;  // in the zone of all targets
  ZepTime start = 0, end = 0;
  zepByte last = 0;
  const bool ordered = schedule.Validate() == ZEP_S_OK && durations == Durations::kPositive;
  ZepTime reference = kReference;
  for (int i = 0; i < 3; ++i) {
    if (schedule.GetNextTimeWindow(0, 0, reference, &start, &end, &last) != ZEP_S_OK || start <= reference) break;
    Require(!ordered || end == kNoEnd || end >= start - kLeftOut, "a valid schedule's window ends behind its start");
    reference = start;
  }
  (void)schedule.IsScheduleInTimeWindow(kReference);
  std::uint16_t days = 0;
  (void)schedule.GetDaysOfMonthCount(&days);
  zepByte dirty = 0;
  (void)schedule.get_Dirty(&dirty);
  LoadedSchedule copy;
  (void)copy->CopyFrom(static_cast<zepISchedule2*>(&schedule));
}

}  // namespace qx::fuzz
