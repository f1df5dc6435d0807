// foundation/include/zfcstring.h: wcstring and cstring, the wide and narrow string values.
//
// Conversions go by the platform's system code page (platform/text.h).
// Threads: one object is used by one thread at a time: ascii() and unicode() change it although they read as queries.
#pragma once

#include <compare>
#include <cstddef>
#include <functional>
#include <iosfwd>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "foundation/include/zfcexport.h"

namespace ZepFoundation ZEP_FOUNDATION_API {

class bistream;
class bostream;
class CZepUTF8;

// A text that has no form in the code page; carries the name of the failing operation.
class CharConversion_error : public std::runtime_error {
 public:
  explicit CharConversion_error(const char* operation) : std::runtime_error(operation) {}
};

// Traits of narrow, possibly multibyte text: bytes, compared as such.
template <class CharT>
struct mbs_char_traits : std::char_traits<CharT> {};

template <class CharT, class Traits>
class toadstool_string;

using wcstring = toadstool_string<char16_t, std::char_traits<char16_t>>;
using cstring = toadstool_string<char, mbs_char_traits<char>>;

// What both strings have in common: the text, the conversion that was asked for last, and the operations of a string
// value. `Other` is the character type that the text is converted to.
template <class CharT, class Traits, class Other>
class toadstool_base {
 public:
  using string_type = std::basic_string<CharT, Traits>;
  using view_type = std::basic_string_view<CharT, Traits>;
  using value_type = CharT;
  using size_type = std::size_t;
  using const_iterator = typename string_type::const_iterator;
  static constexpr size_type npos = string_type::npos;

  virtual ~toadstool_base() = default;
  // The text in the system code page and as UTF-16, NUL-terminated. A pointer to a conversion stays valid until the
  // next conversion call or the end of the string, one to the text itself until the text changes.
  virtual const char* ascii() const = 0;
  virtual const char* ascii() { return std::as_const(*this).ascii(); }
  virtual const char16_t* unicode() const = 0;
  virtual const char16_t* unicode() { return std::as_const(*this).unicode(); }
  virtual CZepUTF8 utf8() const = 0;

  [[nodiscard]] const string_type& str() const { return m_text; }
  [[nodiscard]] view_type view() const { return m_text; }
  operator view_type() const { return m_text; }
  [[nodiscard]] const CharT* c_str() const { return m_text.c_str(); }
  [[nodiscard]] const CharT* data() const { return m_text.data(); }
  [[nodiscard]] size_type length() const { return m_text.length(); }
  [[nodiscard]] size_type size() const { return m_text.size(); }
  [[nodiscard]] bool empty() const { return m_text.empty(); }
  [[nodiscard]] const_iterator begin() const { return m_text.begin(); }
  [[nodiscard]] const_iterator end() const { return m_text.end(); }
  // Index below length() for both.
  [[nodiscard]] CharT operator[](size_type index) const { return m_text[index]; }
  [[nodiscard]] CharT& operator[](size_type index) { return m_text[index]; }
  // Throws std::out_of_range.
  [[nodiscard]] CharT at(size_type index) const { return m_text.at(index); }
  [[nodiscard]] size_type find(view_type text, size_type from = 0) const { return view().find(text, from); }
  [[nodiscard]] size_type find(CharT c, size_type from = 0) const { return view().find(c, from); }
  [[nodiscard]] size_type rfind(view_type text, size_type from = npos) const { return view().rfind(text, from); }
  [[nodiscard]] size_type rfind(CharT c, size_type from = npos) const { return view().rfind(c, from); }

  void clear() { m_text.clear(); }
  void reserve(size_type count) { m_text.reserve(count); }
  void push_back(CharT c) { m_text.push_back(c); }

 protected:
  toadstool_base() = default;
  explicit toadstool_base(string_type text) : m_text(std::move(text)) {}
  // The conversion belongs to one object: a copy starts without one, an assignment keeps the target's own.
  toadstool_base(const toadstool_base& other) : m_text(other.m_text) {}
  toadstool_base(toadstool_base&& other) noexcept : m_text(std::move(other.m_text)) {}
  toadstool_base& operator=(const toadstool_base& other) {
    m_text = other.m_text;
    return *this;
  }
  toadstool_base& operator=(toadstool_base&& other) noexcept {
    m_text = std::move(other.m_text);
    return *this;
  }

