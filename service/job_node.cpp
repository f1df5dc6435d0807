#include "service/job_node.h"

#include <atomic>
#include <string>

#include "common/ini_recovery.h"
#include "common/zep_factory.h"
#include "foundation/include/zfclog.h"
#include "platform/file.h"
#include "platform/guid.h"
#include "platform/process.h"

using ZepFoundation::ServiceLog;

namespace {

// The process-wide mark that the rules library is ready.
std::atomic<bool> g_rulesLibraryReady{false};

constexpr char kLibrarySearchPath[] = ".;lib;..\\lib";
constexpr LibraryTableEntry kLibraries[] = {{"ZepSchedule", 2, "U"}};

// The answer where a failed InitializeScheduler() left no rule object.
constexpr auto kNoScheduler = static_cast<Status>(ZEP_E_POINTER);

void LogFactoryResult(ZRESULT result) {
  struct Row {
    ZRESULT result;
    const char16_t* text;
  };
  static constexpr Row kRows[] = {
      {ZEP_E_CLASSNOTAVAILABLE, u"Class not registered."},
      {ZEP_E_NOAGGREGATION, u"This class cannot be created as part of an aggregate."},
      {ZEP_E_FAIL, u"Unspecified error."},
      {ZEP_E_NOINTERFACE,
       u"The specified class does not implement the requested interface, or the controlling xpIUnknown does not expose "
       u"the requested interface."},
  };
  for (const Row& row : kRows) {
    if (row.result == result) ServiceLog(1, row.text);
  }
}

}  // namespace

Status CJobNode::InitializeScheduler() {
  if (!g_rulesLibraryReady) {
    const ZRESULT ready = InitializeZEP(kLibrarySearchPath, true, kLibraries, 1, 0);
    if (ZepFailed(ready) && ready != ZEP_E_ALREADYINITIALIZED) {
      ServiceLog(1, u"Exited InitiallizeScheduler() with error = %x returned from InitializeZEP()", ready);
      return static_cast<Status>(ready);
    }
    g_rulesLibraryReady = true;
  }
  void* object = nullptr;
  const ZRESULT made = ZepClassFactory(CLSID_CSchedule, nullptr, 0, IID_zepISchedule, &object);
  ServiceLog(4, u"ZepClassFactory returned hr = %x", made);
  if (ZepFailed(made)) {
    LogFactoryResult(made);
    return static_cast<Status>(made);
  }
  ScheduleObj.m_pSchedule = static_cast<zepISchedule*>(object);
  const ZRESULT valid = ScheduleObj.m_pSchedule->Validate();
  if (valid != ZEP_S_OK) {
    ServiceLog(1, u"Schedule rules entered does not represent valid schedule, hr = %x", valid);
  }
  return static_cast<Status>(valid);
}

Status CJobNode::ReleaseScheduler() {
  if (ScheduleObj.m_pSchedule != nullptr) {
    ScheduleObj.m_pSchedule->Release();
    ScheduleObj.m_pSchedule = nullptr;
  }
  return kStatusOk;
}

Status CJobNode::SetConfigFilePath(std::u16string_view path) {
  ScheduleObj.m_IniFilePath = std::u16string(path);
  return kStatusOk;
}

Status CJobNode::SetLaunchPath(std::u16string_view wrapper, std::u16string_view xmlPath, std::u16string_view parameters,
                               std::uint32_t useGuid, std::u16string_view preScript, std::u16string_view postScript) {
  if (wrapper.empty()) {
    ServiceLog(0, u"No wrapperbinary name mentioned ");
    return kStatusFailure;
  }
  std::u16string line(wrapper);
  // Deliberate: neither the wrapper nor quotation marks inside a value are quoted.
  const auto append = [&line](std::u16string_view before, std::u16string_view piece, std::u16string_view behind) {
    if (!piece.empty()) line.append(u" ").append(before).append(piece).append(behind);
  };
  if (useGuid != 0) append(u"", IdText(), u"");
  append(u"\"", xmlPath, u"\"");
  append(u"", parameters, u"");
  append(u"Pre=\"", preScript, u"\"");
  append(u"Post=\"", postScript, u"\"");
  LaunchPath = line;
  return kStatusOk;
}

Status CJobNode::Launch() {
  const platform::ErrorCode code = platform::StartDetached(LaunchPath.view());
  if (code != platform::ERROR_SUCCESS) ServiceLog(0, u"Launch (Create process) failed with error : %x", code);
  // Deliberate: this line stands in the log after a failure too.
  ServiceLog(3, u"Launched the schedule: %s", IdText());
  return code == platform::ERROR_SUCCESS ? kStatusOk : kStatusFailure;
}

Status CJobNode::ValidateScheduleRules(const SCHEDULE_OBJECT& schedule) {
  const SCHEDULE_RULE& rules = schedule.stScheduleRules;
  ServiceLog(5, u"StartTime = %ld", rules.lStartTime);
  ServiceLog(5, u"EndTime = %ld", rules.lEndTime);
  ServiceLog(5, u"EffectiveDate = %ld", rules.lEffectiveDate);
  ServiceLog(5, u"AnchorDate = %ld", rules.lAnchorDate);
  return ScheduleObj.Validate_ScheduleRules(&schedule);
}

std::int64_t CJobNode::UpdateNextTimeWindow() {
  NextTimeWindow = 0;
  NextTimeWindow = static_cast<std::int32_t>(ScheduleObj.GetNextTimeWindow());
  return NextTimeWindow;
}

Status CJobNode::ReadScheduleFromFile() {
  return ScheduleObj.m_pSchedule == nullptr ? kNoScheduler : ScheduleObj.LoadScheduleFromFile();
}

Status CJobNode::LoadScheduleFromFile(SCHEDULE_OBJECT& schedule) {
  const Status status = ReadScheduleFromFile();
  return status == kStatusOk ? ScheduleObj.LoadScheduleFromPropBag(&schedule) : status;
}

Status CJobNode::SavScheduleToFile(const SCHEDULE_OBJECT& schedule) {
  return ScheduleObj.m_pSchedule == nullptr ? kNoScheduler : ScheduleObj.AddScheduleRules(&schedule);
}

platform::ErrorCode CJobNode::DeleteScheduleRuleFile() {
  const std::u16string path(ScheduleObj.m_IniFilePath.view());
  const std::string aside = platform::NativePath(path + std::u16string(qx::kOldIniSuffix));
  // Not synced: a power cut finds the file under one of its two names.
  const platform::ErrorCode code = platform::RenameFile(platform::NativePath(path), aside);
  if (code != platform::ERROR_SUCCESS) ServiceLog(1, u"Failed to delete old ini file with error %d", code);
  return code;
}

std::u16string CJobNode::IdText() const { return platform::GuidText(ScheduleID); }
