#include "service/modify_schedule.h"

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "common/ini_recovery.h"
#include "foundation/include/zfclog.h"
#include "platform/after_answer.h"
#include "platform/file.h"
#include "platform/profile.h"
#include "platform/registry.h"
#include "platform/reserved_memory.h"
#include "service/ini_path.h"
#include "service/job_list.h"
#include "service/node_setup.h"
#include "service/schedule_store.h"
#include "service/scheduler_events.h"
#include "service/time_change.h"

namespace qx {
namespace {

using platform::ERROR_SUCCESS;
using platform::ErrorCode;
using platform::Hive;
using platform::RegistryKey;
using ZepFoundation::ForLog;
using ZepFoundation::ServiceLog;

bool SameIdentity(const SCHEDULE_OBJECT& a, const SCHEDULE_OBJECT& b) {
  return TextOf(a.bstrApplication) == TextOf(b.bstrApplication) && TextOf(a.bstrObjectID) == TextOf(b.bstrObjectID) &&
         a.dwTaskOpCode == b.dwTaskOpCode;
}

bool IsMissing(ErrorCode code) {
  return code == platform::ERROR_FILE_NOT_FOUND || code == platform::ERROR_PATH_NOT_FOUND;
}

// In bytes; 0 where there is no file that can be read.
std::uint64_t LengthOf(const std::u16string& path) {
  platform::File file;
  std::uint64_t bytes = 0;
  if (file.Open(platform::NativePath(path), platform::File::Access::kRead,
                platform::File::Disposition::kOpenExisting) != ERROR_SUCCESS ||
      file.Size(bytes) != ERROR_SUCCESS) {
    return 0;
  }
  return bytes;
}

// A file of rules that no call can have written, and that none reads.
bool IsTooLong(std::uint64_t bytes) { return bytes > platform::kMostProfileBytes; }

// How much of the old file is read; it has texts that the key hasn't.
std::size_t OldFileBytes(const SCHEDULE_OBJECT& record, const ScheduleGuid& id) {
  const std::uint64_t bytes = LengthOf(OldIniPath(id, TextOf(record.bstrXMLFilePathName)));
  return IsTooLong(bytes) ? 0 : bytes;
}

void RemoveCopy(const std::u16string& path) {
  const ErrorCode code = platform::DeleteFile(platform::NativePath(path));
  if (code == ERROR_SUCCESS || IsMissing(code)) return;
  ServiceLog(1, u"ModifySchedule: Failed to delete the copy %s, error = %d", ForLog(path), code);
}

// The schedule whose job a modification has taken out of the list.
std::optional<ScheduleGuid> g_modified QX_GUARDED_BY(g_JobListLock);
// Whether the scheduler thread's sleep began without that job.
bool g_sleepsWithout QX_GUARDED_BY(g_JobListLock) = false;

class Modification {
 public:
  Modification(const ScheduleGuid& id, const SCHEDULE_OBJECT& schedule) : m_schedule(schedule) {
    m_new.ScheduleID = id;
    m_old.ScheduleID = id;
  }
  Modification(const Modification&) = delete;
  Modification& operator=(const Modification&) = delete;
  // What the list didn't take over is given up here, whatever happened.
  ~Modification() {
    m_new.ReleaseScheduler();
    m_old.ReleaseScheduler();
    m_spare.ReleaseScheduler();
    const platform::CriticalSectionGuard guard(g_JobListLock);
    if (g_modified == m_new.ScheduleID) g_modified.reset();
  }

  Status CheckNew();
  Status CaptureOld();
  Status Commit(bool& modified);

 private:
  Status FindNewIniPath();
  Status CheckRules();
  bool TakeListedJob();
  Status RebuildOldJob();
  void PutOldFileAside();
  bool ClearNewDirectory();
  bool KeepCopyBesideNewFile();
  [[nodiscard]] std::vector<std::u16string> Copies() const;
  void LeaveCopiesToBeRemoved() const;
  void RunNow();
  void ListNewJob();
  void ListOldJob();
  Status RevertRegistry();
  Status RestoreOldFile();
  Status SaveOldRules();
  Status RollBackRegistry(Status cause);
  Status RollBackFile();
  void LogFailed() const { ServiceLog(1, u"Failed to Modify Schedule: %s", m_new.IdText()); }

