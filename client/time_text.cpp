#include "client/time_text.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <limits>

#include "platform/file.h"
#include "platform/input_file.h"

namespace qx {
namespace {

// No zone changes its offset so often that a quiet date is further away.
constexpr int kCarrierSearchDays = 400;

struct Unit {
  std::string_view name;
  std::uint64_t milliseconds;
};
constexpr Unit kUnits[] = {{"d", 86400000}, {"h", 3600000}, {"m", 60000}, {"s", 1000}, {"ms", 1}};

bool IsDigit(char c) {
  return c >= '0' && c <= '9';
}

// What a zone's file begins with (RFC 8536, 3.1).
constexpr std::string_view kZoneMagic = "TZif";

// Takes exactly `count` digits from the front of the text.
std::optional<int> TakeDigits(std::string_view& text, std::size_t count) {
  if (text.size() < count) return std::nullopt;
  int value = 0;
  for (std::size_t i = 0; i < count; ++i) {
    if (!IsDigit(text[i])) return std::nullopt;
    value = value * 10 + (text[i] - '0');
  }
  text.remove_prefix(count);
  return value;
}

bool TakeChar(std::string_view& text, char c) {
  if (text.empty() || text.front() != c) return false;
  text.remove_prefix(1);
  return true;
}

// A number below 100 as two digits.
void PutTwo(char* at, int number) {
  at[0] = static_cast<char>('0' + number / 10);
  at[1] = static_cast<char>('0' + number % 10);
}

// Takes "HH:MM[:SS[.F...]]" from the front.
std::optional<TimeOfDay> TakeTimeOfDay(std::string_view& text) {
  const auto hour = TakeDigits(text, 2);
  if (!hour || *hour > 23 || !TakeChar(text, ':')) return std::nullopt;
  const auto minute = TakeDigits(text, 2);
  if (!minute || *minute > 59) return std::nullopt;
  TimeOfDay time{*hour * 3600 + *minute * 60, false};
  if (!TakeChar(text, ':')) return time;
  const auto second = TakeDigits(text, 2);
  if (!second || *second > 59) return std::nullopt;
  time.seconds += *second;
  if (!TakeChar(text, '.')) return time;
  std::size_t digits = 0;
  while (digits < text.size() && IsDigit(text[digits])) {
    time.fraction = time.fraction || text[digits] != '0';
    ++digits;
  }
  if (digits == 0) return std::nullopt;
  text.remove_prefix(digits);
  return time;
}

std::optional<std::int64_t> TakeDate(std::string_view& text) {
  const auto year = TakeDigits(text, 4);
  if (!year || *year < 1 || !TakeChar(text, '-')) return std::nullopt;
  const auto month = TakeDigits(text, 2);
  if (!month || *month < 1 || *month > 12 || !TakeChar(text, '-')) return std::nullopt;
  const auto day = TakeDigits(text, 2);
  if (!day || *day < 1) return std::nullopt;
  const std::int64_t number = platform::DaysFromCivil(*year, *month, *day);
  const platform::CivilDate back = platform::CivilFromDays(number);
  if (back.month != *month || back.day != *day) return std::nullopt;
  return number;
}

// "Z" or "+HH:MM" or "+HHMM": seconds east of UTC.
std::optional<std::int32_t> ParseOffset(std::string_view text) {
  if (text == "Z" || text == "z") return 0;
  if (text.empty() || (text[0] != '+' && text[0] != '-')) return std::nullopt;
  const int sign = text[0] == '-' ? -1 : 1;
  text.remove_prefix(1);
  const auto hour = TakeDigits(text, 2);
  (void)TakeChar(text, ':');
  const auto minute = TakeDigits(text, 2);
  if (!hour || !minute || *hour > 23 || *minute > 59 || !text.empty()) return std::nullopt;
  return sign * (*hour * 3600 + *minute * 60);
}

}  // namespace

std::optional<TimeOfDay> ParseTimeOfDay(std::string_view text) {
  const auto time = TakeTimeOfDay(text);
  if (!text.empty()) return std::nullopt;
  return time;
}

std::string FormatTimeOfDay(std::int32_t secondsOfDay) {
  char text[40];
  const int hour = secondsOfDay / 3600, minute = secondsOfDay / 60 % 60, second = secondsOfDay % 60;
  if (second == 0) {
    std::snprintf(text, sizeof text, "%02d:%02d", hour, minute);
  } else {
    std::snprintf(text, sizeof text, "%02d:%02d:%02d", hour, minute, second);
  }
  return text;
}

std::optional<std::uint32_t> ParseDuration(std::string_view text) {
  std::uint64_t total = 0;
  std::size_t next = 0;  // the first unit that may still come
  if (text.empty()) return std::nullopt;
  while (!text.empty()) {
    std::uint64_t value = 0;
    std::size_t digits = 0;
    while (digits < text.size() && IsDigit(text[digits])) {
      value = value * 10 + static_cast<std::uint64_t>(text[digits] - '0');
      if (value > std::numeric_limits<std::uint32_t>::max()) return std::nullopt;
      ++digits;
    }
    if (digits == 0) return std::nullopt;
    text.remove_prefix(digits);
    std::size_t letters = 0;
    while (letters < text.size() && !IsDigit(text[letters])) ++letters;
    const std::string_view name = text.substr(0, letters);
    text.remove_prefix(letters);
    while (next < std::size(kUnits) && kUnits[next].name != name) ++next;
    if (next == std::size(kUnits)) return std::nullopt;
    total += value * kUnits[next].milliseconds;
    if (total > std::numeric_limits<std::uint32_t>::max()) return std::nullopt;
    ++next;
  }
  return static_cast<std::uint32_t>(total);
}

std::string FormatDuration(std::uint32_t milliseconds) {
  if (milliseconds == 0) return "0s";
  std::string text;
  std::uint64_t rest = milliseconds;
  for (const Unit& unit : kUnits) {
    if (unit.name == "d") continue;
    if (const std::uint64_t count = rest / unit.milliseconds; count > 0) {
      text += std::to_string(count);
      text += unit.name;
      rest -= count * unit.milliseconds;
    }
  }
  return text;
}

std::optional<std::int64_t> ParseDate(std::string_view text) {
  const auto day = TakeDate(text);
  if (!text.empty()) return std::nullopt;
  return day;
}

std::string FormatDate(std::int64_t day) {
  const platform::CivilDate date = platform::CivilFromDays(day);
  if (date.year >= 0 && date.year <= 9999) {
    char usual[] = "0000-00-00";
    PutTwo(usual, static_cast<int>(date.year / 100));
    PutTwo(usual + 2, static_cast<int>(date.year % 100));
    PutTwo(usual + 5, static_cast<int>(date.month));
    PutTwo(usual + 8, static_cast<int>(date.day));
    return usual;
  }
  char text[48];
  std::snprintf(text, sizeof text, "%04lld-%02d-%02d", static_cast<long long>(date.year), date.month, date.day);
  return text;
}

std::optional<std::int64_t> ParseInstant(std::string_view text, const platform::Zone& zone, std::int64_t now) {
  if (text == "now") return now;
  if (TakeChar(text, '@')) {
    const bool negative = TakeChar(text, '-');
    if (text.empty() || text.size() > 18 || !std::all_of(text.begin(), text.end(), IsDigit)) return std::nullopt;
    std::int64_t value = 0;
    for (const char c : text) value = value * 10 + (c - '0');
    return negative ? -value : value;
  }
  const auto day = TakeDate(text);
  if (!day) return std::nullopt;
  std::int64_t wall = *day * kDaySeconds;
  if (text.empty()) return zone.ToSeconds(wall);
  if (!TakeChar(text, 'T') && !TakeChar(text, ' ')) return std::nullopt;
  const auto time = TakeTimeOfDay(text);
  if (!time) return std::nullopt;
  wall += time->seconds;
  if (text.empty()) return zone.ToSeconds(wall);
  (void)TakeChar(text, ' ');
  const auto offset = ParseOffset(text);
  if (!offset) return std::nullopt;
  return wall - *offset;
}

std::string FormatInstant(std::int64_t seconds, const platform::Zone& zone) {
  const std::int32_t offset = zone.OffsetAt(seconds);
  const std::int64_t wall = seconds + offset;
  const std::int64_t day = FloorDiv(wall, kDaySeconds);
  const int time = static_cast<int>(wall - day * kDaySeconds);
  const int minutes = (offset < 0 ? -offset : offset) / 60;
  char text[] = " 00:00:00 +0000";
  PutTwo(text + 1, time / 3600);
  PutTwo(text + 4, time / 60 % 60);
  PutTwo(text + 7, time % 60);
  if (offset < 0) text[10] = '-';
  PutTwo(text + 11, minutes / 60);
  PutTwo(text + 13, minutes % 60);
  return FormatDate(day) + text;
}

const char* WeekdayOf(std::int64_t day) {
  static constexpr std::array<const char*, 7> kNames = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  const std::int64_t index = (day + 4) % 7;  // day 0 was a Thursday
  return kNames[static_cast<std::size_t>(index < 0 ? index + 7 : index)];
}

std::int64_t LocalDay(std::int64_t seconds, const platform::Zone& zone) {
  return FloorDiv(zone.ToWall(seconds), kDaySeconds);
}

std::int32_t LocalTimeOfDay(std::int64_t seconds, const platform::Zone& zone) {
  const std::int64_t wall = zone.ToWall(seconds);
  return static_cast<std::int32_t>(wall - FloorDiv(wall, kDaySeconds) * kDaySeconds);
}

std::int64_t NoonOf(std::int64_t day, const platform::Zone& zone) {
  return zone.ToSeconds(day * kDaySeconds + kDaySeconds / 2);
}

bool IsChangeDay(std::int64_t day, const platform::Zone& zone) {
  for (const platform::Zone::Change& change : zone.Changes()) {
    if (change.offsetBefore == change.offsetAfter) continue;
    const std::int64_t last = FloorDiv(change.at - 1 + change.offsetBefore, kDaySeconds);
    const std::int64_t first = FloorDiv(change.at + change.offsetAfter, kDaySeconds);
    if (day >= std::min(last, first) && day <= std::max(last, first)) return true;
  }
  return false;
}

std::int64_t CarrierDay(std::int64_t now, const platform::Zone& zone) {
  const std::int64_t yesterday = LocalDay(now, zone) - 1;
  for (std::int64_t day = yesterday; day > yesterday - kCarrierSearchDays; --day) {
    if (!IsChangeDay(day - 1, zone) && !IsChangeDay(day, zone) && !IsChangeDay(day + 1, zone)) return day;
  }
  return yesterday;
}

bool IsKnownZone(const std::string& name) {
  if (name.empty() || name.front() == '/' || name.find("..") != std::string::npos ||
      name.find('\0') != std::string::npos) {
    return false;
  }
  // Other files lie among the zones' own.
  std::string begin;
  const platform::ErrorCode read = platform::ReadInput("/usr/share/zoneinfo/" + name, kZoneMagic.size(), begin);
  if (read == platform::ERROR_SUCCESS) return begin == kZoneMagic;
  // NAME OFFSET ..., the name at least three letters or anything in angle brackets.
  std::size_t at = 0;
  if (name[0] == '<') {
    at = name.find('>');
    if (at == std::string::npos || at < 4) return false;
    ++at;
  } else {
    while (at < name.size() && ((name[at] >= 'A' && name[at] <= 'Z') || (name[at] >= 'a' && name[at] <= 'z'))) ++at;
    if (at < 3) return false;
  }
  if (at < name.size() && (name[at] == '+' || name[at] == '-')) ++at;
  return at < name.size() && IsDigit(name[at]);
}

bool IsToldZone(const std::string& zone) {
  const std::string name = zone.substr(zone.starts_with(':') ? 1 : 0);
  if (!name.starts_with('/')) return IsKnownZone(name);
  platform::File file;
  std::string begin(kZoneMagic.size(), '\0');
  std::size_t count = 0;
  return file.Open(name, platform::File::Access::kRead, platform::File::Disposition::kOpenExisting) ==
             platform::ERROR_SUCCESS &&
         file.Read(begin, count) == platform::ERROR_SUCCESS && begin == kZoneMagic;
}

}  // namespace qx
