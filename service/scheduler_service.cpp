#include "service/scheduler_service.h"

#include <optional>

#include "common/ini_recovery.h"
#include "foundation/include/zfclog.h"
#include "platform/after_answer.h"
#include "platform/file.h"
#include "platform/guid.h"
#include "platform/memory.h"
#include "platform/registry.h"
#include "platform/reserved_memory.h"
#include "service/ini_path.h"
#include "service/job_list.h"
#include "service/modify_schedule.h"
#include "service/node_setup.h"
#include "service/populate.h"
#include "service/schedule_store.h"
#include "service/scheduler_events.h"
#include "service/time_change.h"

using platform::ErrorCode;
using platform::ERROR_SUCCESS;
using platform::RegistryKey;
using ZepFoundation::ForLog;
using ZepFoundation::ServiceLog;

namespace {

// A step of an operation: a failed one ends it with `status`, which may be 0.
struct Outcome {
  bool done = true;
  Status status = kStatusOk;
  bool added = false;  // the node had come into the list
  static Outcome Failed(Status status, bool added = false) { return {false, status, added}; }
};

Outcome LaunchNow(const SCHEDULE_OBJECT& schedule, CJobNode& node) {
  if (schedule.bRunNow == 0) return {};
  ServiceLog(3, u"Launching the new schedule as RUN NOW option was selected");
  const Status status = node.Launch();
  if (status == kStatusOk) return {};
  ServiceLog(1, u"CreateSchedule: Failed to launch the application, error = %x", status);
  return Outcome::Failed(kStatusFailure);
}

Outcome FindDirectory(const SCHEDULE_OBJECT& schedule, CJobNode& node) {
  std::u16string path;
  switch (qx::FindIniPlace(schedule, node.ScheduleID, "CreateSchedule wcConfigPath", path)) {
    case qx::IniPlace::kNoMemory:
      ServiceLog(1, u"Failed calloc(wcConfigPath)");
      // Deliberate: the status is 0, with nothing created.
      return Outcome::Failed(kStatusOk);
    case qx::IniPlace::kNoDirectory:
      ServiceLog(1, u"CreateSchedule: Given XMLFilePath does not exists");
      return Outcome::Failed(kStatusNoDirectory);
    case qx::IniPlace::kFound:
      break;
  }
  (void)node.SetConfigFilePath(path);
  return {};
}

Outcome CheckRules(const SCHEDULE_OBJECT& schedule, CJobNode& node) {
  const Status valid = node.ValidateScheduleRules(schedule);
  if (valid != kStatusOk) {
    ServiceLog(1, u"CreateSchedule:Invalid Schedule rule, error = %x", valid);
    if (schedule.bRunNow != 0) {
      ServiceLog(1, u"bRunNow option with invalid or no schedule rules, hr = %x", valid);
    }
    return Outcome::Failed(valid);
  }
  // 0 passes, and the list then holds a node that the loop leaves alone.
  if (node.UpdateNextTimeWindow() >= 0) return {};
  ServiceLog(1, u"CreateSchedule:Failed to Create a schedule, backdated schedule rules");
  return Outcome::Failed(kStatusBackdated);
}

// The three stores: file, list, key. A refused key takes the file back; the list is the caller's to undo.
Outcome Store(const SCHEDULE_OBJECT& schedule, CJobNode& node) {
  if (const Status saved = node.ScheduleObj.SaveScheduleToFile(); saved != kStatusOk) {
    ServiceLog(1, u"CreateSchedule:Failed to save schedule to file");
    return Outcome::Failed(saved);
  }
  if (const Status added = g_JobList.AddJob(node); added != kStatusOk) {
    ServiceLog(1, u"Failed to add the job node to the job list, error = %x", added);
    return Outcome::Failed(added);
  }
  const Status written = WriteRegistry(schedule, node.ScheduleID);
  if (written == kStatusOk) return {};
  ServiceLog(1, u"CreateSchedule: Failed to write into registry, error = %x", written);
  const std::u16string path(node.ScheduleObj.m_IniFilePath.view());
  const ErrorCode code = platform::DeleteFile(platform::NativePath(path), platform::Durable::kYes);
  if (code != ERROR_SUCCESS) {
    ServiceLog(1, u"CreateSchedule: Failed to delete the ini file: %s, error = %d", ForLog(path), code);
  }
  return Outcome::Failed(written, true);
}

// The scheduler thread may have ended the listed job meanwhile: it has then given the reference up itself.
void UndoJob(CJobNode& node, bool added) {
  const platform::CriticalSectionGuard guard(g_JobListLock);
  const bool owned = !added || g_JobList.Find(node.ScheduleID) != g_JobList.End();
  g_JobList.RemoveJob(node);  // logs that there is no such node when the failure came before it was added
  if (owned) node.ReleaseScheduler();
}

Outcome SetUpAndStore(const SCHEDULE_OBJECT& schedule, CJobNode& node) {
  if (const Status status = qx::SetLaunchPathFrom(schedule, node); status != kStatusOk) {
    ServiceLog(1, u"Failed to set the launch parameters, error = %x", status);
    return Outcome::Failed(status);
  }
  using Step = Outcome (*)(const SCHEDULE_OBJECT&, CJobNode&);
  // The job of bRunNow starts ahead of every check.
  for (const Step step : {LaunchNow, FindDirectory, CheckRules, Store}) {
    const Outcome outcome = step(schedule, node);
    if (!outcome.done) return outcome;
  }
  return {};
}

// The .ini path of a schedule that is to be deleted, from its key.
bool FindIniPath(const ScheduleGuid& id, std::u16string& iniPath) {
  const std::u16string idText = platform::GuidText(id);
  RegistryKey schedules, key;
  ErrorCode code =
      platform::OpenKey(platform::Hive::kLocalMachine, qx::kSchedulesKey, platform::KEY_ALL_ACCESS, schedules);
  if (code != ERROR_SUCCESS) {
    ServiceLog(1, u"DeleteSchedule:Failed to open SCHEDULE registry key with error: %x", code);
    return false;
  }
  code = platform::OpenKey(schedules, idText, platform::KEY_ALL_ACCESS, key);
  if (code != ERROR_SUCCESS) {
    ServiceLog(1, u"DeleteSchedule:Failed to open %s schedule key with error: %x", idText, code);
    return false;
  }
  platform::KeyInfo info;
  code = platform::QueryInfoKey(key, info);
  if (code != ERROR_SUCCESS) {
    ServiceLog(1, u"DeleteSchedule:Failed RegQueryInfoKey with error: %x", code);
    return false;
  }
  platform::NamedBuffer<char16_t> buffer(std::size_t{info.maxValueLength} + 1, "DeleteSchedule temp_FilePath");
  if (!buffer) {
    ServiceLog(1, u"DeleteSchedule:Failed calloc(temp_FilePath)");
    return false;
  }
  std::u16string xmlPath;
  code = qx::ReadTextValue(key, u"XMLFilePathName", buffer.span(), xmlPath);
  if (code != ERROR_SUCCESS) {
    ServiceLog(1, u"DeleteSchedule:Failed QueryValue(XMLFilePathName) with error: %x", code);
    return false;
  }
  iniPath = qx::IniPath(id, xmlPath);
  if (qx::HasMemoryFor(iniPath, "DeleteSchedule path")) return true;
  ServiceLog(1, u"DeleteSchedule:Failed to allocate memory");
  return false;
}

// That a schedule is deleted rests on its key alone: a power cut ahead of the directory's sync brings back at worst a
// file that nothing reads. So the sync comes behind the answer.
void DeleteIniFile(const std::u16string& iniPath) {
  (void)qx::RestoreOldIniFile(iniPath);
  const auto log = [iniPath](ErrorCode code) {
    ServiceLog(1, u"DeleteSchedule:Failed to delete the ini file: %s, error = %d", ForLog(iniPath), code);
  };
  const std::string file = platform::NativePath(iniPath);
  const ErrorCode code = platform::DeleteFile(file);
  if (code != ERROR_SUCCESS) log(code);
  // A copy that a modification cut short left behind goes with it.
  const std::string old = platform::NativePath(iniPath + std::u16string(qx::kOldIniSuffix));
  const bool hasOld = platform::FileExists(old) && platform::DeleteFile(old) == ERROR_SUCCESS;
  if (code != ERROR_SUCCESS && !hasOld) return;
  platform::AfterAnswer::Leave([log, directory = platform::DirectoryOf(file)] {
    const ErrorCode synced = platform::SyncDirectory(directory);
    if (synced != ERROR_SUCCESS) log(synced);
  });
}

void EraseListedJob(const ScheduleGuid& id) {
  const platform::CriticalSectionGuard guard(g_JobListLock);
  const CJobList::Position at = g_JobList.Find(id);
  if (at == g_JobList.End()) return;
  const Status status = at->ReleaseScheduler();
  if (status != kStatusOk) ServiceLog(1, u"DeleteSchedule:Failed ReleaseScheduler with error: %x", status);
  g_JobList.Erase(at);
  g_SchedulerEvents.Set(DELETE_EVENT);
}

Status DeleteStores(const ScheduleGuid& id) {
  std::u16string iniPath;
  if (!FindIniPath(id, iniPath)) return kStatusNotFoundForDelete;
  // The key goes first, so that a crash behind it leaves at worst a stray .ini file.
  if (const Status status = DeleteRegistry(id); status != kStatusOk) {
    ServiceLog(1, u"DeleteSchedule:Failed to delete registry entry: %s with error: %x", platform::GuidText(id), status);
    return status;
  }
  DeleteIniFile(iniPath);
  EraseListedJob(id);
  return kStatusOk;
}

// Frees what a failed listing left in the array.
void DropList(ScheduleList& list) {
  SCHEDULE_OBJECT_EX* elements = nullptr;
  if (const std::uint32_t code = list.AccessData(elements, "ListSchedule"); code != 0) {
    ServiceLog(0, u"ListSchedule: SafeArrayAccessData failed with error: %x", code);
    ServiceLog(0, u"ListSchedule: There is a possible chance of memoryleak");
    return;
  }
  for (std::size_t i = 0; i < list.size(); ++i) elements[i] = {};
  (void)list.UnaccessData("ListSchedule");
  const std::uint32_t code = list.Destroy("ListSchedule");
  if (code != 0) ServiceLog(1, u"ListSchedule: SafeArrayDestroy failed with error: %x", code);
}

// A schedule without a node, read from its file through a node that lives for the call.
Status ReadFromFile(SCHEDULE_OBJECT& record, CJobNode& node) {
  if (const Status status = node.InitializeScheduler(); status != kStatusOk) {
    ServiceLog(1, u"GetScheduleInfo: Failed to initiallise ZEP scheduler, error = %x", status);
    return status;
  }
  if (const Status status = qx::SetLaunchPathFrom(record, node); status != kStatusOk) {
    ServiceLog(1, u"GetScheduleInfo: Failed to set the launch path, error = %x", status);
    return status;
  }
  const std::u16string iniPath = qx::IniPath(node.ScheduleID, qx::TextOf(record.bstrXMLFilePathName));
  if (!qx::HasMemoryFor(iniPath, "GetScheduleInfo path")) {
    ServiceLog(1, u"GetScheduleInfo: Calloc failed to allocate memory");
    return kStatusFailure;
  }
  (void)qx::RestoreOldIniFile(iniPath);
  if (!platform::FileExists(platform::NativePath(iniPath))) {
    ServiceLog(1, u"GetScheduleInfo:ini file: %s does not exist", ForLog(iniPath));
    return kStatusFailure;
  }
  if (const Status status = node.SetConfigFilePath(iniPath); status != kStatusOk) {
    ServiceLog(1, u"GetScheduleInfo:Failed to set the ini file path, error = %x", status);
    return status;
  }
  const Status status = node.LoadScheduleFromFile(record);
  if (status != kStatusOk) ServiceLog(1, u"GetScheduleInfo:Failed to load schedule to file, error = %x", status);
  return status;
}

// The rules of the listed job, under the lock: the scheduler thread works on the same rule object. Nothing when the
// schedule has no node.
std::optional<Status> ReadFromList(const ScheduleGuid& id, SCHEDULE_OBJECT& record) {
  const platform::CriticalSectionGuard guard(g_JobListLock);
  CJobNode* const node = g_JobList.FindNode(id);
  if (node == nullptr) return std::nullopt;
  const Status status = node->ScheduleObj.LoadScheduleFromPropBag(&record);
  if (status != kStatusOk) {
    ServiceLog(1, u"GetScheduleInfo:LoadScheduleRuleFromPropBag return with error: %x", status);
  }
  return status;
}

Status FillRecord(const ScheduleGuid& id, SCHEDULE_OBJECT& record) {
  if (const Status status = ReadRegistry(id, record); status != kStatusOk) {
    ServiceLog(1, u"GetScheduleInfo: Failed to read resitry");
    return status;
  }
  if (const std::optional<Status> listed = ReadFromList(id, record)) return *listed;
  CJobNode node;
  const CReleaseAtEnd release(node);
  node.ScheduleID = id;
  const Status status = ReadFromFile(record, node);
  const Status released = node.ReleaseScheduler();
  if (released != kStatusOk) ServiceLog(1, u"GetScheduleInfo: ReleaseScheduler failed with error = %x", released);
  return status;
}

void EndAccess(ScheduleInfo& info) {
  const std::uint32_t code = info.UnaccessData("GetScheduleInfo");
  if (code != 0) ServiceLog(1, u"GetScheduleInfo: Failed SafeArrayUnaccessData with error: %x", code);
}

Status MakeInfo(const ScheduleGuid& id, ScheduleInfo& out) {
  if (const std::uint32_t code = platform::GetRecordInfo("SCHEDULE_OBJECT"); code != 0) {
    const Status status = platform::StatusFromErrorCode(code);
    ServiceLog(1, u"GetScheduleInfo:Failed GetRecordInfoFromGuids with hr = %x", status);
    return status;
  }
  ScheduleInfo info;
  if (info.Create(1, "GetScheduleInfo") != 0) {
    ServiceLog(1, u"GetScheduleInfo: SafeArrayCreateEx failed with error");
    return kStatusFailure;
  }
  SCHEDULE_OBJECT* record = nullptr;
  if (const std::uint32_t code = info.AccessData(record, "GetScheduleInfo"); code != 0) {
    ServiceLog(1, u"GetScheduleInfo: Failed SafeArrayAccessData with error: %x", code);
    return platform::StatusFromErrorCode(code);
  }
  const Status status = FillRecord(id, *record);
  if (status != kStatusOk) *record = {};
  EndAccess(info);
  if (status == kStatusOk) {
    out = std::move(info);
    return status;
  }
  const std::uint32_t code = info.Destroy("GetScheduleInfo");
  if (code != 0) ServiceLog(1, u"GetScheduleInfo: Failed SafeArrayDestroy with error: %x", code);
  return status;
}

}  // namespace

