#include "common/schedule_dates.h"

#include "foundation/include/zfcdate.h"
#include "foundation/include/zfcdatetime.h"
#include "foundation/include/zfctime.h"
#include "platform/clock.h"

namespace qx {

using ZepFoundation::CDate;
using ZepFoundation::CDateTime;
using ZepFoundation::WTime;

CDate DateFromDay(DayNumber day) {
  CDate date(ZepFoundation::QTM_FIXED);
  if (day < 0 || day > INT32_MAX) {
    date.Invalidate();
  } else {
    date.SetFromMilliSeconds(static_cast<std::uint64_t>(day) * kMillisecondsPerDay);
  }
  return date;
}

DayNumber DayFromDate(const CDate& date) {
  // Whole days of a negative number keep their sign in the 64 bits.
  return static_cast<std::int64_t>(date.AsMilliSeconds()) / kMillisecondsPerDay;
}

std::int32_t LocalDayOf(ZepTime seconds) {
  // Two instants outside this range have no year that the calendar classes take.
  constexpr ZepTime kFirst = -62135596800 + kSecondsPerDay;  // the first days of year 1
  constexpr ZepTime kLast = 253402300800;                    // the end of year 9999
  if (seconds < kFirst || seconds > kLast) return -1;
  const std::int64_t wall = platform::CurrentZone().ToWall(seconds);
  const platform::CivilDate civil =
      platform::CivilFromDays((wall >= 0 ? wall : wall - (kSecondsPerDay - 1)) / kSecondsPerDay);
  CDate date(ZepFoundation::QTM_FIXED);
  date.SetDate(static_cast<int>(civil.year), civil.month, civil.day);
  return static_cast<std::int32_t>(DayFromDate(date));
}

ZepTime SecondsOfDay(std::int32_t day) { return DateFromDay(day).AsANSITime(); }

ZepTime SecondsOfTimeOfDay(const WTime& time) {
  int hour = 0, minute = 0, second = 0;
  if (!time.GetTime(&hour, &minute, &second, nullptr) || hour >= 24) return time.AsANSITime();
  const platform::Zone& zone = platform::CurrentZone();
  const std::int64_t today = zone.ToWall(platform::NowSeconds()) / kSecondsPerDay;
  const std::int64_t timeOfDay = (hour * 60 + minute) * 60 + second;
  // A local clock leaves a time of day out on single days: the loop ends after a few.
  for (std::int64_t day = today;; --day) {
    const std::int64_t wall = day * kSecondsPerDay + timeOfDay;
    const std::int64_t seconds = zone.ToSeconds(wall);
    if (zone.ToWall(seconds) == wall) return seconds;
  }
}

Moment MomentFromDateTime(const CDateTime& value) {
  const platform::FILETIME utc = value.AsFileTime(false);
  platform::FILETIME local;
  if (platform::TicksFromFileTime(utc) == 0 || !platform::FileTimeToLocalFileTime(utc, local)) return {};
  const auto ticks = static_cast<std::int64_t>(platform::TicksFromFileTime(local));
  return {ticks / platform::kTicksPerMillisecond - platform::kEpochDistanceSeconds * 1000, true};
}

CDateTime DateTimeFromMoment(Moment moment) {
  platform::FILETIME local;
  if (moment.valid) {
    const std::int64_t ms = moment.wallMs + platform::kEpochDistanceSeconds * 1000;
    local = platform::FileTimeFromTicks(static_cast<std::uint64_t>(ms) * platform::kTicksPerMillisecond);
  }
  return moment.valid ? CDateTime(local, true) : CDateTime(platform::FILETIME{}, false);
}

}  // namespace qx
