// Windows on the days on which a zone's clock changes. Times are local, with their offset: an hour that comes twice
// has two different texts.
#include <cstdlib>
#include <string>

#include "common/tests/schedule_fixture.h"

namespace qx::testing {
namespace {

// "2024-11-03 01:30-04:00": seconds may stand in front of the offset.
ZepTime Instant(const std::string& text) {
  const std::size_t sign = text.size() - 6;
  int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0, offsetHour = 0, offsetMinute = 0;
  const std::string civil = text.substr(0, sign);
  EXPECT_GE(std::sscanf(civil.c_str(), "%d-%d-%d %d:%d:%d", &year, &month, &day, &hour, &minute, &second), 5) << text;
  EXPECT_EQ(std::sscanf(text.c_str() + sign + 1, "%d:%d", &offsetHour, &offsetMinute), 2) << text;
  const int offset = (offsetHour * 60 + offsetMinute) * 60 * (text[sign] == '-' ? -1 : 1);
  return platform::DaysFromCivil(year, month, day) * 86400 + hour * 3600 + minute * 60 + second - offset;
}

std::string WithOffset(ZepTime seconds) {
  if (seconds == -1) return "none";
  const std::int32_t offset = platform::CurrentZone().OffsetAt(seconds);
  std::string shown = Shown(seconds);
  if (shown.ends_with(":00")) shown.resize(shown.size() - 3);
  char text[16];
  std::snprintf(text, sizeof text, "%c%02d:%02d", offset < 0 ? '-' : '+', std::abs(offset) / 3600,
                std::abs(offset) / 60 % 60);
  return shown + text;
}

using Set = void (*)(Rules&);

struct ZoneCase {
  int line;
  const char* zone;
  Set rules;
  const char* open;  // the window's times of day
  const char* close;
  const char* reference;
  const char* start;
  const char* end;
};

void Daily(Rules& rules) {
  rules.Daily();
}
void Every10(Rules& rules) {
  rules.Daily().Restart(10);
}
void Every30(Rules& rules) {
  rules.Daily().Restart(30);
}
void Every60(Rules& rules) {
  rules.Daily().Restart(60);
}
void LastDayOfMonth(Rules& rules) {
  rules.LastDay();
}
template <int day>
void On(Rules& rules) {
  rules.DayOfMonth(day);
}

const ZoneCase kGaps[] = {
    // The start doesn't exist: it moves forward by the gap's length, and so does a missing end.
    {__LINE__, "America/New_York", Daily, "02:30", "02:45", "2024-03-09 12:00-05:00", "2024-03-10 03:30-04:00",
     "2024-03-10 03:45-04:00"},
    {__LINE__, "America/New_York", Daily, "02:30", "02:45", "2024-03-10 01:59:59-05:00", "2024-03-10 03:30-04:00",
     "2024-03-10 03:45-04:00"},
    {__LINE__, "America/New_York", Daily, "02:30", "02:45", "2024-03-10 03:15-04:00", "2024-03-10 03:30-04:00",
     "2024-03-10 03:45-04:00"},
    {__LINE__, "America/New_York", Daily, "02:30", "02:45", "2024-03-10 03:30-04:00", "2024-03-11 02:30-04:00",
     "2024-03-11 02:45-04:00"},
    {__LINE__, "America/New_York", Daily, "02:00", "03:00", "2024-03-09 12:00-05:00", "2024-03-10 03:00-04:00",
     "2024-03-10 03:00-04:00"},
    {__LINE__, "America/New_York", Daily, "03:00", "04:00", "2024-03-09 12:00-05:00", "2024-03-10 03:00-04:00",
     "2024-03-10 04:00-04:00"},
    {__LINE__, "Europe/Berlin", Daily, "02:00", "02:30", "2024-03-30 12:00+01:00", "2024-03-31 03:00+02:00",
     "2024-03-31 03:30+02:00"},
    {__LINE__, "Europe/Berlin", Daily, "02:59:59", "03:30", "2024-03-30 12:00+01:00", "2024-03-31 03:59:59+02:00",
     "2024-03-31 03:30+02:00"},
    {__LINE__, "Europe/Berlin", LastDayOfMonth, "02:30", "04:00", "2024-03-15 12:00+01:00", "2024-03-31 03:30+02:00",
     "2024-03-31 04:00+02:00"},
    {__LINE__, "Europe/Berlin", LastDayOfMonth, "02:30", "04:00", "2024-03-31 03:30+02:00", "2024-04-30 02:30+02:00",
     "2024-04-30 04:00+02:00"},
    {__LINE__, "Europe/Dublin", Daily, "01:30", "01:45", "2024-03-30 12:00+00:00", "2024-03-31 02:30+01:00",
     "2024-03-31 02:45+01:00"},
    {__LINE__, "Europe/Dublin", Daily, "01:30", "01:45", "2024-03-31 02:30+01:00", "2024-04-01 01:30+01:00",
     "2024-04-01 01:45+01:00"},
    // Half an hour.
    {__LINE__, "Australia/Lord_Howe", Daily, "02:10", "02:20", "2024-10-05 12:00+10:30", "2024-10-06 02:40+11:00",
     "2024-10-06 02:50+11:00"},
    {__LINE__, "Australia/Lord_Howe", Daily, "02:30", "02:45", "2024-10-05 12:00+10:30", "2024-10-06 02:30+11:00",
     "2024-10-06 02:45+11:00"},
    {__LINE__, "Africa/Casablanca", Daily, "02:30", "02:45", "2018-06-16 12:00+00:00", "2018-06-17 03:30+01:00",
     "2018-06-17 03:45+01:00"},
    {__LINE__, "Africa/Casablanca", Daily, "02:30", "02:45", "2024-04-13 12:00+00:00", "2024-04-14 03:30+01:00",
     "2024-04-14 03:45+01:00"},
    // One minute behind midnight.
    {__LINE__, "America/St_Johns", Daily, "00:30", "00:45", "2011-03-12 12:00-03:30", "2011-03-13 01:30-02:30",
     "2011-03-13 01:45-02:30"},
    {__LINE__, "America/St_Johns", Daily, "00:00:30", "00:45", "2011-03-12 12:00-03:30", "2011-03-13 00:00:30-03:30",
     "2011-03-13 01:45-02:30"},
    // At midnight: the date begins at 01:00.
    {__LINE__, "America/Sao_Paulo", Daily, "00:00", "00:30", "2018-11-03 12:00-03:00", "2018-11-04 01:00-02:00",
     "2018-11-04 01:30-02:00"},
    {__LINE__, "America/Sao_Paulo", On<4>, "00:30", "02:00", "2018-10-05 12:00-03:00", "2018-11-04 01:30-02:00",
     "2018-11-04 02:00-02:00"},
    {__LINE__, "America/Sao_Paulo", Daily, "00:00", "00:30", "2018-11-04 01:00-02:00", "2018-11-05 00:00-02:00",
     "2018-11-05 00:30-02:00"},
    // A quarter of an hour, at midnight of a new year.
    {__LINE__, "Asia/Kathmandu", Daily, "00:00", "00:10", "1985-12-31 12:00+05:30", "1986-01-01 00:15+05:45",
     "1986-01-01 00:25+05:45"},
    {__LINE__, "Asia/Kathmandu", On<1>, "00:15", "00:20", "1985-12-31 12:00+05:30", "1986-01-01 00:15+05:45",
     "1986-01-01 00:20+05:45"},
    {__LINE__, "Asia/Kathmandu", Daily, "00:00", "00:10", "1986-01-01 00:15+05:45", "1986-01-02 00:00+05:45",
     "1986-01-02 00:10+05:45"},
    {__LINE__, "UTC", Daily, "02:30", "02:45", "2024-03-09 12:00+00:00", "2024-03-10 02:30+00:00",
     "2024-03-10 02:45+00:00"},
};

const ZoneCase kOverlaps[] = {
    // The start comes twice: the later one counts, and a time of day that has come once counts as come.
    {__LINE__, "America/New_York", Daily, "01:30", "01:45", "2024-11-02 12:00-04:00", "2024-11-03 01:30-05:00",
     "2024-11-03 01:45-05:00"},
    {__LINE__, "America/New_York", Daily, "01:30", "01:45", "2024-11-03 01:20-04:00", "2024-11-03 01:30-05:00",
     "2024-11-03 01:45-05:00"},
    {__LINE__, "America/New_York", Daily, "01:30", "01:45", "2024-11-03 01:40-04:00", "2024-11-04 01:30-05:00",
     "2024-11-04 01:45-05:00"},
    {__LINE__, "America/New_York", Daily, "01:30", "01:45", "2024-11-03 01:20-05:00", "2024-11-03 01:30-05:00",
     "2024-11-03 01:45-05:00"},
    {__LINE__, "America/New_York", Daily, "01:30", "01:45", "2024-11-03 01:30-05:00", "2024-11-04 01:30-05:00",
     "2024-11-04 01:45-05:00"},
    {__LINE__, "America/New_York", Daily, "00:59:59", "01:00", "2024-11-02 12:00-04:00", "2024-11-03 00:59:59-04:00",
     "2024-11-03 01:00-05:00"},
    {__LINE__, "Europe/Berlin", Daily, "02:00", "02:30", "2024-10-26 12:00+02:00", "2024-10-27 02:00+01:00",
     "2024-10-27 02:30+01:00"},
    {__LINE__, "Europe/Berlin", Daily, "03:00", "03:30", "2024-10-26 12:00+02:00", "2024-10-27 03:00+01:00",
     "2024-10-27 03:30+01:00"},
    {__LINE__, "Australia/Lord_Howe", Daily, "01:45", "01:50", "2024-04-06 12:00+11:00", "2024-04-07 01:45+10:30",
     "2024-04-07 01:50+10:30"},
    {__LINE__, "Australia/Lord_Howe", Daily, "01:29", "01:31", "2024-04-06 12:00+11:00", "2024-04-07 01:29+11:00",
     "2024-04-07 01:31+10:30"},
    {__LINE__, "Africa/Casablanca", Daily, "02:30", "02:45", "2018-05-12 12:00+01:00", "2018-05-13 02:30+00:00",
     "2018-05-13 02:45+00:00"},
    {__LINE__, "America/St_Johns", Daily, "01:30", "01:45", "2011-11-05 12:00-02:30", "2011-11-06 01:30-03:30",
     "2011-11-06 01:45-03:30"},
    // Over midnight: the evening of the 6th comes twice, and so does the first minute of the 7th.
    {__LINE__, "America/St_Johns", Daily, "23:30", "23:45", "2010-11-06 12:00-02:30", "2010-11-06 23:30-03:30",
     "2010-11-06 23:45-03:30"},
    {__LINE__, "America/St_Johns", Daily, "23:30", "23:45", "2010-11-06 23:30-03:30", "2010-11-07 23:30-03:30",
     "2010-11-07 23:45-03:30"},
    {__LINE__, "America/St_Johns", Daily, "00:00:30", "00:45", "2010-11-06 12:00-02:30", "2010-11-07 00:00:30-03:30",
     "2010-11-07 00:45-03:30"},
    {__LINE__, "America/St_Johns", Daily, "23:30", "23:45", "2010-11-07 00:00:30-02:30", "2010-11-07 23:30-03:30",
     "2010-11-07 23:45-03:30"},
    {__LINE__, "America/Sao_Paulo", Daily, "23:30", "23:45", "2018-02-17 12:00-02:00", "2018-02-17 23:30-03:00",
     "2018-02-17 23:45-03:00"},
    {__LINE__, "America/Sao_Paulo", Daily, "23:30", "23:45", "2018-02-17 23:30-03:00", "2018-02-18 23:30-03:00",
     "2018-02-18 23:45-03:00"},
    {__LINE__, "UTC", Daily, "01:30", "01:45", "2024-11-03 01:30+00:00", "2024-11-04 01:30+00:00",
     "2024-11-04 01:45+00:00"},
};

const ZoneCase kAcross[] = {
    // A window's length is that of the local clock: an hour less or more pass in truth.
    {__LINE__, "America/New_York", Daily, "00:00", "06:00", "2024-03-09 12:00-05:00", "2024-03-10 00:00-05:00",
     "2024-03-10 06:00-04:00"},
    {__LINE__, "America/New_York", Daily, "00:00", "06:00", "2024-11-02 12:00-04:00", "2024-11-03 00:00-04:00",
     "2024-11-03 06:00-05:00"},
    {__LINE__, "Europe/Berlin", Daily, "23:00", "05:00", "2024-03-30 12:00+01:00", "2024-03-30 23:00+01:00",
     "2024-03-31 05:00+02:00"},
    {__LINE__, "Europe/Berlin", Daily, "23:00", "05:00", "2024-10-26 12:00+02:00", "2024-10-26 23:00+02:00",
     "2024-10-27 05:00+01:00"},
    {__LINE__, "Europe/Dublin", Daily, "00:30", "03:00", "2024-10-26 12:00+01:00", "2024-10-27 00:30+01:00",
     "2024-10-27 03:00+00:00"},
    {__LINE__, "Australia/Lord_Howe", Daily, "01:00", "03:00", "2024-10-05 12:00+10:30", "2024-10-06 01:00+10:30",
     "2024-10-06 03:00+11:00"},
    {__LINE__, "America/Sao_Paulo", Daily, "22:00", "02:00", "2018-11-03 12:00-03:00", "2018-11-03 22:00-03:00",
     "2018-11-04 02:00-02:00"},
    {__LINE__, "Pacific/Apia", Daily, "22:00", "02:00", "2011-12-29 12:00-10:00", "2011-12-29 22:00-10:00",
     "2011-12-31 02:00+14:00"},
    {__LINE__, "Asia/Kathmandu", Daily, "23:50", "00:30", "1985-12-31 12:00+05:30", "1985-12-31 23:50+05:30",
     "1986-01-01 00:30+05:45"},
};

const ZoneCase kRestartsInZones[] = {
    // 02:00 and 02:30 are missing and fall on 03:00 and 03:30, which run once.
    {__LINE__, "America/New_York", Every30, "01:00", "04:00", "2024-03-10 01:00-05:00", "2024-03-10 01:30-05:00",
     "2024-03-10 04:00-04:00"},
    {__LINE__, "America/New_York", Every30, "01:00", "04:00", "2024-03-10 01:30-05:00", "2024-03-10 03:00-04:00",
     "2024-03-10 04:00-04:00"},
    {__LINE__, "America/New_York", Every30, "01:00", "04:00", "2024-03-10 03:00-04:00", "2024-03-10 03:30-04:00",
     "2024-03-10 04:00-04:00"},
    {__LINE__, "America/New_York", Every30, "01:00", "04:00", "2024-03-10 03:30-04:00", "2024-03-10 04:00-04:00",
     "2024-03-10 04:00-04:00"},
    {__LINE__, "America/New_York", Every30, "01:00", "04:00", "2024-03-10 04:00-04:00", "2024-03-11 01:00-04:00",
     "2024-03-11 04:00-04:00"},
    // The hour that comes twice has restarts the second time.
    {__LINE__, "America/New_York", Every30, "00:30", "03:00", "2024-11-03 00:30-04:00", "2024-11-03 01:00-05:00",
     "2024-11-03 03:00-05:00"},
    {__LINE__, "America/New_York", Every30, "00:30", "03:00", "2024-11-03 01:10-04:00", "2024-11-03 01:30-05:00",
     "2024-11-03 03:00-05:00"},
    {__LINE__, "America/New_York", Every30, "00:30", "03:00", "2024-11-03 01:00-05:00", "2024-11-03 01:30-05:00",
     "2024-11-03 03:00-05:00"},
    {__LINE__, "Europe/Berlin", Every60, "23:00", "05:00", "2024-03-31 00:30+01:00", "2024-03-31 01:00+01:00",
     "2024-03-31 05:00+02:00"},
    {__LINE__, "Europe/Berlin", Every60, "23:00", "05:00", "2024-03-31 01:00+01:00", "2024-03-31 03:00+02:00",
     "2024-03-31 05:00+02:00"},
    {__LINE__, "Europe/Berlin", Every60, "23:00", "05:00", "2024-03-31 03:00+02:00", "2024-03-31 04:00+02:00",
     "2024-03-31 05:00+02:00"},
    {__LINE__, "Australia/Lord_Howe", Every10, "01:00", "03:00", "2024-10-06 01:50+10:30", "2024-10-06 02:30+11:00",
     "2024-10-06 03:00+11:00"},
    {__LINE__, "Australia/Lord_Howe", Every10, "01:00", "03:00", "2024-10-06 02:30+11:00", "2024-10-06 02:40+11:00",
     "2024-10-06 03:00+11:00"},
    {__LINE__, "Australia/Lord_Howe", Every10, "01:00", "03:00", "2024-04-07 01:20+11:00", "2024-04-07 01:30+10:30",
     "2024-04-07 03:00+10:30"},
    {__LINE__, "Pacific/Apia", Every60, "20:00", "04:00", "2011-12-29 23:30-10:00", "2011-12-31 00:00+14:00",
     "2011-12-31 04:00+14:00"},
    {__LINE__, "America/Sao_Paulo", Every30, "22:00", "02:00", "2018-11-03 23:30-03:00", "2018-11-04 01:00-02:00",
     "2018-11-04 02:00-02:00"},
};

const ZoneCase kEffective[] = {
    {__LINE__, "America/New_York", [](Rules& r) { r.Daily().Effective("2024-03-10 12:00"); }, "02:30", "02:45",
     "2024-01-01 12:00-05:00", "2024-03-10 03:30-04:00", "2024-03-10 03:45-04:00"},
    {__LINE__, "America/New_York", [](Rules& r) { r.Daily().Effective("2024-03-10 12:00"); }, "02:30", "02:45",
     "2024-03-10 03:10-04:00", "2024-03-10 03:30-04:00", "2024-03-10 03:45-04:00"},
    {__LINE__, "America/New_York", [](Rules& r) { r.Daily().Effective("2024-11-03 12:00"); }, "01:30", "01:45",
     "2024-01-01 12:00-05:00", "2024-11-03 01:30-05:00", "2024-11-03 01:45-05:00"},
    // The second ahead of a start at the gap's end is itself missing and moves behind the start: the day counts as
    // begun.
    {__LINE__, "America/New_York", [](Rules& r) { r.Daily().Effective("2024-03-10 12:00"); }, "03:00", "03:45",
     "2024-03-09 12:00-05:00", "2024-03-11 03:00-04:00", "2024-03-11 03:45-04:00"},
    {__LINE__, "America/New_York", [](Rules& r) { r.Daily().Effective("2024-03-10 12:00"); }, "03:00:01", "03:45",
     "2024-03-09 12:00-05:00", "2024-03-10 03:00:01-04:00", "2024-03-10 03:45-04:00"},
    {__LINE__, "Australia/Lord_Howe", [](Rules& r) { r.Daily().Effective("2024-10-06 12:00"); }, "02:10", "02:20",
     "2024-01-01 12:00+11:00", "2024-10-06 02:40+11:00", "2024-10-06 02:50+11:00"},
    {__LINE__, "America/Sao_Paulo", [](Rules& r) { r.Daily().Effective("2018-11-04 12:00"); }, "00:00", "00:30",
     "2018-10-01 12:00-03:00", "2018-11-04 01:00-02:00", "2018-11-04 01:30-02:00"},
    {__LINE__, "Asia/Kathmandu", [](Rules& r) { r.Daily().Effective("1986-01-01 12:00"); }, "00:00", "00:10",
     "1985-12-01 12:00+05:30", "1986-01-01 00:15+05:45", "1986-01-01 00:25+05:45"},
    {__LINE__, "UTC", [](Rules& r) { r.Daily().Effective("2024-03-10 12:00"); }, "02:30", "02:45",
     "2024-01-01 12:00+00:00", "2024-03-10 02:30+00:00", "2024-03-10 02:45+00:00"},
};

// 30 December 2011, a Friday, is left out in Apia.
const ZoneCase kLeftOut[] = {
    {__LINE__, "Pacific/Apia", Daily, "10:00", "11:00", "2011-12-29 12:00-10:00", "2011-12-31 10:00+14:00",
     "2011-12-31 11:00+14:00"},
    {__LINE__, "Pacific/Apia", Daily, "10:00", "11:00", "2011-12-31 10:00+14:00", "2012-01-01 10:00+14:00",
     "2012-01-01 11:00+14:00"},
    {__LINE__, "Pacific/Apia", On<30>, "10:00", "11:00", "2011-12-01 12:00-10:00", "2011-12-31 10:00+14:00",
     "2011-12-31 11:00+14:00"},
    {__LINE__, "Pacific/Apia", On<30>, "10:00", "11:00", "2011-12-31 10:00+14:00", "2012-01-30 10:00+14:00",
     "2012-01-30 11:00+14:00"},
    {__LINE__, "Pacific/Apia", [](Rules& r) { r.Every(kFriday); }, "10:00", "11:00", "2011-12-26 12:00-10:00",
     "2011-12-31 10:00+14:00", "2011-12-31 11:00+14:00"},
    {__LINE__, "Pacific/Apia", [](Rules& r) { r.Repeat(2, "2011-12-28 12:00"); }, "10:00", "11:00",
     "2011-12-28 12:00-10:00", "2011-12-31 10:00+14:00", "2011-12-31 11:00+14:00"},
    // Noon of the day that isn't is noon of the next: the setters take the 31st.
    {__LINE__, "Pacific/Apia", [](Rules& r) { r.Include("2011-12-30"); }, "10:00", "11:00", "2011-12-28 12:00-10:00",
     "2011-12-31 10:00+14:00", "2011-12-31 11:00+14:00"},
    {__LINE__, "Pacific/Apia", [](Rules& r) { r.Daily().Effective("2011-12-30 12:00"); }, "10:00", "11:00",
     "2011-12-01 12:00-10:00", "2011-12-31 10:00+14:00", "2011-12-31 11:00+14:00"},
    {__LINE__, "Pacific/Apia", [](Rules& r) { r.On(kFriday, kLastWeek).Exclude("2011-12-31"); }, "10:00", "11:00",
     "2011-12-01 12:00-10:00", "2011-12-31 10:00+14:00", "2011-12-31 11:00+14:00"},
};

// Where winter time is the daylight time, with its offset behind the standard one, the second conversion of a value
// takes the earlier instant of an overlap.
const ZoneCase kNegativeDaylight[] = {
    {__LINE__, "Europe/Dublin", Daily, "01:30", "01:45", "2024-10-26 12:00+01:00", "2024-10-27 01:30+00:00",
     "2024-10-27 01:45+00:00"},
    {__LINE__, "Europe/Dublin", Daily, "01:30", "01:45", "2024-10-27 01:20+00:00", "2024-10-27 01:30+00:00",
     "2024-10-27 01:45+00:00"},
    {__LINE__, "Europe/Dublin", Daily, "01:30", "01:45", "2024-10-27 01:30+00:00", "2024-10-28 01:30+00:00",
     "2024-10-28 01:45+00:00"},
    {__LINE__, "Africa/Casablanca", Daily, "02:30", "02:45", "2024-03-09 12:00+01:00", "2024-03-10 02:30+00:00",
     "2024-03-10 02:45+00:00"},
    {__LINE__, "Africa/Casablanca", Daily, "02:30", "02:45", "2024-03-10 02:30+00:00", "2024-03-11 02:30+00:00",
     "2024-03-11 02:45+00:00"},
};

// The present in winter and in summer: the offset in force now decides how values are kept, never what is answered.
class NextWindowInZones : public ::testing::TestWithParam<ZepTime> {
 protected:
  template <std::size_t N>
  void Expect(const ZoneCase (&rows)[N]) {
    for (const ZoneCase& row : rows) {
      const ::testing::ScopedTrace trace(__FILE__, row.line, row.zone);
      const platform::ScopedZone zone(row.zone);
      Rules rules;
      rules.Window(row.open, row.close);
      row.rules(rules);
      const Answer answer = rules.Next(Instant(row.reference));
      EXPECT_EQ(answer.result, ZEP_S_OK);
      EXPECT_EQ(WithOffset(answer.start), row.start);
      EXPECT_EQ(WithOffset(answer.end), row.end);
    }
  }

