#include "platform/text.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <climits>
#include <cstring>
#include <iterator>
#include <type_traits>

#include "platform/fault_point.h"

namespace platform {
namespace {

constexpr char16_t kReplacement = 0xFFFD;

std::atomic<CodePage> g_systemCodePage{kCodePageUtf8};

// Where converted elements go: counted always, stored while they fit. A group (a pair, a sequence) is stored whole or
// not at all, and nothing behind the first one that didn't fit.
template <class T>
class Sink {
 public:
  Sink(T* out, std::size_t room) : m_out(out), m_room(room) {}

  void Put(T element) { Put(&element, 1); }
  void Put(const T* group, std::size_t count) {
    if (!m_full && m_room - m_stored >= count) {
      std::copy_n(group, count, m_out + m_stored);
      m_stored += count;
    } else {
      m_full = true;
    }
    m_count += count;
  }
  // Characters that are one element here and there.
  template <class From>
  void PutEach(const From* text, std::size_t count) {
    const std::size_t fitting = m_full ? 0 : std::min(count, m_room - m_stored);
    std::copy_n(text, fitting, m_out + m_stored);
    m_stored += fitting;
    m_full = m_full || fitting < count;
    m_count += count;
  }
  [[nodiscard]] std::size_t count() const { return m_count; }
  [[nodiscard]] std::size_t stored() const { return m_stored; }

 private:
  T* m_out;
  std::size_t m_room;
  std::size_t m_stored = 0;
  std::size_t m_count = 0;
  bool m_full = false;
};

// Appends to a string: the conversions that cannot fail.
template <class T>
class StringSink {
 public:
  explicit StringSink(std::basic_string<T>& out) : m_out(out) {}
  void Put(T element) { m_out.push_back(element); }
  void Put(const T* group, std::size_t count) { m_out.append(group, count); }

