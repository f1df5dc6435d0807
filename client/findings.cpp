#include "client/findings.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>

#include "platform/text.h"

namespace qx {
namespace {

// Bytes of the UTF-8 character at the beginning; 0 where none is.
std::size_t CharacterSize(std::string_view text) {
  const auto first = static_cast<unsigned char>(text[0]);
  const std::size_t size = first < 0x80 ? 1 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
  return size <= text.size() && platform::IsValidUtf8(text.substr(0, size)) ? size : 0;
}

// Of one well-formed character.
std::uint32_t CodePoint(std::string_view character) {
  const auto first = static_cast<unsigned char>(character[0]);
  if (character.size() == 1) return first;
  std::uint32_t c = first & (0xFFu >> (character.size() + 1));
  for (const char byte : character.substr(1)) c = c << 6 | (static_cast<unsigned char>(byte) & 0x3Fu);
  return c;
}

}  // namespace

bool HasErrors(const std::vector<Finding>& findings) {
  return std::any_of(findings.begin(), findings.end(),
                     [](const Finding& finding) { return finding.severity == Severity::kError; });
}

void SortFindings(std::vector<Finding>& findings) {
  std::stable_sort(findings.begin(), findings.end(),
                   [](const Finding& a, const Finding& b) { return a.position < b.position; });
}

std::string FormatFinding(std::string_view file, const Finding& finding) {
  std::string line = Printable(file);
  if (finding.position.line > 0) {
    line += ":" + std::to_string(finding.position.line) + ":" + std::to_string(finding.position.column);
  }
  line += ": ";
  if (finding.severity == Severity::kWarning) line += "warning: ";
  line += Printable(finding.text);
  if (!finding.allowed.empty()) line += " (allowed: " + finding.allowed + ")";
  return line;
}

bool IsTerminalControl(char32_t c) {
  return c < 0x20 || (c >= 0x7F && c < 0xA0) || c == 0x061C || c == 0x200E || c == 0x200F ||
         (c >= 0x2028 && c <= 0x202E) || (c >= 0x2066 && c <= 0x2069);
}

bool IsPlainAscii(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return c >= 0x20 && c < 0x7F; });
}

std::string Printable(std::string_view text) {
  if (IsPlainAscii(text)) return std::string(text);
  std::string out;
  out.reserve(text.size());
  while (!text.empty()) {
    const std::size_t size = CharacterSize(text);
    const std::uint32_t c = size == 0 ? static_cast<unsigned char>(text[0]) : CodePoint(text.substr(0, size));
    if (size != 0 && !IsTerminalControl(c)) {
      out += text.substr(0, size);
    } else {
      char escaped[16];
      std::snprintf(escaped, sizeof escaped, c > 0xFF ? "\\u%04X" : "\\x%02X", c);
      out += escaped;
    }
    text.remove_prefix(std::max<std::size_t>(size, 1));
  }
  return out;
}

}  // namespace qx
