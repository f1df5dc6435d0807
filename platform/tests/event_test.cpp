#include "platform/event.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "platform/after_answer.h"
#include "platform/clock.h"
#include "platform/testing/fault.h"

namespace platform {
namespace {

using Kind = WaitResult::Kind;

WaitResult WaitFor(EventSet& events, std::uint32_t limitMs) {
  WaitResult result;
  EXPECT_EQ(events.Wait(limitMs, result), ERROR_SUCCESS);
  return result;
}

EventSet SetOf(std::size_t count) {
  EventSet events;
  EXPECT_EQ(events.Create(count), ERROR_SUCCESS);
  return events;
}

// Counts what waits take from it.
class CountingClock : public ClockSource {
 public:
  explicit CountingClock(bool takesWaits) : m_takesWaits(takesWaits) { InstallClockSource(this); }
  ~CountingClock() override { InstallClockSource(nullptr); }
  std::int64_t WallNanoseconds() override { return 0; }
  std::uint64_t SteadyMilliseconds() override { return consumed; }
  bool ConsumeWait(std::uint64_t milliseconds) override {
    thread = std::this_thread::get_id();
    consumed += milliseconds;
    if (during) during->Set(0);
    return m_takesWaits;
  }
  std::uint64_t consumed = 0;
  std::thread::id thread;
  EventSet* during = nullptr;