  string_type m_text;
  mutable std::unique_ptr<Other[]> m_converted;  // null until the first conversion
};

// The wide string: UTF-16 units.
template <>
class toadstool_string<char16_t, std::char_traits<char16_t>>
    : public toadstool_base<char16_t, std::char_traits<char16_t>, char> {
 public:
  toadstool_string() = default;
  // Null counts as empty.
  toadstool_string(const char16_t* text);
  toadstool_string(const char16_t* text, size_type length);
  // Throws std::out_of_range for a start behind the end.
  toadstool_string(const toadstool_string& other, size_type start, size_type count = npos);
  toadstool_string(string_type text) : toadstool_base(std::move(text)) {}
  explicit toadstool_string(view_type text) : toadstool_base(string_type(text)) {}
  // By the system code page, up to the first NUL; what it can't read is U+FFFD.
  explicit toadstool_string(const cstring& other);
  explicit toadstool_string(CZepUTF8& other);
  toadstool_string(size_type count, char16_t fill) : toadstool_base(string_type(count, fill)) {}
  toadstool_string(const toadstool_string&) = default;
  toadstool_string(toadstool_string&&) noexcept = default;
  ~toadstool_string() override = default;

  toadstool_string& operator=(const toadstool_string&) = default;
  toadstool_string& operator=(toadstool_string&&) noexcept = default;
  toadstool_string& operator=(const char16_t* text);
  toadstool_string& operator=(const cstring& other);

  toadstool_string& operator+=(view_type text) { return append(text); }
  toadstool_string& operator+=(char16_t c);
  toadstool_string& append(view_type text);
  [[nodiscard]] toadstool_string substr(size_type start, size_type count = npos) const { return {*this, start, count}; }

  // Throws CharConversion_error "wcstring::ascii" when a character has no form in the system code page. Best fit counts
  // as a form; under UTF-8 only a lone surrogate has none.
  const char* ascii() const override;
  using toadstool_base::ascii;
  const char16_t* unicode() const override { return m_text.c_str(); }
  using toadstool_base::unicode;
  CZepUTF8 utf8() const override;

  // Simple case mapping, without a locale.
  [[nodiscard]] toadstool_string tolower() const;
  [[nodiscard]] toadstool_string toupper() const;

  // Inserts ascii(), or "Unicode to ascii failure" when that throws CharConversion_error.
  void Print(std::ostream& stream) const;
  // Clears the string, takes characters up to and including the first white space (blank, \t, \n, \v, \f, \r) or to the
  // end of the stream, and widens what stands before it. Leading white space is not skipped: it ends an empty text.
  void Read(std::istream& stream);

  // A 32-bit count in the stream's byte order, then the units as they stand in memory.
  void BinaryOut(bostream& stream) const;
  // Reads that form. Memory grows with the bytes that arrive; a short read keeps the units that came and leaves the
  // failure in the stream's state.
  void BinaryIn(bistream& stream);
  // Reads units up to and excluding the first zero unit, or until the stream fails: a form that BinaryOut doesn't
  // write.
  void BinaryIn2(bistream& stream);
};

// The narrow string: bytes in the system code page.
template <>
class toadstool_string<char, mbs_char_traits<char>> : public toadstool_base<char, mbs_char_traits<char>, char16_t> {
 public:
  toadstool_string() = default;
  // Null counts as empty.
  toadstool_string(const char* text);
  toadstool_string(const char* text, size_type length);
  // Throws std::out_of_range for a start behind the end.
  toadstool_string(const toadstool_string& other, size_type start, size_type count = npos);
  toadstool_string(string_type text) : toadstool_base(std::move(text)) {}
  explicit toadstool_string(view_type text) : toadstool_base(string_type(text)) {}
  explicit toadstool_string(std::string_view text) : toadstool_base(string_type(text.data(), text.size())) {}
  explicit toadstool_string(const std::string& text) : toadstool_string(std::string_view(text)) {}
  // Through ascii(), up to the first NUL: throws CharConversion_error.
  explicit toadstool_string(const wcstring& other);
  explicit toadstool_string(CZepUTF8& other);
  toadstool_string(size_type count, char fill) : toadstool_base(string_type(count, fill)) {}
  toadstool_string(const toadstool_string&) = default;
  toadstool_string(toadstool_string&&) noexcept = default;
  ~toadstool_string() override = default;

