// common/tests/schedule_fixture.h: for tests of the rules: a schedule object, a fixed zone and present, times as text.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>

#include "common/Schedule.h"
#include "platform/clock.h"
#include "platform/testing/virtual_clock.h"

namespace qx::testing {

enum Weekday : zepByte { kSunday, kMonday, kTuesday, kWednesday, kThursday, kFriday, kSaturday };
enum Week : zepByte { kFirst, kSecond, kThird, kFourth, kLastWeek };
inline constexpr std::uint16_t kLastDayOfMonth = 31;  // index

// "2024-05-02 12:00:00" or "2024-05-02 12:00" on the wall clock of the zone in force.
inline ZepTime Local(const char* text) {
  int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
  const int fields = std::sscanf(text, "%d-%d-%d %d:%d:%d", &year, &month, &day, &hour, &minute, &second);
  EXPECT_GE(fields, 3) << text;
  const std::int64_t wall = platform::DaysFromCivil(year, month, day) * 86400 + hour * 3600 + minute * 60 + second;
  return platform::CurrentZone().ToSeconds(wall);
}

inline std::string Shown(ZepTime seconds) {
  if (seconds == -1) return "none";
  const std::int64_t wall = platform::CurrentZone().ToWall(seconds);
  const std::int64_t days = (wall - ((wall % 86400) + 86400) % 86400) / 86400;
  const platform::CivilDate date = platform::CivilFromDays(days);
  const std::int64_t rest = wall - days * 86400;
  char out[64];
  std::snprintf(out, sizeof out, "%04d-%02d-%02d %02d:%02d:%02d", static_cast<int>(date.year), date.month, date.day,
                static_cast<int>(rest / 3600), static_cast<int>(rest / 60 % 60), static_cast<int>(rest % 60));
  return out;
}

// The answer of one window query, in words.
struct Answer {
  ZRESULT result = 0;
  ZepTime start = 0;
  ZepTime end = 0;
  zepByte last = 0;
  std::uint32_t match = 0;
};

// A schedule without a run-day rule, with a window from 10:00 to 11:00.
class Rules {
 public:
  Rules() {
    m_object = new CSchedule;
    void* out = nullptr;
    EXPECT_EQ(m_object->QueryInterface(IID_zepISchedule, &out), ZEP_S_OK);
    m_object->Reset();
    Window("10:00", "11:00");
  }
  Rules(const Rules&) = delete;
  Rules& operator=(const Rules&) = delete;
  ~Rules() { m_object->Release(); }

  CSchedule* operator->() const { return m_object; }
  CSchedule& operator*() const { return *m_object; }

  // Times of day, set on a plain day far from any change.
  Rules& Window(const char* start, const char* end) {
    EXPECT_EQ(m_object->put_StartTime(Local((std::string("2024-01-10 ") + start).c_str())), ZEP_S_OK);
    EXPECT_EQ(m_object->put_EndTime(Local((std::string("2024-01-10 ") + end).c_str())), ZEP_S_OK);
    return *this;
  }
  Rules& On(Weekday day, Week week) {
    m_object->SetDayOfWeek(day, week);
    return *this;
  }
  Rules& Every(Weekday day) {
    for (zepByte week = 0; week < 5; ++week) m_object->SetDayOfWeek(day, week);
    return *this;
  }
  Rules& Daily() {
    for (zepByte day = 0; day < 7; ++day) Every(static_cast<Weekday>(day));
    return *this;
  }
  // 1 to 31.
  Rules& DayOfMonth(int day) {
    EXPECT_EQ(m_object->SetDayOfMonth(static_cast<std::uint16_t>(day - 1)), ZEP_S_OK);
    return *this;
  }
  Rules& LastDay() {
    EXPECT_EQ(m_object->SetDayOfMonth(kLastDayOfMonth), ZEP_S_OK);
    return *this;
  }
  Rules& Include(const char* date) { return Specific(ZEP_SPECIFIC_INCLUDE, date); }
  Rules& Exclude(const char* date) { return Specific(ZEP_SPECIFIC_EXCLUDE, date); }
  Rules& Repeat(int days, const char* anchor) {
    m_object->put_UseRepeatInterval(1);
    EXPECT_EQ(m_object->put_RepeatInterval(days), ZEP_S_OK);
    EXPECT_EQ(m_object->put_AnchorDate(Local(anchor)), ZEP_S_OK);
    return *this;
  }
  Rules& Restart(std::uint32_t minutes) {
    m_object->put_UseRestartInterval(1);
    EXPECT_EQ(m_object->put_RestartInterval(minutes * 60000), ZEP_S_OK);
    return *this;
  }
  Rules& Effective(const char* date) {
    m_object->put_UseEffectiveDate(1);
    EXPECT_EQ(m_object->put_EffectiveDate(Local(date)), ZEP_S_OK);
    return *this;
  }

  [[nodiscard]] Answer Next(ZepTime reference, ZepTime anchor = 0, ZepTime effective = 0) const {
    Answer answer{.result = 12345, .start = -2, .end = -2, .last = 9, .match = 99};
    answer.result = m_object->GetNextTimeWindowEx(anchor, effective, reference, &answer.start, &answer.end,
                                                  &answer.last, &answer.match);
    return answer;
  }
  [[nodiscard]] Answer Next(const char* reference) const { return Next(Local(reference)); }
  [[nodiscard]] std::string NextStart(const char* reference) const { return Shown(Next(reference).start); }

 private:
  Rules& Specific(std::uint32_t type, const char* date) {
    EXPECT_EQ(m_object->SetSpecificDate(type, Local((std::string(date) + " 12:00").c_str())), ZEP_S_OK);
    return *this;
  }
  CSchedule* m_object;
};

// A zone, and a present in it.
class InZone : public ::testing::Test {
 protected:
  explicit InZone(const char* zone = "America/New_York", const char* now = "2024-01-15 12:00") : m_zone(zone) {
    m_clock.SetWall(Local(now), 0);
  }

  platform::ScopedZone m_zone;
  platform::VirtualClock m_clock;
};

}  // namespace qx::testing
