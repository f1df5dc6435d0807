#include "client/batch.h"

#include <exception>
#include <istream>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <streambuf>

#include "client/json_text.h"
#include "client/rule_object.h"
#include "client/schedule_json.h"
#include "common/schedule_adapter.h"

namespace qx {
namespace {

using nlohmann::json;
using nlohmann::ordered_json;

// A value that no query writes.
constexpr ZepTime kUnwritten = std::numeric_limits<ZepTime>::min();

// What a malformed line is answered by.
class QueryError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct Query {
  std::optional<SCHEDULE_OBJECT> record;  // nothing for "fresh"
  std::int64_t ref = 0;
  std::int64_t anchor = 0;
  std::int64_t effective = 0;
  std::int64_t count = 1;
  std::optional<std::int64_t> at;
};

// Brackets open at once, strings left out; what is deeper would exhaust the stack where the answer is written.
bool NestsTooDeeply(std::string_view line) {
  std::size_t depth = 0;
  bool inString = false;
  for (std::size_t i = 0; i < line.size(); ++i) {
    const char c = line[i];
    if (inString) {
      if (c == '\\') ++i;
      if (c == '"') inString = false;
    } else if (c == '"') {
      inString = true;
    } else if (c == '[' || c == '{') {
      if (++depth > kBatchDeepestNesting) return true;
    } else if ((c == ']' || c == '}') && depth > 0) {
      --depth;
    }
  }
  return false;
}

std::int64_t NumberOf(const std::string& key, const json& value) {
  if (!value.is_number_integer()) throw QueryError(key + " isn't a whole number");
  if (value.is_number_unsigned() &&
      value.get<std::uint64_t>() > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
    throw QueryError(key + " is out of range");
  }
  return value.get<std::int64_t>();
}

Query ReadQuery(const json& line) {
  Query query;
  bool fresh = false;
  for (const auto& [key, value] : line.items()) {
    if (key == "id") {
      continue;
    } else if (key == "record") {
      std::string error;
      SCHEDULE_OBJECT record;
      if (!RecordFromJson(value, record, error)) throw QueryError(error);
      query.record = record;
    } else if (key == "fresh") {
      if (!value.is_boolean()) throw QueryError("fresh isn't true or false");
      fresh = value.get<bool>();
    } else if (key == "ref") {
      query.ref = NumberOf(key, value);
    } else if (key == "anchor") {
      query.anchor = NumberOf(key, value);
    } else if (key == "effective") {
      query.effective = NumberOf(key, value);
    } else if (key == "count") {
      query.count = NumberOf(key, value);
      if (query.count < 0 || query.count > kBatchMostWindows) {
        throw QueryError("count is out of range (allowed: 0 to " + std::to_string(kBatchMostWindows) + ")");
      }
    } else if (key == "at") {
      if (!value.is_null()) query.at = NumberOf(key, value);
    } else {
      throw QueryError(key + " is unknown");
    }
  }
  if (fresh == query.record.has_value()) throw QueryError("one of record and fresh is needed");
  return query;
}

ordered_json TimeOrNull(ZepTime time) {
  if (time == kUnwritten) return nullptr;
  return time;
}

ordered_json Windows(zepISchedule2& schedule, const Query& query) {
  ordered_json windows = ordered_json::array();
  ZepTime ref = query.ref;
  for (std::int64_t i = 0; i < query.count; ++i) {
    ZepTime start = kUnwritten;
    ZepTime end = kUnwritten;
    zepByte last = 0;
    std::uint32_t match = 0;
    const ZRESULT result =
        schedule.GetNextTimeWindowEx(query.anchor, query.effective, ref, &start, &end, &last, &match);
    ordered_json window = ordered_json::object();
    window["hr"] = HexStatus(static_cast<std::uint32_t>(result));
    window["start"] = TimeOrNull(start);
    window["end"] = TimeOrNull(end);
    window["last"] = static_cast<int>(last);
    window["match"] = match;
    windows.push_back(std::move(window));
    if (result != ZEP_S_OK) break;
    ref = start;
  }
  return windows;
}

ordered_json Answer(const Query& query) {
  const RuleObject schedule = NewRuleObject();
  if (!schedule) throw std::bad_alloc();
  ordered_json answer = ordered_json::object();
  if (query.record) {
    CZEPScheduleObj adapter;
    adapter.m_pSchedule = schedule.get();
    answer["validate"] = HexStatus(adapter.Validate_ScheduleRules(&*query.record));
  } else {
    answer["validate"] = HexStatus(static_cast<std::uint32_t>(schedule->Validate()));
  }
  answer["windows"] = Windows(*schedule, query);
  if (query.at) answer["in_window"] = static_cast<int>(schedule->IsScheduleInTimeWindow(*query.at));
  return answer;
}

std::string ErrorLine(const json& id, const std::string& text) {
  ordered_json out = ordered_json::object();
  out["id"] = ordered_json(id);
  out["error"] = text;
  return JsonText(out);
}

// The next line of a stream; what goes beyond the limit is read and dropped.
//   returns  false at the end of the stream
bool ReadLine(std::istream& in, std::string& line, bool& tooLong) {
  line.clear();
  tooLong = false;
  std::streambuf* buffer = in.rdbuf();
  bool any = false;
  for (;;) {
    const auto c = buffer->sbumpc();
    if (c == std::streambuf::traits_type::eof()) return any;
    any = true;
    if (c == '\n') return true;
    if (line.size() < kBatchLongestLine) {
      line += static_cast<char>(c);
    } else {
      tooLong = true;
    }
  }
}

}  // namespace

std::string AnswerBatchLine(std::string_view line) {
  json id;
  try {
    if (NestsTooDeeply(line)) throw QueryError("the line nests too deeply");
    const json query = json::parse(line);
    if (!query.is_object()) throw QueryError("the line isn't an object");
    if (const auto at = query.find("id"); at != query.end()) id = *at;
    ordered_json out = ordered_json::object();
    out["id"] = ordered_json(id);
    out.update(Answer(ReadQuery(query)));
    return JsonText(out);
  } catch (const json::parse_error& error) {
    return ErrorLine(id, "the line isn't JSON, byte " + std::to_string(error.byte));
  } catch (const QueryError& error) {
    return ErrorLine(id, error.what());
  } catch (const std::exception& error) {
    return ErrorLine(id, std::string("the query failed: ") + error.what());
  }
}

bool RunBatch(std::istream& in, std::ostream& out) {
  std::string line;
  bool tooLong = false;
  while (out && ReadLine(in, line, tooLong)) {
    if (tooLong) {
      out << ErrorLine(nullptr, "the line is too long (allowed: " + std::to_string(kBatchLongestLine) + " bytes)");
    } else if (line.find_first_not_of(" \t\r") == std::string::npos) {
      continue;
    } else {
      out << AnswerBatchLine(line);
    }
    out << '\n' << std::flush;
  }
  return static_cast<bool>(out);
}

}  // namespace qx
