// The seam through which tests make platform calls fail.
#include "platform/testing/fault.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

namespace platform {
namespace {

std::vector<ErrorCode> Ask(int times, Operation operation = Operation::kWriteFile, std::string_view detail = {}) {
  std::vector<ErrorCode> answers;
  for (int i = 0; i < times; ++i) answers.push_back(FaultAt(operation, detail));
  return answers;
}

using Answers = std::vector<ErrorCode>;

TEST(FaultPlan, FailsOneCallOnce) {
  const FaultPlan plan = FaultPlan::FailCall(Operation::kWriteFile, 2, ERROR_DISK_FULL);
  EXPECT_EQ(Ask(4), (Answers{0, ERROR_DISK_FULL, 0, 0}));
  EXPECT_EQ(plan.hits(), 1);
  EXPECT_EQ(plan.calls(), 4);
}

TEST(FaultPlan, FailsFromACallOn) {
  const FaultPlan plan = FaultPlan::FailCall(Operation::kWriteFile, 2, ERROR_DISK_FULL, kFromThenOn);
  EXPECT_EQ(Ask(3), (Answers{0, ERROR_DISK_FULL, ERROR_DISK_FULL}));
}

TEST(FaultPlan, AsksAtEveryCall) {
  std::vector<std::string> asked;
  const FaultPlan plan = FaultPlan::Ask([&](int call, Operation operation, std::string_view detail) -> ErrorCode {
    asked.push_back(std::to_string(call) + " " + std::string(OperationName(operation)) + " " + std::string(detail));
    return call == 2 ? ERROR_DISK_FULL : ERROR_SUCCESS;
  });
  EXPECT_EQ(Ask(1, Operation::kReadFile, "a"), Answers{0});
  EXPECT_EQ(Ask(1, Operation::kWriteFile, "b"), Answers{ERROR_DISK_FULL});
  EXPECT_EQ(Ask(1, Operation::kWriteFile), Answers{0});
  EXPECT_EQ(asked, (std::vector<std::string>{"1 ReadFile a", "2 WriteFile b", "3 WriteFile "}));
  EXPECT_EQ(plan.hits(), 1);
  EXPECT_EQ(plan.calls(), 3);
}

TEST(FaultPlan, CountsOnlyItsOperation) {
  const FaultPlan plan = FaultPlan::FailCall(Operation::kWriteFile, 1, ERROR_DISK_FULL);
  EXPECT_EQ(Ask(1, Operation::kReadFile), Answers{0});
  EXPECT_EQ(plan.calls(), 0);
}

TEST(FaultPlan, CountsOnlyItsDetail) {
  const FaultPlan plan = FaultPlan::FailCall(Operation::kAllocate, 1, ERROR_NOT_ENOUGH_MEMORY, kOnce, "buffer");
  EXPECT_EQ(Ask(1, Operation::kAllocate, "other"), Answers{0});
  EXPECT_EQ(Ask(1, Operation::kAllocate, "buffer"), Answers{ERROR_NOT_ENOUGH_MEMORY});
}

TEST(FaultPlan, FailsTheNthCallOfAnyOperation) {
  const FaultPlan plan = FaultPlan::FailAnyCall(2, ERROR_IO_DEVICE);
  EXPECT_EQ(Ask(1, Operation::kReadFile), Answers{0});
  EXPECT_EQ(Ask(1, Operation::kRegSetValue), Answers{ERROR_IO_DEVICE});
}

TEST(FaultPlan, EndsWithItsScopeAndKeepsItsCountsWhenRemoved) {
  {
    FaultPlan plan = FaultPlan::FailAnyCall(1, ERROR_IO_DEVICE, kFromThenOn);
    EXPECT_EQ(Ask(2), (Answers{ERROR_IO_DEVICE, ERROR_IO_DEVICE}));
    plan.Remove();
    EXPECT_EQ(Ask(1), Answers{0});
    EXPECT_EQ(plan.hits(), 2);
    const FaultPlan next = FaultPlan::CountOnly();
    EXPECT_EQ(Ask(3), (Answers{0, 0, 0}));
    EXPECT_EQ(next.calls(), 3);
  }
  EXPECT_EQ(Ask(1), Answers{0});
}

TEST(FaultPlan, KnowsEachOperationByAName) {
  std::set<std::string_view> names;
  for (int i = 0; i < static_cast<int>(Operation::kCount); ++i) names.insert(OperationName(static_cast<Operation>(i)));
  EXPECT_EQ(names.size(), static_cast<std::size_t>(Operation::kCount));
  EXPECT_EQ(OperationName(Operation::kRegSetValue), "RegSetValue");
}

}  // namespace
}  // namespace platform