 private:
  std::basic_string<T>& m_out;
};

constexpr bool IsHigh(char16_t unit) {
  return unit >= 0xD800 && unit < 0xDC00;
}
constexpr bool IsLow(char16_t unit) {
  return unit >= 0xDC00 && unit < 0xE000;
}

// --- UTF-8 ---

constexpr char32_t kIllFormed = 0xFFFFFFFF;

// Takes one character off text[at..size), or what one U+FFFD stands for, and moves `at` behind it.
char32_t NextUtf8(const char* text, std::size_t size, std::size_t& at) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = byte(at++);
  if (lead < 0x80) return lead;
  int following = 0;
  char32_t value = 0;
  if (lead >= 0xC2 && lead <= 0xDF) {
    following = 1;
    value = lead & 0x1Fu;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    following = 2;
    value = lead & 0x0Fu;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    following = 3;
    value = lead & 0x07u;
  } else {
    return kIllFormed;
  }
  for (int i = 0; i < following; ++i) {
    if (at == size || (byte(at) & 0xC0) != 0x80) return kIllFormed;
    value = (value << 6) | (byte(at++) & 0x3Fu);
    // The first continuation byte decides whether the form can become a character; it counts as part of it either way.
    if (i != 0) continue;
    if (following == 2 && (value < 0x20 || (value >= 0x360 && value < 0x380))) return kIllFormed;
    if (following == 3 && (value < 0x10 || value >= 0x110)) return kIllFormed;
  }
  return value;
}

// How many ASCII characters stand in front.
template <class Char>
std::size_t AsciiRun(const Char* text, std::size_t size) {
  using Unit = std::make_unsigned_t<Char>;
  return static_cast<std::size_t>(
      std::find_if(text, text + size, [](Char c) { return static_cast<Unit>(c) >= 0x80; }) - text);
}

bool Utf8ToWide(const char* text, std::size_t size, Sink<char16_t>& sink) {
  bool wellFormed = true;
  for (std::size_t at = 0; at < size;) {
    if (const std::size_t run = AsciiRun(text + at, size - at); run != 0) {
      sink.PutEach(text + at, run);
      at += run;
      continue;
    }
    const char32_t c = NextUtf8(text, size, at);
    if (c == kIllFormed) {
      wellFormed = false;
      sink.Put(kReplacement);
    } else if (c < 0x10000) {
      sink.Put(static_cast<char16_t>(c));
    } else {
      const char16_t pair[] = {static_cast<char16_t>(0xD7C0 + (c >> 10)), static_cast<char16_t>(0xDC00 | (c & 0x3FF))};
      sink.Put(pair, 2);
    }
  }
  return wellFormed;
}

std::size_t EncodeUtf8(char32_t c, char (&out)[4]) {
  const auto put = [&](int i, char32_t value) { out[i] = static_cast<char>(static_cast<unsigned char>(value)); };
  const auto tail = [&](int i, int shift) { put(i, 0x80 | ((c >> shift) & 0x3F)); };
  if (c < 0x80) {
    put(0, c);
    return 1;
  }
  if (c < 0x800) {
    put(0, 0xC0 | (c >> 6));
    tail(1, 0);
    return 2;
  }
  if (c < 0x10000) {
    put(0, 0xE0 | (c >> 12));
    tail(1, 6);
    tail(2, 0);
    return 3;
  }
  put(0, 0xF0 | (c >> 18));
  tail(1, 12);
  tail(2, 6);
  tail(3, 0);
  return 4;
}

// Takes one character off text[at..size); a lone surrogate is kIllFormed.
char32_t NextWide(const char16_t* text, std::size_t size, std::size_t& at) {
  const char16_t unit = text[at++];
  if (IsHigh(unit)) {
    if (at == size || !IsLow(text[at])) return kIllFormed;
    return 0x10000 + ((unit - 0xD800u) << 10) + (text[at++] - 0xDC00u);
  }
  return IsLow(unit) ? kIllFormed : unit;
}

bool WideToUtf8(const char16_t* text, std::size_t size, Sink<char>& sink) {
  bool wellFormed = true;
  for (std::size_t at = 0; at < size;) {
    if (const std::size_t run = AsciiRun(text + at, size - at); run != 0) {
      sink.PutEach(text + at, run);
      at += run;
      continue;
    }
    char32_t c = NextWide(text, size, at);
    if (c == kIllFormed) {
      wellFormed = false;
      c = kReplacement;
    }
    char bytes[4];
    sink.Put(bytes, EncodeUtf8(c, bytes));
  }
  return wellFormed;
}

// --- UTF-8 of strings ---
//
// The same conversions for text that goes into a string: most of it is ASCII, and room is made before the loop.

constexpr std::size_t kBlock = 8;  // characters looked at together

// The place of the first bit set in memory order, in elements of `bits` bits; the mask isn't 0.
std::size_t FirstElement(std::uint64_t mask, int bits) {
  const int zeros = std::endian::native == std::endian::little ? std::countr_zero(mask) : std::countl_zero(mask);
  return static_cast<std::size_t>(zeros / bits);
}

// How many of the next kBlock characters are ASCII, up to the first that isn't.
std::size_t AsciiOfBlock(const char* text) {
  std::uint64_t block;
  std::memcpy(&block, text, sizeof block);
  const std::uint64_t others = block & 0x8080808080808080;
  return others == 0 ? kBlock : FirstElement(others, 8);
}
std::size_t AsciiOfBlock(const char16_t* text) {
  std::uint64_t halves[2];
  std::memcpy(halves, text, sizeof halves);
  const std::uint64_t first = halves[0] & 0xFF80FF80FF80FF80;
  const std::uint64_t second = halves[1] & 0xFF80FF80FF80FF80;
  if (first != 0) return FirstElement(first, 16);
  return second == 0 ? kBlock : kBlock / 2 + FirstElement(second, 16);
}

constexpr bool IsContinuation(char byte) {
  return (static_cast<unsigned char>(byte) & 0xC0) == 0x80;
}

// Writes the character at text[at..size), which isn't ASCII, and moves `at` behind it. Returns behind the last unit.
inline char16_t* WidenCharacter(const char* text, std::size_t size, std::size_t& at, char16_t* out) {
  const auto lead = static_cast<unsigned char>(text[at]);
  if (lead >= 0xC2 && lead <= 0xDF && size - at >= 2 && IsContinuation(text[at + 1])) {
    *out++ = static_cast<char16_t>((lead & 0x1F) << 6 | (text[at + 1] & 0x3F));
    at += 2;
    return out;
  }
  if (lead >= 0xE1 && lead <= 0xEC && size - at >= 3 && IsContinuation(text[at + 1]) &&
      IsContinuation(text[at + 2])) {  // neither overlong forms nor surrogates begin with these
    *out++ = static_cast<char16_t>((lead & 0x0F) << 12 | (text[at + 1] & 0x3F) << 6 | (text[at + 2] & 0x3F));
    at += 3;
    return out;
  }
  const char32_t c = NextUtf8(text, size, at);
  if (c == kIllFormed) {
    *out++ = kReplacement;
  } else if (c < 0x10000) {
    *out++ = static_cast<char16_t>(c);
  } else {
    *out++ = static_cast<char16_t>(0xD7C0 + (c >> 10));
    *out++ = static_cast<char16_t>(0xDC00 | (c & 0x3FF));
  }
  return out;
}

// Writes the units of text[0..size); there is room for `size` of them. Returns behind the last one written.
char16_t* WidenUtf8(const char* text, std::size_t size, char16_t* out) {
  for (std::size_t at = 0; at < size;) {
    // Whole blocks are written, and what isn't ASCII is written over: there is room for a unit of each byte left.
    for (std::size_t ascii = kBlock; ascii == kBlock && size - at >= kBlock;) {
      ascii = AsciiOfBlock(text + at);
      for (std::size_t i = 0; i < kBlock; ++i) out[i] = static_cast<unsigned char>(text[at + i]);
      out += ascii;
      at += ascii;
    }
    for (; size - at < kBlock && at < size && static_cast<unsigned char>(text[at]) < 0x80; ++at)
      *out++ = static_cast<char16_t>(text[at]);
    while (at < size && static_cast<unsigned char>(text[at]) >= 0x80) out = WidenCharacter(text, size, at, out);
  }
  return out;
}

constexpr std::size_t kMostBytesOfAUnit = 3;  // a pair takes 4 for two units

// Writes the character at text[at..size), which isn't ASCII, and moves `at` behind it. Returns behind the last byte.
inline char* NarrowCharacter(const char16_t* text, std::size_t size, std::size_t& at, char* out) {
  const char16_t unit = text[at];
  if (unit < 0x800) {
    *out++ = static_cast<char>(0xC0 | (unit >> 6));
    *out++ = static_cast<char>(0x80 | (unit & 0x3F));
    ++at;
    return out;
  }
  if (!IsHigh(unit) && !IsLow(unit)) {
    *out++ = static_cast<char>(0xE0 | (unit >> 12));
    *out++ = static_cast<char>(0x80 | ((unit >> 6) & 0x3F));
    *out++ = static_cast<char>(0x80 | (unit & 0x3F));
    ++at;
    return out;
  }
  const char32_t c = NextWide(text, size, at);
  char bytes[4];
  return std::copy_n(bytes, EncodeUtf8(c == kIllFormed ? kReplacement : c, bytes), out);
}

// Writes the bytes of text[at..end) and moves `at` behind what was taken, which is `end` or, where a pair stands across
// it, one unit more. There is room for kMostBytesOfAUnit bytes a unit and one more. Returns behind the last one
// written.
char* NarrowToUtf8(const char16_t* text, std::size_t size, std::size_t& at, std::size_t end, char* out) {
  while (at < end) {
    for (std::size_t ascii = kBlock; ascii == kBlock && end - at >= kBlock;) {
      ascii = AsciiOfBlock(text + at);
      for (std::size_t i = 0; i < kBlock; ++i) out[i] = static_cast<char>(text[at + i]);
      out += ascii;
      at += ascii;
    }
    for (; end - at < kBlock && at < end && text[at] < 0x80; ++at) *out++ = static_cast<char>(text[at]);
    while (at < end && text[at] >= 0x80) out = NarrowCharacter(text, size, at, out);
  }
  return out;
}

// --- Code page 1252 ---

// The units of the bytes 0x80 to 0x9F; the five that the page leaves undefined stand for the controls of their number.
constexpr char16_t kWesternHigh[32] = {0x20AC, 0x0081, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021,
                                       0x02C6, 0x2030, 0x0160, 0x2039, 0x0152, 0x008D, 0x017D, 0x008F,
                                       0x0090, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022, 0x2013, 0x2014,
                                       0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x009D, 0x017E, 0x0178};

constexpr char16_t WideFromWestern(unsigned char byte) {
  return byte >= 0x80 && byte < 0xA0 ? kWesternHigh[byte - 0x80] : byte;
}

// The byte of a unit that the page has, -1 for none.
int WesternExact(char16_t unit) {
  if (unit < 0x80 || (unit >= 0xA0 && unit < 0x100)) return unit;
  const auto* found = std::find(std::begin(kWesternHigh), std::end(kWesternHigh), unit);
  return found == std::end(kWesternHigh) ? -1 : 0x80 + static_cast<int>(found - std::begin(kWesternHigh));
}

// What the published best-fit table of the page puts in place of units that it lacks; ascending. Full-width forms of
// the ASCII characters follow by arithmetic.
struct BestFit {
  char16_t unit;
  unsigned char byte;
};
// clang-format off
constexpr BestFit kWesternBestFit[] = {
    {0x0100, 'A'}, {0x0101, 'a'}, {0x0102, 'A'}, {0x0103, 'a'}, {0x0104, 'A'}, {0x0105, 'a'}, {0x0106, 'C'},
    {0x0107, 'c'}, {0x0108, 'C'}, {0x0109, 'c'}, {0x010A, 'C'}, {0x010B, 'c'}, {0x010C, 'C'}, {0x010D, 'c'},
    {0x010E, 'D'}, {0x010F, 'd'}, {0x0110, 0xD0}, {0x0111, 'd'}, {0x0112, 'E'}, {0x0113, 'e'}, {0x0114, 'E'},
    {0x0115, 'e'}, {0x0116, 'E'}, {0x0117, 'e'}, {0x0118, 'E'}, {0x0119, 'e'}, {0x011A, 'E'}, {0x011B, 'e'},
    {0x011C, 'G'}, {0x011D, 'g'}, {0x011E, 'G'}, {0x011F, 'g'}, {0x0120, 'G'}, {0x0121, 'g'}, {0x0122, 'G'},
    {0x0123, 'g'}, {0x0124, 'H'}, {0x0125, 'h'}, {0x0126, 'H'}, {0x0127, 'h'}, {0x0128, 'I'}, {0x0129, 'i'},
    {0x012A, 'I'}, {0x012B, 'i'}, {0x012C, 'I'}, {0x012D, 'i'}, {0x012E, 'I'}, {0x012F, 'i'}, {0x0130, 'I'},
    {0x0131, 'i'}, {0x0134, 'J'}, {0x0135, 'j'}, {0x0136, 'K'}, {0x0137, 'k'}, {0x0139, 'L'}, {0x013A, 'l'},
    {0x013B, 'L'}, {0x013C, 'l'}, {0x013D, 'L'}, {0x013E, 'l'}, {0x0141, 'L'}, {0x0142, 'l'}, {0x0143, 'N'},
    {0x0144, 'n'}, {0x0145, 'N'}, {0x0146, 'n'}, {0x0147, 'N'}, {0x0148, 'n'}, {0x014C, 'O'}, {0x014D, 'o'},
    {0x014E, 'O'}, {0x014F, 'o'}, {0x0150, 'O'}, {0x0151, 'o'}, {0x0154, 'R'}, {0x0155, 'r'}, {0x0156, 'R'},
    {0x0157, 'r'}, {0x0158, 'R'}, {0x0159, 'r'}, {0x015A, 'S'}, {0x015B, 's'}, {0x015C, 'S'}, {0x015D, 's'},
    {0x015E, 'S'}, {0x015F, 's'}, {0x0162, 'T'}, {0x0163, 't'}, {0x0164, 'T'}, {0x0165, 't'}, {0x0166, 'T'},
    {0x0167, 't'}, {0x0168, 'U'}, {0x0169, 'u'}, {0x016A, 'U'}, {0x016B, 'u'}, {0x016C, 'U'}, {0x016D, 'u'},
    {0x016E, 'U'}, {0x016F, 'u'}, {0x0170, 'U'}, {0x0171, 'u'}, {0x0172, 'U'}, {0x0173, 'u'}, {0x0174, 'W'},
    {0x0175, 'w'}, {0x0176, 'Y'}, {0x0177, 'y'}, {0x0179, 'Z'}, {0x017A, 'z'}, {0x017B, 'Z'}, {0x017C, 'z'},
    {0x0180, 'b'}, {0x0189, 0xD0}, {0x0191, 0x83}, {0x0197, 'I'}, {0x019A, 'l'}, {0x019F, 'O'}, {0x01A0, 'O'},
    {0x01A1, 'o'}, {0x01AB, 't'}, {0x01AE, 'T'}, {0x01AF, 'U'}, {0x01B0, 'u'}, {0x01B6, 'z'}, {0x01C0, '|'},
    {0x01C3, '!'}, {0x01CD, 'A'}, {0x01CE, 'a'}, {0x01CF, 'I'}, {0x01D0, 'i'}, {0x01D1, 'O'}, {0x01D2, 'o'},
    {0x01D3, 'U'}, {0x01D4, 'u'}, {0x01D5, 'U'}, {0x01D6, 'u'}, {0x01D7, 'U'}, {0x01D8, 'u'}, {0x01D9, 'U'},
    {0x01DA, 'u'}, {0x01DB, 'U'}, {0x01DC, 'u'}, {0x01DE, 'A'}, {0x01DF, 'a'}, {0x01E4, 'G'}, {0x01E5, 'g'},
    {0x01E6, 'G'}, {0x01E7, 'g'}, {0x01E8, 'K'}, {0x01E9, 'k'}, {0x01EA, 'O'}, {0x01EB, 'o'}, {0x01EC, 'O'},
    {0x01ED, 'o'}, {0x01F0, 'j'}, {0x0261, 'g'}, {0x02B9, '\''}, {0x02BA, '"'}, {0x02BC, '\''}, {0x02C4, '^'},
    {0x02C8, '\''}, {0x02C9, 0xAF}, {0x02CA, 0xB4}, {0x02CB, '`'}, {0x02CD, '_'}, {0x02DA, 0xB0}, {0x0300, '`'},
    {0x0301, 0xB4}, {0x0302, '^'}, {0x0303, '~'}, {0x0304, 0xAF}, {0x0305, 0xAF}, {0x0308, 0xA8}, {0x030A, 0xB0},
    {0x030E, '"'}, {0x0327, 0xB8}, {0x0331, '_'}, {0x0332, '_'}, {0x037E, ';'}, {0x0393, 'G'}, {0x0398, 'T'},
    {0x03A3, 'S'}, {0x03A6, 'F'}, {0x03A9, 'O'}, {0x03B1, 'a'}, {0x03B4, 'd'}, {0x03B5, 'e'}, {0x03C0, 'p'},
    {0x03C3, 's'}, {0x03C4, 't'}, {0x03C6, 'f'}, {0x04BB, 'h'}, {0x0589, ':'}, {0x066A, '%'}, {0x2000, ' '},
    {0x2001, ' '}, {0x2002, ' '}, {0x2003, ' '}, {0x2004, ' '}, {0x2005, ' '}, {0x2006, ' '}, {0x2010, '-'},
    {0x2011, '-'}, {0x2017, '='}, {0x2024, 0xB7}, {0x2032, '\''}, {0x2035, '`'}, {0x2044, '/'}, {0x2070, 0xB0},
    {0x2074, '4'}, {0x2075, '5'}, {0x2076, '6'}, {0x2077, '7'}, {0x2078, '8'}, {0x207F, 'n'}, {0x2080, '0'},
    {0x2081, '1'}, {0x2082, '2'}, {0x2083, '3'}, {0x2084, '4'}, {0x2085, '5'}, {0x2086, '6'}, {0x2087, '7'},
    {0x2088, '8'}, {0x2089, '9'}, {0x20A1, 0xA2}, {0x20A4, 0xA3}, {0x20A7, 'P'}, {0x2102, 'C'}, {0x2107, 'E'},
    {0x210A, 'g'}, {0x210B, 'H'}, {0x210C, 'H'}, {0x210D, 'H'}, {0x210E, 'h'}, {0x2110, 'I'}, {0x2111, 'I'},
    {0x2112, 'L'}, {0x2113, 'l'}, {0x2115, 'N'}, {0x2118, 'P'}, {0x2119, 'P'}, {0x211A, 'Q'}, {0x211B, 'R'},
    {0x211C, 'R'}, {0x211D, 'R'}, {0x2124, 'Z'}, {0x2128, 'Z'}, {0x212A, 'K'}, {0x212B, 0xC5}, {0x212C, 'B'},
    {0x212D, 'C'}, {0x212E, 'e'}, {0x212F, 'e'}, {0x2130, 'E'}, {0x2131, 'F'}, {0x2133, 'M'}, {0x2134, 'o'},
    {0x2205, 0xD8}, {0x2212, '-'}, {0x2213, 0xB1}, {0x2215, '/'}, {0x2216, '\\'}, {0x2217, '*'}, {0x2218, 0xB0},
    {0x2219, 0xB7}, {0x221A, 'v'}, {0x221E, '8'}, {0x2223, '|'}, {0x2229, 'n'}, {0x2236, ':'}, {0x223C, '~'},
    {0x2248, 0x98}, {0x2261, '='}, {0x2264, '='}, {0x2265, '='}, {0x2302, 0xA6}, {0x2303, '^'}, {0x2320, '('},
    {0x2321, ')'}, {0x2329, '<'}, {0x232A, '>'}, {0x2500, '-'}, {0x2502, 0xA6}, {0x250C, '+'}, {0x2510, '+'},
    {0x2514, '+'}, {0x2518, '+'}, {0x251C, '+'}, {0x2524, 0xA6}, {0x252C, '-'}, {0x2534, '-'}, {0x253C, '+'},
    {0x2550, '-'}, {0x2551, 0xA6}, {0x2552, '+'}, {0x2553, '+'}, {0x2554, '+'}, {0x2555, '+'}, {0x2556, '+'},
    {0x2557, '+'}, {0x2558, '+'}, {0x2559, '+'}, {0x255A, '+'}, {0x255B, '+'}, {0x255C, '+'}, {0x255D, '+'},
    {0x255E, 0xA6}, {0x255F, 0xA6}, {0x2560, 0xA6}, {0x2561, 0xA6}, {0x2562, 0xA6}, {0x2563, 0xA6}, {0x2564, '-'},
    {0x2565, '-'}, {0x2566, '-'}, {0x2567, '-'}, {0x2568, '-'}, {0x2569, '-'}, {0x256A, '+'}, {0x256B, '+'},
    {0x256C, '+'}, {0x2580, 0xAF}, {0x2584, '_'}, {0x2588, 0xA6}, {0x258C, 0xA6}, {0x2590, 0xA6}, {0x2591, 0xA6},
    {0x2592, 0xA6}, {0x2593, 0xA6}, {0x25A0, 0xA6}, {0x263C, 0xA4}, {0x2758, '|'}, {0x3000, ' '}, {0x3008, '<'},
    {0x3009, '>'}, {0x301A, '['}, {0x301B, ']'},
};
// clang-format on
static_assert(std::is_sorted(std::begin(kWesternBestFit), std::end(kWesternBestFit),
                             [](const BestFit& a, const BestFit& b) { return a.unit < b.unit; }));

int WesternBestFit(char16_t unit) {
  if (unit >= 0xFF01 && unit <= 0xFF5E) return unit - 0xFF01 + '!';
  const auto* found = std::lower_bound(std::begin(kWesternBestFit), std::end(kWesternBestFit), unit,
                                       [](const BestFit& row, char16_t value) { return row.unit < value; });
  return found != std::end(kWesternBestFit) && found->unit == unit ? found->byte : -1;
}

// Letters of the page that a base letter and a combining mark make together.
struct Composition {
  char16_t mark;
  std::u16string_view bases;
  std::u16string_view letters;
};
constexpr Composition kWesternCompositions[] = {
    {0x0300, u"AEIOUaeiou", u"\u00C0\u00C8\u00CC\u00D2\u00D9\u00E0\u00E8\u00EC\u00F2\u00F9"},
    {0x0301, u"AEIOUYaeiouy", u"\u00C1\u00C9\u00CD\u00D3\u00DA\u00DD\u00E1\u00E9\u00ED\u00F3\u00FA\u00FD"},
    {0x0302, u"AEIOUaeiou", u"\u00C2\u00CA\u00CE\u00D4\u00DB\u00E2\u00EA\u00EE\u00F4\u00FB"},
    {0x0303, u"ANOano", u"\u00C3\u00D1\u00D5\u00E3\u00F1\u00F5"},
    {0x0308, u"AEIOUYaeiouy", u"\u00C4\u00CB\u00CF\u00D6\u00DC\u0178\u00E4\u00EB\u00EF\u00F6\u00FC\u00FF"},
    {0x030A, u"Aa", u"\u00C5\u00E5"},
    {0x030C, u"SZsz", u"\u0160\u017D\u0161\u017E"},
    {0x0327, u"Cc", u"\u00C7\u00E7"},
};

// The composed letter, 0 for none.
char16_t ComposeWestern(char16_t base, char16_t mark) {
  for (const Composition& row : kWesternCompositions) {
    if (row.mark != mark) continue;
    const std::size_t at = row.bases.find(base);
    return at == std::u16string_view::npos ? char16_t{0} : row.letters[at];
  }
  return 0;
}

template <class SinkType>
void WesternToWide(const char* text, std::size_t size, SinkType& sink) {
  for (std::size_t i = 0; i < size; ++i) sink.Put(WideFromWestern(static_cast<unsigned char>(text[i])));
}

// Returns whether the default character stands in the result.
template <class SinkType>
bool WideToWestern(const char16_t* text, std::size_t size, std::uint32_t flags, char defaultChar, SinkType& sink) {
  bool usedDefault = false;
  for (std::size_t i = 0; i < size; ++i) {
    char16_t unit = text[i];
    if ((flags & WC_COMPOSITECHECK) != 0 && i + 1 < size) {
      if (const char16_t composed = ComposeWestern(unit, text[i + 1]); composed != 0) {
        unit = composed;
        ++i;
      }
    }
    int byte = WesternExact(unit);
    if (byte < 0 && (flags & WC_NO_BEST_FIT_CHARS) == 0) byte = WesternBestFit(unit);
    if (byte < 0) {
      usedDefault = true;
      sink.Put(defaultChar);
    } else {
      sink.Put(static_cast<char>(static_cast<unsigned char>(byte)));
    }
  }
  return usedDefault;
}

// --- UTF-7 ---

constexpr std::string_view kBase64 = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
// What stands for itself. NUL is one of them, hence the length by the array.
constexpr char16_t kUtf7DirectSet[] =
    u"\0\t\n\r '(),-./0123456789:?ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
constexpr std::u16string_view kUtf7Direct{kUtf7DirectSet, std::size(kUtf7DirectSet) - 1};

template <class SinkType>
void Utf7ToWide(const char* text, std::size_t size, SinkType& sink) {
  for (std::size_t i = 0; i < size;) {
    if (text[i] != '+') {
      sink.Put(static_cast<char16_t>(static_cast<unsigned char>(text[i++])));
      continue;
    }
    if (++i == size) break;
    if (text[i] == '-') {  // a plus sign itself
      sink.Put(u'+');
      ++i;
      continue;
    }
    // Units come out as their 16 bits are complete; what is left over at the end of the shift is dropped.
    std::uint32_t bits = 0;
    int count = 0;
    for (; i < size; ++i) {
      const std::size_t sextet = kBase64.find(text[i]);
      if (sextet == std::string_view::npos) break;
      bits = (bits << 6) | static_cast<std::uint32_t>(sextet);
      count += 6;
      if (count < 16) continue;
      count -= 16;
      sink.Put(static_cast<char16_t>(bits >> count));
    }
    if (i < size && text[i] == '-') ++i;
  }
}

bool IsUtf7Direct(char16_t unit) {
  return kUtf7Direct.find(unit) != std::u16string_view::npos;
}

template <class SinkType>
void WideToUtf7(const char16_t* text, std::size_t size, SinkType& sink) {
  for (std::size_t i = 0; i < size;) {
    if (IsUtf7Direct(text[i])) {
      sink.Put(static_cast<char>(text[i++]));
      continue;
    }
    sink.Put('+');
    if (text[i] == u'+' && (i + 1 == size || IsUtf7Direct(text[i + 1]))) {
      sink.Put('-');
      ++i;
      continue;
    }
    std::uint32_t bits = 0;
    int count = 0;
    for (; i < size && !IsUtf7Direct(text[i]); ++i) {
      bits = (bits << 16) | text[i];
      for (count += 16; count >= 6; count -= 6) sink.Put(kBase64[(bits >> (count - 6)) & 0x3F]);
    }
    if (count > 0) sink.Put(kBase64[(bits << (6 - count)) & 0x3F]);
    sink.Put('-');  // always said, also where the next character would end the shift
  }
}

// --- The two calls ---

int Fail(ErrorCode code, ErrorCode& lastError) {
  lastError = code;
  return 0;
}

template <class T>
int Finish(const Sink<T>& sink, int outLength, ErrorCode& lastError) {
  if (sink.count() > static_cast<std::size_t>(INT_MAX)) return Fail(ERROR_INVALID_PARAMETER, lastError);
  if (outLength != 0 && sink.stored() != sink.count()) return Fail(ERROR_INSUFFICIENT_BUFFER, lastError);
  lastError = ERROR_SUCCESS;
  return static_cast<int>(sink.count());
}

CodePage Resolve(CodePage codePage) {
  return codePage == kCodePageSystem || codePage == kCodePageThread ? SystemCodePage() : codePage;
}

constexpr std::uint32_t kMultiByteFlags = MB_PRECOMPOSED | MB_COMPOSITE | MB_USEGLYPHCHARS | MB_ERR_INVALID_CHARS;
constexpr std::uint32_t kWideFlags =
    WC_DISCARDNS | WC_SEPCHARS | WC_DEFAULTCHAR | WC_COMPOSITECHECK | WC_NO_BEST_FIT_CHARS;

bool MultiByteFlagsAllowed(CodePage codePage, std::uint32_t flags) {
  switch (codePage) {
    case kCodePageUtf8:
      return (flags & ~MB_ERR_INVALID_CHARS) == 0;
    case kCodePageUtf7:
      return flags == 0;
    default:
      return (flags & ~kMultiByteFlags) == 0 &&
             (flags & (MB_PRECOMPOSED | MB_COMPOSITE)) != (MB_PRECOMPOSED | MB_COMPOSITE);
  }
}

bool WideFlagsAllowed(CodePage codePage, std::uint32_t flags) {
  switch (codePage) {
    case kCodePageUtf8:
      return (flags & ~WC_ERR_INVALID_CHARS) == 0;
    case kCodePageUtf7:
      return flags == 0;
    default:
      return (flags & ~kWideFlags) == 0;
  }
}

bool IsKnown(CodePage codePage) {
  return codePage == kCodePageWestern || codePage == kCodePageUtf7 || codePage == kCodePageUtf8;
}

template <class T>
std::size_t InputSize(const T* in, int inLength) {
  return inLength < 0 ? std::char_traits<T>::length(in) + 1 : static_cast<std::size_t>(inLength);
}

}  // namespace

