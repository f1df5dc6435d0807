#include "client/calendar_text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <utility>

#include "client/tests/calendar_samples.h"
#include "tests/test_paths.h"

namespace {

using testing::HasSubstr;
using testing::Not;

class CalendarTextTest : public AtAFixedTime {};

// Compares with a golden file; QX_REWRITE_GOLDEN=1 writes it anew.
void ExpectGolden(const std::string& name, const std::string& text) {
  const std::string file = test_paths::Data() + "/golden/calendar/" + name;
  if (std::getenv("QX_REWRITE_GOLDEN") != nullptr) std::ofstream(file, std::ios::binary) << text;
  std::ifstream in(file, std::ios::binary);
  ASSERT_TRUE(in) << file;
  std::ostringstream expected;
  expected << in.rdbuf();
  EXPECT_EQ(text, expected.str()) << name;
}

// Characters of the longest line, colours aside.
std::size_t LongestLine(const std::string& text) {
  std::size_t longest = 0, width = 0;
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (text[at] == '\n') {
      longest = std::max(longest, std::exchange(width, 0));
    } else if (text[at] == '\033') {
      at = text.find('m', at);
    } else if ((static_cast<unsigned char>(text[at]) & 0xC0) != 0x80) {
      ++width;
    }
  }
  return longest;
}

TEST_F(CalendarTextTest, AMonthLooksAsItDoesAtEachWidthWithAndWithoutColour) {
  const qx::Calendar calendar = SampleCalendar({2026, 10}, kSampleNow);
  for (const std::size_t columns : {40, 80, 120}) {
    for (const bool colour : {false, true}) {
      const std::string text = qx::CalendarText(calendar, {columns, colour, true});
      ExpectGolden("month-" + std::to_string(columns) + (colour ? "-colour" : "") + ".txt", text);
    }
  }
}

TEST_F(CalendarTextTest, AYearLooksAsItDoesAtEachWidth) {
  const qx::Calendar calendar = SampleCalendar({2026, 0}, kSampleNow);
  for (const std::size_t columns : {40, 80, 120}) {
    ExpectGolden("year-" + std::to_string(columns) + ".txt", qx::CalendarText(calendar, {columns, false, true}));
  }
}

TEST_F(CalendarTextTest, NoLineIsWiderThanTheTerminal) {
  for (const int month : {0, 2, 10}) {
    const qx::Calendar calendar = SampleCalendar({2026, month}, kSampleNow, 50);
    for (std::size_t columns = 30; columns <= 160; ++columns) {
      for (const bool colour : {false, true}) {
        const std::string text = qx::CalendarText(calendar, {columns, colour, true});
        ASSERT_LE(LongestLine(text), columns) << month << "\n" << text;
      }
    }
  }
}

TEST_F(CalendarTextTest, TextOfAClientSendsNoControlCharacters) {
  const std::string text = qx::CalendarText(SampleCalendar({2026, 10}, kSampleNow), {120, false, true});
  EXPECT_THAT(text, Not(HasSubstr("\033")));
}

TEST_F(CalendarTextTest, WithoutALegendOnlyTheDaysAndWhatIsSpecialAreWritten) {
  const qx::Calendar calendar = SampleCalendar({2026, 10}, kSampleNow);
  const std::string text = qx::CalendarText(calendar, {80, false, false});
  EXPECT_THAT(text, Not(HasSubstr("October")));
  EXPECT_THAT(text, Not(HasSubstr("schedules,")));
  EXPECT_THAT(text, HasSubstr("2026-10-30 Fri  excluded: nightly backup (every fri)\n"));
}

TEST_F(CalendarTextTest, AnEmptyCalendarIsAMonthOfDays) {
  qx::CalendarBuilder builder({2026, 2}, kSampleNow, 1);
  EXPECT_EQ(qx::CalendarText(builder.Finish(), {28, false, false}),
            "Mon Tue Wed Thu Fri Sat Sun\n"
            "                         1\n\n"
            " 2   3   4   5   6   7   8\n\n"
            " 9  10  11  12  13  14  15\n\n"
            "16  17  18  19  20  21  22\n\n"
            "23  24  25  26  27  28\n\n");
}

}  // namespace
