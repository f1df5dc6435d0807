#include "service/populate.h"

#include <memory>
#include <string>
#include <vector>

#include "common/ini_recovery.h"
#include "common/plain_schedule_file.h"
#include "foundation/include/zfclog.h"
#include "platform/apartment.h"
#include "platform/file.h"
#include "platform/guid.h"
#include "platform/memory.h"
#include "platform/registry_scan.h"
#include "service/ini_path.h"
#include "service/job_list.h"
#include "service/load_ahead.h"
#include "service/schedule_store.h"

using platform::ERROR_SUCCESS;
using platform::Hive;
using platform::RegistryKey;
using ZepFoundation::ForLog;
using ZepFoundation::ServiceLog;

namespace qx {

const JobBuildWords kPopulateWords = {
    .idBeforeKey = false,
    .badId = u"Invalid ScheduleID/GUID in registry",
    .noIniFileLevel = 1,
    .noIniFile = u"Ini file does not exists: %s",
    .noIniFileNamesKey = false,
    .pathBeforeScheduler = false,
    .readFailed = u"Did not find the ini file, error = %x",
};
const JobBuildWords kTimeChangeWords = {
    .idBeforeKey = true,
    .badId = u"Failed to convert String to GUID",
    .noIniFileLevel = 4,
    .noIniFile = u"ini file does not exists: %s",
    .noIniFileNamesKey = true,
    .pathBeforeScheduler = true,
    .readFailed = u"failed to read schedule from ini file, error = %x",
};

namespace {

bool ParseId(const std::u16string& keyName, const JobBuildWords& words, CJobNode& node) {
  if (StringToGUID(keyName.c_str(), node.ScheduleID)) return true;
  ServiceLog(1, words.badId);
  return false;
}

bool OpenScheduleKey(const RegistryKey& schedules, std::u16string_view keyName, RegistryKey& key) {
  if (platform::OpenKey(schedules, keyName, platform::KEY_ALL_ACCESS, key) == ERROR_SUCCESS) return true;
  ServiceLog(1, u" Failed to open scheduleKey");
  return false;
}

bool FindIniFile(const std::u16string& keyName, const std::u16string& path, const JobBuildWords& words) {
  const std::string file = platform::NativePath(path);
  if (platform::FileExists(file)) return true;
  (void)RestoreOldIniFile(path);  // or somebody else has done it meanwhile
  if (platform::FileExists(file)) return true;
  ServiceLog(words.noIniFileLevel, words.noIniFile, ForLog(words.noIniFileNamesKey ? keyName : path));
  return false;
}

// The values of a job in the order of reading; the .ini file is looked for as soon as its path is known.
bool ReadJob(const RegistryKey& key, const std::u16string& keyName, const JobBuildWords& words, const CJobNode& node,
             StoredJob& job, std::u16string& iniPath) {
  platform::KeyInfo info;
  if (platform::QueryInfoKey(key, info) != ERROR_SUCCESS) {
    ServiceLog(1, u"Failed queryinfokey(scheduleKey)");
    return false;
  }
  platform::NamedBuffer<char16_t> buffer(std::size_t{info.maxValueLength} + 1, "BuildJobNode");
  if (!buffer) {
    ServiceLog(1, u"calloc failed to allocate memory");
    return false;
  }
  const auto text = [&](const char16_t* name, std::u16string& out, const char16_t* failure) {
    if (ReadTextValue(key, name, buffer.span(), out) == ERROR_SUCCESS) return true;
    ServiceLog(1, failure);
    return false;
  };
  if (!text(u"XMLFilePathName", job.xmlPath, u"Query Value of XML file path failed")) return false;
  iniPath = IniPath(node.ScheduleID, job.xmlPath);
  if (!FindIniFile(keyName, iniPath, words)) return false;
  std::uint32_t useGuid = 0;
  if (platform::ReadRegistryDword(key, u"UseGUID", useGuid) != ERROR_SUCCESS) {
    ServiceLog(1, u"Query Value of UseGUID fails");
    return false;
  }
  job.useGuid = useGuid != 0;
  return text(u"WrapperBinary", job.wrapper, u"Query Value of wrapper binary fails") &&
         text(u"Parameters", job.parameters, u"Query Value of parameters failed") &&
         text(u"PostScript", job.postScript, u"Query Value of post script failed ") &&
         text(u"PreScript", job.preScript, u"Query Value of prescript failed ");
}

bool SetConfigPath(const std::u16string& iniPath, CJobNode& node) {
  const Status status = node.SetConfigFilePath(iniPath);
  if (status == kStatusOk) return true;
  ServiceLog(1, u"Failed to set the ini file path, error = %x", status);
  return false;
}

bool SetUpNode(const StoredJob& job, const std::u16string& iniPath, const JobBuildWords& words, CJobNode& node) {
  if (words.pathBeforeScheduler && !SetConfigPath(iniPath, node)) return false;
  if (const Status status = node.InitializeScheduler(); status != kStatusOk) {
    ServiceLog(1, u"Failed to initiallise ZEP scheduler, error = %x", status);
    return false;
  }
  if (const Status status = node.SetLaunchPath(job.wrapper, job.xmlPath, job.parameters, job.useGuid ? 1 : 0,
                                               job.preScript, job.postScript);
      status != kStatusOk) {
    ServiceLog(1, u"Failed to set the lauch path, error = %x", status);
    return false;
  }
  if (!words.pathBeforeScheduler && !SetConfigPath(iniPath, node)) return false;
  if (const Status status = node.ReadScheduleFromFile(); status != kStatusOk) {
    ServiceLog(1, words.readFailed, status);
    return false;
  }
  return true;
}

void PopulateOne(const RegistryKey& schedules, std::u16string_view keyName) {
  CJobNode node;
  const CReleaseAtEnd release(node);
  if (!BuildJobNode(schedules, keyName, kPopulateWords, node)) return;
  if (node.UpdateNextTimeWindow() <= 0) {
    ServiceLog(2, u"NextTimeWindow is over: %s", node.IdText());
    return;
  }
  if (const Status status = g_JobList.AddJob(node); status != kStatusOk) {
    ServiceLog(1, u"Failed to add the job to the job list, error = %x", status);
    return;
  }
  node.ScheduleObj.m_pSchedule = nullptr;  // the list's now
}

// Memory that runs out is the failure of one schedule, as any other.
void PopulateAt(const RegistryKey& schedules, std::uint32_t index) {
  (void)platform::RunGuarded("PopulateJobList", [&] {
    std::u16string name;
    if (platform::EnumKey(schedules, index, name) != ERROR_SUCCESS) {
      ServiceLog(1, u" Failed RegEnumKey for %d key", index);
      return;
    }
    PopulateOne(schedules, name);
  });
}

void RefuseListed(CJobNode& node) {
  ServiceLog(1, u"Failed to add the job to the job list, error = %x", kStatusJobExists);
  node.ReleaseScheduler();
}

// Nodes on their way into the list. What the list hasn't taken gives its rule objects up.
class NodesToList {
 public:
  explicit NodesToList(std::size_t most) { m_nodes.reserve(most); }
  NodesToList(const NodesToList&) = delete;
  NodesToList& operator=(const NodesToList&) = delete;
  ~NodesToList() {
    for (CJobNode& node : m_nodes) node.ReleaseScheduler();
  }
  void Add(CJobNode&& node) { m_nodes.push_back(std::move(node)); }
  void List() {
    g_JobList.AddJobs(m_nodes, RefuseListed);
    m_nodes.clear();
  }

