// common/DayOfWeek.h: weekdays by week of the month ("first Monday", "last Friday").
//
// Five words of weekday bits: word 0 to 3 for the first to the fourth week, word 4 for the last; bit 0 is Sunday, bit 6
// Saturday. A week counts by the day of the month and not by calendar weeks: days 1 to 7 are the first; the last is any
// of the final seven days. Bit 7 can be set, but no date ever matches it.
// Failures: a week above 4 throws std::out_of_range ("invalid vector<T> subscript"), a day above 7 throws
// std::out_of_range ("invalid bitset<N> position"). Threads: a value; one thread at a time.
#pragma once

#include <array>
#include <cstdint>
#include <iosfwd>

#include "common/zepSchedIUnknown.h"
#include "foundation/include/zfcdate.h"
#include "foundation/include/zfcstring.h"

namespace ZepFoundation {
class bistream;
class bostream;
}  // namespace ZepFoundation

class CDayOfWeek {
 public:
  static constexpr std::size_t kWeeks = 5;

  virtual ~CDayOfWeek() = default;
  virtual ZRESULT SetDay(zepByte day, zepByte week);
  // Null out: ZEP_E_POINTER; else 0 or 1.
  virtual ZRESULT GetDay(zepByte day, zepByte week, zepByte* set) const;
  // Nothing when the week's word is 0.
  virtual ZRESULT ClearDay(zepByte day, zepByte week);
  virtual ZRESULT ClearAll();
  // "First Sunday", "Last Friday"; a day above 6 reads " Sunday", a week above 4 "First".
  virtual void GetText(ZepFoundation::wcstring& out, zepByte day, zepByte week) const;
  // The first match on or after `from`; only this month and the next are searched, and where both hold none, the first
  // of the next month comes back. Always true.
  virtual bool GetNextDate(const ZepFoundation::CDate& from, ZepFoundation::CDate& out) const;
  // The five words as decimal numbers joined by one blank; at most 55 characters and a NUL.
  virtual void PrintWords(char* out) const;
  // Deliberate: Print writes decimal numbers and Read takes binary digits: the two aren't each other's inverse.
  virtual void Print(std::ostream& out) const;
  virtual void Read(std::istream& in);
  virtual void BinaryOut(ZepFoundation::bostream& out) const;
  virtual void BinaryIn(ZepFoundation::bistream& in);
  // A new array of 5 bytes in `value`, owned by it.
  virtual ZRESULT ToArray(PropertyValue* value) const;
  // An absent or empty array clears all; fewer than 5 bytes throws std::out_of_range.
  virtual ZRESULT FromArray(const PropertyValue* value);

  [[nodiscard]] bool AnyDaySet() const;
  // The words, lowest week first.
  [[nodiscard]] const std::array<std::uint32_t, kWeeks>& Words() const { return m_words; }
  friend bool operator==(const CDayOfWeek& a, const CDayOfWeek& b) { return a.m_words == b.m_words; }

 private:
  std::array<std::uint32_t, kWeeks> m_words{};
};
