// UTF-7: any bytes are read, any units come back through it.
#include <vector>

#include "fuzz/fuzz_target.h"
#include "platform/text.h"

using qx::fuzz::Require;

namespace {

std::u16string Widen(std::string_view text) {
  if (text.empty()) return {};
  platform::ErrorCode error = 0;
  const int length = static_cast<int>(text.size());
  const int needed = platform::MultiByteToWideChar(platform::kCodePageUtf7, 0, text.data(), length, nullptr, 0, error);
  Require(error == 0, "any bytes are read");
  std::u16string wide(static_cast<std::size_t>(needed), u'\0');
  if (needed == 0) return wide;
  Require(platform::MultiByteToWideChar(platform::kCodePageUtf7, 0, text.data(), length, wide.data(), needed, error) ==
              needed,
          "as many units as asked for");
  return wide;
}

std::string Narrow(std::u16string_view text) {
  if (text.empty()) return {};
  platform::ErrorCode error = 0;
  const int length = static_cast<int>(text.size());
  const int needed = platform::WideCharToMultiByte(platform::kCodePageUtf7, 0, text.data(), length, nullptr, 0, nullptr,
                                                   nullptr, error);
  Require(error == 0 && needed > 0, "any units are written");
  std::string narrow(static_cast<std::size_t>(needed), '\0');
  Require(platform::WideCharToMultiByte(platform::kCodePageUtf7, 0, text.data(), length, narrow.data(), needed, nullptr,
                                        nullptr, error) == needed,
          "as many bytes as asked for");
  return narrow;
}

}  // namespace

QX_FUZZ_TARGET(utf7) {
  const std::u16string wide = Widen(qx::fuzz::Text(data, size));
  Require(Widen(Narrow(wide)) == wide, "units that were read come back");
  const std::u16string units = qx::fuzz::Units(data, size);
  Require(Widen(Narrow(units)) == units, "any units come back");
  return 0;
}