CodePage SystemCodePage() {
  return g_systemCodePage.load(std::memory_order_relaxed);
}

ErrorCode SetSystemCodePage(CodePage codePage) {
  if (codePage != kCodePageWestern && codePage != kCodePageUtf8) return ERROR_INVALID_PARAMETER;
  g_systemCodePage.store(codePage, std::memory_order_relaxed);
  return ERROR_SUCCESS;
}

int MultiByteToWideChar(CodePage codePage, std::uint32_t flags, const char* in, int inLength, char16_t* out,
                        int outLength, ErrorCode& lastError) {
  if (const ErrorCode fault = FaultAt(Operation::kConvertText, "MultiByteToWideChar"); fault != ERROR_SUCCESS) {
    return Fail(fault, lastError);
  }
  const CodePage page = Resolve(codePage);
  if (in == nullptr || inLength == 0 || outLength < 0 || (out == nullptr && outLength != 0) || !IsKnown(page)) {
    return Fail(ERROR_INVALID_PARAMETER, lastError);
  }
  if (!MultiByteFlagsAllowed(page, flags)) return Fail(ERROR_INVALID_FLAGS, lastError);

  const std::size_t size = InputSize(in, inLength);
  if (page == kCodePageUtf8 && (flags & MB_ERR_INVALID_CHARS) != 0 && !IsValidUtf8({in, size})) {
    return Fail(ERROR_NO_UNICODE_TRANSLATION, lastError);
  }
  Sink<char16_t> sink(out, static_cast<std::size_t>(outLength));
  if (page == kCodePageUtf8) {
    (void)Utf8ToWide(in, size, sink);
  } else if (page == kCodePageUtf7) {
    Utf7ToWide(in, size, sink);
  } else {
    WesternToWide(in, size, sink);
  }
  return Finish(sink, outLength, lastError);
}

