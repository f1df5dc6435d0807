// Rules that could cost much: the answers are right, and no test here ends by a limit of time. What they cost is among
// the figures of benchmarks/.
#include <string>
#include <vector>

#include "common/tests/schedule_fixture.h"
#include "platform/clock.h"

namespace qx::testing {
namespace {

constexpr ZepTime kDayLength = 86400;

class HostileRules : public InZone {
 protected:
  HostileRules() : InZone("UTC0") {}
};

TEST_F(HostileRules, AYearOfIncludedDaysUnderAYearOfExcludedOnesGivesTheOneThatIsLeft) {
  Rules rules;
  const ZepTime first = Local("2024-01-01 12:00");
  for (int i = 0; i < 365; ++i) {
    ASSERT_EQ(rules->SetSpecificDate(ZEP_SPECIFIC_INCLUDE, first + (i + 1) * kDayLength), ZEP_S_OK);
    ASSERT_EQ(rules->SetSpecificDate(ZEP_SPECIFIC_EXCLUDE, first + i * kDayLength), ZEP_S_OK);
  }
  const Answer answer = rules.Next("2024-01-01 00:00");
  EXPECT_EQ(Shown(answer.start), "2024-12-31 10:00:00");
  EXPECT_EQ(answer.last, 1);
  EXPECT_EQ(rules.Next("2024-12-31 10:00").result, ZEP_S_FALSE);
}

TEST_F(HostileRules, AnExcludedYearOfADailyRuleIsSteppedOver) {
  Rules rules;
  rules.Daily();
  const ZepTime first = Local("2024-01-01 12:00");
  for (int i = 0; i < 366; ++i)
    ASSERT_EQ(rules->SetSpecificDate(ZEP_SPECIFIC_EXCLUDE, first + i * kDayLength), ZEP_S_OK);
  EXPECT_EQ(rules.NextStart("2023-12-31 10:00"), "2025-01-01 10:00:00");
}

TEST_F(HostileRules, ARestartEverySecondOfADayGivesTheNextSecond) {
  Rules rules;
  rules.Daily();
  ASSERT_EQ(rules->put_TimeDuration(86400000), ZEP_S_OK);
  rules->put_UseRestartInterval(1);
  ASSERT_EQ(rules->put_RestartInterval(1000), ZEP_S_OK);
  EXPECT_EQ(rules.NextStart("2024-03-05 10:00:00"), "2024-03-05 10:00:01");
  EXPECT_EQ(rules.NextStart("2024-03-05 23:59:58"), "2024-03-05 23:59:59");
  const Answer answer = rules.Next("2024-03-05 23:59:59");
  EXPECT_EQ(Shown(answer.start), "2024-03-06 00:00:00");
  EXPECT_EQ(Shown(answer.end), "2024-03-06 10:00:00");
}

TEST_F(HostileRules, NothingIsLeftWhereEveryDayUntilTheEndIsExcluded) {
  const struct {
    int line;
    void (*set)(Rules&);
  } kCases[] = {
      {__LINE__, [](Rules& r) { r.DayOfMonth(31); }},
      {__LINE__, [](Rules& r) { r.LastDay(); }},
      {__LINE__, [](Rules& r) { r.Repeat(1, "1980-01-01"); }},
      {__LINE__, [](Rules& r) { r.Include("2037-12-31"); }},
  };
  for (const auto& c : kCases) {
    Rules rules;
    c.set(rules);
    for (ZepTime noon = Local("2024-01-01 12:00"); noon <= ZEP_MAX_TIME; noon += kDayLength) {
      ASSERT_EQ(rules->SetSpecificDate(ZEP_SPECIFIC_EXCLUDE, noon), ZEP_S_OK);
    }
    const Answer answer = rules.Next("2024-01-01 00:00");
    EXPECT_EQ(answer.result, ZEP_S_FALSE) << c.line;
    EXPECT_EQ(answer.start, -1) << c.line;
    EXPECT_EQ(answer.end, -1) << c.line;
  }
}

TEST_F(HostileRules, AnAnchorOf1980KeepsItsPhaseIn2037) {
  for (const int days : {1, 2, 3, 7, 365, 9999}) {
    Rules rules;
    rules.Repeat(days, "1980-01-01");
    const ZepTime reference = Local("2037-02-03 09:00");
    const std::int64_t from = platform::DaysFromCivil(1980, 1, 1);
    const std::int64_t today = platform::DaysFromCivil(2037, 2, 3);
    const std::int64_t expected = from + (today - from + days - 1) / days * days;
    if (expected > platform::DaysFromCivil(2037, 12, 31)) {
      EXPECT_EQ(rules.Next(reference).result, ZEP_S_FALSE) << days;
    } else {
      EXPECT_EQ(rules.Next(reference).start, expected * kDayLength + 10 * 3600) << days;
    }
  }
}

// Header, texts and the rest as a save writes them; the exclude dates are sixty thousand days from 2024 on.
TEST_F(HostileRules, AStreamOfSixtyThousandDatesIsReadWholeAndSearched) {
  Rules rules;
  rules.Daily();
  std::uint32_t size = 0;
  ASSERT_EQ(rules->MemorySizeMax(&size), ZEP_S_OK);
  std::string block(size, '\0');
  ASSERT_EQ(rules->Save(block.data(), 0, size), ZEP_S_OK);

  constexpr std::uint32_t kDates = 60000;
  const auto bigEndian = [](std::uint32_t value) {
    std::string bytes;
    for (int shift = 24; shift >= 0; shift -= 8) bytes += static_cast<char>(value >> shift);
    return bytes;
  };
  // Behind class, version and identifier: two empty texts, two times, two spans, two dates, three flags, one number and
  // the empty include set come ahead of the exclude set.
  constexpr std::size_t kExcludeCount = 16 + 4 + 16 + 2 * 4 + 2 * 4 + 2 * 9 + 2 * 4 + 3 * 1 + 4 + 4;
  ASSERT_EQ(block.substr(kExcludeCount, 4), bigEndian(0));
  // Every day but each thousandth, last ones first.
  std::string dates;
  std::uint32_t count = 0;
  for (std::uint32_t i = kDates; i-- > 0;) {
    if (i % 1000 == 999) continue;
    dates += bigEndian(static_cast<std::uint32_t>(platform::DaysFromCivil(2024, 1, 1)) + 719162 + i);
    ++count;
  }
  block.replace(kExcludeCount, 4, bigEndian(count) + dates);

  Rules loaded;
  ASSERT_EQ(loaded->Load(block.data(), static_cast<std::uint32_t>(block.size())), ZEP_S_OK);
  std::uint32_t found = 0;
  ASSERT_EQ(loaded->GetSpecificDatesCount(ZEP_SPECIFIC_EXCLUDE, &found), ZEP_S_OK);
  EXPECT_EQ(found, count);
  const ZepTime first = Local("2024-01-01 10:00");
  EXPECT_EQ(loaded.Next(first).start, first + 999 * kDayLength);
  EXPECT_EQ(loaded.Next(first + 999 * kDayLength).start, first + 1999 * kDayLength);
}

}  // namespace
}  // namespace qx::testing
