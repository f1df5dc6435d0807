// client/schedule_json.h: a record as JSON, with the field names of SCHEDULE_OBJECT and the rules under
// "stScheduleRules"; and a status as JSON bears it.
//
// Strings are strings or null, numbers whole numbers within the field's range; the b... fields also take true and
// false. An absent field is a null string or 0; a list may be shorter than declared and is filled with 0. Threads:
// every function may be called from any thread.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

#include "interface/records.h"

namespace qx {

// Reads a record.
//   record  untouched on failure
//   error   on failure a sentence that names the key; untouched else
//   returns false for an unknown key, a wrong type, a value out of range, a list that is too long, or a string with a
//           CR, LF or NUL
[[nodiscard]] bool RecordFromJson(const nlohmann::json& json, SCHEDULE_OBJECT& record, std::string& error);

// Writes a record, every field in declared order; lists without their trailing zeros.
[[nodiscard]] nlohmann::ordered_json RecordToJson(const SCHEDULE_OBJECT& record);

// "0x8004020C"
[[nodiscard]] std::string HexStatus(Status status);

}  // namespace qx
