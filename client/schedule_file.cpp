#include "client/schedule_file.h"

#include <toml++/toml.h>

#include <algorithm>
#include <array>
#include <limits>
#include <optional>
#include <set>
#include <span>
#include <utility>

#include "client/schedule_weekdays.h"
#include "client/time_text.h"
#include "common/bus_records.h"
#include "common/zepSchedIUnknown.h"
#include "platform/profile.h"
#include "platform/text.h"

namespace qx {
namespace {

// Deeper keys than any schedule needs; the TOML library frees nested tables by recursion.
constexpr std::size_t kDeepestKey = 32;
constexpr const char* kWeekdaysAllowed = "a list of \"sun\", \"mon\", \"tue\", \"wed\", \"thu\", \"fri\", \"sat\"";
constexpr const char* kSpanAllowed = "1s to 24h";
constexpr const char* kRepeatAllowed = "1 to 9999";
constexpr const char* kDateAllowed = "a date without quotes, as 2026-12-01";
constexpr const char* kDurationAllowed = "a length, as \"4h\", \"90m\", \"1h30m\", \"45s\"";
constexpr const char* kTimeAllowed = "\"HH:MM\" or \"HH:MM:SS\"";
constexpr const char* kDroppedRestart = "the service would switch the restart off";
constexpr const char* kDroppedDuration = "the service would not apply it";
constexpr const char* kDroppedRepeat = "the service would repeat every 2 days";

// --- places and small checks ---

TextPosition PositionOf(const toml::source_region& region) {
  return {static_cast<std::uint32_t>(region.begin.line), static_cast<std::uint32_t>(region.begin.column)};
}

const char* TypeName(const toml::node& node) {
  switch (node.type()) {
    case toml::node_type::table:
      return "a table";
    case toml::node_type::array:
      return "a list";
    case toml::node_type::string:
      return "a string";
    case toml::node_type::integer:
      return "a whole number";
    case toml::node_type::floating_point:
      return "a number with a fraction";
    case toml::node_type::boolean:
      return "true or false";
    case toml::node_type::date:
      return "a date";
    case toml::node_type::time:
      return "a time";
    case toml::node_type::date_time:
      return "a date with a time";
    default:
      return "something unknown";
  }
}

bool IsBlank(char16_t c) {
  return c == u' ' || c == u'\t';
}
bool IsSeparator(char16_t c) {
  return c == u'/' || c == u'\\';
}
bool HasBlank(std::u16string_view text) {
  return std::any_of(text.begin(), text.end(), IsBlank);
}
bool HasSeparator(std::u16string_view text) {
  return std::any_of(text.begin(), text.end(), IsSeparator);
}

// Rooted, or on a drive: a drive has no current directory here.
bool IsAbsolute(std::u16string_view path) {
  if (path.empty()) return false;
  if (IsSeparator(path[0])) return true;
  const bool letter = (path[0] >= u'A' && path[0] <= u'Z') || (path[0] >= u'a' && path[0] <= u'z');
  return letter && path.size() > 1 && path[1] == u':';
}

// The program that a wrapper's text starts, by the rules of the command line's first word.
std::u16string_view ProgramOf(std::u16string_view wrapper) {
  if (!wrapper.empty() && wrapper[0] == u'"') {
    const std::size_t end = wrapper.find(u'"', 1);
    return wrapper.substr(1, end == std::u16string_view::npos ? end : end - 1);
  }
  return wrapper.substr(
      0, static_cast<std::size_t>(std::find_if(wrapper.begin(), wrapper.end(), IsBlank) - wrapper.begin()));
}

// What a private-profile file would not give back of a name or description; empty when it would.
const char* IniTextWarning(std::u16string_view text) {
  if (text.size() > kLongestIniText) return "is longer than 255 characters; the service would cut it at its next start";
  if (text.empty()) return "";
  const auto isTrimmed = [](char16_t c) { return c == u' ' || (c >= u'\t' && c <= u'\r'); };
  const bool isQuoted = platform::WithoutQuotes(text).size() != text.size();
  if (isTrimmed(text.front()) || isTrimmed(text.back()) || isQuoted) {
    return "has blanks or quotes at its ends; the service would lose them at its next start";
  }
  return "";
}

bool SpanInRange(std::uint32_t milliseconds) {
  return milliseconds >= kShortestSpanMs && milliseconds <= kLongestSpanMs;
}

// The column of the first key with too many parts, or nothing. Looks at dots outside of strings and comments only.
std::optional<TextPosition> DeepKey(std::string_view text) {
  TextPosition at{1, 1};
  std::size_t dots = 0;
  std::string_view quote;  // of the string that `i` is in; empty outside
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (!quote.empty()) {
      if (c == '\\' && quote[0] == '"') {
        ++i;
        ++at.column;
        if (i < text.size() && text[i] == '\n') at = {at.line + 1, 1};
        continue;
      }
      if (text.substr(i, quote.size()) == quote) {
        i += quote.size() - 1;
        at.column += static_cast<std::uint32_t>(quote.size());
        quote = {};
        continue;
      }
      if (c == '\n' && quote.size() == 1) quote = {};  // an unclosed string: the parser will say so
    } else if (c == '"' || c == '\'') {
      quote = text.substr(i, 3) == std::string(3, c) ? text.substr(i, 3) : text.substr(i, 1);
      i += quote.size() - 1;
      at.column += static_cast<std::uint32_t>(quote.size());
      continue;
    } else if (c == '#') {
      while (i + 1 < text.size() && text[i + 1] != '\n') ++i;
      continue;
    } else if (c == '.') {
      if (++dots > kDeepestKey) return at;
    } else if (c == '=' || c == ',' || c == '{' || c == '[' || c == '\n') {
      dots = 0;
    }
    if (c == '\n') {
      at = {at.line + 1, 1};
    } else {
      ++at.column;
    }
  }
  return std::nullopt;
}

// --- reading ---

class TableReader {
 public:
  TableReader(const ScheduleFileOptions& options, ScheduleFile& out) : m_options(options), m_out(out) {}

