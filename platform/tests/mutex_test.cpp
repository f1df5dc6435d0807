#include "platform/mutex.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

namespace platform {
namespace {

using Steady = std::chrono::steady_clock;

class MutexTest : public testing::Test {
 protected:
  void Raise(int value) {
    const MutexLock hold(m_lock);
    m_value = value;
    m_changed.NotifyAll();
  }
  void WaitFor(int value) {
    MutexLock hold(m_lock);
    while (m_value != value) m_changed.Wait(hold);
  }

  Mutex m_lock;
  Condition m_changed;
  int m_value QX_GUARDED_BY(m_lock) = 0;
};

TEST_F(MutexTest, WaitsForWhatAnotherThreadSetsAndHoldsTheLockThen) {
  std::thread other([this] {
    WaitFor(1);
    Raise(2);
  });
  Raise(1);
  WaitFor(2);
  other.join();
}

TEST_F(MutexTest, LetsOthersInWhileItIsUnlocked) {
  MutexLock hold(m_lock);
  hold.Unlock();
  std::thread([this] { Raise(7); }).join();  // would hang under the lock
  hold.Lock();
  EXPECT_EQ(m_value, 7);
}

TEST_F(MutexTest, TellsThatTheMomentHasCome) {
  const auto moment = Steady::now() + std::chrono::milliseconds(1);
  MutexLock hold(m_lock);
  while (m_changed.WaitUntil(hold, moment)) {  // may wake for no reason
  }
  EXPECT_GE(Steady::now(), moment);
}

TEST_F(MutexTest, TellsThatItWasNotifiedBeforeTheMoment) {
  std::thread other([this] {
    WaitFor(1);
    Raise(2);
  });
  MutexLock hold(m_lock);
  m_value = 1;
  m_changed.NotifyAll();
  bool early = true;
  while (m_value != 2 && early) early = m_changed.WaitUntil(hold, Steady::now() + std::chrono::hours(1));
  EXPECT_TRUE(early);
  hold.Unlock();
  other.join();
}

}  // namespace
}  // namespace platform
