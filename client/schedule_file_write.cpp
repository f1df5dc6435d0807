// client/schedule_file_write.cpp: the writing half of client/schedule_file.h.
#include <algorithm>
#include <array>
#include <cstdio>
#include <iterator>
#include <string>
#include <vector>

#include "client/schedule_file.h"
#include "client/schedule_weekdays.h"
#include "client/terminal_text.h"
#include "client/time_text.h"
#include "platform/text.h"

namespace qx {
namespace {

// A basic string of TOML; a terminal that the file is shown on obeys nothing in it.
std::string Quoted(std::u16string_view text) {
  std::string out = "\"";
  for (const char c : platform::Utf8FromWide(text)) {
    if (c == '"' || c == '\\') out += '\\';
    out += c;
  }
  return UnicodeEscaped(out + "\"");
}

void KeyLine(std::string& out, const char* key, const std::string& value) {
  out += key;
  out += " = " + value + "\n";
}

void TextLine(std::string& out, const char* key, const BSTR& value) {
  if (value) KeyLine(out, key, Quoted(*value));
}

void ListLine(std::string& out, const char* key, const std::vector<std::string>& items) {
  if (items.empty()) return;
  std::string list;
  for (const std::string& item : items) list += (list.empty() ? "[" : ", ") + item;
  KeyLine(out, key, list + "]");
}

std::string DateOf(std::int32_t seconds, const platform::Zone& zone) {
  return FormatDate(LocalDay(seconds, zone));
}

void WriteWindow(std::string& out, const SCHEDULE_RULE& rules, const platform::Zone& zone) {
  // The rule object's own end is 23:59:59.059; the service's file keeps whole seconds of a duration.
  constexpr std::uint64_t kLastSecond = 86399;
  const std::int32_t start = rules.lStartTime == 0 ? 0 : LocalTimeOfDay(rules.lStartTime, zone);
  std::string body;
  const bool toDaysEnd = rules.dwTimeDuration != 0 &&
                         static_cast<std::uint64_t>(start) + rules.dwTimeDuration / 1000 == kLastSecond;
  if (toDaysEnd && start == 0) {
    body += "# the whole day\n";
  } else if (toDaysEnd) {
    KeyLine(body, "start", "\"" + FormatTimeOfDay(start) + "\"");
    body += "# to the end of the day\n";
  } else {
    if (rules.lStartTime != 0) KeyLine(body, "start", "\"" + FormatTimeOfDay(start) + "\"");
    const std::int32_t end = rules.lEndTime == 0 ? -1 : LocalTimeOfDay(rules.lEndTime, zone);
    const std::uint64_t length = end < 0 ? 0 : static_cast<std::uint64_t>((end - start + 86400) % 86400) * 1000;
    if (rules.dwTimeDuration != 0 && rules.dwTimeDuration != length) {
      KeyLine(body, "duration", "\"" + FormatDuration(rules.dwTimeDuration) + "\"");
    } else if (end >= 0) {
      KeyLine(body, "end", "\"" + FormatTimeOfDay(end) + "\"");
    }
  }
  // An order to restart without a length is kept and does nothing.
  if ((rules.bRestartInterval & 0xFF) != 0 && rules.dwRestartInterval != 0) {
    KeyLine(body, "restart", "\"" + FormatDuration(rules.dwRestartInterval) + "\"");
  }
  if (!body.empty()) out += "\n[window]\n" + body;
}

std::vector<std::string> DatesOf(const std::array<std::int32_t, kSpecificDateCount>& dates,
                                 const platform::Zone& zone) {
  std::vector<std::string> items;
  for (const std::int32_t date : dates) {
    if (date == 0) break;
    items.push_back(DateOf(date, zone));
  }
  return items;
}

void WriteDays(std::string& out, const SCHEDULE_RULE& rules, const platform::Zone& zone) {
  std::string body;
  if ((rules.bEffectiveDate & 0xFF) != 0) KeyLine(body, "effective", DateOf(rules.lEffectiveDate, zone));
  std::array<bool, kDaysOfWeekCount> everyWeek{};
  std::vector<std::string> every;
  for (std::size_t day = 0; day < kDaysOfWeekCount; ++day) {
    everyWeek[day] = std::all_of(std::begin(kWeekFields), std::end(kWeekFields),
                                 [&](WeekDays week) { return (rules.*week)[day] != 0; });
    if (everyWeek[day]) every.push_back(std::string("\"") + kWeekdayNames[day] + "\"");
  }
  for (std::size_t week = 0; week < std::size(kWeekFields); ++week) {
    std::vector<std::string> days;
    for (std::size_t day = 0; day < kDaysOfWeekCount; ++day) {
      if (!everyWeek[day] && (rules.*kWeekFields[week])[day] != 0) {
        days.push_back(std::string("\"") + kWeekdayNames[day] + "\"");
      }
    }
    ListLine(body, kWeekKeys[week], days);
  }
  ListLine(body, "every", every);
  std::vector<std::string> ofMonth;
  for (std::size_t i = 0; i < kDaysOfMonthCount; ++i) {
    if (rules.adwDaysOfMonth[i] != 0) ofMonth.push_back(i + 1 < kDaysOfMonthCount ? std::to_string(i + 1) : "\"last\"");
  }
  ListLine(body, "of_month", ofMonth);
  if ((rules.bRepeatInterval & 0xFF) != 0) {
    std::string repeat = "{ every = " + std::to_string(rules.dwRepeatInterval);
    if (rules.lAnchorDate != 0) repeat += ", anchor = " + DateOf(rules.lAnchorDate, zone);
    KeyLine(body, "repeat", repeat + " }");
  }
  ListLine(body, "include", DatesOf(rules.alIncludeDates, zone));
  ListLine(body, "exclude", DatesOf(rules.alExcludeDates, zone));
  if (!body.empty()) out += "\n[days]\n" + body;
}

}  // namespace

std::string WriteScheduleFile(const SCHEDULE_OBJECT& record, const platform::Zone& zone) {
  std::string out;
  TextLine(out, "name", record.bstrName);
  TextLine(out, "description", record.bstrDescription);
  TextLine(out, "application", record.bstrApplication);
  TextLine(out, "object_id", record.bstrObjectID);
  KeyLine(out, "task_code", std::to_string(record.dwTaskOpCode));
  out += "\n[job]\n";
  TextLine(out, "wrapper", record.bstrWrapperBinaryName);
  TextLine(out, "xml", record.bstrXMLFilePathName);
  TextLine(out, "parameters", record.bstrParameters);
  TextLine(out, "pre_script", record.bstrPreScript);
  TextLine(out, "post_script", record.bstrPostScript);
  KeyLine(out, "pass_id", record.bUseGUID != 0 ? "true" : "false");
  KeyLine(out, "run_now", record.bRunNow != 0 ? "true" : "false");
  WriteWindow(out, record.stScheduleRules, zone);
  WriteDays(out, record.stScheduleRules, zone);
  return out;
}

}  // namespace qx
