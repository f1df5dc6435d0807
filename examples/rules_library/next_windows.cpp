// Asks the rules library for the next windows of a schedule. Nothing of the library is linked in: the factory loads
// libqxZepSchedule2U.so from a directory, and all else goes through the abstract interface.
//
// usage: qx_example_rules LIBRARY_DIRECTORY [COUNT]
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "common/zepSchedIUnknown.h"
#include "common/zep_factory.h"

namespace {

constexpr zepByte kFriday = 5;
constexpr zepByte kLastWeek = 4;

ZepTime Local(int year, int month, int day, int hour) {
  std::tm fields{};
  fields.tm_year = year - 1900;
  fields.tm_mon = month - 1;
  fields.tm_mday = day;
  fields.tm_hour = hour;
  fields.tm_isdst = -1;
  return std::mktime(&fields);
}

struct TimeText {
  explicit TimeText(ZepTime seconds) {
    const std::time_t time = seconds;
    std::tm fields{};
    localtime_r(&time, &fields);
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M", &fields);
  }
  char text[64] = "";
};

int Fail(const char* what, ZRESULT result) {
  std::fprintf(stderr, "%s: 0x%08x\n", what, static_cast<unsigned>(result));
  return 1;
}

int PrintWindows(zepISchedule2& schedule, int count) {
  // A new object runs on every day: Reset() leaves none, and then the rules are set one by one.
  schedule.Reset();
  for (const ZRESULT result :
       {schedule.put_StartTime(Local(2024, 2, 1, 22)), schedule.put_EndTime(Local(2024, 2, 2, 2)),
        schedule.SetDayOfWeek(kFriday, kLastWeek), schedule.Validate()}) {
    if (ZepFailed(result)) return Fail("the rules are refused", result);
  }
  ZepTime reference = Local(2024, 2, 1, 0);
  std::printf("the last Friday of each month, 22:00 to 02:00, from %s\n", TimeText(reference).text);
  for (int i = 0; i < count; ++i) {
    ZepTime start = 0;
    ZepTime end = 0;
    zepByte last = 0;
    const ZRESULT result = schedule.GetNextTimeWindow(0, 0, reference, &start, &end, &last);
    if (result == ZEP_S_FALSE) break;  // no further window
    if (ZepFailed(result)) return Fail("no window", result);
    std::printf("%s to %s\n", TimeText(start).text, TimeText(end).text);
    if (last != 0) break;
    reference = start;
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2 || argc > 3) {
    std::fprintf(stderr, "usage: qx_example_rules LIBRARY_DIRECTORY [COUNT]\n");
    return 2;
  }
  const int count = argc == 3 ? std::atoi(argv[2]) : 5;

  static constexpr LibraryTableEntry kLibraries[] = {{"ZepSchedule", 2, "U"}};
  constexpr bool kSearchEnvironment = false;
  const ZRESULT loaded = InitializeZEP(argv[1], kSearchEnvironment, kLibraries, 1, 0);
  if (ZepFailed(loaded)) return Fail("can't load the rules library", loaded);

  constexpr std::uint32_t kInProcess = 1;
  void* object = nullptr;
  const ZRESULT made = ZepClassFactory(CLSID_CSchedule, nullptr, kInProcess, IID_zepISchedule, &object);
  if (ZepFailed(made)) return Fail("can't make a schedule", made);
  // Both schedule interfaces are one table.
  auto* const schedule = static_cast<zepISchedule2*>(object);
  const int status = PrintWindows(*schedule, count);
  schedule->Release();
  return status;
}