  void Read(const toml::table& root) {
    Walk(root, "");
    CheckWhole(PositionOf(root.source()));
  }

 private:
  struct Row {
    const char* table;
    const char* key;
    void (TableReader::*read)(const std::string& name, const toml::node& node);
  };
  // Every key of the file, the tables among them.
  static std::span<const Row> Rows();

  SCHEDULE_OBJECT& Record() { return m_out.record; }
  SCHEDULE_RULE& Rules() { return m_out.record.stScheduleRules; }

  void Add(Severity severity, TextPosition at, const std::string& name, std::string text, std::string allowed = {}) {
    m_out.findings.push_back({severity, at, name, std::move(text), std::move(allowed)});
  }
  void Error(const toml::node& node, const std::string& name, const std::string& text, const char* allowed = "") {
    Add(Severity::kError, PositionOf(node.source()), name, name + " " + text, allowed);
  }
  void Warn(const toml::node& node, const std::string& name, const std::string& text, const char* allowed = "") {
    Add(Severity::kWarning, PositionOf(node.source()), name, name + " " + text, allowed);
  }
  void WrongType(const toml::node& node, const std::string& name, const char* allowed) {
    Error(node, name, std::string("is ") + TypeName(node), allowed);
  }
  [[nodiscard]] bool Has(const char* name) const { return m_out.positions.contains(name); }

  void Walk(const toml::table& table, const std::string& tableName) {
    for (const auto& [key, node] : table) {
      const std::string keyText(key.str());
      const std::string name = tableName.empty() ? keyText : tableName + "." + keyText;
      const auto row = std::find_if(Rows().begin(), Rows().end(),
                                    [&](const Row& r) { return tableName == r.table && keyText == r.key; });
      if (row == Rows().end()) {
        Add(Severity::kError, PositionOf(key.source()), name, "unknown key \"" + name + "\"", KeysOf(tableName));
        continue;
      }
      m_out.positions[name] = PositionOf(key.source());
      (this->*row->read)(name, node);
    }
  }

  static std::string KeysOf(const std::string& tableName) {
    std::string keys;
    for (const Row& row : Rows()) {
      if (tableName != row.table) continue;
      if (!keys.empty()) keys += ", ";
      keys += row.key;
    }
    return keys;
  }

  void ReadTable(const std::string& name, const toml::node& node) {
    if (const toml::table* table = node.as_table()) {
      Walk(*table, name);
    } else {
      WrongType(node, name, name == "days.repeat" ? "{ every = DAYS, anchor = DATE }" : "a table");
    }
  }

