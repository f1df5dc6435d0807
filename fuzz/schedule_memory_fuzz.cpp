// A schedule from any block of memory: what was loaded is saved and loaded again the same.
#include "fuzz/fuzz_target.h"
#include "fuzz/schedule_check.h"

using qx::fuzz::Require;

QX_FUZZ_TARGET(schedule_memory) {
  std::string block(qx::fuzz::Text(data, size));
  qx::fuzz::LoadedSchedule schedule;
  const ZRESULT loaded = schedule->Load(block.data(), static_cast<std::uint32_t>(block.size()));
  qx::fuzz::AskSchedule(*schedule, qx::fuzz::Durations::kOfAnySign);
  if (loaded != ZEP_S_OK) return 0;
  std::string first = qx::fuzz::MemoryForm(*schedule);
  qx::fuzz::LoadedSchedule again;
  Require(again->Load(first.data(), static_cast<std::uint32_t>(first.size())) == ZEP_S_OK, "a saved schedule loads");
  Require(qx::fuzz::MemoryForm(*again) == first, "a saved schedule comes back");
  return 0;
}
