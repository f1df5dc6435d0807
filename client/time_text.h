// client/time_text.h: dates, times of day, lengths and instants as people write and read them.
//
// Nothing here asks the clock or the zone in force: both are arguments. Day numbers count from 1970-01-01.
// Threads: every function may be called from any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/clock.h"

namespace qx {

inline constexpr std::uint64_t kMillisecondsPerSecond = 1000;
inline constexpr std::int64_t kDaySeconds = 86400;

// a / b, rounded down; b above 0.
[[nodiscard]] constexpr std::int64_t FloorDiv(std::int64_t a, std::int64_t b) {
  return a / b - (a % b < 0);
}

struct TimeOfDay {
  std::int32_t seconds = 0;  // since midnight, 0 to 86399
  bool fraction = false;     // a fraction of a second was written and is dropped
};
// "HH:MM" or "HH:MM:SS", two digits each; a fraction ".5" behind the seconds is read over.
[[nodiscard]] std::optional<TimeOfDay> ParseTimeOfDay(std::string_view text);
// "HH:MM", or "HH:MM:SS" where the seconds aren't 0.
[[nodiscard]] std::string FormatTimeOfDay(std::int32_t secondsOfDay);

// Milliseconds of "4h", "90m", "1h30m", "45s", "1d", "1s500ms": whole numbers with units d, h, m, s, ms, each at most
// once, the greater first. Nothing for a text that is none, or a value of 2^32 milliseconds and more.
[[nodiscard]] std::optional<std::uint32_t> ParseDuration(std::string_view text);
// The same form, without days: "24h", "1h30m"; "0s" for 0.
[[nodiscard]] std::string FormatDuration(std::uint32_t milliseconds);

// "YYYY-MM-DD" of a date that exists, years 0001 to 9999.
[[nodiscard]] std::optional<std::int64_t> ParseDate(std::string_view text);
[[nodiscard]] std::string FormatDate(std::int64_t day);

// An instant: "now", "@SECONDS", a date (its midnight), or date and time of day with "T" or a blank between, in the
// zone, or with "Z" or "+HH:MM" behind it.
[[nodiscard]] std::optional<std::int64_t> ParseInstant(std::string_view text, const platform::Zone& zone,
                                                       std::int64_t now);
// "2026-12-01 22:00:00 +0100".
[[nodiscard]] std::string FormatInstant(std::int64_t seconds, const platform::Zone& zone);
// "Sun" to "Sat" of a day number.
[[nodiscard]] const char* WeekdayOf(std::int64_t day);
// The local day number of an instant.
[[nodiscard]] std::int64_t LocalDay(std::int64_t seconds, const platform::Zone& zone);
// The local time of day of an instant, in seconds.
[[nodiscard]] std::int32_t LocalTimeOfDay(std::int64_t seconds, const platform::Zone& zone);
// Local noon of a date: the form in which dates travel.
[[nodiscard]] std::int64_t NoonOf(std::int64_t day, const platform::Zone& zone);

// True when the zone changes its offset on that local date.
[[nodiscard]] bool IsChangeDay(std::int64_t day, const platform::Zone& zone);
// The latest date before the local date of `now` that has no zone change on it or beside it: a time of day that
// travels as seconds on this date is read as the same time of day whatever the season.
[[nodiscard]] std::int64_t CarrierDay(std::int64_t now, const platform::Zone& zone);

// A zone name of the host's zone files ("Europe/Berlin", "UTC") or a rule text in TZ's own form ("CET-1CEST,M3.5.0,
// M10.5.0/3"). The C library takes an unknown name for UTC without a word, so names are looked at before.
[[nodiscard]] bool IsKnownZone(const std::string& name);

// A zone as a service tells it (platform::CurrentZoneName()), or a history keeps it: what IsKnownZone() takes, or a
// zone file by its full path; either with a colon in front. Nothing else is opened as a zone: no pipe, no device.
[[nodiscard]] bool IsToldZone(const std::string& zone);

}  // namespace qx
