#include "client/schedule_keys.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <new>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "client/rule_object.h"
#include "client/schedule_file.h"
#include "client/status_text.h"
#include "common/schedule_adapter.h"

namespace qx {
namespace {

enum class Kind {
  kText,   // quoted
  kPlain,  // a number, a date, true or false: as it stands
  kWords,  // a list of quoted words
  kMixed,  // a list of numbers and quoted words
  kDates,  // a list of dates
};
struct KeyRow {
  std::string_view name;
  Kind kind;
};
constexpr KeyRow kKeys[] = {
    {"name", Kind::kText},           {"description", Kind::kText},
    {"application", Kind::kText},    {"object_id", Kind::kText},
    {"task_code", Kind::kPlain},     {"job.wrapper", Kind::kText},
    {"job.xml", Kind::kText},        {"job.parameters", Kind::kText},
    {"job.pre_script", Kind::kText}, {"job.post_script", Kind::kText},
    {"job.pass_id", Kind::kPlain},   {"window.start", Kind::kText},
    {"window.end", Kind::kText},     {"window.duration", Kind::kText},
    {"window.restart", Kind::kText}, {"days.effective", Kind::kPlain},
    {"days.first", Kind::kWords},    {"days.second", Kind::kWords},
    {"days.third", Kind::kWords},    {"days.fourth", Kind::kWords},
    {"days.last", Kind::kWords},     {"days.every", Kind::kWords},
    {"days.of_month", Kind::kMixed}, {"days.repeat.every", Kind::kPlain},
    {"days.repeat.anchor", Kind::kPlain}, {"days.include", Kind::kDates},
    {"days.exclude", Kind::kDates},
};
constexpr std::string_view kFixedKeys[] = {"application", "object_id", "task_code", "job.pass_id"};
// Either says when the window ends.
constexpr std::pair<std::string_view, std::string_view> kRivals[] = {{"window.end", "window.duration"},
                                                                     {"window.duration", "window.end"}};

bool IsList(Kind kind) {
  return kind == Kind::kWords || kind == Kind::kMixed || kind == Kind::kDates;
}

const KeyRow* FindRow(std::string_view name) {
  const auto* row = std::find_if(std::begin(kKeys), std::end(kKeys), [&](const KeyRow& r) { return r.name == name; });
  return row == std::end(kKeys) ? nullptr : row;
}

std::string_view Trimmed(std::string_view text) {
  while (!text.empty() && text.front() == ' ') text.remove_prefix(1);
  while (!text.empty() && text.back() == ' ') text.remove_suffix(1);
  return text;
}

// A basic string of TOML; control characters are left to be found by whoever reads it.
std::string Quoted(std::string_view text) {
  std::string out = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') out += '\\';
    if (c == '\n') {
      out += "\\n";
    } else if (c == '\r') {
      out += "\\r";
    } else {
      out += c;
    }
  }
  return out + "\"";
}

// The elements of a list, TOML or words with commas between; none of them holds a comma.
std::vector<std::string> Elements(std::string_view text) {
  text = Trimmed(text);
  if (text.starts_with('[') && text.ends_with(']')) text = text.substr(1, text.size() - 2);
  std::vector<std::string> elements;
  while (!text.empty()) {
    const std::size_t comma = text.find(',');
    const std::string_view element = Trimmed(text.substr(0, comma));
    if (!element.empty()) elements.emplace_back(element);
    text = comma == std::string_view::npos ? std::string_view() : text.substr(comma + 1);
  }
  return elements;
}

std::string ElementValue(Kind kind, const std::string& element) {
  const bool number = !element.empty() && element.find_first_not_of("0123456789") == std::string::npos;
  if (kind == Kind::kDates || element.starts_with('"') || (kind == Kind::kMixed && number)) return element;
  return Quoted(element);
}

std::string ListValue(const std::vector<std::string>& elements) {
  std::string list;
  for (const std::string& element : elements) list += (list.empty() ? "" : ", ") + element;
  return "[" + list + "]";
}

std::vector<ScheduleKey>::iterator FindKey(std::vector<ScheduleKey>& keys, std::string_view name) {
  return std::find_if(keys.begin(), keys.end(), [&](const ScheduleKey& key) { return key.name == name; });
}

void PutKey(std::vector<ScheduleKey>& keys, const std::string& name, const std::string& value) {
  const auto at = FindKey(keys, name);
  if (at != keys.end()) {
    at->value = value;
  } else {
    keys.push_back({name, value});
  }
}

void TakeKey(std::vector<ScheduleKey>& keys, std::string_view name) {
  if (const auto at = FindKey(keys, name); at != keys.end()) keys.erase(at);
}

std::optional<std::string> ValueOf(const std::vector<ScheduleKey>& keys, const std::string& name) {
  const auto at = std::find_if(keys.begin(), keys.end(), [&](const ScheduleKey& key) { return key.name == name; });
  return at == keys.end() ? std::nullopt : std::optional(at->value);
}

}  // namespace

