// foundation/include/zfcguid.h: CGUID, the identifier value, and the check of identifier text.
//
// No operation of CGUID reports a failure: what can't be made or read is all zero.
// Threads: a value belongs to one thread at a time; the free function may be called from any.
#pragma once

#include <cstdint>
#include <iosfwd>

#include "foundation/include/zfcexport.h"
#include "foundation/include/zfcstring.h"
#include "platform/guid.h"

namespace ZepFoundation ZEP_FOUNDATION_API {

class bistream;
class bostream;

// Exactly the 16 bytes of the record it derives from.
class CGUID : public platform::GUID {
 public:
  // A new identifier.
  CGUID();
  // A new identifier when `generate` isn't 0, else all zero. The other two have no effect.
  CGUID(unsigned char generate, unsigned short node, const wcstring& stateFile);
  // From the braced text form; anything else, null included, gives all zero.
  explicit CGUID(const char16_t* text);
  explicit CGUID(const wcstring& text);
  CGUID(const platform::GUID& guid) : platform::GUID(guid) {}  // the same value under its other name

  void GUIDFromString(const wcstring& text);
  // The braced, upper-case form of 38 characters; with strip 1 (no other value) only its 32 digits.
  [[nodiscard]] wcstring GUIDAsString(unsigned char strip) const;

  // Deliberate: 1 when all bytes are zero, 0 otherwise, the opposite of what the name promises.
  [[nodiscard]] int Valid() const;

  // As 16 unsigned bytes in memory order.
  bool operator==(const CGUID& other) const;
  bool operator<(const CGUID& other) const;

  // 16 bytes: Data1 to Data3 in the stream's byte order, Data4 as it is.
  void BinaryIn(bistream& stream);
  void BinaryOut(bostream& stream) const;

  // Writes GUIDAsString(0).
  void Print(std::ostream& stream) const;
  void Print(std::basic_ostream<char16_t>& stream) const;
  // Skips white space, takes the characters up to the next white space and reads them as GUIDFromString does.
  void Read(std::istream& stream);
  void Read(std::basic_istream<char16_t>& stream);

  // Kept for its callers; has no effect.
  static void SetStateFilePath(const wcstring& path);
};
static_assert(sizeof(CGUID) == 16, "an identifier is its 16 bytes");

// The service's check of identifier text: 1 when braces and hyphens stand in their places and all else up to position
// 36 is a digit or a letter A to Z of either case, else 0 and one line in the service log at level 0. Deliberate: all
// letters pass, not only the hexadecimal ones, and text behind position 37 isn't looked at.
//   text  NUL-terminated; null or a text that ends before position 37 fails like a wrong character
[[nodiscard]] int IsValidGUIDString(const char16_t* text);

}  // namespace ZepFoundation
