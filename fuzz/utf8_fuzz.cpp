// UTF-8 both ways: what is well-formed survives, what isn't becomes well-formed, and every way of converting agrees.
#include <vector>

#include "fuzz/fuzz_target.h"
#include "platform/text.h"

using qx::fuzz::Require;

QX_FUZZ_TARGET(utf8) {
  const std::string_view text = qx::fuzz::Text(data, size);
  const bool valid = platform::IsValidUtf8(text);
  const std::u16string wide = platform::WideFromUtf8(text);
  const std::string back = platform::Utf8FromWide(wide);
  Require(platform::IsValidUtf8(back), "what comes out of UTF-16 is well-formed");
  Require(!valid || back == text, "well-formed text comes back as it was");
  Require(platform::WideFromUtf8(back) == wide, "the replaced text has the same units");
  if (size == 0) return 0;

  platform::ErrorCode error = 0;
  const int length = static_cast<int>(size);
  std::vector<char16_t> buffer(wide.size());
  const int needed = platform::MultiByteToWideChar(platform::kCodePageUtf8, 0, text.data(), length, nullptr, 0, error);
  Require(error == 0 && static_cast<std::size_t>(needed) == wide.size(), "the query counts the units");
  Require(platform::MultiByteToWideChar(platform::kCodePageUtf8, 0, text.data(), length, buffer.data(), needed,
                                        error) == needed &&
              std::u16string(buffer.begin(), buffer.end()) == wide,
          "the call and the function give the same units");
  const int strict = platform::MultiByteToWideChar(platform::kCodePageUtf8, platform::MB_ERR_INVALID_CHARS, text.data(),
                                                   length, nullptr, 0, error);
  Require((strict != 0) == valid && (valid || error == platform::ERROR_NO_UNICODE_TRANSLATION),
          "the strict call refuses exactly what is ill-formed");

  const std::u16string units = qx::fuzz::Units(data, size);
  if (units.empty()) return 0;
  const std::string narrow = platform::Utf8FromWide(units);
  Require(platform::IsValidUtf8(narrow), "lone surrogates are replaced");
  std::vector<char> bytes(narrow.size() - 1);
  const int cut =
      platform::WideCharToMultiByte(platform::kCodePageUtf8, 0, units.data(), static_cast<int>(units.size()),
                                    bytes.data(), static_cast<int>(bytes.size()), nullptr, nullptr, error);
  Require(cut == 0 || bytes.empty(), "a buffer one byte short is refused");
  bytes.resize(narrow.size());
  const int written =
      platform::WideCharToMultiByte(platform::kCodePageUtf8, 0, units.data(), static_cast<int>(units.size()),
                                    bytes.data(), static_cast<int>(bytes.size()), nullptr, nullptr, error);
  Require(static_cast<std::size_t>(written) == narrow.size() && std::string(bytes.begin(), bytes.end()) == narrow,
          "the call and the function give the same bytes");
  return 0;
}
