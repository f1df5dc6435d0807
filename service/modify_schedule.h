// service/modify_schedule.h: a schedule's new job and rules in place of the old ones, or the old ones back.
//
// Three phases. The new data is checked while nothing has changed; the old state is read and the job taken out of the
// list; then file, key and list are changed in this order. What fails in the last phase is undone by writing the old
// state back. From the second phase to the end the job isn't listed: a window that falls into this gap is skipped.
//
// The old .ini file lies aside as {ID}.ini.old meanwhile. When the new file is to lie in another directory, a copy lies
// there too before the key names it. So wherever a kill or a full disk ends the operation, the key leads to a file: the
// old schedule, the new one, or old rules beside new values.
// Threads: the apartment's thread; takes g_JobListLock itself.
#pragma once

#include "interface/records.h"
#include "service/job_list.h"

namespace qx {

//   modified  set to true when the new schedule is in place, else untouched. The caller tells the scheduler thread and
//             the clients.
//   returns   0 with `modified`; 0 without it when the last phase failed and the old schedule is back.
//             Nothing changed: kStatusModify, kStatusNoSuchKey, 1, kStatusNoDirectory, a status of the rules'
//             validation, kStatusBackdated, kStatusRegistryRead.
//             The old schedule isn't wholly back (its key or its file could not be written, the job isn't listed): that
//             failure's status. The next load, or Refresh, lists what the stores hold.
[[nodiscard]] Status ModifyStores(const ScheduleGuid& id, const SCHEDULE_OBJECT& schedule, bool& modified);

// Whether a modification is past its first phase with the schedule: that lists it again, nobody else. Threads: any.
[[nodiscard]] bool IsBeingModified(const ScheduleGuid& id) QX_REQUIRES(g_JobListLock);
// Tells that the scheduler thread sleeps by the list as it is. A modification that has a job out of it, and lists it
// again as it was, then sets REFRESH_EVENT. Threads: any.
void NoteSleep() QX_REQUIRES(g_JobListLock);

}  // namespace qx
