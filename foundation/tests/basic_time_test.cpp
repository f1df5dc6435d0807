#include <gtest/gtest.h>

#include <limits>
#include <thread>

#include "foundation/include/zfcbasictime.h"
#include "foundation/tests/utc.h"
#include "platform/testing/virtual_clock.h"

namespace ZepFoundation {
namespace {

using platform::ScopedZone;

std::tm Fields(int y, int mo, int d, int h, int mi, int isDst = -1) {
  std::tm t{};
  t.tm_year = y - 1900;
  t.tm_mon = mo - 1;
  t.tm_mday = d;
  t.tm_hour = h;
  t.tm_min = mi;
  t.tm_isdst = isDst;
  return t;
}

TEST(BasicTime, GivesNothingForANullPointer) {
  CBasicTime time;
  EXPECT_EQ(time.GmtTime(nullptr), nullptr);
  EXPECT_EQ(time.LocalTime(nullptr), nullptr);
  EXPECT_EQ(time.CTime(nullptr), nullptr);
  EXPECT_EQ(time.AscTime(nullptr), nullptr);
  EXPECT_EQ(time.MkTime(nullptr), -1);
}

TEST(BasicTime, GivesNothingForAnInstantWithoutAYear) {
  CBasicTime time;
  const std::int64_t far = std::numeric_limits<std::int64_t>::max();
  EXPECT_EQ(time.GmtTime(&far), nullptr);
  EXPECT_EQ(time.LocalTime(&far), nullptr);
  EXPECT_EQ(time.CTime(&far), nullptr);
}

TEST(BasicTime, KeepsItsResultsApart) {
  const ScopedZone zone("Asia/Tokyo");
  CBasicTime time;
  const std::int64_t at = Utc(2024, 2, 28, 20);
  const std::tm* gmt = time.GmtTime(&at);
  const std::tm* local = time.LocalTime(&at);
  EXPECT_EQ(gmt->tm_mday, 28);
  EXPECT_EQ(local->tm_mday, 29);
  EXPECT_EQ(local->tm_hour, 5);
}

TEST(BasicTime, PrintsInTheRuntimesForm) {
  const ScopedZone zone("UTC");
  CBasicTime time;
  const std::int64_t at = 0;
  const char* text = time.CTime(&at);
  EXPECT_STREQ(text, "Thu Jan  1 00:00:00 1970\n");
  std::tm fields = Fields(2024, 2, 29, 12, 34);
  fields.tm_wday = 4;
  EXPECT_STREQ(time.AscTime(&fields), "Thu Feb 29 12:34:00 2024\n");
  EXPECT_STREQ(text, "Thu Jan  1 00:00:00 1970\n");
  fields.tm_wday = 7;
  fields.tm_mon = -1;
  fields.tm_year = std::numeric_limits<int>::max();
  EXPECT_STREQ(time.AscTime(&fields), "??? ??? 29 12:34:00 2147485547\n");
}

struct MkCase {
  const char* zone;
  int y, mo, d, h, mi, isDst;
  std::int64_t seconds;
};
const MkCase kMkTimes[] = {
    {"UTC", 2024, 2, 29, 12, 0, -1, Utc(2024, 2, 29, 12)},
    {"UTC", 2024, 2, 29, 12, 0, 1, Utc(2024, 2, 29, 12)},
    {"UTC", 1960, 1, 1, 0, 0, -1, Utc(1960, 1, 1)},
    {"America/New_York", 2024, 3, 10, 2, 30, -1, Utc(2024, 3, 10, 7, 30)},
    {"America/New_York", 2024, 3, 10, 2, 30, 0, Utc(2024, 3, 10, 7, 30)},
    {"America/New_York", 2024, 3, 10, 2, 30, 1, Utc(2024, 3, 10, 7, 30)},
    {"America/New_York", 2024, 11, 3, 1, 30, -1, Utc(2024, 11, 3, 6, 30)},
    {"America/New_York", 2024, 11, 3, 1, 30, 0, Utc(2024, 11, 3, 6, 30)},
    {"America/New_York", 2024, 11, 3, 1, 30, 1, Utc(2024, 11, 3, 5, 30)},
    {"Europe/Berlin", 2024, 3, 31, 2, 15, -1, Utc(2024, 3, 31, 1, 15)},
    {"Europe/Berlin", 2024, 10, 27, 2, 15, -1, Utc(2024, 10, 27, 1, 15)},
    {"Europe/Berlin", 2024, 10, 27, 2, 15, 1, Utc(2024, 10, 27, 0, 15)},
    {"Asia/Kolkata", 2024, 7, 1, 0, 0, 1, Utc(2024, 6, 30, 18, 30)},
    {"Asia/Tokyo", 2024, 7, 1, 0, 0, -1, Utc(2024, 6, 30, 15)},
};
TEST(BasicTime, ConvertsLocalFieldsByOneStatelessRule) {
  for (int round = 0; round < 2; ++round) {  // no call depends on the ones before it
    for (const MkCase& c : kMkTimes) {
      const ScopedZone zone(c.zone);
      CBasicTime time;
      std::tm fields = Fields(c.y, c.mo, c.d, c.h, c.mi, c.isDst);
      EXPECT_EQ(time.MkTime(&fields), c.seconds) << c.zone << " " << c.mo << "/" << c.d << " " << c.isDst;
    }
  }
}

TEST(BasicTime, LeavesFieldsWithoutAResultAsTheyAre) {
  const ScopedZone zone("UTC");
  CBasicTime time;
  std::tm fields = Fields(2024, 1, 1, 0, 0);
  fields.tm_year = std::numeric_limits<int>::max();
  fields.tm_mon = 12;
  EXPECT_EQ(time.MkTime(&fields), -1);
  EXPECT_EQ(fields.tm_mon, 12);
}

TEST(BasicTime, ServesSeveralThreads) {
  const ScopedZone zone("America/New_York");
  const auto work = [](int day, bool* right) {
    for (int i = 0; i < 2000; ++i) {
      CBasicTime time;
      const std::int64_t at = Utc(2024, 1, day, 12);
      const std::tm* local = time.LocalTime(&at);
      *right = *right && local->tm_mday == day && local->tm_hour == 7;
    }
  };
  bool first = true, second = true;
  std::thread other(work, 3, &first);
  work(9, &second);
  other.join();
  EXPECT_TRUE(first);
  EXPECT_TRUE(second);
}

}  // namespace
}  // namespace ZepFoundation
