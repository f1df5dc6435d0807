#include <cstddef>
#include <string_view>

#include "foundation/include/zfcguid.h"
#include "foundation/include/zfclog.h"

namespace ZepFoundation {
namespace {

struct FixedCharacter {
  std::size_t position;
  char16_t character;
};
constexpr FixedCharacter kFixed[] = {{0, u'{'}, {9, u'-'}, {14, u'-'}, {19, u'-'}, {24, u'-'}, {37, u'}'}};

struct Range {
  std::size_t first;
  std::size_t last;
};
constexpr Range kDigits[] = {{1, 8}, {10, 13}, {15, 18}, {20, 23}, {25, 36}};

constexpr std::size_t kCheckedLength = 38;  // nothing behind position 37 is looked at

bool IsDigitOrLetter(char16_t c) {
  return (c >= u'0' && c <= u'9') || (c >= u'A' && c <= u'Z') || (c >= u'a' && c <= u'z');
}

// The text up to its end or to the last position that is checked.
std::u16string_view CheckedPart(const char16_t* text) {
  std::size_t length = 0;
  while (text != nullptr && length < kCheckedLength && text[length] != u'\0') ++length;
  return {text, length};
}

void ReportInvalidGuidCharacter(char16_t character, std::size_t position) {
  // The text may be anybody's who reaches the port of the node channel.
  ServiceLog(0, u"IsValidGUIDString:Invalid character %s at %d in GUIDString", ForLog({&character, 1}),
             static_cast<int>(position));
}

}  // namespace

int IsValidGUIDString(const char16_t* text) {
  const std::u16string_view checked = CheckedPart(text);
  for (const FixedCharacter& fixed : kFixed) {
    if (fixed.position < checked.size() && checked[fixed.position] == fixed.character) continue;
    ServiceLog(0, u"IsValidGUIDString:Invalid character in GUIDString");
    return 0;
  }
  for (const Range& range : kDigits) {
    for (std::size_t i = range.first; i <= range.last; ++i) {
      if (IsDigitOrLetter(checked[i])) continue;
      ReportInvalidGuidCharacter(checked[i], i);
      return 0;
    }
  }
  return 1;
}

}  // namespace ZepFoundation
