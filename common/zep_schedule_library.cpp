#include "common/zep_schedule_library.h"

#include <atomic>
#include <memory>
#include <new>

#include "common/Schedule.h"
#include "platform/fault_point.h"

namespace {

// For objects of this library that need objects of others; the schedule needs none.
std::atomic<ZepClassFactoryFunction> g_classFactory{nullptr};

std::unique_ptr<CSchedule> NewSchedule() {
  if (platform::FaultAt(platform::Operation::kAllocate, "CSchedule") != platform::ERROR_SUCCESS) return nullptr;
  try {
    return std::make_unique<CSchedule>();
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

}  // namespace

ZRESULT ZepScheduleInitialize(ZepClassFactoryFunction classFactory, std::uint32_t* version,
                              const LibraryTableEntry** dependents, std::uint32_t* dependentCount) {
  if (version == nullptr || dependents == nullptr || dependentCount == nullptr) return ZEP_E_POINTER;
  g_classFactory.store(classFactory);
  *version = kZepScheduleVersion;
  *dependents = nullptr;
  *dependentCount = 0;
  return ZEP_S_OK;
}

ZRESULT ZepScheduleFactory(const ZepGuid& classId, zepIUnknown*, std::uint32_t, const ZepGuid& interfaceId,
                           void** out) {
  if (out == nullptr) return ZEP_E_POINTER;
  *out = nullptr;
  if (!(classId == CLSID_CSchedule)) return ZEP_E_CLASSNOTAVAILABLE;
  std::unique_ptr<CSchedule> schedule = NewSchedule();
  if (schedule == nullptr) return ZEP_E_OUTOFMEMORY;
  const ZRESULT result = schedule->QueryInterface(interfaceId, out);
  if (ZepFailed(result)) return result;
  (void)schedule.release();  // owned by the reference that was handed out
  return result;
}
