// A thin sample of kill_test.cpp: a few kills of each change.
#include "tests/killed_service.h"

namespace qx::testing {
namespace {

class KillAtACall : public ::testing::TestWithParam<Change> {};

TEST_P(KillAtACall, LeavesTheScheduleWholeAndTheOthersAlone) {
  constexpr std::uint32_t kSamples = 6;
  KilledService service;
  const KilledService::Round whole = service.Run(GetParam(), 0);
  ASSERT_FALSE(HasFailure()) << "without a kill";
  ASSERT_FALSE(whole.killed);
  ASSERT_GT(whole.calls, kSamples);
  // The last calls, where the stores change over, and some before.
  for (std::uint32_t i = 0; i < kSamples; ++i) {
    const std::uint32_t n = i < 3 ? whole.calls - i : 1 + (i - 3) * whole.calls / 3;
    (void)service.Run(GetParam(), n);
    ASSERT_FALSE(HasFailure()) << "killed at call " << n << " (" << service.LastOperation() << ")";
  }
}

INSTANTIATE_TEST_SUITE_P(Changes, KillAtACall,
                         ::testing::Values(Change::kCreate, Change::kModify, Change::kMove, Change::kDelete),
                         [](const auto& change) { return NameOf(change.param); });

}  // namespace
}  // namespace qx::testing
