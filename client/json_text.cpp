#include "client/json_text.h"

#include <nlohmann/json.hpp>
#include <ostream>

#include "client/terminal_text.h"

namespace qx {

// What a terminal obeys stands within texts alone.
std::string JsonText(const nlohmann::ordered_json& json) {
  return UnicodeEscaped(json.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace));
}

void WriteJson(std::ostream& out, const nlohmann::ordered_json& json) { out << JsonText(json) << "\n"; }

}  // namespace qx
