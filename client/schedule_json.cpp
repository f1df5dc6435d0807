#include "client/schedule_json.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <nlohmann/json.hpp>
#include <string_view>
#include <type_traits>

#include "common/bus_records.h"
#include "platform/text.h"

namespace qx {
namespace {

using nlohmann::json;
using nlohmann::ordered_json;

// Calls visit(name, field) for every field of a record in declared order; Record is const or not.
template <typename Rules, typename Visit>
void VisitRules(Rules& r, Visit visit) {
  visit("lStartTime", r.lStartTime);
  visit("lEndTime", r.lEndTime);
  visit("dwTimeDuration", r.dwTimeDuration);
  visit("bEffectiveDate", r.bEffectiveDate);
  visit("lEffectiveDate", r.lEffectiveDate);
  visit("bRestartInterval", r.bRestartInterval);
  visit("dwRestartInterval", r.dwRestartInterval);
  visit("bRepeatInterval", r.bRepeatInterval);
  visit("dwRepeatInterval", r.dwRepeatInterval);
  visit("lAnchorDate", r.lAnchorDate);
  visit("adwDaysOfMonth", r.adwDaysOfMonth);
  visit("bLastDayOfMonth", r.bLastDayOfMonth);
  visit("dwDaysOfWeek0", r.dwDaysOfWeek0);
  visit("dwDaysOfWeek1", r.dwDaysOfWeek1);
  visit("dwDaysOfWeek2", r.dwDaysOfWeek2);
  visit("dwDaysOfWeek3", r.dwDaysOfWeek3);
  visit("dwDaysOfWeek4", r.dwDaysOfWeek4);
  visit("alIncludeDates", r.alIncludeDates);
  visit("alExcludeDates", r.alExcludeDates);
}

template <typename Record, typename Visit>
void VisitRecord(Record& r, Visit visit) {
  visit("bstrName", r.bstrName);
  visit("bstrDescription", r.bstrDescription);
  visit("bstrApplication", r.bstrApplication);
  visit("bstrObjectID", r.bstrObjectID);
  visit("dwTaskOpCode", r.dwTaskOpCode);
  visit("bstrWrapperBinaryName", r.bstrWrapperBinaryName);
  visit("bstrXMLFilePathName", r.bstrXMLFilePathName);
  visit("bstrParameters", r.bstrParameters);
  visit("bstrPreScript", r.bstrPreScript);
  visit("bstrPostScript", r.bstrPostScript);
  visit("bRunNow", r.bRunNow);
  visit("bUseGUID", r.bUseGUID);
  visit("lNextTimeWindow", r.lNextTimeWindow);
  visit("stScheduleRules", r.stScheduleRules);
}

// Reads the members of one object; keeps the first failure.
class ObjectReader {
 public:
  ObjectReader(const json& object, std::string prefix, std::string& error)
      : m_object(object), m_prefix(std::move(prefix)), m_error(error) {}

  template <typename Field>
  void operator()(const char* name, Field& field) {
    if (!m_ok) return;
    const auto at = m_object.find(name);
    if (at == m_object.end()) return;
    ++m_known;
    Read(m_prefix + name, *at, field);
  }

  // After all fields were visited: whether nothing failed and no member is left over.
  template <typename Names>
  bool Finish(Names isKnown) {
    if (m_ok && m_known != m_object.size()) {
      for (const auto& item : m_object.items()) {
        if (!isKnown(item.key())) {
          Fail(m_prefix + item.key(), "is unknown");
          break;
        }
      }
    }
    return m_ok;
  }

 private:
  void Fail(const std::string& key, const std::string& text) {
    if (m_ok) m_error = key + " " + text;
    m_ok = false;
  }

  void Read(const std::string& key, const json& value, BSTR& out) {
    if (value.is_null()) {
      out.reset();
      return;
    }
    if (!value.is_string()) return Fail(key, "isn't a string");
    const std::string& text = value.get_ref<const std::string&>();
    if (text.find_first_of(std::string_view("\r\n\0", 3)) != std::string::npos) {
      return Fail(key, "holds a line end or a NUL");
    }
    std::u16string wide = platform::WideFromUtf8(text);
    if (const std::string stranger = FirstNoncharacter(wide); !stranger.empty()) {
      return Fail(key, "holds a character that the service can't be told: " + stranger);
    }
    out = std::move(wide);
  }