  // A string of the record, or nothing after a finding.
  const std::u16string* ReadString(const std::string& name, const toml::node& node, BSTR& out) {
    const auto* text = node.as_string();
    if (!text) {
      WrongType(node, name, "a string");
      return nullptr;
    }
    const std::string& value = text->get();
    if (value.find_first_of(std::string_view("\r\n\0", 3)) != std::string::npos) {
      Error(node, name, "holds a line end or a NUL", "text of one line");
      return nullptr;
    }
    std::u16string wide = platform::WideFromUtf8(value);
    if (const std::string stranger = FirstNoncharacter(wide); !stranger.empty()) {
      Error(node, name, "holds a character that the service can't be told: " + stranger, "");
      return nullptr;
    }
    out = std::move(wide);
    return &*out;
  }

  template <BSTR SCHEDULE_OBJECT::*field>
  void ReadText(const std::string& name, const toml::node& node) {
    (void)ReadString(name, node, Record().*field);
  }
  template <BSTR SCHEDULE_OBJECT::*field>
  void ReadIniText(const std::string& name, const toml::node& node) {
    const std::u16string* text = ReadString(name, node, Record().*field);
    if (!text) return;
    if (const char* warning = IniTextWarning(*text); *warning) Warn(node, name, warning);
  }
  template <BSTR SCHEDULE_OBJECT::*field>
  void ReadPath(const std::string& name, const toml::node& node) {
    const std::u16string* text = ReadString(name, node, Record().*field);
    if (text && !text->empty()) CheckPath(name, node, *text);
  }
  void CheckPath(const std::string& name, const toml::node& node, std::u16string_view path) {
    if (m_options.allowRelativePaths || IsAbsolute(path)) return;
    Error(node, name, "is a relative path; the service runs in a directory of its own",
          "an absolute path, or --allow-relative-paths");
  }
  void ReadWrapper(const std::string& name, const toml::node& node) {
    BSTR& out = Record().bstrWrapperBinaryName;
    const std::u16string* text = ReadString(name, node, out);
    if (!text) return;
    if (text->empty()) return Error(node, name, "is empty: there is no program to start", "the program to start");
    if (HasBlank(*text) && text->front() != u'"') {
      if (m_options.fileExists && m_options.fileExists(*text)) {
        // Deliberate: the path of an existing file is quoted, so that its blanks don't end the program's name.
        if (HasSeparator(*text)) CheckPath(name, node, *text);
        out = u"\"" + *text + u"\"";
        return;
      }
      if (IsBlank(text->front())) {
        Warn(node, name, "begins with a blank: the command line would begin with an empty word");
      } else {
        Warn(node, name, "has blanks and isn't quoted: the text ahead of the first one is taken for the program",
             "'\"/path with blanks/program\"'");
      }
    }
    if (const std::u16string_view program = ProgramOf(*text); HasSeparator(program)) CheckPath(name, node, program);
  }

  template <std::uint32_t SCHEDULE_OBJECT::*field>
  void ReadFlag(const std::string& name, const toml::node& node) {
    if (const auto* flag = node.as_boolean()) {
      Record().*field = flag->get() ? 1 : 0;
    } else {
      WrongType(node, name, "true or false");
    }
  }

  // A whole number within the limits, or nothing after a finding.
  std::optional<std::int64_t> ReadNumber(const std::string& name, const toml::node& node, std::int64_t least,
                                         std::int64_t most, const char* allowed) {
    const auto* number = node.as_integer();
    if (!number) {
      WrongType(node, name, allowed);
      return std::nullopt;
    }
    if (number->get() < least || number->get() > most) {
      Error(node, name, "is out of range: " + std::to_string(number->get()), allowed);
      return std::nullopt;
    }
    return number->get();
  }
  void ReadTaskCode(const std::string& name, const toml::node& node) {
    const auto code = ReadNumber(name, node, 0, std::numeric_limits<std::uint32_t>::max(), "0 to 4294967295");
    if (code) Record().dwTaskOpCode = static_cast<std::uint32_t>(*code);
  }