SCHEDULE_OBJECT AsServiceKeeps(const SCHEDULE_OBJECT& record) {
  SCHEDULE_OBJECT kept = record;
  const RuleObject schedule = NewRuleObject();
  if (!schedule) throw std::bad_alloc();
  CZEPScheduleObj adapter;
  adapter.m_pSchedule = schedule.get();
  // Refused rules are loaded all the same. A record that is read in part would be taken for one that was changed.
  if (adapter.Validate_ScheduleRules(&record) == kStatusFailure ||
      adapter.LoadScheduleFromPropBag(&kept) != kStatusOk) {
    throw std::runtime_error("the schedule's rules can't be read: " + FormatStatus(kStatusFailure));
  }
  return kept;
}

std::vector<ScheduleKey> KeysOf(const SCHEDULE_OBJECT& record, const platform::Zone& zone) {
  std::vector<ScheduleKey> keys;
  const std::string text = WriteScheduleFile(record, zone);
  std::string table;
  for (std::string_view rest = text; !rest.empty();) {
    const std::string_view line = rest.substr(0, rest.find('\n'));
    rest.remove_prefix(std::min(line.size() + 1, rest.size()));
    if (line.empty() || line.front() == '#') continue;
    if (line.front() == '[') {
      table = std::string(line.substr(1, line.size() - 2)) + ".";
      continue;
    }
    const std::size_t equals = line.find(" = ");
    std::string name = table + std::string(line.substr(0, equals));
    std::string value(line.substr(equals + 3));
    if (name == "days.repeat") {  // { every = 14, anchor = 2026-12-01 }
      for (const std::string& part : Elements(value.substr(1, value.size() - 2))) {
        const std::size_t inner = part.find(" = ");
        keys.push_back({name + "." + part.substr(0, inner), part.substr(inner + 3)});
      }
    } else if (name != "job.run_now" && value != "\"\"") {
      keys.push_back({std::move(name), std::move(value)});
    }
  }
  return keys;
}

std::string TextOfKeys(const std::vector<ScheduleKey>& keys) {
  std::string text;
  for (const ScheduleKey& key : keys) text += key.name + " = " + key.value + "\n";
  return text;
}

std::vector<KeyDifference> CompareKeys(const std::vector<ScheduleKey>& before, const std::vector<ScheduleKey>& after) {
  std::vector<KeyDifference> differences;
  for (const ScheduleKey& key : before) {
    const auto now = ValueOf(after, key.name);
    if (now != key.value) differences.push_back({key.name, key.value, now});
  }
  for (const ScheduleKey& key : after) {
    if (!ValueOf(before, key.name)) differences.push_back({key.name, std::nullopt, key.value});
  }
  return differences;
}

bool IsFixedKey(const std::string& name) {
  return std::find(std::begin(kFixedKeys), std::end(kFixedKeys), name) != std::end(kFixedKeys);
}

std::optional<std::string> ChangedFixedKey(const std::vector<KeyDifference>& differences) {
  for (const KeyDifference& difference : differences) {
    if (IsFixedKey(difference.key)) return difference.key;
  }
  return std::nullopt;
}

std::vector<std::string> SettableKeys() {
  std::vector<std::string> names;
  for (const KeyRow& row : kKeys) names.emplace_back(row.name);
  return names;
}

std::string AssignKey(std::vector<ScheduleKey>& keys, const std::string& assignment, std::string& key) {
  const std::size_t equals = assignment.find('=');
  if (equals == std::string::npos || equals == 0) {
    return "\"" + assignment + "\" is no KEY=VALUE, as window.start=22:00";
  }
  const char sign = assignment[equals - 1];
  const bool adds = sign == '+', takes = sign == '-';
  key = assignment.substr(0, adds || takes ? equals - 1 : equals);
  const std::string value = assignment.substr(equals + 1);
  const KeyRow* row = FindRow(key);
  if (row == nullptr) {
    std::string known;
    for (const KeyRow& r : kKeys) known += (known.empty() ? "" : ", ") + std::string(r.name);
    return "unknown key \"" + key + "\" (allowed: " + known + ")";
  }
  if (IsList(row->kind)) {
    std::vector<std::string> elements;
    for (const std::string& element : Elements(value)) elements.push_back(ElementValue(row->kind, element));
    if (adds || takes) {
      std::vector<std::string> present = Elements(ValueOf(keys, key).value_or("[]"));
      for (const std::string& element : elements) {
        const auto at = std::find(present.begin(), present.end(), element);
        if (takes && at == present.end()) return key + " has no " + element;
        if (takes) present.erase(at);
        if (adds && at == present.end()) present.push_back(element);
      }
      elements = std::move(present);
    }
    if (elements.empty()) {
      TakeKey(keys, key);
    } else {
      PutKey(keys, key, ListValue(elements));
    }
    return "";
  }
  if (adds || takes) return key + " is no list: += and -= are for lists";
  if (value.empty()) {
    TakeKey(keys, key);
    return "";
  }
  // A line of its own could not be told from a key.
  if (row->kind == Kind::kPlain && value.find_first_of("\r\n") != std::string::npos) {
    return key + " is a value of one line";
  }
  PutKey(keys, key, row->kind == Kind::kText ? Quoted(value) : value);
  for (const auto& [set, gone] : kRivals) {
    if (key == set) TakeKey(keys, gone);
  }
  return "";
}

}  // namespace qx