  template <typename Number>
  requires std::is_integral_v<Number>
  void Read(const std::string& key, const json& value, Number& out) {
    if (value.is_boolean() && key[m_prefix.size()] == 'b') {
      out = value.get<bool>() ? 1 : 0;
      return;
    }
    if (!value.is_number_integer()) return Fail(key, "isn't a whole number");
    constexpr auto kLeast = static_cast<std::int64_t>(std::numeric_limits<Number>::min());
    constexpr auto kMost = static_cast<std::int64_t>(std::numeric_limits<Number>::max());
    const bool huge = value.is_number_unsigned() && value.get<std::uint64_t>() > static_cast<std::uint64_t>(kMost);
    const std::int64_t number = huge ? 0 : value.get<std::int64_t>();
    if (huge || number < kLeast || number > kMost) {
      return Fail(key, "is out of range (allowed: " + std::to_string(kLeast) + " to " + std::to_string(kMost) + ")");
    }
    out = static_cast<Number>(number);
  }

  template <typename Number, std::size_t count>
  void Read(const std::string& key, const json& value, std::array<Number, count>& out) {
    if (!value.is_array()) return Fail(key, "isn't a list");
    if (value.size() > count) return Fail(key, "has too many elements (allowed: " + std::to_string(count) + ")");
    for (std::size_t i = 0; i < value.size() && m_ok; ++i) {
      Read(key + "[" + std::to_string(i) + "]", value[i], out[i]);
    }
  }

  void Read(const std::string& key, const json& value, SCHEDULE_RULE& out) {
    if (!value.is_object()) return Fail(key, "isn't an object");
    ObjectReader reader(value, key + ".", m_error);
    VisitRules(out, [&](const char* name, auto& field) { reader(name, field); });
    m_ok = reader.Finish([](std::string_view name) {
      bool known = false;
      SCHEDULE_RULE rules;
      VisitRules(rules, [&](const char* field, auto&) { known = known || name == field; });
      return known;
    });
  }

  const json& m_object;
  std::string m_prefix;
  std::string& m_error;
  std::size_t m_known = 0;
  bool m_ok = true;
};

ordered_json ToJson(const BSTR& text) {
  if (!text) return nullptr;
  return platform::Utf8FromWide(*text);
}

template <typename Number>
requires std::is_integral_v<Number> ordered_json ToJson(Number number) {
  return number;
}

template <typename Number, std::size_t count>
ordered_json ToJson(const std::array<Number, count>& list) {
  std::size_t used = count;
  while (used > 0 && list[used - 1] == 0) --used;
  ordered_json out = ordered_json::array();
  for (std::size_t i = 0; i < used; ++i) out.push_back(list[i]);
  return out;
}

ordered_json ToJson(const SCHEDULE_RULE& rules) {
  ordered_json out = ordered_json::object();
  VisitRules(rules, [&](const char* name, const auto& field) { out[name] = ToJson(field); });
  return out;
}

}  // namespace

bool RecordFromJson(const json& object, SCHEDULE_OBJECT& record, std::string& error) {
  if (!object.is_object()) {
    error = "the record isn't an object";
    return false;
  }
  SCHEDULE_OBJECT read;
  ObjectReader reader(object, "", error);
  VisitRecord(read, [&](const char* name, auto& field) { reader(name, field); });
  const bool ok = reader.Finish([](std::string_view name) {
    bool known = false;
    SCHEDULE_OBJECT blank;
    VisitRecord(blank, [&](const char* field, auto&) { known = known || name == field; });
    return known;
  });
  if (ok) record = read;
  return ok;
}

ordered_json RecordToJson(const SCHEDULE_OBJECT& record) {
  ordered_json out = ordered_json::object();
  VisitRecord(record, [&](const char* name, const auto& field) { out[name] = ToJson(field); });
  return out;
}

std::string HexStatus(Status status) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08X", status);
  return text;
}

}  // namespace qx
