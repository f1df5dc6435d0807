#include <cstdio>
#include <istream>
#include <ostream>

#include "foundation/include/zfcbytes.h"
#include "foundation/include/zfctimespan.h"

namespace ZepFoundation {

namespace {

constexpr std::uint64_t kMillisecondsOfAYear = 31'557'600'000;  // 365.25 days
constexpr std::uint64_t kMillisecondsOfDay = 86'400'000;

struct Parts {
  int days = 0, hours = 0, minutes = 0, seconds = 0, milliseconds = 0;
};

Parts PartsOf(const WTimeSpan& span) {
  Parts p;
  span.GetSpan(&p.days, &p.hours, &p.minutes, &p.seconds, &p.milliseconds);
  return p;
}

char SignOf(const WTimeSpan& span) { return span.IsNegative() ? '-' : '+'; }

}  // namespace

void WTimeSpan::Print(char* text) const {
  const Parts p = PartsOf(*this);
  std::snprintf(text, 64, "%c%d:%d:%d:%d.%d", SignOf(*this), p.days, p.hours, p.minutes, p.seconds, p.milliseconds);
}

void WTimeSpan::Print(std::ostream& stream) const {
  const Parts p = PartsOf(*this);
  const char fill = stream.fill('0');
  stream << SignOf(*this) << p.days << ':' << p.hours << ':';
  stream.width(2);
  stream << p.minutes << ':';
  stream.width(2);
  stream << p.seconds << '.';
  stream.width(3);
  stream << p.milliseconds;
  stream.fill(fill);
}

void WTimeSpan::Read(std::istream& stream) {
  char sign = 0, mark = 0;
  std::int64_t days = 0, hours = 0, minutes = 0, seconds = 0, milliseconds = 0;
  stream >> sign >> std::dec >> days >> mark >> hours >> mark >> minutes >> mark >> seconds >> mark >> milliseconds;
  if (!stream) return;
  // Unsigned arithmetic: numbers out of range wrap.
  const auto wide = [](std::int64_t value) { return static_cast<std::uint64_t>(value); };
  m_magnitude =
      (((wide(days) * 24 + wide(hours)) * 60 + wide(minutes)) * 60 + wide(seconds)) * 1000 + wide(milliseconds);
  m_negative = sign == '-';
}

void WTimeSpan::BinaryOut(bostream& stream) const {
  stream << m_magnitude;
  stream.put(m_negative);
}

void WTimeSpan::BinaryIn(bistream& stream) {
  std::uint64_t magnitude = 0;
  unsigned char negative = 0;
  stream >> magnitude >> negative;
  if (!stream) return;
  m_magnitude = magnitude;
  m_negative = negative;
}

void WTimeSpan::GetSpan(int* days, int* hours, int* minutes, int* seconds, int* milliseconds) const {
  const std::uint64_t s = m_magnitude / 1000;
  const auto put = [](int* out, std::uint64_t value) {
    if (out != nullptr) *out = static_cast<int>(static_cast<std::uint32_t>(value));
  };
  put(days, s / 86400);
  put(hours, s / 3600 - s / 86400 * 24);
  put(minutes, s / 60 - s / 3600 * 60);
  put(seconds, s % 60);
  put(milliseconds, m_magnitude - s * 1000);
}

std::uint64_t WTimeSpan::GetTotalYears() const { return m_magnitude / kMillisecondsOfAYear; }
int WTimeSpan::GetDayPortion() const {
  return static_cast<int>(static_cast<std::uint32_t>(m_magnitude / kMillisecondsOfDay));
}
int WTimeSpan::GetHourPortion() const { return PartsOf(*this).hours; }
int WTimeSpan::GetMinutePortion() const { return PartsOf(*this).minutes; }
int WTimeSpan::GetSecondPortion() const { return PartsOf(*this).seconds; }
int WTimeSpan::GetMilliSecondPortion() const { return PartsOf(*this).milliseconds; }

void WTimeSpan::IncrementMilliSeconds(int milliseconds) {
  if (milliseconds == 0) return;
  const std::int64_t amount = milliseconds;
  *this += WTimeSpan(static_cast<std::uint64_t>(amount < 0 ? -amount : amount), amount < 0);
}

WTimeSpan& WTimeSpan::operator+=(const WTimeSpan& other) {
  const std::uint64_t magnitude = other.m_magnitude;
  if (IsNegative() == other.IsNegative()) {
    m_magnitude += magnitude;
  } else if (magnitude <= m_magnitude) {
    m_magnitude -= magnitude;
  } else {
    m_magnitude = magnitude - m_magnitude;
    m_negative = other.m_negative;
  }
  return *this;
}

WTimeSpan& WTimeSpan::operator-=(const WTimeSpan& other) {
  return *this += WTimeSpan(other.m_magnitude, !other.IsNegative());
}

WTimeSpan WTimeSpan::operator+(const WTimeSpan& other) const { return WTimeSpan(*this) += other; }
WTimeSpan WTimeSpan::operator-(const WTimeSpan& other) const { return WTimeSpan(*this) -= other; }

bool WTimeSpan::operator<(const WTimeSpan& other) const {
  if (IsNegative() != other.IsNegative()) return IsNegative();
  return IsNegative() ? m_magnitude > other.m_magnitude : m_magnitude < other.m_magnitude;
}

}  // namespace ZepFoundation
