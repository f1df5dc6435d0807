#include "foundation/include/zfcguid.h"

#include <algorithm>
#include <cstring>
#include <istream>
#include <ostream>
#include <string>

#include "foundation/src/stream_token.h"
#include "platform/text.h"

namespace ZepFoundation {
namespace {

constexpr int kGuidTextBuffer = 128;  // units; the text form takes 39 of them

// The platform's reader leaves behind what it read before a failure.
void FromText(std::u16string_view text, platform::GUID& guid) {
  if (platform::ClsidFromString(text, guid) != 0) guid = platform::GUID();
}

}  // namespace

CGUID::CGUID() {
  (void)platform::CreateGuid(*this);
}

CGUID::CGUID(unsigned char generate, unsigned short, const wcstring&) {
  if (generate != 0) (void)platform::CreateGuid(*this);
}

CGUID::CGUID(const char16_t* text) {
  FromText(text == nullptr ? std::u16string_view() : text, *this);
}

CGUID::CGUID(const wcstring& text) {
  FromText(text.view(), *this);
}

void CGUID::GUIDFromString(const wcstring& text) {
  FromText(text.view(), *this);
}

wcstring CGUID::GUIDAsString(unsigned char strip) const {
  char16_t buffer[kGuidTextBuffer] = {};
  (void)platform::StringFromGuid2(*this, buffer, kGuidTextBuffer);
  std::u16string text(buffer);
  if (strip == 1) std::erase_if(text, [](char16_t c) { return c == u'{' || c == u'-' || c == u'}'; });
  return wcstring(std::move(text));
}

int CGUID::Valid() const {
  return static_cast<const platform::GUID&>(*this) == platform::GUID() ? 1 : 0;
}

bool CGUID::operator==(const CGUID& other) const {
  return std::memcmp(this, &other, sizeof(CGUID)) == 0;
}

bool CGUID::operator<(const CGUID& other) const {
  return std::memcmp(this, &other, sizeof(CGUID)) < 0;
}

void CGUID::Print(std::ostream& stream) const {
  const std::string text = platform::Utf8FromWide(GUIDAsString(0).view());
  stream.write(text.data(), static_cast<std::streamsize>(text.size()));
}

void CGUID::Print(std::basic_ostream<char16_t>& stream) const {
  const wcstring text = GUIDAsString(0);
  stream.write(text.data(), static_cast<std::streamsize>(text.size()));
}

void CGUID::Read(std::istream& stream) {
  GUIDFromString(wcstring(platform::WideFromUtf8(TakeToken(stream, LeadingSpace::kSkip))));
}

void CGUID::Read(std::basic_istream<char16_t>& stream) {
  GUIDFromString(wcstring(TakeToken(stream, LeadingSpace::kSkip)));
}

void CGUID::SetStateFilePath(const wcstring&) {}

}  // namespace ZepFoundation
