#include "service/after_answer.h"

#include <gmock/gmock.h>

#include <optional>
#include <string>

namespace {

using qx::AfterAnswer;

TEST(AfterAnswer, WorkIsDoneAtOnceWhereNobodyWaitsForAnAnswer) {
  bool done = false;
  AfterAnswer::Leave([&] { done = true; });
  EXPECT_TRUE(done);
}

TEST(AfterAnswer, WorkIsDoneInOrderWhenTheLastOneEnds) {
  std::string done;
  std::optional<AfterAnswer> inner;
  AfterAnswer outer;
  inner.emplace();
  AfterAnswer::Leave([&] { done += "a"; });
  AfterAnswer::Leave([&] { done += "b"; });
  inner.reset();
  EXPECT_EQ(done, "");
  outer.End();
  EXPECT_EQ(done, "ab");
  outer.End();
  EXPECT_EQ(done, "ab");
}

TEST(AfterAnswer, WorkCanBeDoneAheadOfTheEnd) {
  int done = 0;
  const AfterAnswer left;
  AfterAnswer::Leave([&] { ++done; });
  AfterAnswer::DoNow();
  EXPECT_EQ(done, 1);
  AfterAnswer::DoNow();
  EXPECT_EQ(done, 1);
}

TEST(AfterAnswer, WorkThatLeavesWorkHasItDoneAtTheEndToo) {
  std::string done;
  {
    const AfterAnswer left;
    AfterAnswer::Leave([&] {
      done += "a";
      AfterAnswer::Leave([&] { done += "b"; });
    });
  }
  EXPECT_EQ(done, "ab");
}

}  // namespace
