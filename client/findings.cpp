#include "client/findings.h"

#include <algorithm>
#include <cstdio>

namespace qx {

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

std::string Printable(std::string_view text) {
  const bool plain = std::all_of(text.begin(), text.end(), [](char c) { return c >= 0x20 && c < 0x7F; });
  if (plain) return std::string(text);
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    // U+0080 to U+009F are control characters too: C2 80 to C2 9F.
    const bool c1 = c == 0xC2 && i + 1 < text.size() && static_cast<unsigned char>(text[i + 1]) < 0xA0;
    if (c >= 0x20 && c != 0x7F && !c1) {
      out += text[i];
      continue;
    }
    char escaped[8];
    std::snprintf(escaped, sizeof escaped, "\\x%02X", c1 ? static_cast<unsigned char>(text[++i]) : c);
    out += escaped;
  }
  return out;
}

}  // namespace qx