 private:
  std::vector<CJobNode> m_nodes;
};

// Lists the nodes that were loaded ahead and are taken up to `end`, as long as they are what would be loaded now.
//   listed   in: the first of them; out: behind the last one that is done
//   returns  false: the registry or the zone has changed, nothing is listed
bool ListAhead(LoadAhead& ahead, const RegistryKey& schedules, std::uint32_t& listed, std::uint32_t end) {
  if (listed == end) return true;
  NodesToList nodes(end - listed);
  // From the look at what has changed to the listing nobody else changes the list: who changed a schedule before is
  // seen, and who does it later finds its node.
  const platform::CriticalSectionGuard guard(g_JobListLock);
  if (!ahead.StoreAndZoneHold()) return false;
  for (std::uint32_t i = listed; i < end; ++i) {
    if (ahead.FileHolds(i)) {
      nodes.Add(ahead.Take(i));
      continue;
    }
    nodes.List();
    ahead.PlaceBefore(schedules, i);
    PopulateAt(schedules, i);
    listed = i + 1;
  }
  nodes.List();
  listed = end;
  return true;
}

// Fills the list from what was loaded ahead.
//   listed  out: the number of keys that are done; the others are to be loaded call by call
void PopulateFromAhead(LoadAhead& ahead, const RegistryKey& schedules, std::uint32_t count, std::uint32_t& listed) {
  if (!ahead.Wait() || ahead.Size() != count || IsLoadingTold()) return;
  for (std::uint32_t i = 0; i < count; ++i) {
    const LoadAhead::Outcome outcome = ahead.At(i);
    if (outcome == LoadAhead::Outcome::kNode) continue;
    if (!ListAhead(ahead, schedules, listed, i)) return;
    if (outcome == LoadAhead::Outcome::kOver && ahead.StoreAndZoneHold() && ahead.FileHolds(i)) {
      ServiceLog(2, u"NextTimeWindow is over: %s", ahead.Take(i).IdText());
    } else {
      ahead.PlaceBefore(schedules, i);
      PopulateAt(schedules, i);
    }
    listed = i + 1;
  }
  (void)ListAhead(ahead, schedules, listed, count);
}

// Makes the key when it is missing. A key that wrote is closed before anything else: its close says whether it stands.
bool OpenSchedulesKey(const RegistryKey& version, RegistryKey& schedules) {
  bool created = false;
  if (platform::CreateKey(version, kSchedulesKeyName, platform::KEY_ALL_ACCESS, schedules, &created) != ERROR_SUCCESS) {
    return false;
  }
  if (!created) return true;
  return schedules.Close() == ERROR_SUCCESS &&
         platform::OpenKey(version, kSchedulesKeyName, platform::KEY_ALL_ACCESS, schedules) == ERROR_SUCCESS;
}

}  // namespace

bool BuildJobNode(const RegistryKey& schedules, std::u16string_view keyName, const JobBuildWords& words,
                  CJobNode& node) {
  const std::u16string name(keyName);
  RegistryKey key;
  if (words.idBeforeKey && !ParseId(name, words, node)) return false;
  if (!OpenScheduleKey(schedules, name, key)) return false;
  if (!words.idBeforeKey && !ParseId(name, words, node)) return false;
  StoredJob job;
  std::u16string iniPath;
  return ReadJob(key, name, words, node, job, iniPath) && SetUpNode(job, iniPath, words, node);
}

}  // namespace qx