int WideCharToMultiByte(CodePage codePage, std::uint32_t flags, const char16_t* in, int inLength, char* out,
                        int outLength, const char* defaultChar, bool* usedDefault, ErrorCode& lastError) {
  if (const ErrorCode fault = FaultAt(Operation::kConvertText, "WideCharToMultiByte"); fault != ERROR_SUCCESS) {
    return Fail(fault, lastError);
  }
  const CodePage page = Resolve(codePage);
  if (in == nullptr || inLength == 0 || outLength < 0 || (out == nullptr && outLength != 0) || !IsKnown(page)) {
    return Fail(ERROR_INVALID_PARAMETER, lastError);
  }
  const bool byNumber = codePage == kCodePageUtf8 || codePage == kCodePageUtf7;
  if (byNumber && (defaultChar != nullptr || usedDefault != nullptr)) return Fail(ERROR_INVALID_PARAMETER, lastError);
  if (!WideFlagsAllowed(page, flags)) return Fail(ERROR_INVALID_FLAGS, lastError);

  const std::size_t size = InputSize(in, inLength);
  Sink<char> sink(out, static_cast<std::size_t>(outLength));
  bool used = false;
  if (page == kCodePageUtf8) {
    if ((flags & WC_ERR_INVALID_CHARS) != 0) {
      for (std::size_t at = 0; at < size;) {
        if (NextWide(in, size, at) == kIllFormed) return Fail(ERROR_NO_UNICODE_TRANSLATION, lastError);
      }
    }
    used = !WideToUtf8(in, size, sink);
  } else if (page == kCodePageUtf7) {
    WideToUtf7(in, size, sink);
  } else {
    used = WideToWestern(in, size, flags, defaultChar != nullptr ? *defaultChar : '?', sink);
  }
  const int result = Finish(sink, outLength, lastError);
  if (lastError == ERROR_SUCCESS && usedDefault != nullptr) *usedDefault = used;
  return result;
}

