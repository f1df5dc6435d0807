#include "client/terminal_text.h"

#include <algorithm>
#include <cstddef>
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

// All of them are below 0x10000.
constexpr bool IsTerminalControl(std::uint32_t c) {
  return c < 0x20 || (c >= 0x7F && c < 0xA0) || c == 0x061C || c == 0x200E || c == 0x200F ||
         (c >= 0x2028 && c <= 0x202E) || (c >= 0x2066 && c <= 0x2069);
}

constexpr bool IsPlain(char c) { return c >= 0x20 && c < 0x7F; }

// Appends `c`, or a byte, in the form of a printf() for one number.
void AppendEscaped(std::string& out, const char* form, std::uint32_t c) {
  char escaped[16];
  std::snprintf(escaped, sizeof escaped, form, c);
  out += escaped;
}

// The text with its controls written by `control(out, character)`, and bytes that are no UTF-8 by `other(out, byte)`.
template <class Control, class Other>
std::string WithoutControls(std::string_view text, const Control& control, const Other& other) {
  if (IsPlainAscii(text)) return std::string(text);
  std::string out;
  out.reserve(text.size());
  while (!text.empty()) {
    const auto plain = static_cast<std::size_t>(std::find_if_not(text.begin(), text.end(), IsPlain) - text.begin());
    out += text.substr(0, plain);
    text.remove_prefix(plain);
    if (text.empty()) break;
    const std::size_t size = CharacterSize(text);
    if (size == 0) {
      other(out, text[0]);
    } else if (const std::uint32_t c = CodePoint(text.substr(0, size)); IsTerminalControl(c)) {
      control(out, c);
    } else {
      out += text.substr(0, size);
    }
    text.remove_prefix(std::max<std::size_t>(size, 1));
  }
  return out;
}

}  // namespace

std::string Printable(std::string_view text) {
  return WithoutControls(
      text,
      [](std::string& out, std::uint32_t c) { AppendEscaped(out, c > 0xFF ? "\\u%04X" : "\\x%02X", c); },
      [](std::string& out, char byte) { AppendEscaped(out, "\\x%02X", static_cast<unsigned char>(byte)); });
}

std::string UnicodeEscaped(std::string_view text) {
  return WithoutControls(
      text, [](std::string& out, std::uint32_t c) { AppendEscaped(out, "\\u%04X", c); },
      [](std::string& out, char byte) { out += byte; });
}

bool IsPlainAscii(std::string_view text) { return std::all_of(text.begin(), text.end(), IsPlain); }

}  // namespace qx
