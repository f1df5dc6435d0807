// Schedule files by the short way: what loads from the bytes alone loads the same through the bag over the file.
#include "common/plain_schedule_file.h"
#include "common/schedule_adapter.h"
#include "common/zep_factory.h"
#include "foundation/include/zfclog.h"
#include "fuzz/fuzz_target.h"
#include "fuzz/schedule_check.h"
#include "platform/text.h"

using qx::fuzz::Require;

namespace {

// All that two loads are compared by: the memory form, and whether the schedule is to be saved.
std::string State(CSchedule& schedule) {
  zepByte dirty = 0;
  Require(schedule.get_Dirty(&dirty) == ZEP_S_OK, "a schedule tells whether it is to be saved");
  return qx::fuzz::MemoryForm(schedule) + static_cast<char>(dirty);
}

}  // namespace

QX_FUZZ_TARGET(plain_schedule) {
  qx::fuzz::LoadedSchedule plain;
  const std::string_view bytes = qx::fuzz::Text(data, size);
  if (!qx::LoadPlainSchedule(static_cast<zepISchedule&>(*plain), bytes)) return 0;
  const std::string fromBytes = State(*plain);
  qx::fuzz::AskSchedule(*plain, qx::fuzz::Durations::kPositive);

  qx::fuzz::LoadedSchedule bagged;
  CZEPScheduleObj adapter;
  adapter.m_pSchedule = &*bagged;
  const std::u16string path = platform::WideFromUtf8(qx::fuzz::WriteScratch("plain.ini", bytes));
  adapter.m_IniFilePath = ZepFoundation::wcstring(path.c_str());
  ZepFoundation::ServiceLogLevel = 4;  // whoever is to tell of a load goes through the bag
  const Status loaded = adapter.LoadScheduleFromFile();
  ZepFoundation::ServiceLogLevel = 0;
  adapter.m_pSchedule = nullptr;
  Require(loaded == 0, "what is plain loads through the bag");
  Require(State(*bagged) == fromBytes, "both ways load the same");

  adapter.m_pSchedule = &*bagged;
  Require(adapter.SaveScheduleToFile() == 0, "what was loaded can be saved");
  qx::fuzz::LoadedSchedule again;
  adapter.m_pSchedule = &*again;
  Require(adapter.LoadScheduleFromFile() == 0, "what was saved can be loaded");
  adapter.m_pSchedule = nullptr;
  Require(State(*again) == fromBytes, "what was saved is loaded the same");
  return 0;
}