Status CSchedulerService::CreateSchedule(const SCHEDULE_OBJECT& schedule, ScheduleGuid& id) {
  const platform::ReservedMemory memory(qx::TextBytes(schedule));
  ServiceLog(4, u"Entered CreateSchedule");
  if (const ErrorCode code = platform::CreateGuid(id); code != ERROR_SUCCESS) {
    const Status status = platform::StatusFromErrorCode(code);
    ServiceLog(1, u"CreateSchedule:Unable to create the ScheduleID/GUID hr = %x", status);
    return status;
  }
  CJobNode node;
  node.ScheduleID = id;
  if (const Status status = node.InitializeScheduler(); status != kStatusOk) {
    ServiceLog(1, u"CreateSchedule: Failed to initiallise ZEP scheduler, error = %x", status);
    node.ReleaseScheduler();
    return status;
  }
  const qx::CNewWindow window;
  const Outcome outcome = SetUpAndStore(schedule, node);
  if (!outcome.done) {
    UndoJob(node, outcome.added);
    window.Listed();
    return outcome.status;
  }
  g_SchedulerEvents.Set(CREATE_EVENT);
  window.Listed();
  Fire_Schedule_Add(id);
  ServiceLog(2, u"Successful Schedule Creation: %s", platform::GuidText(id));
  return kStatusOk;
}

