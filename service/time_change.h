// service/time_change.h: what a change of the clock or the zone does to the schedules.
//
// Every window is computed from the new present time: a clock moved forward drops the windows that it jumped over, one
// moved back brings windows forward again, and a schedule that had run out may come back. No job is started.
// Threads: the scheduler thread; UpdateList() takes g_JobListLock for the whole call.
#pragma once

#include <cstdint>
#include <string>

#include "interface/ISchedulerService.h"
#include "platform/apartment.h"
#include "platform/automation.h"

namespace qx {

using IdArray = platform::RecordArray<std::u16string>;
using WindowArray = platform::RecordArray<std::int32_t>;

// Computes every listed job's window anew, removes those that have none and sorts the list.
//   count    in: the first element to fill; out: behind the last one filled
//   ids, windows  one element at least for each node behind `count`; every node is put in, the removed ones with their
//            negative window
//   returns  0; the code of a failed access: both arrays are destroyed, the list is as it was
[[nodiscard]] Status UpdateList(std::uint32_t& count, IdArray& ids, WindowArray& windows);

// Brings back schedules whose rules have windows again, computes all windows anew and has the service tell its clients,
// through the apartment's queue. A failure is logged and leaves the rest undone.
// Deliberate: only the numbers of keys and of nodes are compared; when as many schedules left the list as came into the
// registry, none is brought back.
void TimeChangePass(platform::Apartment& apartment, ISchedulerService& service);

// Over the time from the computing of a window until its job is listed, or until a modification gives the schedule
// free: a pass that begins in between hasn't seen the job, and one that meets the schedule leaves it alone. Also over
// the time in which a job is listed that has no key yet, or none any more: by the numbers of both, a pass that counts
// in between misses a schedule that it should bring back.
// Threads: one at a time.
class CNewWindow {
 public:
  CNewWindow();  // ahead of the computing, or of the key's end
  // The job is listed, or free, and its key is written; or both are gone. Sets SYSTEM_TIME_CHANGED when a pass has done
  // one of these meanwhile.
  void Listed() const;

 private:
  std::uint32_t m_passes;
};

}  // namespace qx