  platform::VirtualClock m_clock{GetParam()};
};

TEST_P(NextWindowInZones, AStartInAGapMovesForwardByTheGap) {
  Expect(kGaps);
}
TEST_P(NextWindowInZones, AStartInAnOverlapIsTheLaterOneAndComesOnce) {
  Expect(kOverlaps);
}
TEST_P(NextWindowInZones, AWindowAcrossAChangeEndsByTheLocalClock) {
  Expect(kAcross);
}
TEST_P(NextWindowInZones, RestartsGoOnAcrossAChange) {
  Expect(kRestartsInZones);
}
TEST_P(NextWindowInZones, AnEffectiveDateMayBeTheDayOfAChange) {
  Expect(kEffective);
}
TEST_P(NextWindowInZones, ADayThatIsLeftOutRunsAtTheSameTimeOfTheNext) {
  Expect(kLeftOut);
}
TEST_P(NextWindowInZones, AnOverlapGivesTheLaterInstantAlsoWhereWinterTimeBearsTheFlag) {
  Expect(kNegativeDaylight);
}

// A date set in another zone may be one that the present zone leaves out.
TEST_P(NextWindowInZones, AnIncludeDateInALeftOutDayRunsAtTheSameTimeOfTheNext) {
  const platform::ScopedZone utc("UTC");
  Rules rules;
  rules.Include("2011-12-30");
  const platform::ScopedZone apia("Pacific/Apia");
  rules.Window("10:00", "11:00");
  const Answer answer = rules.Next(Instant("2011-12-28 12:00-10:00"));
  EXPECT_EQ(answer.result, ZEP_S_OK);
  EXPECT_EQ(WithOffset(answer.start), "2011-12-31 10:00+14:00");
  EXPECT_EQ(answer.last, 1);
  EXPECT_EQ(answer.match, ZEP_RULE_INCLUDE_DATE);
  EXPECT_EQ(rules.Next(answer.start).result, ZEP_S_FALSE);
}

TEST_P(NextWindowInZones, IsInsideAWindowAlsoBehindAChange) {
  const platform::ScopedZone zone("Europe/Berlin");
  Rules rules;
  rules.Daily().Window("23:00", "05:00");
  EXPECT_EQ(rules->IsScheduleInTimeWindow(Instant("2024-03-31 01:59:59+01:00")), 1);
  EXPECT_EQ(rules->IsScheduleInTimeWindow(Instant("2024-03-31 03:00+02:00")), 1);
  EXPECT_EQ(rules->IsScheduleInTimeWindow(Instant("2024-03-31 04:59:59+02:00")), 1);
  EXPECT_EQ(rules->IsScheduleInTimeWindow(Instant("2024-03-31 05:00+02:00")), 0);
  EXPECT_EQ(rules->IsScheduleInTimeWindow(Instant("2024-10-27 02:30+02:00")), 1);
  EXPECT_EQ(rules->IsScheduleInTimeWindow(Instant("2024-10-27 02:30+01:00")), 1);
  EXPECT_EQ(rules->IsScheduleInTimeWindow(Instant("2024-10-27 05:00+01:00")), 0);
}

INSTANTIATE_TEST_SUITE_P(WinterAndSummer, NextWindowInZones, ::testing::Values(1705320000, 1721044800));

}  // namespace
}  // namespace qx::testing
