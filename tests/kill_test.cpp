// Kills the real service at every platform call of a change, and starts it anew.
#include <iostream>

#include "tests/killed_service.h"

namespace qx::testing {
namespace {

// How often in a row a change has to come through, until its calls count as done: from one time to the next it takes
// some more or fewer of them, because other threads call as well.
constexpr int kTimesThrough = 8;

class KillAtEveryCall : public ::testing::TestWithParam<Change> {};

TEST_P(KillAtEveryCall, LeavesTheScheduleWholeAndTheOthersAlone) {
  KilledService service;
  std::map<Outcome, int> outcomes;
  int killed = 0;
  for (std::uint32_t n = 1, through = 0; through < kTimesThrough; ++n) {
    const KilledService::Round round = service.Run(GetParam(), n);
    ASSERT_FALSE(HasFailure()) << "killed at call " << n << " (" << service.LastOperation() << ")";
    through = round.killed ? 0 : through + 1;  // acknowledged, judged, and killed behind it
    if (!round.killed) continue;
    ++outcomes[round.outcome];
    ++killed;
  }
  std::cout << NameOf(GetParam()) << ": killed at " << killed << " calls: " << outcomes[Outcome::kOld]
            << " left the old state, " << outcomes[Outcome::kNewKeyOldRules] << " new values beside old rules, "
            << outcomes[Outcome::kNew] << " the new state\n";
  // The range held the change's own point of no return.
  EXPECT_GT(outcomes[Outcome::kOld], 5);
  EXPECT_GT(outcomes[Outcome::kNew], 0);
}

INSTANTIATE_TEST_SUITE_P(Changes, KillAtEveryCall,
                         ::testing::Values(Change::kCreate, Change::kModify, Change::kMove, Change::kDelete),
                         [](const auto& change) { return NameOf(change.param); });

TEST(KillAtEveryCallOfAStart, LeavesEveryScheduleToTheNextOne) {
  KilledService service;
  std::uint32_t n = 1;
  for (;; ++n) {
    const bool killed = service.RunStart(n);
    ASSERT_FALSE(::testing::Test::HasFailure()) << "killed at call " << n << " (" << service.LastOperation() << ")";
    if (!killed) break;
  }
  std::cout << "start: killed at " << n - 1 << " calls\n";
  EXPECT_GT(n, 100u);
}

}  // namespace
}  // namespace qx::testing