Status PopulateJobList() { return PopulateJobList(nullptr); }

Status PopulateJobList(std::unique_ptr<qx::LoadAhead> ahead) {
  RegistryKey version, schedules;
  if (platform::OpenKey(Hive::kLocalMachine, qx::kCurrentVersionKey, platform::KEY_ALL_ACCESS, version) !=
      ERROR_SUCCESS) {
    ServiceLog(1, u"Failed to open HKEY_LOCAL_MACHINE\\SOFTWARE\\KORVANE\\QxSvc\\CurrentVersion key");
    return kStatusOk;
  }
  if (!qx::OpenSchedulesKey(version, schedules)) {
    ServiceLog(1, u"Failed to create\\open the Schedules key");
    return kStatusOk;
  }
  platform::KeyInfo info;
  if (platform::QueryInfoKey(schedules, info) != ERROR_SUCCESS) {
    ServiceLog(1, u"Failed to query the 'schedules' key for number of schedules");
    return kStatusOk;
  }
  ServiceLog(3, u"Number of Schedules in the registry = %d", info.subKeyCount);
  if (info.subKeyCount == 0) return kStatusOk;
  std::uint32_t done = 0;
  if (!qx::IsLoadingTold()) {
    (void)platform::RunGuarded("PopulateJobList", [&] {
      if (!ahead && info.subKeyCount >= qx::kWorthLoadingAhead) {
        ahead = std::make_unique<qx::LoadAhead>(platform::RegistryStoreFile());
      }
      if (ahead) qx::PopulateFromAhead(*ahead, schedules, info.subKeyCount, done);
    });
  }
  ahead.reset();
  for (std::uint32_t i = done; i < info.subKeyCount; ++i) qx::PopulateAt(schedules, i);
  schedules.Close();
  version.Close();
  ServiceLog(4, u"Exited from PopulateJobList()");
  return kStatusOk;
}

void DoCleanUp() {
  const platform::CriticalSectionGuard guard(g_JobListLock);
  for (CJobList::Position at = g_JobList.Begin(); at != g_JobList.End(); at = g_JobList.Erase(at)) {
    const Status status = at->ReleaseScheduler();
    if (status != kStatusOk) ServiceLog(1, u"DoCleanUp: ReleaseScheduler failed with error %x", status);
  }
}
