#include "client/findings.h"

#include <algorithm>

#include "client/terminal_text.h"

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

}  // namespace qx