  template <std::int32_t SCHEDULE_RULE::*field>
  void ReadTime(const std::string& name, const toml::node& node) {
    std::optional<TimeOfDay> time;
    if (const auto* text = node.as_string()) {
      time = ParseTimeOfDay(text->get());
      if (!time) return Error(node, name, "isn't a time of day: \"" + text->get() + "\"", kTimeAllowed);
    } else if (const auto* native = node.as_time()) {
      const toml::time value = native->get();
      time = TimeOfDay{value.hour * 3600 + value.minute * 60 + value.second, value.nanosecond != 0};
    } else {
      return WrongType(node, name, kTimeAllowed);
    }
    if (time->fraction) Warn(node, name, "has a fraction of a second, which is dropped");
    const std::int64_t wall = CarrierDay(m_options.now, m_options.zone) * 86400 + time->seconds;
    const std::int64_t seconds = m_options.zone.ToSeconds(wall);
    if (seconds <= 0 || seconds > ZEP_MAX_TIME) {
      return Error(node, name, "can't be told in seconds: the clock of this machine is wrong");
    }
    Rules().*field = static_cast<std::int32_t>(seconds);
  }

  // Milliseconds, or nothing after a finding.
  std::optional<std::uint32_t> ReadSpan(const std::string& name, const toml::node& node, const char* dropped) {
    const auto* text = node.as_string();
    if (!text) {
      WrongType(node, name, kDurationAllowed);
      return std::nullopt;
    }
    const auto span = ParseDuration(text->get());
    if (!span) {
      Error(node, name, "isn't a length: \"" + text->get() + "\"", kDurationAllowed);
      return std::nullopt;
    }
    if (!SpanInRange(*span)) {
      Error(node, name, "is out of range: \"" + text->get() + "\"; " + dropped, kSpanAllowed);
    } else if (*span % kMillisecondsPerSecond != 0) {
      Warn(node, name, "has a fraction of a second, which the service would lose at its next start");
    }
    return span;
  }
  void ReadDuration(const std::string& name, const toml::node& node) {
    const auto span = ReadSpan(name, node, kDroppedDuration);
    if (!span) return;
    // 0 is the record's word for "not given".
    if (*span == 0) return;  // told already
    Rules().dwTimeDuration = *span;
  }
  void ReadRestart(const std::string& name, const toml::node& node) {
    const auto span = ReadSpan(name, node, kDroppedRestart);
    if (!span) return;
    Rules().bRestartInterval = 1;
    Rules().dwRestartInterval = *span;
  }

  // Local noon of a date, or nothing after a finding.
  std::optional<std::int32_t> ReadDate(const std::string& name, const toml::node& node) {
    const auto* date = node.as_date();
    if (!date) {
      if (const auto* text = node.as_string()) {
        Error(node, name, "isn't a date: \"" + text->get() + "\"", kDateAllowed);
      } else {
        WrongType(node, name, kDateAllowed);
      }
      return std::nullopt;
    }
    const toml::date value = date->get();
    const std::int64_t day = platform::DaysFromCivil(value.year, value.month, value.day);
    const platform::CivilDate back = platform::CivilFromDays(day);
    if (back.month != value.month || back.day != value.day) {
      Error(node, name, "isn't a date of the calendar", kDateAllowed);
      return std::nullopt;
    }
    const std::int64_t seconds = NoonOf(day, m_options.zone);
    if (seconds <= 0 || seconds > ZEP_MAX_TIME) {
      Error(node, name, "is out of range: " + FormatDate(day), "1970-01-02 to 2037-12-30");
      return std::nullopt;
    }
    return static_cast<std::int32_t>(seconds);
  }
  void ReadEffective(const std::string& name, const toml::node& node) {
    if (const auto date = ReadDate(name, node)) {
      Rules().bEffectiveDate = 1;
      Rules().lEffectiveDate = *date;
    }
  }
  void ReadAnchor(const std::string& name, const toml::node& node) {
    if (const auto date = ReadDate(name, node)) Rules().lAnchorDate = *date;
  }
  void ReadRepeat(const std::string& name, const toml::node& node) {
    ReadTable(name, node);
    if (const toml::table* table = node.as_table(); table && !table->contains("every")) {
      Error(node, name, "has no key every", "{ every = DAYS, anchor = DATE }");
    }
  }
  void ReadEvery(const std::string& name, const toml::node& node) {
    const auto days = ReadNumber(name, node, std::numeric_limits<std::int32_t>::min(),
                                 std::numeric_limits<std::int32_t>::max(), kRepeatAllowed);
    if (!days) return;
    if (*days < 1 || *days > kLongestRepeatDays) {
      Error(node, name, "is out of range: " + std::to_string(*days) + "; " + kDroppedRepeat, kRepeatAllowed);
    }
    Rules().bRepeatInterval = 1;
    Rules().dwRepeatInterval = static_cast<std::int32_t>(*days);
  }

