#include <algorithm>
#include <cstdio>
#include <istream>
#include <ostream>
#include <tuple>

#include "foundation/include/zfcbytes.h"
#include "foundation/include/zfcdate.h"

namespace ZepFoundation {

namespace {

constexpr int kDaysOf400Years = 146097;
constexpr int kDaysOfCentury = 36524;
constexpr int kDaysOf4Years = 1461;
constexpr int kDaysOfYear = 365;

// Indexed by the day number modulo 7: day 0 was a Monday.
constexpr EDAYOFWEEK DayOfWeekTable[7] = {EDOW_MONDAY, EDOW_TUESDAY,  EDOW_WEDNESDAY, EDOW_THURSDAY,
                                          EDOW_FRIDAY, EDOW_SATURDAY, EDOW_SUNDAY};

int MonthLength(int year, int month) { return DaysInMonthTable[IsLeapYearValue(year)][month]; }

std::tuple<int, int, int> FieldsOf(const CDate& date) {
  int year = 0, month = 0, day = 0;
  date.GetDate(&year, &month, &day);
  return {year, month, day};
}

}  // namespace

CDate::CDate(QTM_INITIAL_VALUE initial) : m_days(-1) {
  if (initial == QTM_CURRENT) {
    CDate::SetToSystemCurrent();
  } else {
    CDate::SetDate(1980, 1, 1);
  }
}

CDate::CDate(const SYSTEMTIME& time) : m_days(-1) { CDate::SetDate(time.wYear, time.wMonth, time.wDay); }

CDate::CDate(FILETIME time) : m_days(-1) {
  FILETIME local;
  SYSTEMTIME fields;
  if (platform::TicksFromFileTime(time) == 0) return;
  if (!platform::FileTimeToLocalFileTime(time, local) || !platform::FileTimeToSystemTime(local, fields)) return;
  CDate::SetDate(fields.wYear, fields.wMonth, fields.wDay);
}

CDate::CDate(double date) : m_days(-1) {
  SYSTEMTIME fields;
  if (platform::VariantTimeToSystemTime(date, fields)) CDate::SetDate(fields.wYear, fields.wMonth, fields.wDay);
}

bool CDate::IsValid() const { return m_days != -1; }
void CDate::Invalidate() { m_days = -1; }

bool CDate::GetDate(int* year, int* month, int* day) const {
  const int n400 = m_days / kDaysOf400Years;
  int rest = m_days % kDaysOf400Years;
  // A quotient of 4 is the last day of its cycle: it belongs to the fourth part.
  const int n100 = std::min(rest / kDaysOfCentury, 3);
  rest -= n100 * kDaysOfCentury;
  const int n4 = rest / kDaysOf4Years;
  rest %= kDaysOf4Years;
  const int n1 = std::min(rest / kDaysOfYear, 3);
  rest -= n1 * kDaysOfYear;
  *year = ((n400 * 4 + n100) * 25 + n4) * 4 + n1 + 1;
  const int* const before = CumulativeDaysTable[(n1 == 3) & ((n4 != 24) | (n100 == 3))];  // of the leap flag
  // 32 days are more than any month: this is the month or the one ahead of it.
  int m = std::max(rest / 32, 0) + 1;
  if (m < 12 && before[m + 1] <= rest) ++m;
  *month = m;
  *day = rest - before[m] + 1;
  return true;
}

int CDate::GetYear() const { return std::get<0>(FieldsOf(*this)); }
int CDate::GetMonth() const { return std::get<1>(FieldsOf(*this)); }
int CDate::GetDay() const { return std::get<2>(FieldsOf(*this)); }

EDAYOFWEEK CDate::GetDayOfWeek() const {
  const int day = m_days % 7;
  return DayOfWeekTable[day < 0 ? day + 7 : day];
}

int CDate::GetDaysInMonth() const {
  const auto [year, month, day] = FieldsOf(*this);
  return MonthLength(year, month);
}

EDAYOFWEEK CDate::GetMonthStartDay() const {
  // Counted back from this day: SetDate() would move a year of the first century.
  const int start = (GetDayOfWeek() - (GetDay() - 1)) % 7;
  return static_cast<EDAYOFWEEK>(start < 0 ? start + 7 : start);
}

int CDate::GetWeeksInMonth() const {
  const auto [year, month, day] = FieldsOf(*this);
  const int length = MonthLength(year, month);
  const EDAYOFWEEK start = GetMonthStartDay();
  if (month == 2 && start == EDOW_SUNDAY && !IsLeapYearValue(year)) return 4;
  if (length == 30) return start == EDOW_FRIDAY ? 6 : 5;  // Deliberate: Friday, where Saturday would be right.
  if (length == 31) return start == EDOW_FRIDAY || start == EDOW_SATURDAY ? 6 : 5;
  return 5;
}

bool CDate::IsLeapYear() const { return IsLeapYearValue(GetYear()); }

std::int64_t CDate::AsANSITime() const {
  const auto [year, month, day] = FieldsOf(*this);
  // Months and days out of range, as of an invalid date, carry as in the runtime's conversion.
  std::tm fields{};
  fields.tm_year = static_cast<int>(std::int64_t{year} - 1900);
  fields.tm_mon = month - 1;
  fields.tm_mday = day;
  fields.tm_wday = fields.tm_yday = fields.tm_isdst = -1;
  std::int64_t seconds = -1;
  return platform::SecondsFromLocal(fields, seconds) ? seconds : -1;
}

std::tm* CDate::AsANSICalendarTime(std::tm* out) const {
  return out != nullptr && platform::LocalBreakdown(AsANSITime(), *out) ? out : nullptr;
}

double CDate::AsOLEDATE() const {
  const auto [year, month, day] = FieldsOf(*this);
  SYSTEMTIME fields;
  fields.wYear = static_cast<std::uint16_t>(year);
  fields.wMonth = static_cast<std::uint16_t>(month);
  fields.wDay = static_cast<std::uint16_t>(day);
  double date = 0.0;
  return platform::SystemTimeToVariantTime(fields, date) ? date : 0.0;
}

void CDate::SetToSystemCurrent() {
  const SYSTEMTIME now = platform::LocalTimeNow();
  SetDate(now.wYear, now.wMonth, now.wDay);
}

void CDate::SetToUtcCurrent() {
  const SYSTEMTIME now = platform::SystemTimeNow();
  SetDate(now.wYear, now.wMonth, now.wDay);
}

bool CDate::SetDate(int year, int month, int day) {
  if (year >= 0 && year <= 99) year += 1900;  // Deliberate: year 1 becomes 1901.
  // A century's year is divisible by 400 when it is by 16.
  const bool leap = (year % 4 == 0) & ((year % 100 != 0) | (year % 16 == 0));
  if (year < 0 || month < 1 || month > 12 || day < 1 || day > DaysInMonthTable[leap][month]) {
    Invalidate();
    return false;
  }
  const std::uint64_t y = static_cast<unsigned>(year) - 1;
  const std::uint64_t centuries = y / 100;
  const std::int64_t days = static_cast<std::int64_t>(y * kDaysOfYear + y / 4 - centuries + centuries / 4) +
                            CumulativeDaysTable[leap][month] + day - 1;
  m_days = static_cast<std::int32_t>(days);
  return true;
}

bool CDate::SetYear(int year) {
  const auto [oldYear, month, day] = FieldsOf(*this);
  return SetDate(year, month, month == 2 && day == 29 && !IsLeapYearValue(year) ? 28 : day);
}

bool CDate::SetMonth(int month) {
  const auto [year, oldMonth, day] = FieldsOf(*this);
  const int target = std::clamp(month, 1, 12);
  return SetDate(year, target, std::min(day, MonthLength(year, target)));
}

bool CDate::SetDay(int day) {
  const auto [year, month, oldDay] = FieldsOf(*this);
  return SetDate(year, month, std::max(1, std::min(day, MonthLength(year, month))));
}

void CDate::IncrementYear(int years) {
  const std::int64_t sum = std::int64_t{GetYear()} + years;
  SetYear(static_cast<int>(std::clamp<std::int64_t>(sum, 1, INT32_MAX)));
}

void CDate::IncrementMonth(int months) {
  const auto [oldYear, oldMonth, day] = FieldsOf(*this);
  std::int64_t year = oldYear;
  std::int64_t month = std::int64_t{oldMonth} + months;
  if (month < 1) {
    year += month / 12 - 1;
    month = month + 12 - month / 12 * 12;
  } else if (month > 12) {
    year += (month - 1) / 12;
    month = (month - 1) % 12 + 1;
  }
  const int newYear = static_cast<int>(std::clamp<std::int64_t>(year, INT32_MIN, INT32_MAX));
  const int newMonth = static_cast<int>(month);
  SetDate(newYear, newMonth, std::min(day, MonthLength(newYear, newMonth)));
}

void CDate::IncrementDay(int days) {
  // Unsigned: the day number wraps.
  m_days = static_cast<std::int32_t>(static_cast<std::uint32_t>(m_days) + static_cast<std::uint32_t>(days));
}

void CDate::Print(char* text) const {
  const auto [year, month, day] = FieldsOf(*this);
  std::snprintf(text, 40, "%d/%d/%d", month, day, year);
}

void CDate::Print(std::ostream& stream) const {
  const auto [year, month, day] = FieldsOf(*this);
  stream << std::dec << month << '/' << day << '/' << year;
}

void CDate::Read(std::istream& stream) {
  int year = 0, month = 0, day = 0;
  char mark = 0;
  stream >> std::dec >> month >> mark >> day >> mark >> year;
  if (stream) SetDate(year, month, day);
}

void CDate::BinaryOut(bostream& stream) const { stream << m_days; }

void CDate::BinaryIn(bistream& stream) {
  std::int32_t days = 0;
  stream >> days;
  if (stream) m_days = days;
}

void CDate::SetFromMilliSeconds(std::uint64_t milliseconds) {
  m_days = static_cast<std::int32_t>(milliseconds / kMillisecondsOfADay);
}

std::uint64_t CDate::AsMilliSeconds() const { return static_cast<std::uint64_t>(m_days * kMillisecondsOfADay); }

WTimeSpan CDate::operator-(const CDate& other) const {
  const auto own = static_cast<std::uint32_t>(m_days);
  const auto others = static_cast<std::uint32_t>(other.m_days);
  const bool above = own > others;
  return {std::uint64_t{above ? own - others : others - own} * kMillisecondsOfADay, !above};
}

CDate CDate::operator+(const WTimeSpan& span) const {
  const auto [year, month, day] = FieldsOf(*this);
  CDate result;
  result.SetDate(year, month, day);
  const auto days = static_cast<std::uint32_t>(span.GetMagnitude() / kMillisecondsOfADay);
  result.IncrementDay(static_cast<int>(span.IsNegative() ? 0 - days : days));
  return result;
}

CDate CDate::operator-(const WTimeSpan& span) const {
  return *this + WTimeSpan(span.GetMagnitude(), !span.IsNegative());
}

bool CDate::operator==(const CDate& other) const { return FieldsOf(*this) == FieldsOf(other); }
bool CDate::operator<(const CDate& other) const { return FieldsOf(*this) < FieldsOf(other); }

}  // namespace ZepFoundation
