#include "platform/thread.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <future>
#include <memory>

#include "platform/critical_section.h"
#include "platform/testing/fault.h"

// The tests enter locks again and leave them once too often, which the analysis can't know to be allowed.
#if defined(__clang__)
#pragma clang diagnostic ignored "-Wthread-safety-analysis"
#endif

namespace platform {
namespace {

TEST(Thread, RunsAFunctionAndIsJoinedAtItsEnd) {
  std::atomic<std::uint32_t> other{0};
  {
    Thread thread;
    ASSERT_EQ(Thread::Start(
                  "a name longer than the kernel takes", [&] { other = CurrentThreadId(); }, thread),
              ERROR_SUCCESS);
    EXPECT_TRUE(thread.joinable());
  }
  EXPECT_NE(other, 0u);
  EXPECT_NE(other, CurrentThreadId());
}

TEST(Thread, StartsOneThatNobodyWaitsFor) {
  auto done = std::make_shared<std::promise<int>>();
  std::future<int> result = done->get_future();
  ASSERT_EQ(StartThread("free", [done] { done->set_value(7); }), ERROR_SUCCESS);
  EXPECT_EQ(result.get(), 7);
}

TEST(Thread, AFailedStartRunsNothing) {
  const FaultPlan plan = FaultPlan::FailCall(Operation::kCreateThread, 1, ERROR_NO_PROC_SLOTS, kFromThenOn, "loop");
  std::atomic<bool> ran{false};
  Thread thread;
  EXPECT_EQ(Thread::Start(
                "loop", [&] { ran = true; }, thread),
            ERROR_NO_PROC_SLOTS);
  EXPECT_FALSE(thread.joinable());
  EXPECT_EQ(StartThread("loop", [&] { ran = true; }), ERROR_NO_PROC_SLOTS);
  EXPECT_FALSE(ran);
}

// Else a stop that comes before the handler of controls is there would end the program in the midst of its start.
TEST(Thread, TakesNoSignalThatEndsAProgram) {
  const auto blocked = [](int signal) {
    sigset_t mask;
    EXPECT_EQ(pthread_sigmask(SIG_BLOCK, nullptr, &mask), 0);
    return sigismember(&mask, signal) == 1;
  };
  std::atomic<bool> term{false};
  std::atomic<bool> interrupt{false};
  std::atomic<bool> segv{true};
  {
    Thread thread;
    ASSERT_EQ(Thread::Start(
                  "signals", [&] { term = blocked(SIGTERM), interrupt = blocked(SIGINT), segv = blocked(SIGSEGV); }, thread),
              ERROR_SUCCESS);
  }
  EXPECT_TRUE(term);
  EXPECT_TRUE(interrupt);
  EXPECT_FALSE(segv);
  EXPECT_FALSE(blocked(SIGTERM));  // whoever starts one keeps its own
  EXPECT_FALSE(blocked(SIGINT));
}

TEST(Thread, TellsTheProcess) {
  EXPECT_EQ(CurrentProcessId(), static_cast<std::uint32_t>(getpid()));
}

TEST(CriticalSection, IsReentrantInOneThreadAndKeepsOthersOut) {
  CriticalSection section;
  section.Enter();
  section.Enter();
  const auto tryElsewhere = [&section] {
    bool entered = false;
    Thread thread;
    EXPECT_EQ(Thread::Start(
                  "other",
                  [&] {
                    entered = section.TryEnter();
                    if (entered) section.Leave();
                  },
                  thread),
              ERROR_SUCCESS);
    thread.Join();
    return entered;
  };
  EXPECT_FALSE(tryElsewhere());
  section.Leave();
  EXPECT_FALSE(tryElsewhere());
  section.Leave();
  EXPECT_TRUE(tryElsewhere());
  section.Leave();  // once too often: nothing happens
  EXPECT_TRUE(tryElsewhere());
}

}  // namespace
}  // namespace platform
