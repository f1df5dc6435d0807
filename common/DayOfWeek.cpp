#include "common/DayOfWeek.h"

#include <cstdio>
#include <istream>
#include <ostream>
#include <stdexcept>

#include "common/schedule_dates.h"
#include "common/window_search.h"
#include "foundation/include/zfcdbg.h"

namespace {

constexpr zepByte kBits = 8;

void CheckWeek(zepByte week) {
  if (week >= CDayOfWeek::kWeeks) throw std::out_of_range("invalid vector<T> subscript");
}

void CheckDay(zepByte day) {
  if (day >= kBits) throw std::out_of_range("invalid bitset<N> position");
}

}  // namespace

ZRESULT CDayOfWeek::SetDay(zepByte day, zepByte week) {
  CheckWeek(week);
  CheckDay(day);
  m_words[week] |= 1u << day;
  return ZEP_S_OK;
}

ZRESULT CDayOfWeek::GetDay(zepByte day, zepByte week, zepByte* set) const {
  if (set == nullptr) {
    QX_TRACE(ZepFoundation::kTraceError, "ZEP_E_POINTER");
    return ZEP_E_POINTER;
  }
  CheckWeek(week);
  CheckDay(day);
  *set = (m_words[week] >> day) & 1u;
  return ZEP_S_OK;
}

ZRESULT CDayOfWeek::ClearDay(zepByte day, zepByte week) {
  CheckWeek(week);
  if (m_words[week] == 0) return ZEP_S_OK;
  CheckDay(day);
  m_words[week] &= ~(1u << day);
  return ZEP_S_OK;
}

ZRESULT CDayOfWeek::ClearAll() {
  m_words.fill(0);
  return ZEP_S_OK;
}

void CDayOfWeek::GetText(ZepFoundation::wcstring& out, zepByte day, zepByte week) const {
  static constexpr const char16_t* kWeekTexts[kWeeks] = {u"First", u"Second", u"Third", u"Fourth", u"Last"};
  static constexpr const char16_t* kDayTexts[7] = {u" Sunday",   u" Monday", u" Tuesday", u" Wednesday",
                                                   u" Thursday", u" Friday", u" Saturday"};
  out = kWeekTexts[week < kWeeks ? week : 0];
  out += kDayTexts[day < 7 ? day : 0];
}

bool CDayOfWeek::GetNextDate(const ZepFoundation::CDate& from, ZepFoundation::CDate& out) const {
  out = qx::DateFromDay(qx::NextWeekdayDate(m_words, qx::DayFromDate(from)));
  return true;
}

void CDayOfWeek::PrintWords(char* out) const {
  for (std::size_t week = 0; week < kWeeks; ++week) {
    out += std::sprintf(out, week == 0 ? "%d" : " %d", static_cast<int>(m_words[week]));
  }
}

void CDayOfWeek::Print(std::ostream& out) const {
  for (const std::uint32_t word : m_words) out << word << '\n';
}

void CDayOfWeek::Read(std::istream& in) {
  for (std::uint32_t& word : m_words) {
    std::uint32_t value = 0;
    bool any = false;
    // A run of digits ends at the first other character; one line end behind it belongs to the run.
    while (in.peek() == '0' || in.peek() == '1') {
      value = value << 1 | static_cast<std::uint32_t>(in.get() - '0');
      any = true;
    }
    if (in.peek() == '\r') in.get();
    if (in.peek() == '\n' || in.peek() == ' ') in.get();
    if (any) word = value & 0xFFu;
  }
}

bool CDayOfWeek::AnyDaySet() const {
  return (m_words[0] | m_words[1] | m_words[2] | m_words[3] | m_words[4]) != 0;
}