Status CSchedulerService::DeleteSchedule(const ScheduleGuid& id) {
  const platform::ReservedMemory memory;
  const qx::CNewWindow window;
  const Status status = DeleteStores(id);
  window.Listed();
  if (status != kStatusOk) {
    ServiceLog(3, u"Exited from DeleteSchedule with error: %x", status);
    return status;
  }
  ServiceLog(3, u"Successful deletion of schedule: %s", platform::GuidText(id));
  Fire_Schedule_Delete(id);
  return status;
}

Status CSchedulerService::ListSchedule(std::uint32_t& count, ScheduleList& schedules) {
  ServiceLog(4, u"Entered into ListSchedule");
  ScheduleList list;
  const Status status = ListRegistry(count, list);
  if (status == kStatusOk) {
    if (list) schedules = std::move(list);
    return status;
  }
  if (count != 0 && list) DropList(list);
  ServiceLog(0, u"ListSchedule:ListRegistry returned with error: %x", status);
  return status;
}

Status CSchedulerService::GetScheduleInfo(const ScheduleGuid& id, ScheduleInfo& schedule) {
  const Status status = MakeInfo(id, schedule);
  ServiceLog(4, u"Exited GetScheduleInfo: hr = %x", status);
  return status;
}

Status CSchedulerService::Refresh() {
  const platform::ReservedMemory memory;
  DoCleanUp();
  const Status status = PopulateJobList();
  if (status != kStatusOk) ServiceLog(1, u"Refresh:Failed PopulateJobList with error: %x", status);
  g_SchedulerEvents.Set(REFRESH_EVENT);
  return kStatusOk;
}

