// platform/guid.h: 128-bit identifiers: making them, their text form, and reading it.
//
// Threads: every function may be called from any thread.
#pragma once

#include <compare>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "platform/error_codes.h"

namespace platform {

// The published record (guiddef.h). Compares as 16 unsigned bytes in memory order.
struct GUID {
  std::uint32_t Data1 = 0;
  std::uint16_t Data2 = 0;
  std::uint16_t Data3 = 0;
  std::uint8_t Data4[8] = {};

  friend bool operator==(const GUID& a, const GUID& b) { return std::memcmp(&a, &b, sizeof(GUID)) == 0; }
  friend std::strong_ordering operator<=>(const GUID& a, const GUID& b) {
    return std::memcmp(&a, &b, sizeof(GUID)) <=> 0;
  }
};
static_assert(sizeof(GUID) == 16, "an identifier is its 16 bytes");

// Characters of the text form: braces, 32 digits, 4 hyphens.
inline constexpr int kGuidTextLength = 38;

// What ClsidFromString answers for a text that is no identifier (CO_E_CLASSSTRING of winerror.h).
inline constexpr std::uint32_t kInvalidClassString = 0x800401F3;

// A constant from its text, "{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}": a wrong text doesn't compile.
[[nodiscard]] consteval GUID GuidConstant(std::u16string_view text) {
  if (text.size() != kGuidTextLength || text[0] != u'{' || text[37] != u'}') throw "not an identifier";
  const auto digits = [&](int from, int count) {
    std::uint64_t value = 0;
    for (int i = from; i < from + count; ++i) {
      const char16_t c = text[i];
      const int digit = c >= u'0' && c <= u'9'   ? c - u'0'
                        : c >= u'A' && c <= u'F' ? c - u'A' + 10
                        : c >= u'a' && c <= u'f' ? c - u'a' + 10
                                                 : -1;
      if (digit < 0) throw "not a hexadecimal digit";
      value = value * 16 + static_cast<std::uint64_t>(digit);
    }
    return value;
  };
  for (const int hyphen : {9, 14, 19, 24}) {
    if (text[hyphen] != u'-') throw "a hyphen is missing";
  }
  GUID guid;
  guid.Data1 = static_cast<std::uint32_t>(digits(1, 8));
  guid.Data2 = static_cast<std::uint16_t>(digits(10, 4));
  guid.Data3 = static_cast<std::uint16_t>(digits(15, 4));
  guid.Data4[0] = static_cast<std::uint8_t>(digits(20, 2));
  guid.Data4[1] = static_cast<std::uint8_t>(digits(22, 2));
  for (int i = 0; i < 6; ++i) guid.Data4[2 + i] = static_cast<std::uint8_t>(digits(25 + 2 * i, 2));
  return guid;
}

// A new identifier of random bits (version 4) from the kernel.
//   out      untouched on failure
//   returns  0; the code of a kernel call that failed
[[nodiscard]] ErrorCode CreateGuid(GUID& out);

// Reads the braced text form, digits of either case.
//   out      written as far as the text was read, also on failure; a text that doesn't begin with "{" leaves it zero.
//            A caller that wants zero on failure clears it
//   returns  0, or kInvalidClassString
[[nodiscard]] std::uint32_t ClsidFromString(std::u16string_view text, GUID& out);

// Writes the braced, upper-case text form and a NUL.
//   size     units of `buffer`
//   returns  39; 0 when size is below that, the buffer untouched
[[nodiscard]] int StringFromGuid2(const GUID& guid, char16_t* buffer, int size);

// The braced, upper-case text form.
[[nodiscard]] std::u16string GuidText(const GUID& guid);

}  // namespace platform