  const SCHEDULE_OBJECT& m_schedule;
  SCHEDULE_OBJECT m_oldRecord;
  CJobNode m_new;
  CJobNode m_old;
  CJobNode m_spare;  // has the rule object that was made for the old node, while that has the listed job's
  bool m_wasListed = false;
  std::u16string m_newPath;  // the .ini files, as the clients' texts
  std::u16string m_oldPath;
  bool m_otherDirectory = false;  // the new file lies in another directory than the old one
  bool m_isAside = false;         // the old file lies under its .old name
  bool m_hasOldRules = false;     // of the listed job, or in the old file
};

// --- the new data ---

Status Modification::CheckNew() {
  const std::u16string idText = m_new.IdText();
  RegistryKey schedules, key;
  if (platform::OpenKey(Hive::kLocalMachine, kSchedulesKey, platform::KEY_ALL_ACCESS, schedules) != ERROR_SUCCESS) {
    ServiceLog(1, u"ModifySchedule: Failed to open the SCHEDULES registry key");
    return kStatusModify;
  }
  if (const ErrorCode code = platform::OpenKey(schedules, idText, platform::KEY_ALL_ACCESS, key);
      code != ERROR_SUCCESS) {
    ServiceLog(1, u"ModifySchedule:Failed to open the schedule key: %s with error: %x", idText, code);
    return kStatusNoSuchKey;
  }
  if (const Status status = m_new.InitializeScheduler(); status != kStatusOk) {
    ServiceLog(1, u"ModifySchedule:Failed to initiallise ZEP scheduler, error = %x", status);
    ServiceLog(1, u"Failed to ModifySchedule: %s", idText);
    return kStatusFailure;
  }
  // Deliberate: the listed job follows a new bUseGUID; its key keeps the flag of the creation, which applies again
  // after a restart.
  if (const Status status = SetLaunchPathFrom(m_schedule, m_new); status != kStatusOk) {
    ServiceLog(1, u"ModifySchedule:Failed to set launch parameters, error = %x", status);
    ServiceLog(1, u"Failed to modify schedule: %s", idText);
    return status;
  }
  if (const Status status = FindNewIniPath(); status != kStatusOk) return status;
  return CheckRules();
}

Status Modification::FindNewIniPath() {
  switch (FindIniPlace(m_schedule, m_new.ScheduleID, "ModifySchedule wcConfigPath", m_newPath)) {
    case IniPlace::kNoMemory:
      ServiceLog(1, u"ModifySchedule: Calloc(wcConfigPath) failed");
      return kStatusFailure;
    case IniPlace::kNoDirectory:
      ServiceLog(1, u"ModifySchedule:Given XMLFilePath does not exists");
      ServiceLog(1, u"Failed to Modify Schedule");
      return kStatusNoDirectory;
    case IniPlace::kFound:
      break;
  }
  const Status status = m_new.SetConfigFilePath(m_newPath);
  if (status != kStatusOk) {
    ServiceLog(1, u"ModifySchedule:Failed to set the ini file path with error = %x", status);
    LogFailed();
  }
  return status;
}

Status Modification::CheckRules() {
  if (const Status status = m_new.ValidateScheduleRules(m_schedule); status != kStatusOk) {
    ServiceLog(1, u"ModifySchedule:Invalid schedule rule, error: %x", status);
    LogFailed();
    return status;
  }
  if (m_new.UpdateNextTimeWindow() >= 0) return kStatusOk;
  ServiceLog(2, u"Failed to Modify: Requested to modify with backdated schedule rules");
  return kStatusBackdated;
}

// --- the old state ---

Status Modification::CaptureOld() {
  if (const Status status = ReadRegistry(m_old.ScheduleID, m_oldRecord); status != kStatusOk) {
    ServiceLog(1, u"ModifySchedule:Failed to get the old registry information");
    ServiceLog(1, u"Failed to modify the schedule");
    return status;
  }
  platform::ReservedMemory::Raise(TextBytes(m_schedule) + TextBytes(m_oldRecord) +
                                  OldFileBytes(m_oldRecord, m_old.ScheduleID));
  if (const Status status = m_old.InitializeScheduler(); status != kStatusOk) {
    ServiceLog(1, u"Failed to initiallise ZEP scheduler, error = %x", status);
  }
  m_wasListed = TakeListedJob();
  if (!m_wasListed) {
    if (const Status status = RebuildOldJob(); status != kStatusOk) return status;
  }
  m_oldPath = m_old.ScheduleObj.m_IniFilePath.view();
  m_otherDirectory = platform::AreDifferentFiles(platform::DirectoryOf(platform::NativePath(m_oldPath)),
                                                 platform::DirectoryOf(platform::NativePath(m_newPath)));
  return kStatusOk;
}

bool Modification::TakeListedJob() {
  const platform::CriticalSectionGuard guard(g_JobListLock);
  g_modified = m_old.ScheduleID;
  g_sleepsWithout = false;
  const CJobList::Position at = g_JobList.Find(m_old.ScheduleID);
  if (at == g_JobList.End()) return false;
  m_spare.ScheduleObj.m_pSchedule = m_old.ScheduleObj.m_pSchedule;
  m_old.ScheduleObj.m_pSchedule = nullptr;
  // The list gives its count up below; a rollback needs the object until the operation ends.
  if (at->ScheduleObj.m_pSchedule != nullptr) at->ScheduleObj.m_pSchedule->AddRef();
  m_old.LaunchPath = at->LaunchPath;
  m_old.NextTimeWindow = at->NextTimeWindow;
  m_old.ScheduleObj = at->ScheduleObj;
  // Where the file can't be read, a rollback writes the rules by which the job ran, and gives them back to it.
  (void)at->ScheduleObj.LoadScheduleFromPropBag(&m_oldRecord);
  if (at->LoadScheduleFromFile(m_oldRecord) != kStatusOk) m_spare.ReleaseScheduler();
  if (const Status status = at->ReleaseScheduler(); status != kStatusOk) {
    ServiceLog(1, u"ModifySchedule:Failed ReleaseScheduler, with error %x", status);
  }
  g_JobList.Erase(at);
  return true;
}

Status Modification::RebuildOldJob() {
  if (const Status status = SetLaunchPathFrom(m_oldRecord, m_old); status != kStatusOk) {
    ServiceLog(1, u"ModifySchedule:Failed to set old launch parameters, error = %x", status);
    LogFailed();
    return status;
  }
  // Deliberate: directory and file name of the old path meet in two separators.
  const std::u16string path = OldIniPath(m_old.ScheduleID, TextOf(m_oldRecord.bstrXMLFilePathName));
  if (!HasMemoryFor(path, "ModifySchedule old path")) {
    ServiceLog(1, u"ModifySchedule:calloc failed");
    LogFailed();
    return kStatusFailure;
  }
  if (const Status status = m_old.SetConfigFilePath(path); status != kStatusOk) {
    ServiceLog(1, u"ModifySchedule:Failed to set the old ini file path, error = %x", status);
    LogFailed();
    return status;
  }
  if (const Status status = m_old.LoadScheduleFromFile(m_oldRecord); status != kStatusOk) {
    ServiceLog(1, u"ModifySchedule:Failed to load the old schedule rules from file with error: %x", status);
  }
  return kStatusOk;
}

// --- the change ---

Status Modification::Commit(bool& modified) {
  PutOldFileAside();
  const bool canSave = !m_otherDirectory || (ClearNewDirectory() && KeepCopyBesideNewFile());
  // The disk works at the new file while the key is written.
  std::optional<CScheduleFileSave> save;
  if (canSave) save.emplace(m_new.ScheduleObj).Prepare();
  // Where the new file can't be written the key stays untouched, unless it will refuse the change by itself.
  if (canSave || !SameIdentity(m_schedule, m_oldRecord)) {
    if (const Status status = ModifyRegistry(m_new.ScheduleID, m_schedule); status != kStatusOk) {
      save.reset();
      return RollBackRegistry(status);
    }
  }
  const bool isSaved = save && save->Finish() == kStatusOk;
  save.reset();
  if (!isSaved) return RollBackFile();
  LeaveCopiesToBeRemoved();
  RunNow();
  ListNewJob();
  modified = true;
  // Deliberate: 0, whatever the run and the list met.
  return kStatusOk;
}

// The old file goes first, because the new one may have the same path.
void Modification::PutOldFileAside() {
  const ErrorCode code = m_old.DeleteScheduleRuleFile();
  m_isAside = code == ERROR_SUCCESS;
  m_hasOldRules = m_wasListed || !IsMissing(code);
}

// A file of the schedule that was left in the new directory, from days when it lay there, would be taken for the
// schedule's as soon as the key names that directory. Safe from a power cut with the copy that comes there next.
//   returns  false when it can't be taken away, and so the new file not be put there either
bool Modification::ClearNewDirectory() {
  const std::string file = platform::NativePath(m_newPath);
  if (!platform::FileExists(file)) return true;
  const ErrorCode code = platform::DeleteFile(file);
  if (code == ERROR_SUCCESS || IsMissing(code)) return true;
  ServiceLog(1, u"ModifySchedule: Failed to delete the earlier file %s, error = %d", ForLog(m_newPath), code);
  return false;
}

// Before the key names another directory, the old rules lie there too, safe from a power cut.
//   returns  false when the copy can't be written there, and so the new file neither
bool Modification::KeepCopyBesideNewFile() {
  const std::u16string source = m_isAside ? m_oldPath + std::u16string(kOldIniSuffix) : m_oldPath;
  const std::u16string copy = m_newPath + std::u16string(kOldIniSuffix);
  if (IsTooLong(LengthOf(source))) return true;  // no load takes old rules from it
  std::string text;
  ErrorCode code = platform::ReadWholeFile(platform::NativePath(source), text);
  if (IsMissing(code)) return true;  // there are no old rules
  if (code == ERROR_SUCCESS) {
    code = platform::ReplaceWholeFile(platform::NativePath(copy), text, platform::Durable::kYes);
  }
  if (code == ERROR_SUCCESS) return true;
  ServiceLog(1, u"ModifySchedule: Failed to copy the old rules to %s, error = %d", ForLog(copy), code);
  return false;
}

std::vector<std::u16string> Modification::Copies() const {
  std::vector<std::u16string> copies = {m_oldPath + std::u16string(kOldIniSuffix)};
  if (m_otherDirectory) copies.push_back(m_newPath + std::u16string(kOldIniSuffix));
  return copies;
}

// Beside the new file they say nothing, so the caller's answer needn't wait until the disk has given them up.
void Modification::LeaveCopiesToBeRemoved() const {
  platform::AfterAnswer::Leave([copies = Copies()] { std::ranges::for_each(copies, RemoveCopy); });
}

void Modification::RunNow() {
  // Deliberate: exactly 1; a creation takes any value but 0.
  if (m_schedule.bRunNow != 1 || m_new.Launch() == kStatusOk) return;
  ServiceLog(1, u"ModifySchedule: Failed to Launch the schedule even bRunNow is true");
}

// Without a window the schedule stays on disk without a node.
void Modification::ListNewJob() {
  if (m_new.NextTimeWindow <= 0) return;
  if (const Status status = g_JobList.AddJob(m_new); status != kStatusOk) {
    ServiceLog(1, u"ModifySchedule: Failed to add the job node to joblist with error: %x", status);
    return;
  }
  m_new.ScheduleObj.m_pSchedule = nullptr;  // the list's now
}

// --- the way back ---

Status Modification::RollBackRegistry(Status cause) {
  ServiceLog(1, u"Failed to modify registry with error %x", cause);
  if (const Status status = RevertRegistry(); status != kStatusOk) return status;
  if (const Status status = RestoreOldFile(); status != kStatusOk) {
    ServiceLog(1, u"ModifySchedule:Failed to restore old ini file with error: %x", status);
    return status;
  }
  ListOldJob();
  // Deliberate: a change that was undone whole is a success; no event tells of it.
  return kStatusOk;
}

Status Modification::RollBackFile() {
  ServiceLog(1, u"Failed to save the new schedule rule information");
  Status status = RevertRegistry();
  if (status == kStatusOk) {
    // A save whose last step failed, the sync, has left its file.
    if (m_otherDirectory) (void)platform::DeleteFile(platform::NativePath(m_newPath));
    status = RestoreOldFile();
    if (status == kStatusOk) {
      ListOldJob();
    } else {
      ServiceLog(1, u"Failed to recover old ini file");
    }
  }
  LogFailed();
  // Deliberate: 0 after a whole rollback.
  return status;
}

// Deliberate: "LastOperation" tells a modification afterwards. Where the key can't be written back, the copies of the
// old rules stay for the next load.
Status Modification::RevertRegistry() {
  const Status status = ModifyRegistry(m_old.ScheduleID, m_oldRecord);
  if (status != kStatusOk) {
    LogFailed();
    ServiceLog(1, u"ModifySchedule:Failed to revert back the registry entries %x", status);
  }
  return status;
}

// A record doesn't carry every rule. Where the old file will come back by itself, another object takes the record's,
// and the listed job's keeps its own.
Status Modification::SaveOldRules() {
  CJobNode& node = m_isAside && m_spare.ScheduleObj.m_pSchedule != nullptr ? m_spare : m_old;
  (void)node.SetConfigFilePath(m_oldPath);
  return node.SavScheduleToFile(m_oldRecord);
}

// The old rules are saved; then the old file takes their place, byte by byte as it was, also where the save failed. One
// that can't be moved back stays aside for the next load.
Status Modification::RestoreOldFile() {
  const std::string file = platform::NativePath(m_oldPath);
  // A schedule that had neither job nor file gets no file with the rules of an empty one.
  const Status status = m_hasOldRules ? SaveOldRules() : kStatusOk;
  if (m_isAside) {
    const std::u16string aside = m_oldPath + std::u16string(kOldIniSuffix);
    const ErrorCode code = platform::RenameFile(platform::NativePath(aside), file);
    if (code != ERROR_SUCCESS && !IsMissing(code)) {
      ServiceLog(1, u"ModifySchedule: Failed to move %s back, error = %d", ForLog(aside), code);
    }
  }
  if (platform::FileExists(file)) std::ranges::for_each(Copies(), RemoveCopy);
  return status;
}

// Sets no event where the scheduler's sleep still counts on the old window. One that began meanwhile would pass over it
// and all that follow.
void Modification::ListOldJob() {
  if (!m_wasListed || m_old.NextTimeWindow < 1) return;
  const platform::CriticalSectionGuard guard(g_JobListLock);
  // Refused only when the scheduler thread has listed the schedule anew meanwhile.
  if (g_JobList.AddJob(m_old) != kStatusOk) return;
  m_old.ScheduleObj.m_pSchedule = nullptr;  // the list's now
  if (g_sleepsWithout) g_SchedulerEvents.Set(REFRESH_EVENT);
}

Status Modify(const ScheduleGuid& id, const SCHEDULE_OBJECT& schedule, bool& modified) {
  Modification modification(id, schedule);
  if (const Status status = modification.CheckNew(); status != kStatusOk) return status;
  if (const Status status = modification.CaptureOld(); status != kStatusOk) return status;
  return modification.Commit(modified);
}

}  // namespace

bool IsBeingModified(const ScheduleGuid& id) { return g_modified == id; }

void NoteSleep() { g_sleepsWithout = true; }

Status ModifyStores(const ScheduleGuid& id, const SCHEDULE_OBJECT& schedule, bool& modified) {
  platform::AfterAnswer::DoNow();  // the copies of a change just ahead must not be taken for this one's
  const CNewWindow window;
  const Status status = Modify(id, schedule, modified);
  window.Listed();
  return status;
}

}  // namespace qx
