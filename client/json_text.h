// client/json_text.h: JSON as qxsched writes it.
//
// Threads: any.
#pragma once

#include <iosfwd>
#include <nlohmann/json_fwd.hpp>
#include <string>

namespace qx {

// One line without its end. Bytes that are no UTF-8 are replaced by U+FFFD; what a terminal obeys is escaped, as
// UnicodeEscaped() does.
[[nodiscard]] std::string JsonText(const nlohmann::ordered_json& json);

// The same with the line's end.
void WriteJson(std::ostream& out, const nlohmann::ordered_json& json);

}  // namespace qx
