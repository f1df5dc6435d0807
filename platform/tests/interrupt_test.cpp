#include "platform/interrupt.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <semaphore>

namespace {

using platform::InterruptWatch;

// Who runs the tests in a shell's background has them ignore interrupts.
class InterruptWatchTest : public testing::Test {
 protected:
  ~InterruptWatchTest() override { (void)::signal(SIGINT, m_before); }

 private:
  void (*m_before)(int) = ::signal(SIGINT, SIG_DFL);
};

TEST_F(InterruptWatchTest, CallsBackForEachInterrupt) {
  std::counting_semaphore<> heard(0);
  InterruptWatch watch(InterruptWatch::kNever, {}, [&] { heard.release(); });
  for (int i = 0; i < 2; ++i) {
    ASSERT_EQ(::kill(::getpid(), SIGINT), 0);
    heard.acquire();
  }
}

TEST_F(InterruptWatchTest, SaysOnceThatTheWaitIsLong) {
  std::counting_semaphore<> late(0);
  std::counting_semaphore<> heard(0);
  InterruptWatch watch(0, [&] { late.release(); }, [&] { heard.release(); });
  late.acquire();
  ASSERT_EQ(::kill(::getpid(), SIGINT), 0);  // the loop goes round again
  heard.acquire();
  EXPECT_FALSE(late.try_acquire());
}

TEST_F(InterruptWatchTest, LeavesTheMaskAsItWas) {
  sigset_t before, after;
  sigemptyset(&before);
  sigemptyset(&after);
  ASSERT_EQ(pthread_sigmask(SIG_BLOCK, nullptr, &before), 0);
  { InterruptWatch watch(InterruptWatch::kNever, {}, [] {}); }
  ASSERT_EQ(pthread_sigmask(SIG_BLOCK, nullptr, &after), 0);
  EXPECT_EQ(sigismember(&after, SIGINT), sigismember(&before, SIGINT));
}

TEST_F(InterruptWatchTest, GoesOnIgnoringWhatIsIgnored) {
  const auto before = ::signal(SIGINT, SIG_IGN);
  bool called = false;
  {
    InterruptWatch watch(InterruptWatch::kNever, {}, [&] { called = true; });
    ASSERT_EQ(::kill(::getpid(), SIGINT), 0);
  }
  (void)::signal(SIGINT, before);
  EXPECT_FALSE(called);
}

TEST(EndByInterruptDeathTest, EndsTheProcessByTheSignal) {
  EXPECT_EXIT(platform::EndByInterrupt(), testing::KilledBySignal(SIGINT), "");
}

}  // namespace
