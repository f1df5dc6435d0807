#include "platform/after_answer.h"

#include <gmock/gmock.h>

#include <optional>
#include <string>

namespace {

using platform::AfterAnswer;

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

TEST(AfterAnswer, WorkThatIsToBeFirstIsDoneAheadOfAllOther) {
  std::string done;
  AfterAnswer::LeaveFirst([&] { done += "at once "; });
  {
    const AfterAnswer left;
    AfterAnswer::Leave([&] { done += "c"; });
    AfterAnswer::LeaveFirst([&] { done += "a"; });
    AfterAnswer::LeaveFirst([&] { done += "b"; });
  }
  EXPECT_EQ(done, "at once abc");
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