// --- The runtime's functions ---

std::size_t Wcstombs(char* out, const char16_t* in, std::size_t outBytes, int& error, RuntimeLocale locale) {
  const std::size_t size = std::char_traits<char16_t>::length(in);
  const CodePage page = SystemCodePage();
  error = 0;
  if (out == nullptr && locale == RuntimeLocale::kC) return size;
  std::size_t count = 0;
  for (std::size_t at = 0; at < size;) {
    char bytes[4];
    std::size_t length = 1;
    if (locale == RuntimeLocale::kSystem && page == kCodePageUtf8) {
      const char32_t c = NextWide(in, size, at);
      length = c == kIllFormed ? 0 : EncodeUtf8(c, bytes);
    } else {
      const char16_t unit = in[at++];
      const int byte = locale == RuntimeLocale::kC ? (unit < 0x100 ? unit : -1) : WesternExact(unit);
      length = byte < 0 ? 0 : 1;
      bytes[0] = static_cast<char>(static_cast<unsigned char>(byte));
    }
    if (out != nullptr && (length == 0 ? count == outBytes : outBytes - count < length)) return count;
    if (length == 0) {
      error = kRuntimeIllegalSequence;
      return kRuntimeFailure;
    }
    if (out != nullptr) std::copy_n(bytes, length, out + count);
    count += length;
  }
  if (out != nullptr && count < outBytes) out[count] = '\0';
  return count;
}

