// Conversion of text against the C library's iconv, and of day numbers against the plain arithmetic of the calendar.
#include <iconv.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "benchmarks/figure.h"
#include "foundation/include/zfcdate.h"
#include "platform/text.h"

namespace qx::bench {
namespace {

constexpr int kTextRepeats = 2000;
constexpr std::int32_t kDays = 1000000;
constexpr std::int32_t kFirstDay = 36525;  // 1 January of year 101: years below 100 are read as of the 20th century

// Lines as schedules and logs have them: mostly ASCII, with words of two, three and four bytes a character.
std::string MixedText() {
  static constexpr std::string_view kLines[] = {
      "m_Description=Sicherung aller Bände für die Münchner Außenstelle\r\n",
      "Successful Schedule Creation: {C2EDA523-69C6-11D2-8A7C-0000C0B839E5}\r\n",
      "m_Name=夜間バックアップ 第三金曜日\r\n",
      "Service will now sleep for 3600.000000 seconds, until 02:15 on the last Friday of the month\r\n",
      "m_Description=Ночной запуск, каждый третий день\r\n",
      "\xF0\x9D\x84\x9E \xE2\x82\xAC 12,50 (\xF0\x9F\x95\x90)\r\n",
  };
  std::string text;
  while (text.size() < 4096) {
    for (const std::string_view line : kLines) text += line;
  }
  return text;
}

const std::string& TheText() {
  static const std::string text = MixedText();
  return text;
}

[[noreturn]] void GiveUp(const char* what) {
  std::fprintf(stderr, "qx_bench: %s\n", what);
  std::exit(1);
}

double TimeOwnText() {
  const std::string& text = TheText();
  if (platform::Utf8FromWide(platform::WideFromUtf8(text)) != text) GiveUp("the text didn't come back");
  const double begin = SteadyNanoseconds();
  for (int i = 0; i < kTextRepeats; ++i) {
    const std::string back = platform::Utf8FromWide(platform::WideFromUtf8(text));
    Keep(back.data());
  }
  return (SteadyNanoseconds() - begin) / kTextRepeats;
}

// One conversion into a string of `roomPerByte` times the input.
std::string Convert(iconv_t conversion, std::string_view in, std::size_t roomPerByte) {
  std::string out(in.size() * roomPerByte, '\0');
  char* from = const_cast<char*>(in.data());
  std::size_t left = in.size();
  char* to = out.data();
  std::size_t room = out.size();
  if (iconv(conversion, &from, &left, &to, &room) == static_cast<std::size_t>(-1)) GiveUp("iconv refused the text");
  out.resize(out.size() - room);
  return out;
}

double TimeLibraryText() {
  const std::string& text = TheText();
  const iconv_t widen = iconv_open("UTF-16LE", "UTF-8");
  const iconv_t narrow = iconv_open("UTF-8", "UTF-16LE");
  if (widen == reinterpret_cast<iconv_t>(-1) || narrow == reinterpret_cast<iconv_t>(-1)) GiveUp("iconv has no UTF-16");
  if (Convert(narrow, Convert(widen, text, 2), 2) != text) GiveUp("the text didn't come back from iconv");
  const double begin = SteadyNanoseconds();
  for (int i = 0; i < kTextRepeats; ++i) {
    const std::string back = Convert(narrow, Convert(widen, text, 2), 2);
    Keep(back.data());
  }
  const double taken = SteadyNanoseconds() - begin;
  iconv_close(widen);
  iconv_close(narrow);
  return taken / kTextRepeats;
}

// A day number strewn over some 2700 years, the same for both sides.
std::int32_t Day(std::int32_t i) {
  return kFirstDay + static_cast<std::int32_t>(i * std::int64_t{7919} % kDays);
}

double TimeOwnDates() {
  ZepFoundation::CDate date;
  int year = 0, month = 0, day = 0;
  const double begin = SteadyNanoseconds();
  for (std::int32_t i = 0; i < kDays; ++i) {
    date.SetFromMilliSeconds(static_cast<std::uint64_t>(Day(i)) * ZepFoundation::kMillisecondsOfADay);
    date.GetDate(&year, &month, &day);
    date.SetDate(year, month, day);
    Keep(date.AsMilliSeconds());
  }
  return (SteadyNanoseconds() - begin) / kDays;
}

// The calendar of eras of 400 years that begin in March.
struct Civil {
  std::int64_t year;
  unsigned month;
  unsigned day;
};
[[gnu::noinline]] std::int64_t DaysFromCivil(const Civil& date) {
  const std::int64_t year = date.year - (date.month <= 2);
  const std::int64_t era = (year >= 0 ? year : year - 399) / 400;
  const auto ofEra = static_cast<unsigned>(year - era * 400);
  const unsigned ofYear = (153 * (date.month > 2 ? date.month - 3 : date.month + 9) + 2) / 5 + date.day - 1;
  return era * 146097 + static_cast<std::int64_t>(ofEra * 365 + ofEra / 4 - ofEra / 100 + ofYear);
}
[[gnu::noinline]] Civil CivilFromDays(std::int64_t days) {
  const std::int64_t era = (days >= 0 ? days : days - 146096) / 146097;
  const auto dayOfEra = static_cast<unsigned>(days - era * 146097);
  const unsigned yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
  const unsigned dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
  const unsigned shifted = (5 * dayOfYear + 2) / 153;
  const unsigned month = shifted < 10 ? shifted + 3 : shifted - 9;
  return {static_cast<std::int64_t>(yearOfEra) + era * 400 + (month <= 2), month,
          dayOfYear - (153 * shifted + 2) / 5 + 1};
}

double TimePlainDates() {
  if (DaysFromCivil(CivilFromDays(kFirstDay)) != kFirstDay) GiveUp("the plain calendar is wrong");
  const double begin = SteadyNanoseconds();
  for (std::int32_t i = 0; i < kDays; ++i) {
    const Civil date = CivilFromDays(Day(i));
    Keep(date);
    Keep(DaysFromCivil(date));
  }
  return (SteadyNanoseconds() - begin) / kDays;
}

}  // namespace

std::vector<Figure> FoundationFigures() {
  return {
      {"text/utf8-to-utf16-and-back", "iconv both ways", "ns", 1.0 / 3.0, TimeOwnText, TimeLibraryText},
      {"date/day-number-to-date-and-back", "plain calendar arithmetic", "ns", 2.0, TimeOwnDates, TimePlainDates},
  };
}

}  // namespace qx::bench
