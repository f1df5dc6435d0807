// The binary forms of strings, UTF-8 text and identifiers.
#include <algorithm>
#include <climits>
#include <cstdint>
#include <string>

#include "foundation/include/zfcbytes.h"
#include "foundation/include/zfcguid.h"
#include "foundation/include/zfcstring.h"
#include "foundation/include/zfcutf8.h"

namespace ZepFoundation {
namespace {

// Elements that are read at a time: a count from outside reserves no more than this ahead of the bytes.
constexpr std::uint32_t kChunk = 4096;

// Appends up to `count` elements as they stand in memory; what came before a failure stays, whole elements only.
template <class String>
void ReadElements(bistream& stream, std::uint32_t count, String& text) {
  using T = typename String::value_type;
  T chunk[kChunk];
  while (count != 0 && stream.good()) {
    const std::uint32_t wanted = std::min(count, kChunk);
    stream.read(reinterpret_cast<char*>(chunk), static_cast<std::int32_t>(wanted * sizeof(T)));
    text.append(chunk, stream.good() ? wanted : static_cast<std::uint32_t>(stream.gcount()) / sizeof(T));
    count -= wanted;
  }
}

// The count in front of a text; 0 when it can't be read.
std::uint32_t ReadCount(bistream& stream) {
  std::uint32_t count = 0;
  stream >> count;
  return stream.good() ? count : 0;
}

}  // namespace

void wcstring::BinaryOut(bostream& stream) const {
  stream << static_cast<std::uint32_t>(m_text.size());
  if (m_text.empty()) return;
  stream.write(reinterpret_cast<const char*>(m_text.data()),
               static_cast<std::streamsize>(m_text.size() * sizeof(char16_t)));
}

void wcstring::BinaryIn(bistream& stream) {
  m_text.clear();
  ReadElements(stream, ReadCount(stream), m_text);
}

void wcstring::BinaryIn2(bistream& stream) {
  m_text.clear();
  for (;;) {
    std::uint16_t unit = 0;
    stream >> unit;
    if (!stream.good() || unit == 0) return;
    m_text.push_back(static_cast<char16_t>(unit));
  }
}

void cstring::BinaryOut(bostream& stream) const {
  stream << static_cast<std::uint32_t>(m_text.size());
  if (!m_text.empty()) stream.write(m_text.data(), static_cast<std::streamsize>(m_text.size()));
}

void cstring::BinaryIn(bistream& stream) {
  m_text.clear();
  const std::uint32_t count = ReadCount(stream);
  if (static_cast<std::int32_t>(count) > 0) ReadElements(stream, count, m_text);
}

void CZepUTF8::BinaryOut(bostream& stream) const {
  stream << static_cast<std::uint32_t>(m_utf8Length);
  if (m_utf8Length != 0) stream.write(m_utf8.get(), static_cast<std::streamsize>(m_utf8Length));
}

void CZepUTF8::BinaryIn(bistream& stream) {
  *this = CZepUTF8();
  const std::uint32_t count = ReadCount(stream);
  if (count >= static_cast<std::uint32_t>(INT_MAX)) {
    stream.setstate(std::ios_base::failbit);  // more than a text can hold
    return;
  }
  std::string bytes;
  ReadElements(stream, count, bytes);
  *this = CZepUTF8(bytes.data(), bytes.size(), platform::kCodePageUtf8);
}

void CGUID::BinaryOut(bostream& stream) const {
  stream << Data1 << Data2 << Data3;
  stream.write(Data4, sizeof Data4);
}

void CGUID::BinaryIn(bistream& stream) {
  platform::GUID guid;
  stream >> guid.Data1 >> guid.Data2 >> guid.Data3;
  stream.read(reinterpret_cast<char*>(guid.Data4), sizeof guid.Data4);
  static_cast<platform::GUID&>(*this) = stream.good() ? guid : platform::GUID();
}

}  // namespace ZepFoundation