Status CSchedulerService::Notify_NextTimeWindow_Modify(const ScheduleGuid& id, std::int32_t nextTimeWindow) {
  Fire_NextTimeWindow_Modify(id, nextTimeWindow);
  return kStatusOk;
}

Status CSchedulerService::Notify_SystemTime_Change(std::int32_t count, const std::vector<std::u16string>& ids,
                                                   const std::vector<std::int32_t>& nextTimeWindows) {
  ServiceLog(3, u"Notify_Systemtime_Change: count = %d", count);
  Fire_SystemTime_Change(count, ids, nextTimeWindows);
  return kStatusOk;
}

// Deliberate: the request is only logged.
Status CSchedulerService::UpdateList(std::int32_t type, const BSTR& value, std::uint32_t& /*count*/,
                                     std::vector<std::u16string>& /*ids*/) {
  switch (type) {
    case 0:
      ServiceLog(3, u"Requested to update the joblist");
      return kStatusOk;
    case APPLICATION_NAME:
      ServiceLog(3, u"Requested to update the schedules having Application Name = %s", ForLog(qx::TextOf(value)));
      return kStatusOk;
    case OBJECT_ID:
      ServiceLog(3, u"Requested to update the schedules having ObjectID = %s", ForLog(qx::TextOf(value)));
      return kStatusOk;
    default:
      ServiceLog(1, u"Wrong parameter type");
      return kStatusFailure;
  }
}