  // Calls `each` for the elements of a list; an element that isn't what it should be has its own finding.
  template <typename Function>
  void ForEach(const std::string& name, const toml::node& node, const char* allowed, Function each) {
    const toml::array* array = node.as_array();
    if (!array) return WrongType(node, name, allowed);
    for (const toml::node& element : *array) each(element);
  }

  void ReadWeekdays(const std::string& name, const toml::node& node, const std::vector<WeekDays>& weeks) {
    ForEach(name, node, kWeekdaysAllowed, [&](const toml::node& element) {
      const auto* text = element.as_string();
      if (!text) return WrongType(element, name, kWeekdaysAllowed);
      const auto* day = std::find(std::begin(kWeekdayNames), std::end(kWeekdayNames), text->get());
      if (day == std::end(kWeekdayNames)) {
        return Error(element, name, "names no weekday: \"" + text->get() + "\"", kWeekdaysAllowed);
      }
      for (const WeekDays week : weeks) (Rules().*week)[static_cast<std::size_t>(day - kWeekdayNames)] = 1;
    });
  }
  template <std::size_t week>
  void ReadWeek(const std::string& name, const toml::node& node) {
    ReadWeekdays(name, node, {kWeekFields[week]});
  }
  void ReadEveryWeek(const std::string& name, const toml::node& node) {
    ReadWeekdays(name, node, {std::begin(kWeekFields), std::end(kWeekFields)});
  }

  void ReadDaysOfMonth(const std::string& name, const toml::node& node) {
    constexpr const char* kAllowed = "a list of 1 to 31 and \"last\"";
    ForEach(name, node, kAllowed, [&](const toml::node& element) {
      if (const auto* text = element.as_string(); text && text->get() == "last") {
        Rules().adwDaysOfMonth[kDaysOfMonthCount - 1] = 1;
      } else if (text) {
        Error(element, name, "names no day: \"" + text->get() + "\"", kAllowed);
      } else if (const auto day = ReadNumber(name, element, 1, 31, kAllowed)) {
        Rules().adwDaysOfMonth[static_cast<std::size_t>(*day - 1)] = 1;
      }
    });
  }

  void ReadDates(const std::string& name, const toml::node& node, std::array<std::int32_t, kSpecificDateCount>& out) {
    std::set<std::int32_t> seen;
    std::size_t count = 0;
    ForEach(name, node, "a list of dates without quotes, as [2026-12-24, 2026-12-31]", [&](const toml::node& element) {
      const auto date = ReadDate(name, element);
      if (!date) return;
      if (!seen.insert(*date).second) {
        return Warn(element, name, "names a date twice: " + FormatDate(LocalDay(*date, m_options.zone)));
      }
      if (count < out.size()) out[count] = *date;
      if (count == out.size()) {
        Error(element, name, "has too many dates", "365 dates");
      }
      ++count;
    });
  }
  void ReadInclude(const std::string& name, const toml::node& node) {
    ReadDates(name, node, Rules().alIncludeDates);
    if (Rules().alIncludeDates.back() != 0) {
      Warn(node, name, "has more than 364 dates; the service would take the exclude dates for include dates too",
           "364 dates");
    }
  }
  void ReadExclude(const std::string& name, const toml::node& node) { ReadDates(name, node, Rules().alExcludeDates); }

