#include <algorithm>
#include <climits>
#include <cstring>
#include <istream>
#include <ostream>
#include <string_view>

#include "foundation/include/zfcutf8.h"
#include "foundation/src/stream_token.h"
#include "platform/memory.h"

namespace ZepFoundation {
namespace {

const char* ErrorText(platform::ErrorCode code) {
  struct Row {
    platform::ErrorCode code;
    const char* text;
  };
  static constexpr Row kRows[] = {
      {platform::ERROR_INVALID_PARAMETER, "Invalid parameter"},
      {platform::ERROR_INSUFFICIENT_BUFFER, "Insufficient Buffer"},
      {platform::ERROR_INVALID_FLAGS, "Invalid flags"},
      {platform::ERROR_NO_UNICODE_TRANSLATION, "Translation error"},
      {platform::ERROR_OUTOFMEMORY, "bad_alloc"},
  };
  for (const Row& row : kRows) {
    if (row.code == code) return row.text;
  }
  return "Unknown error";
}

// The platform's calls count in ints.
int Countable(std::uint64_t length) {
  if (length >= static_cast<std::uint64_t>(INT_MAX)) throw CZepUTFError(platform::ERROR_INVALID_PARAMETER);
  return static_cast<int>(length);
}

}  // namespace

CZepUTFError::CZepUTFError(platform::ErrorCode code)
    : m_code(static_cast<std::int32_t>(code)), m_text(ErrorText(code)) {}

void CZepUTF8::Release::operator()(void* buffer) const {
  platform::Free(buffer);
}

template <class T>
CZepUTF8::Buffer<T> CZepUTF8::Make(std::uint64_t count) {
  Buffer<T> buffer(static_cast<T*>(platform::Allocate(static_cast<std::size_t>(count) * sizeof(T), "CZepUTF8")));
  if (!buffer) throw CZepUTFError(platform::ERROR_OUTOFMEMORY);
  return buffer;
}

// The converted text, NUL-terminated, and its count without the terminator. A text of shift characters alone (UTF-7)
// converts to nothing, which is no failure.
std::pair<CZepUTF8::Buffer<char16_t>, int> CZepUTF8::Widen(const char* text, std::uint64_t length,
                                                           platform::CodePage codePage) {
  const int count = Countable(length);
  platform::ErrorCode error = platform::ERROR_SUCCESS;
  const int size = platform::MultiByteToWideChar(codePage, 0, text, count, nullptr, 0, error);
  if (size == 0 && error != platform::ERROR_SUCCESS) throw CZepUTFError(error);
  Buffer<char16_t> wide = Make<char16_t>(static_cast<std::uint64_t>(size) + 1);
  if (size != 0 && platform::MultiByteToWideChar(codePage, 0, text, count, wide.get(), size, error) == 0) {
    throw CZepUTFError(error);
  }
  return {std::move(wide), size};
}

std::pair<CZepUTF8::Buffer<char>, int> CZepUTF8::Narrow(const char16_t* text, std::uint64_t length,
                                                        platform::CodePage codePage) {
  const int count = Countable(length);
  if (count == 0) return {Make<char>(1), 0};
  platform::ErrorCode error = platform::ERROR_SUCCESS;
  const int size = platform::WideCharToMultiByte(codePage, 0, text, count, nullptr, 0, nullptr, nullptr, error);
  if (size == 0) throw CZepUTFError(error);
  Buffer<char> narrow = Make<char>(static_cast<std::uint64_t>(size) + 1);
  if (platform::WideCharToMultiByte(codePage, 0, text, count, narrow.get(), size, nullptr, nullptr, error) == 0) {
    throw CZepUTFError(error);
  }
  return {std::move(narrow), size};
}

CZepUTF8::CZepUTF8(const char* text, std::uint64_t length, platform::CodePage codePage) {
  if (text == nullptr || length == 0) return;
  if (codePage == platform::kCodePageUtf8) {
    m_utf8 = Make<char>(static_cast<std::uint64_t>(Countable(length)) + 1);
    std::memcpy(m_utf8.get(), text, length);
    m_utf8Length = length;
    return;
  }
  const auto [wide, units] = Widen(text, length, codePage);
  *this = CZepUTF8(wide.get(), static_cast<std::uint64_t>(units));
}

CZepUTF8::CZepUTF8(const char16_t* text, std::uint64_t length) {
  if (text == nullptr || length == 0) return;
  auto [bytes, count] = Narrow(text, length, platform::kCodePageUtf8);
  m_utf8 = std::move(bytes);
  m_utf8Length = static_cast<std::uint64_t>(count);
}

CZepUTF8::CZepUTF8(const CZepUTF8& other) : CZepUTF8(other.m_utf8.get(), other.m_utf8Length, platform::kCodePageUtf8) {}

CZepUTF8::CZepUTF8(CZepUTF8&& other) noexcept {
  Swap(other);
}

CZepUTF8& CZepUTF8::operator=(const CZepUTF8& other) {
  CZepUTF8 copy(other);
  Swap(copy);
  return *this;
}

CZepUTF8& CZepUTF8::operator=(CZepUTF8&& other) noexcept {
  CZepUTF8 taken(std::move(other));
  Swap(taken);
  return *this;
}

void CZepUTF8::Swap(CZepUTF8& other) noexcept {
  std::swap(m_utf8Length, other.m_utf8Length);
  std::swap(m_utf8, other.m_utf8);
  std::swap(m_cachedKind, other.m_cachedKind);
  std::swap(m_cachedLength, other.m_cachedLength);
  std::swap(m_cached, other.m_cached);
}

bool CZepUTF8::operator==(const CZepUTF8& other) const {
  return Bytes() == other.Bytes();
}

bool CZepUTF8::operator<(const CZepUTF8& other) const {
  return Bytes() < other.Bytes();
}

CZepUTF8 CZepUTF8::operator+(const CZepUTF8& other) const {
  CZepUTF8 sum(*this);
  sum.Append(other);
  return sum;
}

void CZepUTF8::Append(const CZepUTF8& other) {
  if (other.m_utf8Length == 0) return;
  const std::uint64_t length = m_utf8Length + other.m_utf8Length;
  Buffer<char> joined = Make<char>(static_cast<std::uint64_t>(Countable(length)) + 1);
  if (m_utf8Length != 0) std::memcpy(joined.get(), m_utf8.get(), m_utf8Length);
  std::memcpy(joined.get() + m_utf8Length, other.m_utf8.get(), other.m_utf8Length);
  DropCache();
  m_utf8 = std::move(joined);
  m_utf8Length = length;
}

std::pair<std::uint32_t, const char16_t*> CZepUTF8::Unicode() {
  if (m_utf8Length == 0) return {0, nullptr};
  auto [wide, count] = Widen(m_utf8.get(), m_utf8Length, platform::kCodePageUtf8);
  const char16_t* const text = wide.get();
  m_cached.reset(wide.release());
  m_cachedKind = kUtf16;
  m_cachedLength = static_cast<std::uint64_t>(count);
  return {static_cast<std::uint32_t>(count), text};
}

std::pair<std::uint32_t, const char*> CZepUTF8::Utf8() const {
  return {static_cast<std::uint32_t>(m_utf8Length), m_utf8.get()};
}

std::pair<std::uint32_t, const char*> CZepUTF8::Utf7() {
  return Cached(platform::kCodePageUtf7, kUtf7);
}

std::pair<std::uint32_t, const char*> CZepUTF8::Ansi() {
  return Cached(platform::kCodePageSystem, kAnsi);
}

std::pair<std::uint32_t, const char*> CZepUTF8::MultibyteStr(platform::CodePage codePage) {
  struct Row {
    platform::CodePage codePage;
    CachedKind kind;
  };
  static constexpr Row kRows[] = {
      {platform::kCodePageSystem, kAnsi}, {platform::kCodePageUtf7, kUtf7}, {platform::kCodePageUtf8, kUtf8}};
  const auto* row =
      std::find_if(std::begin(kRows), std::end(kRows), [&](const Row& r) { return r.codePage == codePage; });
  return Cached(codePage, row == std::end(kRows) ? kUnknownKind : row->kind);
}

std::pair<std::uint32_t, const char*> CZepUTF8::Cached(platform::CodePage codePage, CachedKind kind) {
  if (m_utf8Length == 0) return {0, nullptr};
  if (!m_cached || m_cachedKind != kind || kind == kUnknownKind) {
    auto [wide, units] = Widen(m_utf8.get(), m_utf8Length, platform::kCodePageUtf8);
    auto [bytes, count] = Narrow(wide.get(), static_cast<std::uint64_t>(units), codePage);
    m_cached.reset(bytes.release());
    m_cachedKind = kind;
    m_cachedLength = static_cast<std::uint64_t>(count);
  }
  return {static_cast<std::uint32_t>(m_cachedLength), static_cast<const char*>(m_cached.get())};
}

void CZepUTF8::DropCache() {
  m_cached.reset();
  m_cachedKind = kUnknownKind;
  m_cachedLength = 0;
}

std::string_view CZepUTF8::Bytes() const {
  return {m_utf8.get(), static_cast<std::size_t>(m_utf8Length)};
}

void CZepUTF8::Print(std::ostream& stream) const {
  stream << Bytes();
}

void CZepUTF8::Print(std::basic_ostream<char16_t>& stream) {
  const auto [count, text] = Unicode();
  if (count != 0) stream.write(text, static_cast<std::streamsize>(count));
}

void CZepUTF8::Read(std::istream& stream) {
  const std::string token = TakeToken(stream, LeadingSpace::kEndsTheToken);
  *this = CZepUTF8(token.data(), token.size(), platform::kCodePageUtf8);
}

void CZepUTF8::Read(std::basic_istream<char16_t>& stream) {
  const std::u16string token = TakeToken(stream, LeadingSpace::kEndsTheToken);
  *this = CZepUTF8(token.data(), token.size());
}

}  // namespace ZepFoundation