std::size_t Mbstowcs(char16_t* out, const char* in, std::size_t outUnits, int& error, RuntimeLocale locale) {
  const std::size_t size = std::strlen(in);
  const CodePage page = SystemCodePage();
  error = 0;
  std::size_t count = 0;
  for (std::size_t at = 0; at < size;) {
    char16_t units[2];
    std::size_t length = 1;
    if (locale == RuntimeLocale::kSystem && page == kCodePageUtf8) {
      const char32_t c = NextUtf8(in, size, at);
      if (c == kIllFormed) {
        length = 0;
      } else if (c < 0x10000) {
        units[0] = static_cast<char16_t>(c);
      } else {
        units[0] = static_cast<char16_t>(0xD7C0 + (c >> 10));
        units[1] = static_cast<char16_t>(0xDC00 | (c & 0x3FF));
        length = 2;
      }
    } else {
      const auto byte = static_cast<unsigned char>(in[at++]);
      units[0] = locale == RuntimeLocale::kC ? byte : WideFromWestern(byte);
    }
    if (out != nullptr && (length == 0 ? count == outUnits : outUnits - count < length)) return count;
    if (length == 0) {
      error = kRuntimeIllegalSequence;
      return kRuntimeFailure;
    }
    if (out != nullptr) std::copy_n(units, length, out + count);
    count += length;
  }
  if (out != nullptr && count < outUnits) out[count] = u'\0';
  return count;
}