Status CSchedulerService::ModifySchedule(const ScheduleGuid& id, const SCHEDULE_OBJECT& schedule) {
  const platform::ReservedMemory memory(qx::TextBytes(schedule));
  bool modified = false;
  const Status status = qx::ModifyStores(id, schedule, modified);
  // Deliberate: a modification that was rolled back whole returns 0 too; only the missing event tells it.
  if (!modified) return status;
  g_SchedulerEvents.Set(MODIFY_EVENT);
  Fire_Schedule_Modify(id);
  ServiceLog(2, u"Successfully Modified the Schedule: %s on local host", platform::GuidText(id));
  return status;
}

Status CSchedulerService::CreateScheduleOnNodes(const SCHEDULE_OBJECT& schedule, ScheduleGuid& id,
                                                std::uint32_t nodeCount, const NodeNames& nodeNames,
                                                NodeResults& results) {
  if (m_nodes == nullptr) return kStatusNotSupported;
  return m_nodes->CreateScheduleOnNodes(*this, schedule, id, nodeCount, nodeNames, results);
}

Status CSchedulerService::DeleteScheduleOnNodes(const ScheduleGuid& id, std::uint32_t nodeCount,
                                                const NodeNames& nodeNames, NodeResults& results) {
  if (m_nodes == nullptr) return kStatusNotSupported;
  return m_nodes->DeleteScheduleOnNodes(*this, id, nodeCount, nodeNames, results);
}

Status CSchedulerService::ModifyScheduleOnNodes(const ScheduleGuid& id, const SCHEDULE_OBJECT& schedule,
                                                std::uint32_t nodeCount, const NodeNames& nodeNames,
                                                NodeResults& results) {
  if (m_nodes == nullptr) return kStatusNotSupported;
  return m_nodes->ModifyScheduleOnNodes(*this, id, schedule, nodeCount, nodeNames, results);
}

Status CSchedulerService::PerformOperationOnNodes(const BSTR& data, std::uint32_t nodeCount, const NodeNames& nodeNames,
                                                  NodeResults& results) {
  if (m_nodes == nullptr) return kStatusNotSupported;
  return m_nodes->PerformOperationOnNodes(*this, data, nodeCount, nodeNames, results);
}
