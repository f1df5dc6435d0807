// A schedule from any .ini file, and saved again.
#include "common/ini_property_bag.h"
#include "fuzz/fuzz_target.h"
#include "fuzz/schedule_check.h"
#include "platform/text.h"

using qx::fuzz::Require;

QX_FUZZ_TARGET(schedule_ini) {
  const std::u16string path = platform::WideFromUtf8(qx::fuzz::WriteScratch("in.ini", qx::fuzz::Text(data, size)));
  CIniFilePropertyBag bag;
  bag.AddRef();  // the bag is this function's own: the count never reaches 0
  bag.SetFileName(path.c_str());
  qx::fuzz::LoadedSchedule schedule;
  (void)schedule->Load(&bag);
  qx::fuzz::AskSchedule(*schedule, qx::fuzz::Durations::kPositive);

  const std::u16string outPath = platform::WideFromUtf8(qx::fuzz::WriteScratch("out.ini", ""));
  CIniFilePropertyBag out;
  out.AddRef();
  out.SetFileName(outPath.c_str());
  Require(schedule->Save(&out, 0) == ZEP_S_OK, "what was loaded can be saved");
  qx::fuzz::LoadedSchedule again;
  Require(again->Load(&out) == ZEP_S_OK, "what was saved can be loaded");
  return 0;
}
