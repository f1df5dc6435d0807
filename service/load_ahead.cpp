#include "service/load_ahead.h"

#include <cstring>
#include <exception>
#include <iterator>
#include <string_view>
#include <utility>

#include "common/plain_schedule_file.h"
#include "common/zep_factory.h"
#include "foundation/include/zfcguid.h"
#include "platform/file.h"
#include "platform/guid.h"
#include "service/ini_path.h"
#include "service/schedule_store.h"

namespace qx {
namespace {

using platform::RegistryScan;

constexpr std::size_t kBuilders = 6;          // so many reads a disk has to do at a time
constexpr std::size_t kSchedulesATime = 64;   // of a batch
constexpr std::size_t kMostBatches = 64;      // that wait

enum ValueName : std::size_t { kXmlPath, kByGuid, kWrapper, kParameters, kPostScript, kPreScript };
constexpr std::string_view kScannedValues[] = {"XMLFilePathName", "UseGUID",    "WrapperBinary",
                                               "Parameters",      "PostScript", "PreScript"};

// A key's folded name as an ID: a plain one alone.
bool ReadId(std::span<const unsigned char> fold, ScheduleGuid& id) {
  char16_t name[platform::kGuidTextLength + 1] = {};
  if (fold.size() != 2 * platform::kGuidTextLength) return false;
  for (std::size_t i = 0; i < platform::kGuidTextLength; ++i) {
    name[i] = static_cast<char16_t>(fold[2 * i] << 8 | fold[2 * i + 1]);
  }
  return platform::ClsidFromString({name, platform::kGuidTextLength}, id) == 0 &&
         ZepFoundation::IsValidGUIDString(name) != 0;
}

// One text with its terminator and nothing behind it.
bool ReadText(const RegistryScan::Value& value, std::u16string& out) {
  const std::size_t units = value.data.size() / sizeof(char16_t);
  if (!value.isThere || value.type != platform::REG_SZ || value.data.size() % sizeof(char16_t) != 0 || units == 0) {
    return false;
  }
  out.resize(units);
  std::memcpy(out.data(), value.data.data(), value.data.size());
  if (out.find(u'\0') != units - 1) return false;
  out.pop_back();
  return true;
}

bool ReadFlag(const RegistryScan::Value& value, bool& out) {
  std::uint32_t number = 0;
  if (!value.isThere || value.type != platform::REG_DWORD || value.data.size() != sizeof number) return false;
  std::memcpy(&number, value.data.data(), sizeof number);
  out = number != 0;
  return true;
}

bool ReadJob(const RegistryScan::Batch& batch, std::size_t at, StoredJob& job) {
  return ReadText(batch.At(at, kXmlPath), job.xmlPath) && ReadFlag(batch.At(at, kByGuid), job.useGuid) &&
         ReadText(batch.At(at, kWrapper), job.wrapper) && !job.wrapper.empty() &&
         ReadText(batch.At(at, kParameters), job.parameters) && ReadText(batch.At(at, kPostScript), job.postScript) &&
         ReadText(batch.At(at, kPreScript), job.preScript);
}

bool MakeRules(CJobNode& node) {
  void* object = nullptr;
  if (ZepFailed(ZepClassFactory(CLSID_CSchedule, nullptr, 0, IID_zepISchedule, &object))) return false;
  node.ScheduleObj.m_pSchedule = static_cast<zepISchedule*>(object);
  return node.ScheduleObj.m_pSchedule->Validate() == ZEP_S_OK;
}

// So that the threads find the rules library ready.
bool MakeLibraryReady() {
  zepISchedule2* schedule = nullptr;
  if (ZepFailed(CreateScheduleObject(&schedule))) return false;
  schedule->Release();
  return true;
}

}  // namespace

LoadAhead::LoadAhead(std::string storeFile, std::size_t worthwhile)
    : m_worthwhile(worthwhile), m_zone(platform::CurrentZone()), m_fileChanges(platform::FileChanges()) {
  // Without the thread nothing is built.
  (void)platform::Thread::Start(
      "load-scan", [this, storeFile = std::move(storeFile)] { Scan(storeFile); }, m_scanner);
}

LoadAhead::~LoadAhead() {
  {
    const platform::MutexLock hold(m_lock);
    m_stopped = true;
    m_drained.NotifyAll();
    m_filled.NotifyAll();
  }
  (void)Wait();
  for (Entry& entry : m_entries) (void)entry.node.ReleaseScheduler();
}

bool LoadAhead::Wait() {
  m_scanner.Join();
  for (platform::Thread& builder : m_builders) builder.Join();
  const platform::MutexLock hold(m_lock);
  return m_complete;
}

bool LoadAhead::FileHolds(std::size_t index) const {
  if (platform::FileChanges() == m_fileChanges) return true;
  const Entry& entry = m_entries[index];
  return platform::IsFileInState(platform::NativePath(entry.node.ScheduleObj.m_IniFilePath.view()), entry.file);
}

CJobNode LoadAhead::Take(std::size_t index) {
  CJobNode& node = m_entries[index].node;
  CJobNode taken = std::move(node);
  node.ScheduleObj.m_pSchedule = nullptr;
  return taken;
}

// The scanning thread's life.
void LoadAhead::Scan(const std::string& storeFile) {
  bool complete = false;
  try {
    if (m_scan.Open(storeFile, platform::Hive::kLocalMachine, kSchedulesKey) && m_scan.Size() >= m_worthwhile &&
        MakeLibraryReady()) {
      m_entries.resize(m_scan.Size());
      for (std::size_t i = 0; i < kBuilders; ++i) {
        platform::Thread builder;
        const platform::ErrorCode started =
            platform::Thread::Start("load-build", [this] { BuildBatches(); }, builder);
        if (started != platform::ERROR_SUCCESS) break;
        m_builders.push_back(std::move(builder));
      }
      complete = !m_builders.empty() && m_scan.Read(kScannedValues, kSchedulesATime,
                                                    [this](Batch&& batch) { return Queue(std::move(batch)); });
    }
  } catch (const std::exception&) {
    // Without memory nothing more is built.
  }
  const platform::MutexLock hold(m_lock);
  m_complete = complete;
  m_closed = true;
  m_filled.NotifyAll();
}

// False when nobody wants any more.
bool LoadAhead::Queue(Batch&& batch) {
  platform::MutexLock hold(m_lock);
  while (m_batches.size() >= kMostBatches && !m_stopped) m_drained.Wait(hold);
  if (m_stopped) return false;
  m_batches.push_back(std::move(batch));
  m_filled.NotifyOne();
  return true;
}

// A builder's life.
void LoadAhead::BuildBatches() {
  std::string bytes;
  for (;;) {
    platform::MutexLock hold(m_lock);
    while (m_batches.empty() && !m_closed && !m_stopped) m_filled.Wait(hold);
    if (m_stopped || m_batches.empty()) return;
    const Batch batch = std::move(m_batches.front());
    m_batches.pop_front();
    m_drained.NotifyOne();
    hold.Unlock();
    for (std::size_t at = 0; at < batch.Size(); ++at) {
      try {
        Build(batch, at, bytes);
      } catch (const std::exception&) {
        m_entries[batch.Index(at)].outcome = Outcome::kAsEver;
      }
      Entry& entry = m_entries[batch.Index(at)];
      if (entry.outcome != Outcome::kNode) (void)entry.node.ReleaseScheduler();
    }
  }
}

// Builds a node where nothing is to be told; the steps are those of BuildJobNode().
void LoadAhead::Build(const Batch& batch, std::size_t at, std::string& bytes) {
  Entry& entry = m_entries[batch.Index(at)];
  CJobNode& node = entry.node;
  StoredJob job;
  if (!ReadId(m_scan.Folded(batch.Index(at)), node.ScheduleID) || !ReadJob(batch, at, job)) return;
  const std::u16string path = IniPath(node.ScheduleID, job.xmlPath);
  if (!platform::ReadSmallFile(platform::NativePath(path), bytes, entry.file) || !MakeRules(node) ||
      node.SetLaunchPath(job.wrapper, job.xmlPath, job.parameters, job.useGuid ? 1 : 0, job.preScript,
                         job.postScript) != kStatusOk ||
      node.SetConfigFilePath(path) != kStatusOk || !LoadPlainSchedule(*node.ScheduleObj.m_pSchedule, bytes)) {
    return;
  }
  entry.outcome = node.UpdateNextTimeWindow() > 0 ? Outcome::kNode : Outcome::kOver;
}

}  // namespace qx
