// Code page 1252, the runtime's functions, and the strings that convert by the system code page.
#include <vector>

#include "foundation/include/zfctext.h"
#include "fuzz/fuzz_target.h"
#include "platform/text.h"

using qx::fuzz::Require;

namespace {

class WesternSystem {
 public:
  WesternSystem() { (void)platform::SetSystemCodePage(platform::kCodePageWestern); }
  ~WesternSystem() { (void)platform::SetSystemCodePage(platform::kCodePageUtf8); }
};

void Narrow(const std::u16string& units, std::uint32_t flags) {
  if (units.empty()) return;
  platform::ErrorCode error = 0;
  bool used = false;
  const int length = static_cast<int>(units.size());
  const int needed = platform::WideCharToMultiByte(platform::kCodePageWestern, flags, units.data(), length, nullptr, 0,
                                                   "#", &used, error);
  if (error != 0) return;
  std::vector<char> bytes(static_cast<std::size_t>(needed));
  Require(platform::WideCharToMultiByte(platform::kCodePageWestern, flags, units.data(), length, bytes.data(), needed,
                                        "#", &used, error) == needed,
          "as many bytes as asked for");
}

// Each conversion of plain buffers with its result freed.
void ConvertBuffers(const std::string& text, const std::u16string& units) {
  char16_t* wide = nullptr;
  char* narrow = nullptr;
  const auto free = [](auto*& buffer) {
    ZepFoundation::ZepFreeString(buffer);
    buffer = nullptr;
  };
  Require((ZepFoundation::ZepUtf8ToWcs(&wide, text.c_str()) >= 0) == (wide != nullptr), "a length has a text");
  free(wide);
  (void)ZepFoundation::ZepMbsToWcs(&wide, text.c_str());
  free(wide);
  (void)ZepFoundation::ZepMbsToUtf8(&narrow, text.c_str());
  free(narrow);
  (void)ZepFoundation::ZepUtf8ToMbs(&narrow, text.c_str());
  free(narrow);
  (void)ZepFoundation::ZepWcsToUtf8(&narrow, units.c_str());
  free(narrow);
  (void)ZepFoundation::ZepWcsToMbs(&narrow, units.c_str());
  free(narrow);
}

}  // namespace

QX_FUZZ_TARGET(code_page) {
  const std::string text(qx::fuzz::Text(data, size));
  const std::u16string units = qx::fuzz::Units(data, size);
  ConvertBuffers(text, units);
  const WesternSystem western;
  const std::u16string wide = platform::WideFromSystem(text);
  Require(wide.size() == text.size(), "a unit for each byte");
  Require(platform::SystemFromWide(wide) == text, "every byte comes back");
  Require(platform::SystemFromWide(units).size() == units.size(), "a byte for each unit");
  for (const std::uint32_t flags :
       {0u, platform::WC_NO_BEST_FIT_CHARS, platform::WC_COMPOSITECHECK, platform::WC_ERR_INVALID_CHARS, 0xFFFFFFFFu}) {
    Narrow(units, flags);
  }
  ConvertBuffers(text, units);
  int error = 0;
  std::vector<char16_t> few(size / 2 + 1);
  (void)platform::Mbstowcs(few.data(), text.c_str(), few.size(), error);
  std::vector<char> fewBytes(size / 2 + 1);
  (void)platform::Wcstombs(fewBytes.data(), units.c_str(), fewBytes.size(), error);
  (void)platform::Wcstombs(fewBytes.data(), units.c_str(), fewBytes.size(), error, platform::RuntimeLocale::kC);
  return 0;
}
