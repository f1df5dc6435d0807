#include <cstring>
#include <istream>
#include <ostream>
#include <string>

#include "foundation/include/zfcbytes.h"
#include "foundation/include/zfcclock.h"
#include "foundation/include/zfctime.h"

namespace ZepFoundation {

namespace {

constexpr const char* kInvalidText = "-0:00:00 XX";
constexpr const char* kUnprintableText = "-0:00:00 ZZ";

struct Fields {
  int hour = 0, minute = 0, second = 0, millisecond = 0;
};

// The presented fields, 0 for an invalid time.
Fields FieldsOf(const WTime& time) {
  Fields f;
  time.GetTime(&f.hour, &f.minute, &f.second, &f.millisecond);
  return f;
}

std::int64_t Total(const Fields& f) {
  return ((std::int64_t{f.hour} * 60 + f.minute) * 60 + f.second) * 1000 + f.millisecond;
}

bool NowBrokenDown(bool local, std::tm& out) {
  const std::int64_t now = platform::NowSeconds();
  return local ? platform::LocalBreakdown(now, out) : platform::UtcBreakdown(now, out);
}

std::string TextOf(const WTime& time) {
  std::tm fields{};
  if (!time.IsValid() || time.AsANSICalendarTime(&fields) == nullptr) return kInvalidText;
  const Fields f = FieldsOf(time);
  std::string text;
  return platform::TimeText(f.hour, f.minute, f.second, text) ? text : kUnprintableText;
}

void Carry(std::int64_t& from, std::int64_t& to, std::int64_t limit) {
  if (from < limit) return;
  to += from / limit;
  from %= limit;
}

}  // namespace

std::int64_t NormalizeTimeFields(std::int64_t& hour, std::int64_t& minute, std::int64_t& second,
                                 std::int64_t& millisecond) {
  std::int64_t days = 0;
  Carry(millisecond, second, 1000);
  Carry(second, minute, 60);
  Carry(minute, hour, 60);
  Carry(hour, days, 24);
  return days;
}

WTime::WTime(QTM_INITIAL_VALUE initial) {
  if (initial == QTM_CURRENT) WTime::SetToSystemCurrent();
}

WTime::WTime(const SYSTEMTIME& time, bool local) : m_local(local) {
  WTime::SetTime(time.wHour, time.wMinute, time.wSecond, time.wMilliseconds);
  m_local = 1;
}

WTime::WTime(FILETIME time, bool local) : m_milliseconds(-1), m_local(local) {
  SYSTEMTIME fields;
  if (platform::TicksFromFileTime(time) != 0 && platform::FileTimeToSystemTime(time, fields)) {
    WTime::SetTime(fields.wHour, fields.wMinute, fields.wSecond, fields.wMilliseconds);
  }
  m_local = 1;
}

WTime::WTime(double date, bool local) : m_milliseconds(-1), m_local(local) {
  SYSTEMTIME fields;
  if (platform::VariantTimeToSystemTime(date, fields)) {
    WTime::SetTime(fields.wHour, fields.wMinute, fields.wSecond, fields.wMilliseconds);
  }
  m_local = 1;
}

WTime& WTime::operator=(const WTime& other) {
  const Fields f = FieldsOf(other);
  if (other.IsLocal()) {
    SetLocal();
  } else {
    SetUTC();
  }
  SetTime(f.hour, f.minute, f.second, f.millisecond);
  return *this;
}

bool WTime::IsValid() const { return m_milliseconds != -1; }
void WTime::Invalidate() { m_milliseconds = -1; }
void WTime::SetUTC() { m_local = 0; }
void WTime::SetLocal() { m_local = 1; }
bool WTime::IsLocal() const { return m_local != 0; }

bool WTime::GetTime(int* hour, int* minute, int* second, int* millisecond) const {
  if (!IsValid()) return false;
  const std::int64_t v = PresentedMilliseconds();
  if (hour != nullptr) *hour = static_cast<int>(v / 3'600'000);
  if (minute != nullptr) *minute = static_cast<int>(v / 60'000 % 60);
  if (second != nullptr) *second = static_cast<int>(v / 1000 % 60);
  if (millisecond != nullptr) *millisecond = static_cast<int>(v % 1000);
  return true;
}

std::int64_t WTime::PresentedMilliseconds() const { return PresentedMilliseconds(Zep_TimeZoneOffsetInSeconds()); }

std::int64_t WTime::PresentedMilliseconds(std::int32_t standardBias) const {
  if (!IsValid()) return 0;
  if (m_local == 0) return m_milliseconds;
  const std::int64_t shown = m_milliseconds - std::int64_t{1000} * standardBias;
  return shown < 0 ? shown + kMillisecondsOfADay : shown;  // once; nothing is reduced at the top
}

int WTime::GetHour() const { return FieldsOf(*this).hour; }
int WTime::GetMinute() const { return FieldsOf(*this).minute; }
int WTime::GetSecond() const { return FieldsOf(*this).second; }
int WTime::GetMilliSecond() const { return FieldsOf(*this).millisecond; }

std::int64_t WTime::AsANSITime() const {
  std::tm fields{};
  if (AsANSICalendarTime(&fields) == nullptr) return -1;
  std::tm probe = fields;
  probe.tm_isdst = -1;
  std::int64_t seconds = -1;
  if (platform::SecondsFromLocal(probe, seconds)) fields.tm_isdst = probe.tm_isdst;
  return platform::SecondsFromLocal(fields, seconds) ? seconds : -1;
}

std::tm* WTime::AsANSICalendarTime(std::tm* out) const {
  if (out == nullptr) return nullptr;
  std::tm fields{};
  if (!NowBrokenDown(m_local != 0, fields)) return nullptr;
  GetTime(&fields.tm_hour, &fields.tm_min, &fields.tm_sec, nullptr);
  *out = fields;
  return out;
}

double WTime::AsOLEDATE() const {
  SYSTEMTIME fields = platform::SystemTimeNow();
  int hour = fields.wHour, minute = fields.wMinute, second = fields.wSecond, millisecond = fields.wMilliseconds;
  GetTime(&hour, &minute, &second, &millisecond);
  fields.wHour = static_cast<std::uint16_t>(hour);
  fields.wMinute = static_cast<std::uint16_t>(minute);
  fields.wSecond = static_cast<std::uint16_t>(second);
  fields.wMilliseconds = static_cast<std::uint16_t>(millisecond);
  double date = 0.0;
  return platform::SystemTimeToVariantTime(fields, date) ? date : 0.0;
}

void WTime::SetFromMilliSeconds(std::uint64_t milliseconds) {
  const auto v = static_cast<int>(milliseconds % kMillisecondsOfADay);
  SetTime(v / 3'600'000, v / 60'000 % 60, v / 1000 % 60, v % 1000);
}

std::uint64_t WTime::AsMilliSeconds() const { return static_cast<std::uint64_t>(Total(FieldsOf(*this))); }

void WTime::SetToSystemCurrent() {
  WTime::SetToUtcCurrent();
  m_local = 1;
}

void WTime::SetToUtcCurrent() {
  m_local = 0;
  const SYSTEMTIME now = platform::SystemTimeNow();
  SetTime(now.wHour, now.wMinute, now.wSecond, now.wMilliseconds);
}

bool WTime::SetTime(int hour, int minute, int second, int millisecond) {
  // 64 bits: whatever carries can't overflow.
  std::int64_t h = hour, m = minute, s = second, ms = millisecond;
  bool refused = ms < 0;
  Carry(ms, s, 1000);
  refused = refused || s < 0;
  Carry(s, m, 60);
  refused = refused || m < 0;
  Carry(m, h, 60);
  if (refused || h < 0) {
    Invalidate();
    return false;
  }
  // The minute may get negative here: the time then lies before midnight UTC.
  if (m_local != 0) m += Zep_TimeZoneOffsetInSeconds() / 60;
  const std::int64_t days = NormalizeTimeFields(h, m, s, ms);
  CarryHour(static_cast<int>(days));
  m_milliseconds = static_cast<std::int32_t>(((h * 60 + m) * 60 + s) * 1000 + ms);
  return true;
}

bool WTime::SetTime(const std::tm& time) { return SetTime(time.tm_hour, time.tm_min, time.tm_sec, 0); }

bool WTime::SetTime(const std::int64_t& seconds) {
  std::tm fields{};
  const bool done =
      m_local != 0 ? platform::LocalBreakdown(seconds, fields) : platform::UtcBreakdown(seconds, fields);
  if (!done) {
    Invalidate();
    return false;
  }
  return SetTime(fields);
}

bool WTime::SetHour(int hour) {
  const Fields f = FieldsOf(*this);
  return SetTime(hour, f.minute, f.second, f.millisecond);
}

bool WTime::SetMinute(int minute) {
  const Fields f = FieldsOf(*this);
  return SetTime(f.hour, minute, f.second, f.millisecond);
}

bool WTime::SetSecond(int second) {
  const Fields f = FieldsOf(*this);
  return SetTime(f.hour, f.minute, second, f.millisecond);
}

bool WTime::SetMilliSecond(int millisecond) {
  const Fields f = FieldsOf(*this);
  return SetTime(f.hour, f.minute, f.second, millisecond);
}

void WTime::IncrementField(int field, int amount) {
  const Fields f = FieldsOf(*this);
  std::int64_t v[4] = {f.hour, f.minute, f.second, f.millisecond};
  v[field] += amount;
  const std::int64_t days = NormalizeTimeFields(v[0], v[1], v[2], v[3]);
  CarryHour(static_cast<int>(days));
  SetTime(static_cast<int>(v[0]), static_cast<int>(v[1]), static_cast<int>(v[2]), static_cast<int>(v[3]));
}

void WTime::IncrementHour(int hours) { IncrementField(0, hours); }
void WTime::IncrementMinute(int minutes) { IncrementField(1, minutes); }
void WTime::IncrementSecond(int seconds) { IncrementField(2, seconds); }
void WTime::IncrementMilliSecond(int milliseconds) { IncrementField(3, milliseconds); }

void WTime::Print(char* text) const {
  const std::string printed = TextOf(*this);
  std::memcpy(text, printed.c_str(), printed.size() + 1);
}

void WTime::Print(std::ostream& stream) const { stream << TextOf(*this); }

void WTime::Read(std::istream& stream) {
  int hour = 0, minute = 0, second = 0, millisecond = 0;
  char mark = 0;
  stream >> std::dec >> hour >> mark >> minute >> mark >> second >> mark >> millisecond;
  if (!stream) return;
  std::string half;
  while (half.size() < 2 && stream.good() && (stream >> std::ws).good() && stream.peek() >= 0) {
    half.push_back(static_cast<char>(stream.get()));
  }
  if (half == "AM" && hour == 12) hour = 0;
  if (half == "PM" && hour != 12) hour = hour > INT32_MAX - 12 ? hour : hour + 12;
  SetTime(hour, minute, second, millisecond);
}

void WTime::BinaryOut(bostream& stream) const { stream << m_milliseconds; }

void WTime::BinaryIn(bistream& stream) {
  std::int32_t milliseconds = 0;
  stream >> milliseconds;
  if (stream) m_milliseconds = milliseconds;
}

void WTime::CarryHour(int) {}

WTime& WTime::operator+=(const WTimeSpan& span) {
  const auto r = static_cast<std::int64_t>(span.GetMagnitude() % kMillisecondsOfADay);
  auto v = static_cast<std::int64_t>(AsMilliSeconds());
  v += span.IsNegative() ? -r : r;
  if (span.IsNegative() && v < 0) v += kMillisecondsOfADay;
  SetFromMilliSeconds(static_cast<std::uint64_t>(v));
  return *this;
}

WTime& WTime::operator-=(const WTimeSpan& span) { return *this += WTimeSpan(span.GetMagnitude(), !span.IsNegative()); }

WTime WTime::operator+(const WTimeSpan& span) const {
  WTime result;
  result = *this;
  return result += span;
}

WTime WTime::operator-(const WTimeSpan& span) const {
  WTime result;
  result = *this;
  return result -= span;
}

WTimeSpan WTime::operator-(const WTime& other) const {
  const auto total = [](const WTime& time) {
    const Fields f = FieldsOf(time);
    WTime plain;
    plain.SetUTC();
    plain.SetTime(f.hour, f.minute, f.second, f.millisecond);
    return plain.AsMilliSeconds();
  };
  const std::uint64_t own = total(*this);
  const std::uint64_t others = total(other);
  return {own - others, own < others};
}

bool WTime::operator==(const WTime& other) const { return Total(FieldsOf(*this)) == Total(FieldsOf(other)); }
bool WTime::operator<(const WTime& other) const { return Total(FieldsOf(*this)) < Total(FieldsOf(other)); }

}  // namespace ZepFoundation
