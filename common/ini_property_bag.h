// common/ini_property_bag.h: the property bag over a schedule's .ini file.
//
// Which section a property lands in: the twelve general names in "General", a string map in "Custom Map Data", the
// bytes of "m_DayOfWeekList" in "DayOfWeekArray", all else in "Run Day Rules". The bag holds nothing but the path: each
// call goes to the file through the platform's profile calls (platform/profile.h), so that within a ProfileBatch of the
// calling thread a whole save or load is one replacement or one read of the file.
// Threads: one bag serves one thread at a time; the reference count is atomic.
#pragma once

#include <atomic>
#include <cstdint>

#include "common/property_value.h"
#include "common/zepSchedIUnknown.h"
#include "foundation/include/zfcstring.h"

class CIniFilePropertyBag : public zepIPropertyBag {
 public:
  // Count 0, no path. A bag at count 0 is used by one owner, who destroys it directly, or who adds a reference first.
  CIniFilePropertyBag() = default;

  // Deliberate: the caller's reference count stays as it was; the pointer lives as long as the bag.
  //   returns  0 for zepIUnknown and zepIPropertyBag; ZEP_E_NOINTERFACE with *out null; ZEP_E_POINTER for a null out
  ZRESULT QueryInterface(const ZepGuid& iid, void** out) override;
  std::uint32_t AddRef() override;
  // At 0 the object destroys itself.
  std::uint32_t Release() override;
  // Stores a property; what has no place in the file is dropped. Without a path nothing is touched.
  //   returns  always 0: a failed write shows in the batch's Commit, not here
  //   throws   std::out_of_range "invalid vector<T> subscript" for a string map of an odd count, with its whole pairs
  //            written; CharConversion_error where section or path of a string map has no narrow form
  ZRESULT Write(const char16_t* name, PropertyValue* value) override;
  // Fills the slot by the tag of `value`; numbers that are missing stay as they were, a missing text reads as empty, a
  // missing array as one without elements. Deliberate: a string map is never read back.
  //   returns  always 0
  //   throws   as ReadString; std::bad_alloc
  ZRESULT Read(const char16_t* name, PropertyValue* value) override;
  virtual ~CIniFilePropertyBag() = default;

  // The file's path in the client's words; copied. Always true.
  virtual bool SetFileName(const char16_t* path);

  // The primitives. The write forms of single values answer 1 when the platform's call worked, else 0; array forms
  // answer the number of elements, the string map that of its pairs written.

  // At most 255 units (a pair isn't cut in half); missing is empty.
  //   value   a new text, owned by the value
  //   throws  CharConversion_error where the text has no form in the system code page
  virtual const char* ReadString(const ZepFoundation::wcstring& section, const ZepFoundation::wcstring& key,
                                 PropertyValue& value);
  // 1 for exactly "TRUE", else 0.
  virtual std::uint8_t ReadBool(const ZepFoundation::wcstring& section, const ZepFoundation::wcstring& key,
                                std::uint8_t& value);
  // The value that goes in is the default.
  virtual std::int32_t ReadInt(const ZepFoundation::wcstring& section, const ZepFoundation::wcstring& key,
                               std::int32_t& value);
  virtual std::uint32_t ReadInt(const ZepFoundation::wcstring& section, const ZepFoundation::wcstring& key,
                                std::uint32_t& value);
  // ReadInt, sign-extended: the first form for dates, the second for times.
  virtual long ReadWide(const ZepFoundation::wcstring& section, const ZepFoundation::wcstring& key, long& value);
  virtual long long ReadWide(const ZepFoundation::wcstring& section, const ZepFoundation::wcstring& key,
                             long long& value);
  // Every complete line of the section that fits into 1024 units, in file order whatever its key; the rest is not seen.
  virtual std::uint32_t ReadDateArray(const ZepFoundation::wcstring& section, const ZepFoundation::wcstring& key,
                                      PropertyValue& value);
  virtual std::uint32_t ReadByteArray(const ZepFoundation::wcstring& section, const ZepFoundation::wcstring& key,
                                      PropertyValue& value);
  virtual std::uint32_t ReadInt16Array(const ZepFoundation::wcstring& section, const ZepFoundation::wcstring& key,
                                       PropertyValue& value);
  // Does nothing, and answers 0.
  virtual std::uint32_t ReadStringMap(const ZepFoundation::wcstring& section, const ZepFoundation::wcstring& key,
                                      PropertyValue& value);

  // "TRUE" for exactly 1, else "FALSE".
  virtual std::int32_t WriteBool(const ZepFoundation::wcstring& section, const ZepFoundation::wcstring& key,
                                 std::uint8_t value);
  // Both write the 32 bits as a signed decimal.
  virtual std::int32_t WriteUnsigned(const ZepFoundation::wcstring& section, const ZepFoundation::wcstring& key,
                                     std::uint32_t value);
  virtual std::int32_t WriteSigned(const ZepFoundation::wcstring& section, const ZepFoundation::wcstring& key,
                                   std::int32_t value);
  //   text  in the system code page; null deletes the key
  virtual std::int32_t WriteString(const ZepFoundation::wcstring& section, const ZepFoundation::wcstring& key,
                                   const char* text);
  // The low 32 bits, by WriteUnsigned: the first form for dates, the second for times.
  virtual std::int32_t WriteWide(const ZepFoundation::wcstring& section, const ZepFoundation::wcstring& key,
                                 long value);
  // The keys are "Item01" to "Item09", "Item010", then "Item11" and on. Items of an older, longer array stay.
  virtual std::uint32_t WriteDateArray(const ZepFoundation::wcstring& section, const ZepFoundation::wcstring& key,
                                       const PropertyValue& value);
  virtual std::int32_t WriteWide(const ZepFoundation::wcstring& section, const ZepFoundation::wcstring& key,
                                 long long value);
  // At most 256 bytes are stored.
  virtual std::uint32_t WriteByteArray(const ZepFoundation::wcstring& section, const ZepFoundation::wcstring& key,
                                       const PropertyValue& value);
  virtual std::uint32_t WriteInt16Array(const ZepFoundation::wcstring& section, const ZepFoundation::wcstring& key,
                                        const PropertyValue& value);
  virtual std::uint32_t WriteStringMap(const ZepFoundation::wcstring& section, const ZepFoundation::wcstring& key,
                                       const PropertyValue& value);

 private:
  std::int32_t WriteText(const ZepFoundation::wcstring& section, const ZepFoundation::wcstring& key,
                         const char16_t* text);

  std::atomic<std::uint32_t> m_references{0};
  ZepFoundation::wcstring m_fileName;
};
