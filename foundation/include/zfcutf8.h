// foundation/include/zfcutf8.h: CZepUTF8, text kept as UTF-8 with one cached conversion.
//
// Threads: one object is used by one thread at a time: the conversions change it although they read as queries.
#pragma once

#include <cstdint>
#include <exception>
#include <iosfwd>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "foundation/include/zfcexport.h"
#include "platform/error_codes.h"
#include "platform/text.h"

namespace ZepFoundation ZEP_FOUNDATION_API {

class bistream;
class bostream;

// A failed conversion, thrown by value.
//   code  the platform's code, with its text: 87 "Invalid parameter", 122 "Insufficient Buffer", 1004 "Invalid flags",
//         1113 "Translation error", any other "Unknown error"; 14 "bad_alloc" for an exhausted allocation
class CZepUTFError : public std::exception {
 public:
  // Finds the text for the code.
  explicit CZepUTFError(platform::ErrorCode code);

  [[nodiscard]] std::int32_t code() const { return m_code; }
  [[nodiscard]] const char* what() const noexcept override { return m_text.c_str(); }

 private:
  std::int32_t m_code;
  std::string m_text;
};

// All operations that make or convert text throw CZepUTFError; the object is unchanged then.
// Lengths are bytes or UTF-16 units without the terminator; the pointers handed out are NUL-terminated and stay valid
// until the next conversion into another form, a change of the text, or the end of the object.
class CZepUTF8 {
 public:
  // What the cache holds.
  enum CachedKind : std::int32_t {
    kUnknownKind = 0,  // never reused
    kAnsi = 1,         // the system code page
    kUtf7 = 3,
    kUtf8 = 4,
    kUtf16 = 5,
  };

  CZepUTF8() = default;
  // A null text or a length of 0 gives the empty object. Under code page 65001 the bytes are copied as they are.
  CZepUTF8(const char* text, std::uint64_t length, platform::CodePage codePage);
  CZepUTF8(const char16_t* text, std::uint64_t length);
  // The text without the cache.
  CZepUTF8(const CZepUTF8& other);
  // Leaves the empty object behind.
  CZepUTF8(CZepUTF8&& other) noexcept;
  virtual ~CZepUTF8() = default;
  CZepUTF8& operator=(const CZepUTF8& other);
  CZepUTF8& operator=(CZepUTF8&& other) noexcept;

  // The bytes of the text, compared unsigned.
  bool operator==(const CZepUTF8& other) const;
  bool operator<(const CZepUTF8& other) const;
  CZepUTF8 operator+(const CZepUTF8& other) const;
  void Append(const CZepUTF8& other);

  // Converts afresh on each call; ill-formed bytes are U+FFFD. An empty object gives 0 and null, here and below.
  std::pair<std::uint32_t, const char16_t*> Unicode();
  std::pair<std::uint32_t, const char*> Utf8() const;
  // From the cache when it holds that form.
  std::pair<std::uint32_t, const char*> Utf7();
  std::pair<std::uint32_t, const char*> Ansi();
  // Code pages of platform/text.h; any other throws with 87.
  std::pair<std::uint32_t, const char*> MultibyteStr(platform::CodePage codePage);

  // A 32-bit byte count in the stream's byte order, then the bytes. Reading drops text and cache first.
  void BinaryOut(bostream& stream) const;
  void BinaryIn(bistream& stream);

  // Inserts the UTF-8 bytes, or the UTF-16 units.
  void Print(std::ostream& stream) const;
  void Print(std::basic_ostream<char16_t>& stream);
  // Replaces the text by the characters up to and including the first white space, which is dropped, or to the end.
  void Read(std::istream& stream);
  void Read(std::basic_istream<char16_t>& stream);

  // What the cache holds now.
  [[nodiscard]] CachedKind cachedKind() const { return m_cachedKind; }

 private:
  // Buffers come from the told allocation "CZepUTF8" of platform/memory.h.
  struct Release {
    void operator()(void* buffer) const;
  };
  template <class T>
  using Buffer = std::unique_ptr<T[], Release>;

  template <class T>
  static Buffer<T> Make(std::uint64_t count);
  static std::pair<Buffer<char16_t>, int> Widen(const char* text, std::uint64_t length, platform::CodePage codePage);
  static std::pair<Buffer<char>, int> Narrow(const char16_t* text, std::uint64_t length, platform::CodePage codePage);
  std::pair<std::uint32_t, const char*> Cached(platform::CodePage codePage, CachedKind kind);
  void DropCache();
  void Swap(CZepUTF8& other) noexcept;
  [[nodiscard]] std::string_view Bytes() const;

  std::uint64_t m_utf8Length = 0;
  Buffer<char> m_utf8;
  CachedKind m_cachedKind = kUnknownKind;
  std::uint64_t m_cachedLength = 0;
  std::unique_ptr<void, Release> m_cached;
};

}  // namespace ZepFoundation