 private:
  bool m_takesWaits;
};

TEST(EventSet, HasNothingSetAtFirst) {
  EventSet events = SetOf(6);
  EXPECT_EQ(events.Count(), 6u);
  EXPECT_EQ(WaitFor(events, 0), (WaitResult{Kind::kTimeout, 0}));
}

TEST(EventSet, TakesTheLowestSetEventAndLeavesTheOthersSet) {
  EventSet events = SetOf(6);
  events.Set(5);
  events.Set(2);
  events.Set(3);
  EXPECT_EQ(WaitFor(events, kWaitForever), (WaitResult{Kind::kEvent, 2}));
  EXPECT_EQ(WaitFor(events, kWaitForever), (WaitResult{Kind::kEvent, 3}));
  EXPECT_EQ(WaitFor(events, 0), (WaitResult{Kind::kEvent, 5}));
  EXPECT_EQ(WaitFor(events, 0).kind, Kind::kTimeout);
}

TEST(EventSet, CollapsesABurstOfSettingsToOneWakeUp) {
  EventSet events = SetOf(1);
  for (int i = 0; i < 100; ++i) events.Set(0);
  EXPECT_EQ(WaitFor(events, 0).kind, Kind::kEvent);
  EXPECT_EQ(WaitFor(events, 0).kind, Kind::kTimeout);
}

TEST(EventSet, IgnoresAnIndexWithoutAnEvent) {
  EventSet events = SetOf(2);
  events.Set(2);
  events.Set(63);
  EXPECT_EQ(WaitFor(events, 0).kind, Kind::kTimeout);
  EventSet none;
  none.Set(0);
  EXPECT_EQ(none.Count(), 0u);
}

TEST(EventSet, HoldsAsManyEventsAsItSays) {
  EventSet events = SetOf(EventSet::kMaxEvents);
  events.Set(EventSet::kMaxEvents - 1);
  EXPECT_EQ(WaitFor(events, 0), (WaitResult{Kind::kEvent, EventSet::kMaxEvents - 1}));
  EXPECT_EQ(events.Create(0), ERROR_INVALID_PARAMETER);
  EXPECT_EQ(events.Create(EventSet::kMaxEvents + 1), ERROR_INVALID_PARAMETER);
  EXPECT_EQ(events.Count(), EventSet::kMaxEvents);
}

TEST(EventSet, TimesOutInRealTimeNotBeforeItsLimit) {
  EventSet events = SetOf(1);
  const std::uint32_t begin = TickCount();
  EXPECT_EQ(WaitFor(events, 20).kind, Kind::kTimeout);
  EXPECT_GE(TickCount() - begin, 19u);
}

TEST(EventSet, WakesAThreadThatWaitsWithoutALimit) {
  EventSet events = SetOf(3);
  WaitResult result;
  std::thread waiter([&] { result = WaitFor(events, kWaitForever); });
  events.Set(1);
  waiter.join();
  EXPECT_EQ(result, (WaitResult{Kind::kEvent, 1}));
}

TEST(EventSet, LosesNoSettingBetweenTwoThreads) {
  EventSet there = SetOf(1);
  EventSet back = SetOf(1);
  constexpr int kRounds = 5000;
  int answered = 0;
  // The turn goes to and fro: one lost setting would stop both threads, and the test, for ever.
  std::thread other([&] {
    for (int i = 0; i < kRounds; ++i) {
      answered += WaitFor(there, kWaitForever).kind == Kind::kEvent;
      back.Set(0);
    }
  });
  for (int i = 0; i < kRounds; ++i) {
    there.Set(0);
    EXPECT_EQ(WaitFor(back, kWaitForever).kind, Kind::kEvent);
  }
  other.join();
  EXPECT_EQ(answered, kRounds);
}

TEST(EventSet, GivesEachSettingToOneOfSeveralWaiters) {
  EventSet events = SetOf(4);
  std::atomic<int> taken{0};
  std::vector<std::thread> waiters;
  for (int i = 0; i < 4; ++i) {
    waiters.emplace_back([&] {
      if (WaitFor(events, kWaitForever).kind == Kind::kEvent) ++taken;
    });
  }
  for (std::size_t i = 0; i < 4; ++i) events.Set(i);
  for (std::thread& waiter : waiters) waiter.join();
  EXPECT_EQ(taken, 4);
  EXPECT_EQ(WaitFor(events, 0).kind, Kind::kTimeout);
}

TEST(EventSet, IsSetAtOnceForWhoeverLooksAheadOfAnAnswer) {
  EventSet events = SetOf(2);
  AfterAnswer left;
  events.Set(1);
  EXPECT_EQ(WaitFor(events, 0), (WaitResult{Kind::kEvent, 1}));
  EXPECT_EQ(WaitFor(events, 0), (WaitResult{Kind::kTimeout, 0}));
}

TEST(EventSet, WakesWhoeverWaitsBehindTheAnswer) {
  for (int i = 0; i < 200; ++i) {
    EventSet events = SetOf(1);
    std::thread waiter([&] { EXPECT_EQ(WaitFor(events, kWaitForever), (WaitResult{Kind::kEvent, 0})); });
    {
      const AfterAnswer outer;
      AfterAnswer inner;
      events.Set(0);
      inner.End();
      inner.End();  // counts once
    }
    waiter.join();
  }
}

TEST(EventSet, LetsOtherThreadsWakeAheadOfTheAnswerOfOne) {
  EventSet events = SetOf(1);
  const AfterAnswer left;
  std::thread waiter([&] { EXPECT_EQ(WaitFor(events, kWaitForever), (WaitResult{Kind::kEvent, 0})); });
  std::thread([&] { events.Set(0); }).join();
  waiter.join();
}

TEST(EventSet, WakesBehindTheAnswerInASetThatWasGivenUpMeanwhile) {
  EventSet events = SetOf(1);
  AfterAnswer left;
  events.Set(0);
  events = SetOf(1);
  left.End();
  EXPECT_EQ(WaitFor(events, 0), (WaitResult{Kind::kTimeout, 0}));
}

TEST(EventSet, ConsumesVirtualTimeInTheWaitingThread) {
  CountingClock clock(true);
  EventSet events = SetOf(1);
  EXPECT_EQ(WaitFor(events, 4294967294u).kind, Kind::kTimeout);
  EXPECT_EQ(clock.consumed, 4294967294u);
  EXPECT_EQ(clock.thread, std::this_thread::get_id());
}

TEST(EventSet, ConsumesNoVirtualTimeForAnEventThatIsSet) {
  CountingClock clock(true);
  EventSet events = SetOf(1);
  events.Set(0);
  EXPECT_EQ(WaitFor(events, 1000).kind, Kind::kEvent);
  EXPECT_EQ(WaitFor(events, 0).kind, Kind::kTimeout);
  EXPECT_EQ(clock.consumed, 0u);
}

TEST(EventSet, KeepsAnEventThatIsSetDuringAVirtualWaitForTheNextOne) {
  CountingClock clock(true);
  EventSet events = SetOf(1);
  clock.during = &events;
  EXPECT_EQ(WaitFor(events, 1000).kind, Kind::kTimeout);
  EXPECT_EQ(WaitFor(events, 1000).kind, Kind::kEvent);
}

TEST(EventSet, WaitsInRealTimeWhereTheClockDoesNotTakeTheWait) {
  CountingClock clock(false);
  EventSet events = SetOf(1);
  clock.during = &events;
  EXPECT_EQ(WaitFor(events, 60000).kind, Kind::kEvent);
}

// Whatever was due at the limit is due, also where somebody sets an event at the same moment.
TEST(EventSet, TimesOutOnceItsLimitHasPassedAndKeepsWhatWasSetMeanwhile) {
  CountingClock clock(false);
  EventSet events = SetOf(2);
  clock.during = &events;
  WaitResult result;
  EXPECT_EQ(events.Wait(1, result, 1), ERROR_SUCCESS);  // its limit began when the machine did
  EXPECT_EQ(result, (WaitResult{Kind::kTimeout, 0}));
  EXPECT_EQ(WaitFor(events, 0), (WaitResult{Kind::kEvent, 0}));
}

TEST(EventSet, FailsTheWaitWithTheInjectedCodeAndTakesNothing) {
  EventSet events = SetOf(1);
  events.Set(0);
  {
    const FaultPlan plan = FaultPlan::FailCall(Operation::kWaitForEvents, 1, 6);
    WaitResult result;
    EXPECT_EQ(events.Wait(0, result), 6u);
    EXPECT_EQ(result.kind, Kind::kFailed);
  }
  EXPECT_EQ(WaitFor(events, 0).kind, Kind::kEvent);
}

TEST(EventSet, CannotWaitBeforeItWasCreated) {
  EventSet events;
  WaitResult result;
  EXPECT_EQ(events.Wait(0, result), ERROR_INVALID_HANDLE);
  EXPECT_EQ(result.kind, Kind::kFailed);
}

TEST(EventSet, AsksTheFaultSeamForEachEventAndKeepsTheOldOnesOnFailure) {
  EventSet events = SetOf(2);
  events.Set(1);
  const FaultPlan plan = FaultPlan::FailCall(Operation::kCreateEvent, 6, 8);
  EXPECT_EQ(events.Create(6), 8u);
  EXPECT_EQ(events.Count(), 2u);
  EXPECT_EQ(WaitFor(events, 0), (WaitResult{Kind::kEvent, 1}));
}

}  // namespace
}  // namespace platform
