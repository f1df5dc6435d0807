#include "service/time_change.h"

#include <atomic>
#include <vector>

#include "foundation/include/zfclog.h"
#include "platform/guid.h"
#include "platform/memory.h"
#include "platform/registry.h"
#include "service/job_list.h"
#include "service/modify_schedule.h"
#include "service/populate.h"
#include "service/schedule_store.h"
#include "service/scheduler_events.h"

using platform::CriticalSectionGuard;
using platform::ERROR_SUCCESS;
using platform::RegistryKey;
using ZepFoundation::ServiceLog;

namespace qx {
namespace {

// Goes on when a pass begins, when it has counted keys and jobs, and with each schedule that it finds in the hands of a
// modification. Odd until a pass that has begun has counted.
std::atomic<std::uint32_t> g_passes{0};

class PassUntilItHasCounted {
 public:
  PassUntilItHasCounted() { ++g_passes; }
  ~PassUntilItHasCounted() { ++g_passes; }
  PassUntilItHasCounted(const PassUntilItHasCounted&) = delete;
  PassUntilItHasCounted& operator=(const PassUntilItHasCounted&) = delete;
};

bool IsListed(std::u16string_view keyName) QX_REQUIRES(g_JobListLock) {
  ScheduleGuid id{};
  return platform::ClsidFromString(keyName, id) == 0 && g_JobList.FindNode(id) != nullptr &&
         platform::GuidText(id) == keyName;
}

bool IsOutOfTheList(std::u16string_view keyName) QX_REQUIRES(g_JobListLock) {
  ScheduleGuid id{};
  return platform::ClsidFromString(keyName, id) == 0 && IsBeingModified(id);
}

bool HasKey(const RegistryKey& schedules, std::u16string_view keyName) {
  RegistryKey key;
  return platform::OpenKey(schedules, keyName, platform::KEY_READ, key) != platform::ERROR_FILE_NOT_FOUND;
}

void ReviveSchedule(const RegistryKey& schedules, std::u16string_view keyName) QX_REQUIRES(g_JobListLock) {
  CJobNode node;
  const CReleaseAtEnd release(node);
  if (!BuildJobNode(schedules, keyName, kTimeChangeWords, node)) return;
  if (node.UpdateNextTimeWindow() <= 0) return;
  ServiceLog(2, u"%s became valid because of system time change", node.IdText());
  // A deletion takes the key first and looks for the node last, so that it finds the node where the key is still there.
  if (!HasKey(schedules, keyName)) return;
  if (const Status status = g_JobList.AddJob(node); status != kStatusOk) {
    ServiceLog(1, u"Failed to add the job to the job list, error = %x", status);
    return;
  }
  node.ScheduleObj.m_pSchedule = nullptr;  // the list's now
}

// Brings the schedule of a key back that has no job.
//   returns  whether it has none
bool ReviveMissing(const RegistryKey& schedules, std::u16string_view keyName) {
  // The file of a schedule that is being modified lies aside, and would be taken for one that is missing. To the end no
  // modification gets as far.
  const CriticalSectionGuard guard(g_JobListLock);
  if (IsListed(keyName)) return false;
  if (IsOutOfTheList(keyName)) {
    // Its job may have been counted as listed. The modification asks for another pass.
    g_passes += 2;
    return false;
  }
  ReviveSchedule(schedules, keyName);
  return true;
}

// False when the pass is to end here.
bool ReviveExpired(const RegistryKey& schedules, const platform::KeyInfo& info, std::uint32_t difference) {
  if (difference == 0) return true;
  platform::NamedBuffer<char16_t> name(std::size_t{info.maxSubKeyLength} + 1, "TimeChangePass name");
  if (!name) {
    ServiceLog(1, u"calloc failed to allocate the memory");
    ServiceLog(1, u"schedules which are valid bacause of system time change will not be included");
    return false;
  }
  std::uint32_t missing = 0;
  for (std::uint32_t i = 0; i < info.subKeyCount && missing < difference; ++i) {
    ServiceLog(5, u"Entered into loop for %d time,No of expired schedules became valid = %d", i, missing);
    auto length = static_cast<std::uint32_t>(name.size());
    if (platform::EnumKey(schedules, i, name.get(), &length) != ERROR_SUCCESS) {
      ServiceLog(1, u"Failed RegEnumKey for %d key", i);
      break;
    }
    if (ReviveMissing(schedules, {name.get(), length})) ++missing;
  }
  return true;
}

// Opens the key of all schedules and counts; false when the pass is to end here.
//   difference  keys that have no job, as long as no job lacks its key
bool CountKeysAndJobs(RegistryKey& schedules, platform::KeyInfo& info, std::uint32_t& difference) {
  RegistryKey version;
  if (platform::OpenKey(platform::Hive::kLocalMachine, kCurrentVersionKey, platform::KEY_ALL_ACCESS, version) !=
      ERROR_SUCCESS) {
    ServiceLog(1, u"Failed to open HKEY_LOCAL_MACHINE\\SOFTWARE\\KORVANE\\QxSvc\\CurrentVersion key");
    ServiceLog(1, u"schedules which became valid because of system time change were not considered");
    return false;
  }
  if (platform::OpenKey(version, kSchedulesKeyName, platform::KEY_ALL_ACCESS, schedules) != ERROR_SUCCESS) {
    ServiceLog(1, u"Failed to open the Schedules key");
    ServiceLog(1, u"schedules which are valid bacause of system time change were not considered");
    return false;
  }
  if (platform::QueryInfoKey(schedules, info) != ERROR_SUCCESS) {
    ServiceLog(1, u"Failed to query the 'Schedules' Registry key for number of schedules");
    return false;
  }
  if (info.subKeyCount == 0) {
    ServiceLog(4, u"No Schedules in the Registry");
    return false;
  }
  ServiceLog(4, u"SystemTimeChange: Number of schedules in the joblist: %d", g_JobList.Size());
  ServiceLog(5, u"SystemTimeChange: Number of Schedules in the registry = %d", info.subKeyCount);
  difference = info.subKeyCount - static_cast<std::uint32_t>(g_JobList.Size());  // Deliberate: unsigned.
  return true;
}

// False when the pass is to end here.
bool ReviveFromRegistry() {
  RegistryKey schedules;
  platform::KeyInfo info;
  std::uint32_t difference = 0;
  {
    const PassUntilItHasCounted mark;
    ServiceLog(4, u"Sleep interrupted because of system time change");
    if (!CountKeysAndJobs(schedules, info, difference)) return false;
  }
  return ReviveExpired(schedules, info, difference);
}

bool MakeArrays(std::size_t count, IdArray& ids, WindowArray& windows) {
  if (ids.Create(count, "TimeChangePass ScheduleID") != 0) {
    ServiceLog(1, u"Failed to Create Safearray of ScheduleIDs:System Time Changed");
    ServiceLog(1, u"Failed to send the Notification");
    return false;
  }
  if (windows.Create(count, "TimeChangePass NextTimeWindow") != 0) {
    ServiceLog(1, u"Failed to Create Safearray of NextTimeWindows: System Time Changed");
    ServiceLog(1, u"Failed to send the Notification");
    return false;
  }
  std::u16string* idData = nullptr;
  if (ids.AccessData(idData, "TimeChangePass ScheduleID") != 0) {
    ServiceLog(1, u"Failed SafeArrayAccessData(ScheduleID)");
    return false;
  }
  std::int32_t* windowData = nullptr;
  if (windows.AccessData(windowData, "TimeChangePass NextTimeWindow") != 0) {
    ServiceLog(1, u"Failed SafeArrayAccessData(NextTimeWindow)");
    return false;
  }
  return true;
}

void Notify(platform::Apartment& apartment, ISchedulerService& service, std::uint32_t count, const IdArray& ids,
            const WindowArray& windows) {
  platform::ApartmentProxy proxy;
  const platform::ErrorCode code = proxy.Create(apartment);
  std::vector<std::u16string> idList;
  std::vector<std::int32_t> windowList;
  for (std::uint32_t i = 0; i < count; ++i) {
    idList.push_back(ids.records()[i]);
    windowList.push_back(windows.records()[i]);
    ServiceLog(5, u"ScheduleID: %s NextTimewindow: %ld", idList.back(), windowList.back());
  }
  if (code != ERROR_SUCCESS) {
    ServiceLog(1, u"SystemTimeChange: clients are not told, error = %x", platform::StatusFromErrorCode(code));
    return;
  }
  proxy.Post([&service, count, idList = std::move(idList), windowList = std::move(windowList)] {
    (void)service.Notify_SystemTime_Change(static_cast<std::int32_t>(count), idList, windowList);
  });
}

// The told failure of UpdateList(): ends what accesses it made itself and destroys both arrays. An array that the
// caller still accesses goes with the caller's object.
Status FailUpdate(std::uint32_t code, const char16_t* text, IdArray& ids, WindowArray& windows) {
  ServiceLog(1, text);
  (void)ids.Destroy("UpdateList ScheduleID");
  (void)windows.Destroy("UpdateList NextTimeWindow");
  return platform::StatusFromErrorCode(code);
}

}  // namespace

Status UpdateList(std::uint32_t& count, IdArray& ids, WindowArray& windows) {
  const CriticalSectionGuard guard(g_JobListLock);
  if (g_JobList.Empty()) return kStatusOk;
  std::u16string* id = nullptr;
  if (const std::uint32_t code = ids.AccessData(id, "UpdateList ScheduleID"); code != 0) {
    return FailUpdate(code, u"Failed SafeArrayAccessData(ScheduleID)", ids, windows);
  }
  std::int32_t* window = nullptr;
  if (const std::uint32_t code = windows.AccessData(window, "UpdateList NextTimeWindow"); code != 0) {
    (void)ids.UnaccessData("UpdateList ScheduleID");
    return FailUpdate(code, u"Failed SafeArrayAccessData(NextTimeWindow)", ids, windows);
  }
  for (CJobList::Position at = g_JobList.Begin(); at != g_JobList.End();) {
    id[count] = at->IdText();
    const std::int64_t next = at->UpdateNextTimeWindow();
    g_JobList.MarkChanged(at);
    window[count] = static_cast<std::int32_t>(next);
    ++count;
    if (next < 0) {
      at->ReleaseScheduler();
      at = g_JobList.Erase(at);
    } else {
      ++at;
    }
  }
  (void)ids.UnaccessData("UpdateList ScheduleID");
  (void)windows.UnaccessData("UpdateList NextTimeWindow");
  ServiceLog(4, u"Number of schedules in the joblist after updatelist %d", g_JobList.Size());
  ServiceLog(4, u"Number of schedules in safearray %d", count);
  g_JobList.Sort();
  return kStatusOk;
}

void TimeChangePass(platform::Apartment& apartment, ISchedulerService& service) {
  if (!ReviveFromRegistry()) return;
  ServiceLog(5, u"Number of Schedules in the job list after reading the registry %d", g_JobList.Size());
  IdArray ids;
  WindowArray windows;
  std::uint32_t count = 0;
  {
    // The lock is kept from the count of the nodes to their update, so that no node comes in that has no element.
    const CriticalSectionGuard guard(g_JobListLock);
    if (!g_JobList.Empty()) {
      if (!MakeArrays(g_JobList.Size(), ids, windows)) return;
      (void)UpdateList(count, ids, windows);
    }
  }
  if (count > 0) Notify(apartment, service, count, ids, windows);
}

CNewWindow::CNewWindow() : m_passes(g_passes.load()) {}

void CNewWindow::Listed() const {
  const bool beganWhileAPassCounted = m_passes % 2 != 0;
  if (beganWhileAPassCounted || g_passes.load() != m_passes) g_SchedulerEvents.Set(SYSTEM_TIME_CHANGED);
}

}  // namespace qx
