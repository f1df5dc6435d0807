#include <algorithm>
#include <climits>
#include <cstdint>
#include <istream>
#include <ostream>

#include "foundation/include/zfcstring.h"
#include "foundation/include/zfcutf8.h"
#include "foundation/src/stream_token.h"
#include "platform/text.h"

namespace ZepFoundation {
namespace {

template <class StringType, class CharT>
StringType FromPointer(const CharT* text) {
  return text == nullptr ? StringType() : StringType(text);
}

template <class StringType, class CharT>
StringType FromPointer(const CharT* text, std::size_t length) {
  return text == nullptr ? StringType() : StringType(text, length);
}

// What the platform's calls can count, terminator included.
bool IsCountable(std::size_t length) {
  return length < static_cast<std::size_t>(INT_MAX);
}

cstring::string_type AnsiText(CZepUTF8& text) {
  const auto [length, ansi] = text.Ansi();
  return FromPointer<cstring::string_type>(ansi, length);
}

std::u16string WideText(CZepUTF8& text) {
  const auto [length, wide] = text.Unicode();
  return FromPointer<std::u16string>(wide, length);
}

}  // namespace

// --- wcstring ---

wcstring::toadstool_string(const char16_t* text) : toadstool_base(FromPointer<string_type>(text)) {}
wcstring::toadstool_string(const char16_t* text, size_type length)
    : toadstool_base(FromPointer<string_type>(text, length)) {}
wcstring::toadstool_string(const toadstool_string& other, size_type start, size_type count)
    : toadstool_base(string_type(other.m_text, start, count)) {}
wcstring::toadstool_string(const cstring& other) : toadstool_base(string_type(other.unicode())) {}
wcstring::toadstool_string(CZepUTF8& other) : toadstool_base(WideText(other)) {}

wcstring& wcstring::operator=(const char16_t* text) {
  m_text = FromPointer<string_type>(text);
  return *this;
}

wcstring& wcstring::operator=(const cstring& other) {
  m_text = other.unicode();
  return *this;
}

wcstring& wcstring::operator+=(char16_t c) {
  m_text += c;
  return *this;
}

wcstring& wcstring::append(view_type text) {
  m_text.append(text);
  return *this;
}

const char* wcstring::ascii() const {
  m_converted.reset();
  if (!IsCountable(m_text.size())) throw CharConversion_error("wcstring::ascii");
  const int units = static_cast<int>(m_text.size()) + 1;
  platform::ErrorCode error = platform::ERROR_SUCCESS;
  const int size = platform::WideCharToMultiByte(platform::kCodePageSystem, 0, m_text.c_str(), units, nullptr, 0,
                                                 nullptr, nullptr, error);
  if (size == 0) throw CharConversion_error("wcstring::ascii");
  auto converted = std::make_unique<char[]>(static_cast<std::size_t>(size));
  bool usedDefault = false;
  const int written = platform::WideCharToMultiByte(platform::kCodePageSystem, 0, m_text.c_str(), units,
                                                    converted.get(), size, nullptr, &usedDefault, error);
  if (written == 0 || usedDefault) throw CharConversion_error("wcstring::ascii");
  m_converted = std::move(converted);
  return m_converted.get();
}

CZepUTF8 wcstring::utf8() const {
  return CZepUTF8(m_text.c_str(), m_text.size());
}

wcstring wcstring::tolower() const {
  string_type text = m_text;
  std::transform(text.begin(), text.end(), text.begin(), platform::ToLowerSimple);
  return wcstring(std::move(text));
}

wcstring wcstring::toupper() const {
  string_type text = m_text;
  std::transform(text.begin(), text.end(), text.begin(), platform::ToUpperSimple);
  return wcstring(std::move(text));
}

void wcstring::Print(std::ostream& stream) const {
  try {
    stream << ascii();
  } catch (const CharConversion_error&) {
    stream << "Unicode to ascii failure";
  }
}

void wcstring::Read(std::istream& stream) {
  m_text.clear();
  const cstring narrow(TakeToken(stream, LeadingSpace::kEndsTheToken));
  m_text = narrow.unicode();
}

// --- cstring ---

cstring::toadstool_string(const char* text) : toadstool_base(FromPointer<string_type>(text)) {}
cstring::toadstool_string(const char* text, size_type length)
    : toadstool_base(FromPointer<string_type>(text, length)) {}
cstring::toadstool_string(const toadstool_string& other, size_type start, size_type count)
    : toadstool_base(string_type(other.m_text, start, count)) {}
cstring::toadstool_string(const wcstring& other) : toadstool_base(string_type(other.ascii())) {}
cstring::toadstool_string(CZepUTF8& other) : toadstool_base(AnsiText(other)) {}

cstring& cstring::operator=(const char* text) {
  m_text = FromPointer<string_type>(text);
  return *this;
}

cstring& cstring::operator=(const wcstring& other) {
  m_text = other.ascii();
  return *this;
}

cstring& cstring::operator+=(char c) {
  m_text += c;
  return *this;
}

cstring& cstring::append(view_type text) {
  m_text.append(text);
  return *this;
}

const char16_t* cstring::unicode() const {
  m_converted.reset();
  const std::size_t length = m_text.size();
  m_converted = std::make_unique<char16_t[]>(length + 1);
  if (IsCountable(length)) {
    const int count = static_cast<int>(length) + 1;
    platform::ErrorCode error = platform::ERROR_SUCCESS;
    (void)platform::MultiByteToWideChar(platform::kCodePageSystem, 0, m_text.c_str(), count, m_converted.get(), count,
                                        error);
  }
  m_converted[length] = u'\0';
  return m_converted.get();
}

CZepUTF8 cstring::utf8() const {
  return CZepUTF8(m_text.c_str(), m_text.size(), platform::kCodePageSystem);
}

cstring cstring::tolower() const {
  string_type text = m_text;
  for (char& c : text) c = c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c;
  return cstring(std::move(text));
}

cstring cstring::toupper() const {
  string_type text = m_text;
  for (char& c : text) c = c >= 'a' && c <= 'z' ? static_cast<char>(c - ('a' - 'A')) : c;
  return cstring(std::move(text));
}

void cstring::Print(std::ostream& stream) const {
  stream << std::string_view(m_text.data(), m_text.size());
}

void cstring::Read(std::istream& stream) {
  m_text.clear();
  const std::string token = TakeToken(stream, LeadingSpace::kEndsTheToken);
  m_text.assign(token.data(), token.size());
}

}  // namespace ZepFoundation
