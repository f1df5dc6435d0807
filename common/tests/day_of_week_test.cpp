// Weekdays by week of the month.
#include <random>
#include <sstream>
#include <stdexcept>

#include "common/tests/schedule_fixture.h"
#include "common/tests/told_loops.h"
#include "foundation/testing/captured_trace.h"

namespace qx::testing {
namespace {

using ZepFoundation::CDate;

CDate Date(int year, int month, int day) {
  CDate date(ZepFoundation::QTM_FIXED);
  EXPECT_TRUE(date.SetDate(year, month, day));
  return date;
}

std::string NextOf(const CDayOfWeek& rule, const CDate& from) {
  CDate out(ZepFoundation::QTM_FIXED);
  EXPECT_TRUE(rule.GetNextDate(from, out));
  char text[40];
  out.Print(text);
  return text;
}

TEST(DayOfWeek, FindsTheLastFridayOfFebruaryAndThenThatOfMarch) {
  CDayOfWeek rule;
  rule.SetDay(kFriday, kLastWeek);
  EXPECT_EQ(NextOf(rule, Date(2024, 2, 1)), "2/23/2024");
  EXPECT_EQ(NextOf(rule, Date(2024, 2, 24)), "3/29/2024");
}

TEST(DayOfWeek, TakesTheFourthMondayAndNeverTheFifth) {
  CDayOfWeek rule;
  rule.SetDay(kMonday, kFourth);
  EXPECT_EQ(NextOf(rule, Date(2024, 1, 1)), "1/22/2024");  // Mondays on 1, 8, 15, 22, 29
  EXPECT_EQ(NextOf(rule, Date(2024, 1, 23)), "2/26/2024");
}

TEST(DayOfWeek, GoesOnToTheNextMonthBehindTheFirstSunday) {
  CDayOfWeek rule;
  rule.SetDay(kSunday, kFirst);
  EXPECT_EQ(NextOf(rule, Date(2024, 3, 8)), "4/7/2024");
}

TEST(DayOfWeek, TakesTheGivenDateItselfWhenItMatches) {
  CDayOfWeek rule;
  rule.SetDay(kFriday, kLastWeek);
  EXPECT_EQ(NextOf(rule, Date(2024, 2, 23)), "2/23/2024");
}

TEST(DayOfWeek, GivesTheFirstOfTheNextMonthWhenOnlyBit7IsSet) {
  CDayOfWeek rule;
  rule.SetDay(7, kSecond);
  EXPECT_TRUE(rule.AnyDaySet());
  EXPECT_EQ(NextOf(rule, Date(2024, 12, 5)), "1/1/2025");
}

TEST(DayOfWeek, ReadsOutOfRangeTextsAsFirstSunday) {
  struct Case {
    zepByte day;
    zepByte week;
    const char16_t* text;
  };
  const Case cases[] = {{7, 5, u"First Sunday"}, {5, 4, u"Last Friday"},     {0, 0, u"First Sunday"},
                        {3, 1, u"Second Wednesday"}, {6, 2, u"Third Saturday"}, {2, 3, u"Fourth Tuesday"},
                        {4, 9, u"First Thursday"}, {255, 4, u"Last Sunday"},  {1, 0, u"First Monday"}};
  for (const Case& c : cases) {
    ZepFoundation::wcstring text;
    CDayOfWeek().GetText(text, c.day, c.week);
    EXPECT_EQ(text.str(), c.text);
  }
}

// The plain reference for the search by masks: a walk day by day.
std::string WalkedNext(const CDayOfWeek& rule, const CDate& from) {
  ToldLoops walk;
  walk.m_DayOfWeekList = rule.Words();
  char text[40];
  walk.GetNextDate(from).Print(text);
  return text;
}

TEST(DayOfWeek, AgreesWithTheWalkForEverySingleRuleOnEveryDayOfNineYears) {
  for (zepByte week = 0; week < 5; ++week) {
    for (zepByte day = 0; day < 7; ++day) {
      CDayOfWeek rule;
      rule.SetDay(day, week);
      for (CDate from = Date(2019, 12, 1); from.GetYear() < 2029; from.IncrementDay(1)) {
        ASSERT_EQ(NextOf(rule, from), WalkedNext(rule, from)) << "day " << int{day} << " week " << int{week};
      }
    }
  }
}

// Words of any bits, those of all weeks alike and none at all among them.
TEST(DayOfWeek, AgreesWithTheWalkForRandomWords) {
  std::mt19937 random(20240223);
  for (int i = 0; i < 20000; ++i) {
    CDayOfWeek rule;
    const bool sparse = random() % 2 == 0;
    const bool alike = random() % 4 == 0;
    const std::uint32_t common = random();
    for (zepByte week = 0; week < CDayOfWeek::kWeeks; ++week) {
      const std::uint32_t bits = alike ? common : sparse ? random() & random() & random() : random();
      for (zepByte day = 0; day < 8; ++day) {
        if ((bits >> day & 1u) != 0) rule.SetDay(day, week);
      }
    }
    CDate from = Date(2000, 1, 1);
    from.IncrementDay(static_cast<int>(random() % 13880));  // to 2037
    char words[64];
    rule.PrintWords(words);
    ASSERT_EQ(NextOf(rule, from), WalkedNext(rule, from)) << words;
  }
}

TEST(DayOfWeek, AgreesWithTheWalkFromTheInvalidDateAndTheFirstOnes) {
  for (zepByte week = 0; week < 5; ++week) {
    for (zepByte day = 0; day < 8; ++day) {
      CDayOfWeek rule;
      rule.SetDay(day, week);
      CDate from(ZepFoundation::QTM_FIXED);
      from.Invalidate();
      EXPECT_EQ(NextOf(rule, from), WalkedNext(rule, from)) << "day " << int{day} << " week " << int{week};
      for (from.IncrementDay(1); from.GetYear() < 102; from.IncrementDay(from.GetYear() < 98 ? 97 : 1)) {
        EXPECT_EQ(NextOf(rule, from), WalkedNext(rule, from)) << "day " << int{day} << " week " << int{week};
      }
    }
  }
}

TEST(DayOfWeek, GivesTheFirstOfTheNextMonthWhenNothingIsSet) {
  const CDayOfWeek rule;
  EXPECT_FALSE(rule.AnyDaySet());
  EXPECT_EQ(NextOf(rule, Date(2024, 1, 31)), "2/1/2024");
}

TEST(DayOfWeek, RaisesWhatItsContainersRaise) {
  CDayOfWeek rule;
  EXPECT_THROW(rule.SetDay(0, 5), std::out_of_range);
  EXPECT_THROW(rule.SetDay(8, 0), std::out_of_range);
  EXPECT_EQ(rule.ClearDay(9, 0), ZEP_S_OK);  // the week's word is 0
  rule.SetDay(1, 0);
  EXPECT_THROW(rule.ClearDay(9, 0), std::out_of_range);
  EXPECT_THROW(rule.ClearDay(1, 5), std::out_of_range);
  zepByte set = 7;
  EXPECT_THROW(rule.GetDay(8, 0, &set), std::out_of_range);
  EXPECT_THROW(rule.GetDay(0, 5, &set), std::out_of_range);
  EXPECT_EQ(set, 7);
}

TEST(DayOfWeek, RefusesANullOutAndTellsTheTrace) {
  const CDayOfWeek rule;
  ZepFoundation::CapturedTrace trace;
  EXPECT_EQ(rule.GetDay(0, 0, nullptr), ZEP_E_POINTER);
  EXPECT_TRUE(trace.Has(ZepFoundation::kTraceError, "ZEP_E_POINTER"));
}

TEST(DayOfWeek, PrintsItsWordsInDecimal) {
  CDayOfWeek rule;
  rule.SetDay(0, 0);
  rule.SetDay(6, 0);
  rule.SetDay(7, 2);
  rule.SetDay(1, 4);
  char text[64];
  rule.PrintWords(text);
  EXPECT_STREQ(text, "65 0 128 0 2");
  std::ostringstream out;
  rule.Print(out);
  EXPECT_EQ(out.str(), "65\n0\n128\n0\n2\n");
}

TEST(DayOfWeek, ReadsRunsOfBinaryDigitsAndLeavesEmptyOnesAlone) {
  CDayOfWeek rule;
  rule.SetDay(3, 1);
  std::istringstream in("101\n\n1\n1000000\n10\n");
  rule.Read(in);
  char text[64];
  rule.PrintWords(text);
  EXPECT_STREQ(text, "5 8 1 64 2");
}

}  // namespace
}  // namespace qx::testing
