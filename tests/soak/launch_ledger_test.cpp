// The soak's own reckoning finds what it is there to find.
#include "tests/soak/launch_ledger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace qx::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr Micros At(double second) {
  return static_cast<Micros>(second * kMicrosOfSecond);
}

// One version that holds from second 90 on, with windows at 100, 110, ... 150, watched to second 1000.
class Ledger : public ::testing::Test {
 protected:
  Ledger() {
    m_ledger.Born("v1", kSeries, At(89));
    m_ledger.Holds("v1", "{A}", kSeries, At(90));
  }
  void LaunchAll(std::int64_t but = 0) {
    for (std::int64_t window = 100; window <= 150; window += 10) {
      if (window != but) m_ledger.Launched("{A}", "v1", At(static_cast<double>(window)) + 1500);
    }
  }
  std::vector<std::string> Faults() { return m_ledger.Judge(At(1000), m_counts); }

  static constexpr WindowSeries kSeries{100, 10, 150};
  LaunchLedger m_ledger;
  LaunchLedger::Counts m_counts;
};

TEST_F(Ledger, EachWindowLaunchedOnceIsInOrder) {
  LaunchAll();
  EXPECT_THAT(Faults(), IsEmpty());
  EXPECT_EQ(m_counts.launched, 6u);
  EXPECT_EQ(m_counts.uncertain, 0u);
  EXPECT_EQ(m_counts.worstLateMs, 1u);
}

TEST_F(Ledger, AWindowThatIsMissedIsFound) {
  LaunchAll(120);
  EXPECT_THAT(Faults(), ElementsAre(HasSubstr("was due at 120 and was neither started")));
}

TEST_F(Ledger, AWindowThatIsLaunchedTwiceIsFoundAlsoWhereItWasLeftOpen) {
  LaunchAll();
  m_ledger.Launched("{A}", "v1", At(130.9));
  m_ledger.Disturb(At(129), At(131));
  EXPECT_THAT(Faults(), ElementsAre(HasSubstr("was started for 130 twice")));
}

TEST_F(Ledger, ALaunchWithoutAWindowIsFound) {
  LaunchAll();
  m_ledger.Launched("{A}", "v1", At(99));
  m_ledger.Launched("{A}", "v1", At(158));
  EXPECT_THAT(Faults(), ElementsAre(HasSubstr("started at 99.000000, where there is no window"),
                                    HasSubstr("started at 158.000000, where there is no window")));
}

TEST_F(Ledger, ALaunchAfterTheDeletionIsFound) {
  m_ledger.Gone("v1", At(125));
  for (const std::int64_t window : {100, 110, 120, 140}) m_ledger.Launched("{A}", "v1", window * kMicrosOfSecond);
  EXPECT_THAT(Faults(), ElementsAre(HasSubstr("started at 140.000000, when it wasn't there")));
}

TEST_F(Ledger, ALaunchUnderAForeignIdOrTagIsFound) {
  LaunchAll(120);
  m_ledger.Launched("{B}", "v1", At(120));
  m_ledger.Launched("{C}", "v2", At(120));
  EXPECT_THAT(Faults(), ElementsAre(HasSubstr("{C} was started at 120.000000 with the unknown tag v2"),
                                    HasSubstr("was started under the ID {B}")));
}

TEST_F(Ledger, AWindowIsSkippedByARuleWhenTheLogSaysSoOrTheServiceIsNotThere) {
  m_ledger.Told("{A}", 112);
  m_ledger.Disturb(At(118), At(121));
  m_ledger.Blind(At(131), At(133));
  m_ledger.Told("{B}", 142);  // of another
  for (const std::int64_t window : {100, 150}) m_ledger.Launched("{A}", "v1", window * kMicrosOfSecond);
  EXPECT_THAT(Faults(), ElementsAre(HasSubstr("was due at 140")));
  EXPECT_EQ(m_counts.toldSkipped, 1u);
  EXPECT_EQ(m_counts.disturbed, 2u);
}

TEST_F(Ledger, WhatMayHoldMayLaunchOrNot) {
  m_ledger.Doubt("v1", At(105));
  m_ledger.MayBe("v1", {103, 0, 103});
  m_ledger.Launched("{A}", "v1", At(100));
  m_ledger.Launched("{A}", "v1", At(103));
  m_ledger.Launched("{A}", "v1", At(120));
  EXPECT_THAT(Faults(), IsEmpty());
  EXPECT_EQ(m_counts.launched, 1u);
  EXPECT_EQ(m_counts.uncertain, 2u);
}

TEST_F(Ledger, AStartAtOnceStandsBesideTheWindowsAndMustBeThere) {
  LaunchAll();
  m_ledger.RunAtOnce("v1", At(113), At(113.2), true);
  m_ledger.RunAtOnce("v1", At(123), At(123.2), false);
  EXPECT_THAT(Faults(), ElementsAre(HasSubstr("was to run at once at 113.000000")));
  m_ledger.Launched("{A}", "v1", At(113.1));
  EXPECT_THAT(Faults(), IsEmpty());
  EXPECT_EQ(m_counts.runsAtOnce, 1u);
}

TEST_F(Ledger, AStartAtOnceThatNeedNotBeTakesNoWindowsLaunch) {
  LaunchAll();
  m_ledger.RunAtOnce("v1", At(127), At(127.2), false);
  EXPECT_THAT(Faults(), IsEmpty());
  EXPECT_EQ(m_counts.launched, 6u);
  EXPECT_EQ(m_counts.runsAtOnce, 0u);
  m_ledger.RunAtOnce("v1", At(138), At(138.2), true);
  m_ledger.Launched("{A}", "v1", At(140.5));  // both late
  EXPECT_THAT(Faults(), IsEmpty());
  EXPECT_EQ(m_counts.launched, 6u);
  EXPECT_EQ(m_counts.runsAtOnce, 1u);
}

}  // namespace
}  // namespace qx::testing