// --- Views to strings ---

std::u16string WideFromUtf8(std::string_view text) {
  std::u16string wide(text.size(), u'\0');  // no character has more units than bytes
  wide.resize(static_cast<std::size_t>(WidenUtf8(text.data(), text.size(), wide.data()) - wide.data()));
  return wide;
}

std::string Utf8FromWide(std::u16string_view text) {
  // By pieces through the stack: text of three bytes a character is rare, and a string of that size would be kept.
  constexpr std::size_t kPiece = 512;
  char bytes[kPiece * kMostBytesOfAUnit + 1];
  std::string narrow;
  narrow.reserve(text.size());
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t end = std::min(text.size(), at + kPiece);
    const char* const last = NarrowToUtf8(text.data(), text.size(), at, end, bytes);
    narrow.append(bytes, static_cast<std::size_t>(last - bytes));
  }
  return narrow;
}

std::u16string WideFromSystem(std::string_view text) {
  if (SystemCodePage() == kCodePageUtf8) return WideFromUtf8(text);
  std::u16string wide;
  wide.reserve(text.size());
  StringSink<char16_t> sink(wide);
  WesternToWide(text.data(), text.size(), sink);
  return wide;
}

std::string SystemFromWide(std::u16string_view text) {
  if (SystemCodePage() == kCodePageUtf8) return Utf8FromWide(text);
  std::string narrow;
  narrow.reserve(text.size());
  StringSink<char> sink(narrow);
  (void)WideToWestern(text.data(), text.size(), 0, '?', sink);
  return narrow;
}

bool IsValidUtf8(std::string_view text) {
  for (std::size_t at = 0; at < text.size();) {
    if (NextUtf8(text.data(), text.size(), at) == kIllFormed) return false;
  }
  return true;
}

}  // namespace platform