  toadstool_string& operator=(const toadstool_string&) = default;
  toadstool_string& operator=(toadstool_string&&) noexcept = default;
  toadstool_string& operator=(const char* text);
  // Through ascii(): throws CharConversion_error, the string unchanged.
  toadstool_string& operator=(const wcstring& other);

  toadstool_string& operator+=(view_type text) { return append(text); }
  toadstool_string& operator+=(char c);
  toadstool_string& append(view_type text);
  [[nodiscard]] toadstool_string substr(size_type start, size_type count = npos) const { return {*this, start, count}; }

  const char* ascii() const override { return m_text.c_str(); }
  using toadstool_base::ascii;
  // Reports no error: what the code page can't read is U+FFFD, and a failed conversion an empty text.
  const char16_t* unicode() const override;
  using toadstool_base::unicode;
  CZepUTF8 utf8() const override;

  // ASCII letters; all other bytes stay, whatever the code page.
  [[nodiscard]] toadstool_string tolower() const;
  [[nodiscard]] toadstool_string toupper() const;

  // Inserts the text.
  void Print(std::ostream& stream) const;
  // As the wide string's, without the widening.
  void Read(std::istream& stream);

  // A 32-bit count in the stream's byte order, then the bytes. On reading, a count of zero, or one that is negative as
  // a signed number, is an empty text.
  void BinaryOut(bostream& stream) const;
  void BinaryIn(bistream& stream);
};

// Comparison and ordering are those of the text. A pointer that is compared with or appended is never null.
inline bool operator==(const wcstring& a, const wcstring& b) {
  return a.view() == b.view();
}
inline bool operator==(const wcstring& a, const char16_t* b) {
  return a.view() == std::u16string_view(b);
}
inline std::strong_ordering operator<=>(const wcstring& a, const wcstring& b) {
  return a.view() <=> b.view();
}
inline std::strong_ordering operator<=>(const wcstring& a, const char16_t* b) {
  return a.view() <=> std::u16string_view(b);
}
inline bool operator==(const cstring& a, const cstring& b) {
  return a.view() == b.view();
}
inline bool operator==(const cstring& a, const char* b) {
  return a.view() == cstring::view_type(b);
}
inline std::strong_ordering operator<=>(const cstring& a, const cstring& b) {
  return a.view().compare(b.view()) <=> 0;
}
inline std::strong_ordering operator<=>(const cstring& a, const char* b) {
  return a.view().compare(cstring::view_type(b)) <=> 0;
}

inline wcstring operator+(wcstring a, const wcstring& b) {
  return std::move(a += b.view());
}
inline wcstring operator+(wcstring a, const char16_t* b) {
  return std::move(a += wcstring::view_type(b));
}
inline wcstring operator+(const char16_t* a, const wcstring& b) {
  return wcstring(a) + b;
}
inline wcstring operator+(wcstring a, char16_t b) {
  return std::move(a += b);
}
inline cstring operator+(cstring a, const cstring& b) {
  return std::move(a += b.view());
}
inline cstring operator+(cstring a, const char* b) {
  return std::move(a += cstring::view_type(b));
}
inline cstring operator+(const char* a, const cstring& b) {
  return cstring(a) + b;
}
inline cstring operator+(cstring a, char b) {
  return std::move(a += b);
}

}  // namespace ZepFoundation

template <>
struct std::hash<ZepFoundation::wcstring> {
  std::size_t operator()(const ZepFoundation::wcstring& text) const noexcept {
    return std::hash<std::u16string_view>()(text.view());
  }
};
