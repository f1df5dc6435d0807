// client/terminal_text.h: text from outside that a terminal shows and doesn't obey.
//
// A terminal obeys control characters, the separators of lines and paragraphs, and the characters that turn the
// direction of the text around them: with them a text could write lines of its own, move the cursor, or look like
// another one. Threads: every function may be called from any thread.
#pragma once

#include <string>
#include <string_view>

namespace qx {

// For a terminal or a log line: what a terminal obeys, and bytes that are no UTF-8, become "\xNN", above 0xFF "\uNNNN".
[[nodiscard]] std::string Printable(std::string_view text);

// For a text in quotes of JSON or TOML, or a whole line of JSON: what a terminal obeys becomes "\uNNNN", which these
// read as the same character. Bytes that are no UTF-8 stay.
[[nodiscard]] std::string UnicodeEscaped(std::string_view text);

// Whether it is ASCII without control characters, which both functions leave as it is.
[[nodiscard]] bool IsPlainAscii(std::string_view text);

}  // namespace qx
