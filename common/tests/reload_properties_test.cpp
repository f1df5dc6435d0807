// A reload from the file changes no window: over random rules in several zones.
#include <gtest/gtest.h>
#include <rapidcheck.h>

#include <filesystem>
#include <iterator>
#include <string>
#include <vector>

#include "common/Schedule.h"
#include "common/schedule_adapter.h"
#include "common/zep_factory.h"
#include "foundation/include/zfclog.h"
#include "platform/testing/temporary_folder.h"
#include "platform/testing/virtual_clock.h"
#include "platform/text.h"

namespace {

// Fixed offsets, both hemispheres with daylight saving, half-hour steps, far ends, and changes at midnight.
const char* const kZones[] = {"UTC0",
                              "America/Havana",
                              "Asia/Gaza",
                              "Atlantic/Azores",
                              "Africa/Casablanca",
                              "Antarctica/Troll",
                              "CET-1CEST,M3.5.0,M10.5.0/3",
                              "EST5EDT,M3.2.0,M11.1.0",
                              "LHST-10:30LHDT-11,M10.1.0,M4.1.0",
                              "NPT-5:45",
                              "LINT-14",
                              "AoE12",
                              "CLT4CLST,M9.1.6/24,M4.1.6/24"};

constexpr std::int32_t kFirstDay = 1704067200;  // 2024-01-01
constexpr std::int32_t kDays = 3 * 366;
constexpr int kWindows = 5;

rc::Gen<std::int32_t> Instant() { return rc::gen::inRange<std::int32_t>(kFirstDay, kFirstDay + kDays * 86400); }
rc::Gen<std::uint32_t> Flag() { return rc::gen::inRange<std::uint32_t>(0, 2); }
rc::Gen<std::uint32_t> WholeSeconds() {
  // Those of about a day lie beside the full day of a reset, which isn't one of whole seconds.
  const auto seconds = rc::gen::oneOf(rc::gen::inRange<std::uint32_t>(1, 86401),
                                      rc::gen::inRange<std::uint32_t>(1, 86401),
                                      rc::gen::inRange<std::uint32_t>(86397, 86401));
  return rc::gen::map(seconds, [](std::uint32_t s) { return s * 1000; });
}

SCHEDULE_OBJECT RandomRecord() {
  SCHEDULE_OBJECT object;
  object.bstrName = u"n" + std::u16string(*rc::gen::inRange<std::size_t>(0, 40), u'x');
  SCHEDULE_RULE& rule = object.stScheduleRules;
  rule.lStartTime = *Instant();
  rule.lEndTime = *Instant();
  if (*Flag() != 0) rule.dwTimeDuration = *WholeSeconds();  // else start and end give it, in whole seconds
  rule.bEffectiveDate = *Flag();
  rule.lEffectiveDate = *Instant();
  rule.bRestartInterval = *Flag();
  rule.dwRestartInterval = *WholeSeconds();
  rule.bRepeatInterval = *Flag();
  rule.dwRepeatInterval = *rc::gen::inRange<std::int32_t>(1, 60);
  rule.lAnchorDate = *Instant();
  if (*Flag() != 0) rule.adwDaysOfMonth[*rc::gen::inRange<std::size_t>(0, 32)] = 1;
  if (*Flag() != 0) rule.dwDaysOfWeek2[*rc::gen::inRange<std::size_t>(0, 7)] = 1;
  if (*Flag() != 0) rule.dwDaysOfWeek4[*rc::gen::inRange<std::size_t>(0, 7)] = 1;
  const auto includes = *rc::gen::inRange<std::size_t>(0, 60);
  for (std::size_t i = 0; i < includes; ++i) rule.alIncludeDates[i] = *Instant();
  const auto excludes = *rc::gen::inRange<std::size_t>(0, 60);
  for (std::size_t i = 0; i < excludes; ++i) rule.alExcludeDates[i] = *Instant();
  return object;
}

struct Seen {
  std::vector<std::int64_t> windows;
  SCHEDULE_OBJECT record;
  bool operator==(const Seen&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Seen& seen) {
  for (const std::int64_t value : seen.windows) out << value << ' ';
  return out;
}

// The next windows after an instant: result, start, end and last of each; and the record.
Seen Look(CZEPScheduleObj& adapter, ZepTime reference) {
  Seen seen;
  for (int i = 0; i < kWindows; ++i) {
    ZepTime start = 0;
    ZepTime end = 0;
    zepByte last = 0;
    const ZRESULT result = adapter.m_pSchedule->GetNextTimeWindow(0, 0, reference, &start, &end, &last);
    seen.windows.insert(seen.windows.end(), {result, start, end, last});
    if (result != 0) break;
    reference = start;
  }
  RC_ASSERT(adapter.LoadScheduleFromPropBag(&seen.record) == 0u);
  return seen;
}

class Holder {
 public:
  explicit Holder(const std::u16string& path) {
    zepISchedule2* schedule = nullptr;
    RC_ASSERT(qx::CreateScheduleObject(&schedule) == 0);
    m_adapter.m_pSchedule = schedule;
    m_adapter.m_IniFilePath = ZepFoundation::wcstring(path);
  }
  ~Holder() { m_adapter.m_pSchedule->Release(); }
  CZEPScheduleObj* operator->() { return &m_adapter; }
  CZEPScheduleObj& operator*() { return m_adapter; }

 private:
  CZEPScheduleObj m_adapter;
};

TEST(Reload, ChangesNoWindowOfAnySchedule) {
  ZepFoundation::ServiceLogWriter* const before = ZepFoundation::SetServiceLogWriter(ZepFoundation::NullServiceLogWriter());
  const platform::TemporaryFolder folder("reload");
  const std::string& directory = folder.Path();
  const std::u16string path = platform::WideFromUtf8(directory + "/r.ini");
  EXPECT_TRUE(rc::check("the next windows and the record are the same before a save and after a load", [&] {
    const platform::ScopedZone zone(kZones[*rc::gen::inRange<std::size_t>(0, std::size(kZones))]);
    platform::VirtualClock clock(*Instant());
    Holder saved(path);
    const SCHEDULE_OBJECT record = RandomRecord();
    (void)saved->Validate_ScheduleRules(&record);  // an invalid schedule is to survive as well
    RC_ASSERT(saved->SaveScheduleToFile() == 0u);

    // The service may start again on any other day.
    const ZepTime reference = *Instant();
    clock.SetWall(*Instant());
    const Seen expected = Look(*saved, reference);
    Holder loaded(path);
    RC_ASSERT(loaded->LoadScheduleFromFile() == 0u);
    RC_ASSERT(Look(*loaded, reference) == expected);
  }));
  ZepFoundation::SetServiceLogWriter(before);
}

}  // namespace
