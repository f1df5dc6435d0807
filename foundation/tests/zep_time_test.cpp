#include <gtest/gtest.h>

#include "foundation/include/zfcclock.h"
#include "platform/testing/virtual_clock.h"

#include "foundation/tests/utc.h"

namespace ZepFoundation {
namespace {

using platform::ScopedZone;
using platform::VirtualClock;

struct OffsetCase {
  const char* zone;
  std::int32_t seconds;
};
const OffsetCase kOffsets[] = {{"UTC", 0},
                               {"America/New_York", 18000},
                               {"Europe/Berlin", -3600},
                               {"Asia/Kolkata", -19800},
                               {"Asia/Tokyo", -32400}};
TEST(TimeZoneOffset, IsThatOfStandardTimeInEverySeason) {
  for (const OffsetCase& c : kOffsets) {
    const ScopedZone zone(c.zone);
    for (int month : {1, 4, 7, 10}) {
      VirtualClock clock(Utc(2024, month, 15));
      EXPECT_EQ(Zep_TimeZoneOffsetInSeconds(), c.seconds) << c.zone << " " << month;
    }
  }
}

TEST(FileTimeToAnsiTime, DividesASecondTime) {
  std::uint32_t remainder = 0;
  const std::uint64_t seconds = 11644473598 + 50'000'000;
  EXPECT_EQ(Zep_FileTimeToAnsiTime(platform::FileTimeFromTicks(seconds * 10000000 + 1234567), &remainder), 5u);
  EXPECT_EQ(remainder, 1234567u);
  EXPECT_EQ(Zep_FileTimeToAnsiTime(platform::FileTimeFromTicks((seconds - 1) * 10000000), nullptr), 4u);
}

TEST(FileTimeToAnsiTime, WrapsBelowItsConstant) {
  EXPECT_EQ(Zep_FileTimeToAnsiTime(FILETIME{}, nullptr), (std::uint64_t{0} - 11644473598) / 10000000);
}

TEST(PlatformTime, IsReachedThroughTheNamesOfTheLibrary) {
  const ScopedZone zone("Asia/Tokyo");
  VirtualClock clock(Utc(2024, 2, 29, 12), 5);
  FILETIME now;
  Zep_GetSystemTimeAsFileTime(now);
  SYSTEMTIME fields;
  Zep_GetSystemTime(fields);
  EXPECT_EQ(fields, (SYSTEMTIME{2024, 2, 4, 29, 12, 0, 0, 5}));
  FILETIME made;
  ASSERT_TRUE(Zep_SystemTimeToFileTime(fields, made));
  EXPECT_EQ(Zep_CompareFileTime(made, now), 0);
  FILETIME local;
  ASSERT_TRUE(Zep_FileTimeToLocalFileTime(now, local));
  EXPECT_EQ(Zep_CompareFileTime(local, now), 1);
  SYSTEMTIME localFields;
  ASSERT_TRUE(Zep_FileTimeToSystemTime(local, localFields));
  EXPECT_EQ(localFields, (SYSTEMTIME{2024, 2, 4, 29, 21, 0, 0, 5}));
  FILETIME back;
  ASSERT_TRUE(Zep_LocalFileTimeToFileTime(local, back));
  EXPECT_EQ(back, now);
}

}  // namespace
}  // namespace ZepFoundation
