#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <stdexcept>
#include <string>

#include "foundation/include/zfcsync.h"
#include "platform/thread.h"

// The tests enter locks again and leave them once too often, which the analysis can't know to be allowed.
#if defined(__clang__)
#pragma clang diagnostic ignored "-Wthread-safety-analysis"
#endif

namespace ZepFoundation {
namespace {

// Runs `body` on a thread of its own and waits for it.
template <class F>
void Elsewhere(F body) {
  platform::Thread thread;
  ASSERT_EQ(platform::Thread::Start("elsewhere", body, thread), platform::ERROR_SUCCESS);
}

TEST(CSynchro, ReleaseAnswersZero) {
  EXPECT_EQ(CSynchro().Release(), CSynchro::ESYNCH_SUCCESS);
}

TEST(CCriticalSection, CountsItsEntries) {
  CCriticalSection section;
  EXPECT_EQ(section.GetRefCount(), 0);
  EXPECT_EQ(section.GetEntryCount(), 0);
  EXPECT_EQ(section.Enter(), 0);
  EXPECT_EQ(section.Enter(), 0);
  EXPECT_EQ(section.GetEntryCount(), 2);
  EXPECT_EQ(section.Leave(), 0);
  EXPECT_EQ(section.Leave(), 0);
  EXPECT_EQ(section.GetEntryCount(), 0);
}

TEST(CCriticalSection, LeaveWithoutAnEnterChangesNothing) {
  CCriticalSection section;
  EXPECT_EQ(section.Leave(), 0);
  EXPECT_EQ(section.GetEntryCount(), 0);
  // Still free for another thread, and still exclusive.
  Elsewhere([&] {
    EXPECT_EQ(section.Enter(), 0);
    EXPECT_EQ(section.GetEntryCount(), 1);
    EXPECT_EQ(section.Leave(), 0);
  });
  EXPECT_EQ(section.GetEntryCount(), 0);
}

TEST(CCriticalSection, TryEnterAlwaysAnswersFive) {
  CCriticalSection section;
  EXPECT_EQ(section.TryEnter(), 5);
  section.Enter();
  EXPECT_EQ(section.TryEnter(), 5);
  EXPECT_EQ(section.GetEntryCount(), 1);
  section.Leave();
}

TEST(CCriticalSection, MayEndWhileEntered) {
  CCriticalSection section;
  section.Enter();
  section.Enter();
  EXPECT_EQ(section.GetEntryCount(), 2);
}

TEST(CCriticalSection, LetsOneThreadInAtATime) {
  CCriticalSection section;
  int counter = 0;
  const auto work = [&] {
    for (int i = 0; i < 10000; ++i) {
      section.Enter();
      ++counter;
      section.Leave();
    }
  };
  {
    platform::Thread a, b;
    ASSERT_EQ(platform::Thread::Start("a", work, a), platform::ERROR_SUCCESS);
    ASSERT_EQ(platform::Thread::Start("b", work, b), platform::ERROR_SUCCESS);
  }
  EXPECT_EQ(counter, 20000);
}

TEST(ScopedEntry, HoldsTheLockForItsScope) {
  CCriticalSection section;
  {
    const ScopedEntry outer(&section);
    EXPECT_EQ(outer.m_begun, 1);
    EXPECT_EQ(outer.m_completed, 1);
    EXPECT_EQ(outer.m_object, &section);
    EXPECT_EQ(section.GetEntryCount(), 1);
    const ScopedEntry inner(&section);
    EXPECT_EQ(section.GetEntryCount(), 2);
  }
  EXPECT_EQ(section.GetEntryCount(), 0);
}

TEST(CZepOSCriticalSection, LocksRecursively) {
  CZepOSCriticalSection section;
  EXPECT_EQ(section.Lock(), 1);
  EXPECT_EQ(section.Lock(), 1);
  EXPECT_EQ(section.TryLock(), 1);
  Elsewhere([&] { EXPECT_EQ(section.TryLock(), 0); });
  EXPECT_EQ(section.Unlock(), 1);
  EXPECT_EQ(section.Unlock(), 1);
  EXPECT_EQ(section.Unlock(), 1);
  Elsewhere([&] {
    EXPECT_EQ(section.TryLock(), 1);
    EXPECT_EQ(section.Unlock(), 1);
  });
}

TEST(CZepOSCriticalSection, StaysTheOneThatItIsWhenItIsInitializedAgain) {
  CZepOSCriticalSection section;
  EXPECT_EQ(section.Lock(), 1);
  section.Initialize();
  Elsewhere([&] { EXPECT_EQ(section.TryLock(), 0); });
  EXPECT_EQ(section.Unlock(), 1);
}

TEST(CZepOSCriticalSection, AnswersMinusOneOnceDestroyed) {
  CZepOSCriticalSection section;
  EXPECT_EQ(section.Destroy(), 1);
  EXPECT_EQ(section.Destroy(), -1);
  EXPECT_EQ(section.Lock(), -1);
  EXPECT_EQ(section.Unlock(), -1);
  EXPECT_EQ(section.TryLock(), -1);
  section.Initialize();
  section.Initialize();
  EXPECT_EQ(section.Lock(), 1);
  EXPECT_EQ(section.Unlock(), 1);
}

TEST(CZepGateKeeper, HoldsTheLockForItsScope) {
  CZepOSCriticalSection section;
  {
    const CZepGateKeeper keeper(section);
    const CZepGateKeeper again(&section);
    Elsewhere([&] { EXPECT_EQ(section.TryLock(), 0); });
  }
  Elsewhere([&] {
    EXPECT_EQ(section.TryLock(), 1);
    EXPECT_EQ(section.Unlock(), 1);
  });
}

TEST(CZepGateKeeper, ThrowsWhenTheLockFails) {
  CZepOSCriticalSection section;
  ASSERT_EQ(section.Destroy(), 1);
  std::string text;
  try {
    const CZepGateKeeper keeper(section);
  } catch (const std::runtime_error& error) {
    text = error.what();
  }
  EXPECT_EQ(text, "CZepGateKeeper() - Unable to lock mutex!");
}

}  // namespace
}  // namespace ZepFoundation
