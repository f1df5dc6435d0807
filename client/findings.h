// client/findings.h: what is wrong, or only doubtful, in a file that a user wrote.
//
// Threads: values; every function may be called from any thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace qx {

// An error: the file can't be used, or the service would refuse it. A warning: the service would take it, but drop or
// change something without a word.
enum class Severity { kWarning, kError };

// A place in a text; line and column count from 1, the column in characters. Line 0: the file as a whole.
struct TextPosition {
  std::uint32_t line = 0;
  std::uint32_t column = 0;
  friend auto operator<=>(const TextPosition&, const TextPosition&) = default;
};

struct Finding {
  Severity severity = Severity::kError;
  TextPosition position;
  std::string key;      // the field as the file names it, "window.start"; empty for none
  std::string text;     // one line, UTF-8
  std::string allowed;  // what may stand there; may be empty
  friend bool operator==(const Finding&, const Finding&) = default;
};

[[nodiscard]] bool HasErrors(const std::vector<Finding>& findings);

// Orders by place; findings of one place keep their order.
void SortFindings(std::vector<Finding>& findings);

// "FILE:LINE:COL: text (allowed: ...)", with "warning: " ahead of a warning's text; no line end.
[[nodiscard]] std::string FormatFinding(std::string_view file, const Finding& finding);

}  // namespace qx
