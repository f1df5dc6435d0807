#include "client/json_text.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <ostream>

#include "client/findings.h"

namespace qx {
namespace {

// Of well-formed UTF-8 the character of one to three bytes that begins at `at`; all controls are among them.
char32_t ShortCharacter(const std::string& text, std::size_t at, std::size_t& size) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[at + i]); };
  size = byte(0) < 0x80 ? 1 : byte(0) < 0xE0 ? 2 : byte(0) < 0xF0 ? 3 : 4;
  if (size == 2) return (byte(0) & 0x1Fu) << 6 | (byte(1) & 0x3Fu);
  if (size == 3) return (byte(0) & 0x0Fu) << 12 | (byte(1) & 0x3Fu) << 6 | (byte(2) & 0x3Fu);
  return size == 1 ? byte(0) : U'\x10000';
}

}  // namespace

std::string JsonText(const nlohmann::ordered_json& json) {
  std::string text = json.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
  // What isn't ASCII stands within texts, where the controls ahead of the blank are escaped already.
  const auto isSpecial = [](char c) { return static_cast<unsigned char>(c) >= 0x7F; };
  auto next = std::find_if(text.begin(), text.end(), isSpecial);
  if (next == text.end()) return text;
  std::string out;
  out.reserve(text.size());
  for (auto from = text.begin();; next = std::find_if(from, text.end(), isSpecial)) {
    out.append(from, next);
    if (next == text.end()) return out;
    std::size_t size = 0;
    const auto at = static_cast<std::size_t>(next - text.begin());
    const char32_t c = ShortCharacter(text, at, size);
    if (IsTerminalControl(c)) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\u%04X", static_cast<unsigned>(c));
      out += escaped;
    } else {
      out.append(text, at, size);
    }
    from = next + static_cast<std::ptrdiff_t>(size);
  }
}

void WriteJson(std::ostream& out, const nlohmann::ordered_json& json) { out << JsonText(json) << "\n"; }

}  // namespace qx