  // What no single key shows.
  void CheckWhole(TextPosition fileStart) {
    if (!Has("job.wrapper")) {
      const auto job = m_out.positions.find("job");
      Add(Severity::kError, job == m_out.positions.end() ? fileStart : job->second, "job.wrapper",
          "job.wrapper is missing: there is no program to start");
    }
    if (!Has("job.xml")) Record().bstrXMLFilePathName = u"";
    const SCHEDULE_RULE& rules = Rules();
    if (Has("window.end") && Has("window.duration")) {
      Add(Severity::kWarning, m_out.positions["window.end"], "window.end",
          "window.end is not used: window.duration is given too and wins");
    } else if (rules.lEndTime != 0) {
      const std::int32_t start = rules.lStartTime == 0 ? 0 : LocalTimeOfDay(rules.lStartTime, m_options.zone);
      const bool startReadable = rules.lStartTime != 0 || !Has("window.start");
      if (startReadable && start == LocalTimeOfDay(rules.lEndTime, m_options.zone)) {
        Add(Severity::kError, m_out.positions["window.end"], "window.end",
            "window.end equals the start: the window would have no length",
            "another time, or duration = \"24h\" for a whole day");
      }
    }
  }

  const ScheduleFileOptions& m_options;
  ScheduleFile& m_out;
};

std::span<const TableReader::Row> TableReader::Rows() {
  static constexpr Row kRows[] = {
      {"", "name", &TableReader::ReadIniText<&SCHEDULE_OBJECT::bstrName>},
      {"", "description", &TableReader::ReadIniText<&SCHEDULE_OBJECT::bstrDescription>},
      {"", "application", &TableReader::ReadText<&SCHEDULE_OBJECT::bstrApplication>},
      {"", "object_id", &TableReader::ReadText<&SCHEDULE_OBJECT::bstrObjectID>},
      {"", "task_code", &TableReader::ReadTaskCode},
      {"", "job", &TableReader::ReadTable},
      {"", "window", &TableReader::ReadTable},
      {"", "days", &TableReader::ReadTable},
      {"job", "wrapper", &TableReader::ReadWrapper},
      {"job", "xml", &TableReader::ReadPath<&SCHEDULE_OBJECT::bstrXMLFilePathName>},
      {"job", "parameters", &TableReader::ReadText<&SCHEDULE_OBJECT::bstrParameters>},
      {"job", "pre_script", &TableReader::ReadPath<&SCHEDULE_OBJECT::bstrPreScript>},
      {"job", "post_script", &TableReader::ReadPath<&SCHEDULE_OBJECT::bstrPostScript>},
      {"job", "pass_id", &TableReader::ReadFlag<&SCHEDULE_OBJECT::bUseGUID>},
      {"job", "run_now", &TableReader::ReadFlag<&SCHEDULE_OBJECT::bRunNow>},
      {"window", "start", &TableReader::ReadTime<&SCHEDULE_RULE::lStartTime>},
      {"window", "end", &TableReader::ReadTime<&SCHEDULE_RULE::lEndTime>},
      {"window", "duration", &TableReader::ReadDuration},
      {"window", "restart", &TableReader::ReadRestart},
      {"days", "effective", &TableReader::ReadEffective},
      {"days", "first", &TableReader::ReadWeek<0>},
      {"days", "second", &TableReader::ReadWeek<1>},
      {"days", "third", &TableReader::ReadWeek<2>},
      {"days", "fourth", &TableReader::ReadWeek<3>},
      {"days", "last", &TableReader::ReadWeek<4>},
      {"days", "every", &TableReader::ReadEveryWeek},
      {"days", "of_month", &TableReader::ReadDaysOfMonth},
      {"days", "repeat", &TableReader::ReadRepeat},
      {"days", "include", &TableReader::ReadInclude},
      {"days", "exclude", &TableReader::ReadExclude},
      {"days.repeat", "every", &TableReader::ReadEvery},
      {"days.repeat", "anchor", &TableReader::ReadAnchor},
  };
  return kRows;
}

}  // namespace

ScheduleFile ParseScheduleFile(std::string_view text, const ScheduleFileOptions& options) {
  ScheduleFile out;
  if (text.size() > kScheduleFileLimit) {
    out.findings.push_back({Severity::kError, {}, "", "the file is too large for a schedule", "1 MiB"});
    return out;
  }
  if (const auto deep = DeepKey(text)) {
    out.findings.push_back({Severity::kError, *deep, "", "the key has too many parts", "32 dots"});
    return out;
  }
  try {
    const toml::table root = toml::parse(text);
    TableReader(options, out).Read(root);
  } catch (const toml::parse_error& error) {
    out.findings.push_back({Severity::kError, PositionOf(error.source()), "", std::string(error.description()), ""});
  }
  SortFindings(out.findings);
  return out;
}

