// Dates and times from binary streams and from text, and what may be asked of any of them.
#include <ctime>
#include <sstream>

#include "foundation/include/zfcbytes.h"
#include "foundation/include/zfcdate.h"
#include "foundation/include/zfcdatetime.h"
#include "foundation/include/zfctime.h"
#include "foundation/include/zfctimespan.h"
#include "fuzz/fuzz_target.h"

using qx::fuzz::Require;
using ZepFoundation::bistrstream;
using ZepFoundation::bostrstream;
using ZepFoundation::CByteOrder;
using ZepFoundation::CDate;
using ZepFoundation::CDateTime;
using ZepFoundation::WTime;
using ZepFoundation::WTimeSpan;

namespace {

void Ask(CDate date) {
  char text[40];
  date.Print(text);
  std::tm fields{};
  (void)date.AsANSITime();
  (void)date.AsANSICalendarTime(&fields);
  (void)date.AsOLEDATE();
  (void)date.AsMilliSeconds();
  (void)date.GetDayOfWeek();
  (void)date.GetMonthStartDay();
  (void)date.GetWeeksInMonth();
  (void)date.GetDaysInMonth();
  if (!date.IsValid() || static_cast<std::int64_t>(date.AsMilliSeconds()) < 0) return;  // no fields ahead of year 1
  const int year = date.GetYear(), month = date.GetMonth(), day = date.GetDay();
  Require(month >= 1 && month <= 12 && day >= 1 && day <= 31, "a valid date has fields");
  CDate again;
  if (year >= 100) Require(again.SetDate(year, month, day) && again == date, "the fields are the date");
  date.IncrementDay(1);
  date.IncrementMonth(1);
  date.IncrementYear(1);
  date.SetMonth(2);
  date.SetDay(31);
}

void Ask(WTime time) {
  char text[40];
  time.Print(text);
  (void)time.GetHour();
  (void)time.AsOLEDATE();
  (void)time.AsANSITime();
  time.IncrementMilliSecond(1);
  time.IncrementHour(25);
}

void Ask(CDateTime time) {
  char text[64];
  time.PrintDateTime(text);
  std::tm fields{};
  (void)time.AsANSITime();
  (void)time.AsANSICalendarTime(&fields);
  (void)time.AsSystemTime(true);
  (void)time.AsSystemTime(false);
  (void)time.AsTotalMilliSeconds();
  (void)time.AsOLEDATE();
  time.IncrementDay(1);
  time.IncrementHour(25);
}

}  // namespace

QX_FUZZ_TARGET(dates) {
  if (size < 2) return 0;
  const auto order = (data[0] & 1) != 0 ? CByteOrder::kBigEndian : CByteOrder::kLittleEndian;
  bistrstream in(reinterpret_cast<const char*>(data + 1), static_cast<std::streamsize>(size - 1), order);
  CDate date;
  WTime time;
  WTimeSpan span;
  CDateTime both;
  date.BinaryIn(in);
  time.BinaryIn(in);
  span.BinaryIn(in);
  both.BinaryInDateTime(in);
  Ask(date);
  Ask(time);
  Ask(both);
  Ask(date + span);
  Ask(date - span);
  Ask(both + span);
  (void)(date - CDate());
  std::ostringstream shown;
  span.Print(shown);

  bostrstream out(order);
  date.BinaryOut(out);
  CDate again;
  const std::string_view bytes = out.view();
  bistrstream reread(bytes.data(), static_cast<std::streamsize>(bytes.size()), order);
  again.BinaryIn(reread);
  Require(again == date, "a date comes back");

  const std::string text(qx::fuzz::Text(data, size));
  std::istringstream dateText(text), timeText(text), spanText(text), bothText(text);
  date.Read(dateText);
  time.Read(timeText);
  span.Read(spanText);
  both.ReadDateTime(bothText);
  Ask(date);
  Ask(time);
  Ask(both);
  return 0;
}
