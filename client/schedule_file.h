// client/schedule_file.h: the schedule file, TOML, one to one on the record SCHEDULE_OBJECT.
//
//   name, description, application, object_id   strings
//   task_code                                   0 to 4294967295
//   [job]     wrapper (required), xml, parameters, pre_script, post_script: strings; pass_id, run_now: true or false
//   [window]  start, end: "HH:MM" or "HH:MM:SS" on the local clock; duration (wins over end), restart: "1h30m"
//   [days]    effective: a date; first, second, third, fourth, last, every: weekdays "sun" to "sat";
//             of_month: days 1 to 31 and "last"; repeat = { every = days, anchor = date }; include, exclude: dates
//
// An absent string is a null string, except xml: without it the record holds an empty one, since the service refuses a
// record without an XML path and takes the empty one for its default directory. Times of day travel as seconds on the
// latest past date that has no zone change on it or beside it, dates as local noon.
// Threads: every function may be called from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "client/findings.h"
#include "interface/records.h"
#include "platform/clock.h"

namespace qx {

// The longest schedule file read, in bytes: room for two full date lists and long texts many times over.
inline constexpr std::size_t kScheduleFileLimit = 1024 * 1024;

// Ranges that the rule object keeps to; what lies outside is dropped by the service.
inline constexpr std::uint32_t kShortestSpanMs = 1000;
inline constexpr std::uint32_t kLongestSpanMs = 86400000;
inline constexpr std::int32_t kLongestRepeatDays = 9999;
// UTF-16 units of a name or description that come back from the schedule's .ini file.
inline constexpr std::size_t kLongestIniText = 255;
// A full list of include dates would run on into the exclude dates.
inline constexpr std::size_t kMostIncludeDates = kSpecificDateCount - 1;

struct ScheduleFileOptions {
  const platform::Zone& zone;  // the zone of the service
  std::int64_t now;            // seconds; the carrier date of times of day lies before it
  bool allowRelativePaths = false;
  // Whether a file of that name exists; asked for a wrapper with blanks. Empty: none does.
  std::function<bool(std::u16string_view clientPath)> fileExists;
};

struct ScheduleFile {
  SCHEDULE_OBJECT record;         // whole when no finding is an error
  std::vector<Finding> findings;  // in order of place
  // Where each key that the file has stands, by full name ("window.start"), and each table ("days").
  std::map<std::string, TextPosition> positions;
};

// Reads the text of a schedule file. Every finding is in the result: errors for what the record can't hold or the
// client refuses, warnings for what the service would drop or change without a word. Only a text that isn't TOML ends
// with its first error. Nothing is thrown.
[[nodiscard]] ScheduleFile ParseScheduleFile(std::string_view text, const ScheduleFileOptions& options);

// The TOML text of a record, keys in a fixed order. Flags lose any value but 0 and 1. A window that ends where start
// plus duration says is written with `end`, another one with `duration`; a whole day without either.
// Reading the text again gives the same rules; what the file form refuses (text with a line end or a noncharacter, a
// relative path) is written as it stands.
[[nodiscard]] std::string WriteScheduleFile(const SCHEDULE_OBJECT& record, const platform::Zone& zone);

// The warnings about a record's values, without places: what the service would drop or change without a word, for
// records that come from elsewhere than a schedule file.
[[nodiscard]] std::vector<Finding> CheckRecord(const SCHEDULE_OBJECT& record);

}  // namespace qx