std::vector<Finding> CheckRecord(const SCHEDULE_OBJECT& record) {
  std::vector<Finding> findings;
  const SCHEDULE_RULE& rules = record.stScheduleRules;
  const auto warn = [&](const char* key, const std::string& text, const char* allowed = "") {
    findings.push_back({Severity::kWarning, {}, key, std::string(key) + " " + text, allowed});
  };
  const auto text = [&](const char* key, const BSTR& value) {
    if (!value) return;
    if (const char* warning = IniTextWarning(*value); *warning) warn(key, warning);
  };
  const auto span = [&](const char* key, std::uint32_t value, const char* dropped) {
    if (!SpanInRange(value)) {
      warn(key, "is out of range: " + std::to_string(value) + " ms; " + dropped, kSpanAllowed);
    } else if (value % kMillisecondsPerSecond != 0) {
      warn(key, "has a fraction of a second, which the service would lose at its next start");
    }
  };
  const auto flag = [&](const char* key, std::uint32_t value) {
    if (value == 0) return;
    if ((value & 0xFF) == 0) {
      warn(key, "has a low byte of 0: the service would take it as off", "0, 1");
    } else if ((value & 0xFF) != 1) {
      warn(key, "isn't 1: the service would take it as off at its next start", "0, 1");
    }
  };
  const auto date = [&](const char* key, std::int32_t value) {
    if (value > ZEP_MAX_TIME) warn(key, "lies behind 2037; the service would not apply it");
  };
  text("bstrName", record.bstrName);
  text("bstrDescription", record.bstrDescription);
  date("lStartTime", rules.lStartTime);
  date("lEndTime", rules.lEndTime);
  if (rules.dwTimeDuration != 0) {
    span("dwTimeDuration", rules.dwTimeDuration, kDroppedDuration);
    // What the service tells has both, and they agree.
    const platform::Zone& zone = platform::CurrentZone();
    const std::int64_t start = rules.lStartTime == 0 ? 0 : LocalTimeOfDay(rules.lStartTime, zone);
    const std::int64_t end = start + rules.dwTimeDuration / 1000;
    if (rules.lEndTime != 0 && (end - LocalTimeOfDay(rules.lEndTime, zone)) % 86400 != 0) {
      warn("lEndTime", "is not used: dwTimeDuration is given too and wins");
    }
  }
  flag("bEffectiveDate", rules.bEffectiveDate);
  if (rules.bEffectiveDate != 0) date("lEffectiveDate", rules.lEffectiveDate);
  flag("bRestartInterval", rules.bRestartInterval);
  if (rules.bRestartInterval != 0) span("dwRestartInterval", rules.dwRestartInterval, kDroppedRestart);
  flag("bRepeatInterval", rules.bRepeatInterval);
  if (rules.bRepeatInterval != 0 && (rules.dwRepeatInterval < 1 || rules.dwRepeatInterval > kLongestRepeatDays)) {
    warn("dwRepeatInterval", "is out of range: " + std::to_string(rules.dwRepeatInterval) + "; " + kDroppedRepeat,
         kRepeatAllowed);
  }
  date("lAnchorDate", rules.lAnchorDate);
  if (rules.bLastDayOfMonth != 0) {
    warn("bLastDayOfMonth", "is not read; the last day of the month is adwDaysOfMonth[31]");
  }
  const auto dates = [&](const char* key, const std::array<std::int32_t, kSpecificDateCount>& list) {
    const auto* const end = std::find(list.begin(), list.end(), 0);
    if (std::any_of(list.begin(), end, [](std::int32_t value) { return value > ZEP_MAX_TIME; })) {
      warn(key, "has a date behind 2037; the service would not apply it");
    }
  };
  dates("alIncludeDates", rules.alIncludeDates);
  dates("alExcludeDates", rules.alExcludeDates);
  if (rules.alIncludeDates.back() != 0 &&
      std::find(rules.alIncludeDates.begin(), rules.alIncludeDates.end(), 0) == rules.alIncludeDates.end()) {
    warn("alIncludeDates", "has more than 364 dates; the service would take the exclude dates for include dates too",
         "364 dates");
  }
  return findings;
}

}  // namespace qx
