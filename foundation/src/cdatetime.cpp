#include <cstring>
#include <istream>
#include <ostream>

#include "foundation/include/zfcbytes.h"
#include "foundation/include/zfcclock.h"
#include "foundation/include/zfcdatetime.h"

namespace ZepFoundation {

namespace {

constexpr std::uint64_t kTicksLimit = std::uint64_t{1} << 63;  // no calendar form from here on
constexpr int kLastYear = 30827;                               // of the platform's conversions

FILETIME FileTimeFromFields(const SYSTEMTIME& fields, bool local) {
  FILETIME time;
  if (!Zep_SystemTimeToFileTime(fields, time)) return {};
  FILETIME utc;
  if (!local) return time;
  return Zep_LocalFileTimeToFileTime(time, utc) ? utc : FILETIME{};
}

bool HasYear(const std::tm& fields) { return fields.tm_year >= 1601 - 1900 && fields.tm_year <= kLastYear - 1900; }

// A second conversion with the flag that the first one learned gives the same instant: one is enough.
std::int64_t SecondsByFields(const std::tm& fields) {
  std::tm copy = fields;
  std::int64_t seconds = -1;
  return platform::SecondsFromLocal(copy, seconds) ? seconds : -1;
}

// AsANSITime() of a value in local mode. Each comparison passes here: the fields are left out where the ticks do.
std::int64_t SecondsOfTicks(std::uint64_t ticks, std::int32_t offsetNow) {
  if (ticks == 0) return -1;
  const std::uint64_t local =
      ticks + static_cast<std::uint64_t>(std::int64_t{offsetNow} * platform::kTicksPerSecond);
  if (ticks < kTicksLimit && local < kTicksLimit) {
    const std::int64_t wall =
        static_cast<std::int64_t>(local / platform::kTicksPerSecond) - platform::kEpochDistanceSeconds;
    return platform::CurrentZone().ToSeconds(wall);
  }
  // All fields are zero there.
  std::tm fields{};
  fields.tm_year = -1900;
  fields.tm_mon = -1;
  fields.tm_isdst = -1;
  return SecondsByFields(fields);
}

}  // namespace

CDateTime::CDateTime(const SYSTEMTIME& time, bool local) : m_fileTime(FileTimeFromFields(time, local)) {}

CDateTime::CDateTime(FILETIME time, bool local) : m_fileTime(time) {
  if (local && !Zep_LocalFileTimeToFileTime(time, m_fileTime)) m_fileTime = {};
}

CDateTime::CDateTime(double date, bool local) {
  SYSTEMTIME fields;
  if (platform::VariantTimeToSystemTime(date, fields)) m_fileTime = FileTimeFromFields(fields, local);
}

CDateTime::CDateTime(const CDate& date, const WTime& time) {
  int year = 0, month = 0, day = 0;
  date.GetDate(&year, &month, &day);
  int hour = 0, minute = 0, second = 0, millisecond = 0;
  time.GetTime(&hour, &minute, &second, &millisecond);
  CDateTime::SetDateTime(year, month, day, hour, minute, second, millisecond);
}

// The assignment of the base passes the fields through the operations: a copy takes the members.
CDateTime& CDateTime::operator=(const CDateTime& other) {
  m_days = other.m_days;
  m_milliseconds = other.m_milliseconds;
  m_local = other.m_local;
  m_fileTime = other.m_fileTime;
  return *this;
}

bool CDateTime::IsValid() const { return platform::TicksFromFileTime(m_fileTime) != 0; }
void CDateTime::Invalidate() { m_fileTime = {}; }

bool CDateTime::GetDate(int* year, int* month, int* day) const {
  return GetDateTime(year, month, day, nullptr, nullptr, nullptr, nullptr);
}

bool CDateTime::GetTime(int* hour, int* minute, int* second, int* millisecond) const {
  return GetDateTime(nullptr, nullptr, nullptr, hour, minute, second, millisecond);
}

EDAYOFWEEK CDateTime::GetDayOfWeek() const {
  CDate date;
  date.SetDate(GetYear(), GetMonth(), GetDay());
  return date.GetDayOfWeek();
}

std::int64_t CDateTime::AsANSITime() const {
  return SecondsOfTicks(platform::TicksFromFileTime(m_fileTime), platform::OffsetInForceNow());
}

std::tm* CDateTime::AsANSICalendarTime(std::tm* out) const {
  if (out == nullptr) return nullptr;
  std::tm fields{};
  if (!GetDateTime(&fields.tm_year, &fields.tm_mon, &fields.tm_mday, &fields.tm_hour, &fields.tm_min, &fields.tm_sec,
                   nullptr)) {
    return nullptr;
  }
  fields.tm_year -= 1900;
  fields.tm_mon -= 1;
  fields.tm_isdst = -1;
  std::tm probe = fields;
  std::int64_t seconds = -1;
  if (!platform::SecondsFromLocal(probe, seconds) || seconds == -1) return nullptr;
  fields.tm_isdst = probe.tm_isdst;
  *out = fields;
  return out;
}

double CDateTime::AsOLEDATE() const {
  double date = 0.0;
  return IsValid() && platform::SystemTimeToVariantTime(AsSystemTime(m_local != 0), date) ? date : 0.0;
}

void CDateTime::SetToUtcCurrent() {
  Zep_GetSystemTimeAsFileTime(m_fileTime);
  m_local = 0;
}

void CDateTime::SetToSystemCurrent() {
  Zep_GetSystemTimeAsFileTime(m_fileTime);
  m_local = 1;
}

bool CDateTime::SetDate(int year, int month, int day) {
  int hour = 0, minute = 0, second = 0, millisecond = 0;
  GetTime(&hour, &minute, &second, &millisecond);
  return SetDateTime(year, month, day, hour, minute, second, millisecond);
}

bool CDateTime::SetTime(int hour, int minute, int second, int millisecond) {
  int year = 0, month = 1, day = 1;
  GetDate(&year, &month, &day);
  return SetDateTime(year, month, day, hour, minute, second, millisecond);
}

void CDateTime::IncrementDay(int days) {
  int year = 0, month = 0, day = 0;
  if (!GetDate(&year, &month, &day)) return;
  const std::int64_t target = std::int64_t{day} + days;
  // Deliberate: nothing is borrowed from the month before. Month 0 is a value without fields.
  if (target < 1 || month < 1) {
    Invalidate();
    return;
  }
  // Going from month to month would end on the same date.
  const platform::CivilDate date = platform::CivilFromDays(platform::DaysFromCivil(year, month, 1) + target - 1);
  if (date.year > kLastYear) {
    Invalidate();
    return;
  }
  SetDate(static_cast<int>(date.year), date.month, date.day);
}

void CDateTime::IncrementHour(int hours) {
  int hour = 0, minute = 0, second = 0, millisecond = 0;
  GetTime(&hour, &minute, &second, &millisecond);
  std::int64_t h = std::int64_t{hour} + hours, m = minute, s = second, ms = millisecond;
  const std::int64_t days = NormalizeTimeFields(h, m, s, ms);
  SetTime(static_cast<int>(h), static_cast<int>(m), static_cast<int>(s), static_cast<int>(ms));
  if (days >= 1) IncrementDay(static_cast<int>(days));
}

void CDateTime::CarryHour(int days) { IncrementDay(days); }

void CDateTime::RewriteMilliSecond() { SetMilliSecond(GetMilliSecond()); }

SYSTEMTIME CDateTime::AsSystemTime(bool local) const {
  FILETIME time = m_fileTime;
  if (local && !Zep_FileTimeToLocalFileTime(m_fileTime, time)) return {};
  SYSTEMTIME fields;
  return Zep_FileTimeToSystemTime(time, fields) ? fields : SYSTEMTIME{};
}

FILETIME CDateTime::AsFileTime(bool local) const {
  if (!local) return m_fileTime;
  FILETIME time;
  return Zep_FileTimeToLocalFileTime(m_fileTime, time) ? time : FILETIME{};
}

bool CDateTime::GetDateTime(int* year, int* month, int* day, int* hour, int* minute, int* second,
                            int* millisecond) const {
  if (!IsValid()) return false;
  const SYSTEMTIME fields = AsSystemTime(m_local != 0);
  const auto put = [](int* out, std::uint16_t value) {
    if (out != nullptr) *out = value;
  };
  put(year, fields.wYear);
  put(month, fields.wMonth);
  put(day, fields.wDay);
  put(hour, fields.wHour);
  put(minute, fields.wMinute);
  put(second, fields.wSecond);
  put(millisecond, fields.wMilliseconds);
  return true;
}

bool CDateTime::SetDateTime(int year, int month, int day, int hour, int minute, int second, int millisecond) {
  const auto cut = [](int value) { return static_cast<std::uint16_t>(value); };
  SYSTEMTIME fields{cut(year), cut(month), 0, cut(day), cut(hour), cut(minute), cut(second), cut(millisecond)};
  FILETIME time;
  FILETIME utc;
  const bool done = Zep_SystemTimeToFileTime(fields, time) &&
                    (m_local == 0 || Zep_LocalFileTimeToFileTime(time, utc));
  m_fileTime = !done ? FILETIME{} : m_local == 0 ? time : utc;
  return done;
}

bool CDateTime::SetDateTime(const std::tm& time) {
  const auto year = static_cast<int>(static_cast<std::uint16_t>(std::int64_t{time.tm_year} + 1900));
  const auto month = static_cast<int>(static_cast<std::uint16_t>(std::int64_t{time.tm_mon} + 1));
  return SetDateTime(year, month, time.tm_mday, time.tm_hour, time.tm_min, time.tm_sec, 0);
}

bool CDateTime::SetDateTime(const std::int64_t& seconds) {
  std::tm fields{};
  const bool done =
      m_local != 0 ? platform::LocalBreakdown(seconds, fields) : platform::UtcBreakdown(seconds, fields);
  if (!done || !HasYear(fields)) {
    Invalidate();
    return false;
  }
  return SetDateTime(fields);
}

bool CDateTime::SetFromANSITime(std::int64_t seconds) {
  std::tm fields{};
  if (!platform::UtcBreakdown(seconds, fields) || !HasYear(fields)) {
    Invalidate();
    return false;
  }
  const std::uint8_t local = m_local;
  m_local = 0;
  const bool done = SetDateTime(fields);
  m_local = local;
  return done;
}

std::uint64_t CDateTime::AsTotalMilliSeconds() const {
  CDate date;
  date.SetDate(GetYear(), GetMonth(), GetDay());
  return date.AsMilliSeconds() + WTime::AsMilliSeconds();
}

bool CDateTime::SetFromTotalMilliSeconds(std::uint64_t milliseconds) {
  const std::uint64_t days = milliseconds / kMillisecondsOfADay;
  if (days > static_cast<std::uint64_t>(INT32_MAX)) {
    Invalidate();
    return false;
  }
  CDate date;
  date.SetFromMilliSeconds(milliseconds);
  int year = 0, month = 0, day = 0;
  date.GetDate(&year, &month, &day);
  if (year > kLastYear) {
    Invalidate();
    return false;
  }
  const auto time = static_cast<int>(milliseconds % kMillisecondsOfADay);
  return SetDateTime(year, month, day, time / 3'600'000, time / 60'000 % 60, time / 1000 % 60, time % 1000);
}

void CDateTime::PrintDateTime(char* text) const {
  CDate::Print(text);
  text += std::strlen(text);
  *text++ = ' ';
  WTime::Print(text);
}

void CDateTime::PrintDateTime(std::ostream& stream) const {
  CDate::Print(stream);
  stream << ' ';
  WTime::Print(stream);
}

void CDateTime::ReadDateTime(std::istream& stream) {
  CDate::Read(stream);
  WTime::Read(stream);
}

void CDateTime::BinaryOutDateTime(bostream& stream) const {
  stream << m_fileTime.dwLowDateTime << m_fileTime.dwHighDateTime;
}

void CDateTime::BinaryInDateTime(bistream& stream) {
  FILETIME time;
  stream >> time.dwLowDateTime >> time.dwHighDateTime;
  if (stream) m_fileTime = time;
}

WTimeSpan CDateTime::operator-(const CDateTime& other) const {
  const std::uint64_t difference =
      platform::TicksFromFileTime(m_fileTime) - platform::TicksFromFileTime(other.m_fileTime);
  const bool negative = static_cast<std::int64_t>(difference) < 0;
  return {(negative ? 0 - difference : difference) / platform::kTicksPerMillisecond, negative};
}

CDateTime CDateTime::Moved(const WTimeSpan& span, bool back) const {
  const std::uint64_t ticks = span.GetMagnitude() * platform::kTicksPerMillisecond;
  const std::uint64_t own = platform::TicksFromFileTime(m_fileTime);
  return CDateTime(platform::FileTimeFromTicks(span.IsNegative() != back ? own - ticks : own + ticks), false);
}

CDateTime CDateTime::operator+(const WTimeSpan& span) const { return Moved(span, false); }
CDateTime CDateTime::operator-(const WTimeSpan& span) const { return Moved(span, true); }

CDateTime& CDateTime::operator+=(const WTimeSpan& span) {
  const CDateTime result = *this + span;
  m_fileTime = result.m_fileTime;
  m_local = result.m_local;
  return *this;
}

CDateTime& CDateTime::operator-=(const WTimeSpan& span) {
  const CDateTime result = *this - span;
  m_fileTime = result.m_fileTime;
  m_local = result.m_local;
  return *this;
}

bool CDateTime::operator==(const CDateTime& other) const {
  const std::int32_t offset = platform::OffsetInForceNow();
  return SecondsOfTicks(platform::TicksFromFileTime(m_fileTime), offset) ==
         SecondsOfTicks(platform::TicksFromFileTime(other.m_fileTime), offset);
}

bool CDateTime::operator<(const CDateTime& other) const {
  const std::int32_t offset = platform::OffsetInForceNow();
  return SecondsOfTicks(platform::TicksFromFileTime(m_fileTime), offset) <
         SecondsOfTicks(platform::TicksFromFileTime(other.m_fileTime), offset);
}

bool CDateTime::operator<=(const CDateTime& other) const {
  const std::int32_t offset = platform::OffsetInForceNow();
  return SecondsOfTicks(platform::TicksFromFileTime(m_fileTime), offset) <=
         SecondsOfTicks(platform::TicksFromFileTime(other.m_fileTime), offset);
}

}  // namespace ZepFoundation
