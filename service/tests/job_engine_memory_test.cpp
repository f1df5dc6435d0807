// Memory runs out at each allocation of the job engine in turn, once or from then on until the operation is over: the
// list stays whole, and what could be done is done when there is memory again.
#include <functional>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "platform/testing/counting_launcher.h"
#include "platform/testing/refused_memory.h"
#include "service/load_ahead.h"
#include "service/scheduler_loop.h"
#include "service/tests/service_fixture.h"
#include "service/time_change.h"
#include "service/time_change_thread.h"

namespace {

using platform::AllowMemory;
using platform::FaultMode;
using platform::RefuseMemory;
using platform::TakeRefusedCount;
using qx::testing::kPresent;
using qx::testing::kSecondsOfDay;

constexpr FaultMode kModes[] = {platform::kOnce, platform::kFromThenOn};

// Does something with memory that runs out behind `ahead` allocations.
//   returns  whether an exception came out of it
bool Throws(long ahead, FaultMode mode, const std::function<void()>& operation) {
  bool thrown = false;
  RefuseMemory(ahead, mode);
  try {
    operation();
  } catch (const std::bad_alloc&) {
    thrown = true;
  }
  AllowMemory();
  return thrown;
}

CJobNode Node(std::uint32_t number, std::int64_t window) {
  CJobNode node;
  node.ScheduleID.Data1 = number;
  node.NextTimeWindow = window;
  node.LaunchPath = u"a command line that has to be kept somewhere";
  return node;
}

using Contents = std::vector<std::pair<std::uint32_t, std::int64_t>>;

Contents ContentsOf(CJobList& list) {
  const platform::CriticalSectionGuard guard(g_JobListLock);
  Contents out;
  for (auto at = list.Begin(); at != list.End(); ++at) {
    out.emplace_back(at->ScheduleID.Data1, at->NextTimeWindow);
    EXPECT_TRUE(list.Find(at->ScheduleID) == at);
  }
  EXPECT_EQ(list.Size(), out.size());
  return out;
}

void Change(CJobList& list, std::uint32_t number, std::int64_t window) {
  const platform::CriticalSectionGuard guard(g_JobListLock);
  const auto at = list.Find(Node(number, 0).ScheduleID);
  at->NextTimeWindow = window;
  list.MarkChanged(at);
}

TEST(JobListMemory, AFailedAdditionLeavesTheListAsItWas) {
  long refused = 0;
  for (long ahead = 0;; ++ahead) {
    CJobList list;
    for (std::uint32_t i = 1; i <= 3; ++i) EXPECT_EQ(list.AddJob(Node(i, 10 * i)), kStatusOk);
    Change(list, 1, 40);
    const CJobNode node = Node(7, 20);
    Status status = kStatusFailure;
    const bool thrown = Throws(ahead, platform::kOnce, [&] { status = list.AddJob(node); });
    if (TakeRefusedCount() == 0) break;
    ++refused;
    EXPECT_TRUE(thrown) << ahead;
    EXPECT_EQ(list.AddJob(node), kStatusOk) << ahead;
    EXPECT_EQ(ContentsOf(list), (Contents{{7, 20}, {2, 20}, {3, 30}, {1, 40}})) << ahead;
  }
  EXPECT_GT(refused, 2);
}

TEST(JobListMemory, AFailedAdditionOfManyLeavesTheListAndTheNodesAsTheyWere) {
  long refused = 0;
  for (long ahead = 0;; ++ahead) {
    CJobList list;
    EXPECT_EQ(list.AddJob(Node(1, 10)), kStatusOk);
    std::vector<CJobNode> nodes;
    for (std::uint32_t i = 2; i <= 5; ++i) nodes.push_back(Node(i, 60 - 10 * i));
    const auto none = [](CJobNode&) { FAIL(); };
    const bool thrown = Throws(ahead, platform::kOnce, [&] { list.AddJobs(nodes, none); });
    if (TakeRefusedCount() == 0) break;
    ++refused;
    EXPECT_TRUE(thrown) << ahead;
    EXPECT_EQ(ContentsOf(list), (Contents{{1, 10}})) << ahead;
    for (const CJobNode& node : nodes) EXPECT_FALSE(node.LaunchPath.empty()) << ahead;
    list.AddJobs(nodes, none);
    EXPECT_EQ(ContentsOf(list), (Contents{{5, 10}, {1, 10}, {4, 20}, {3, 30}, {2, 40}})) << ahead;
  }
  EXPECT_GT(refused, 8);
}

TEST(JobListMemory, ChangesAndASortNeedNone) {
  CJobList list;
  for (std::uint32_t i = 1; i <= 100; ++i) EXPECT_EQ(list.AddJob(Node(i, 10 * i)), kStatusOk);
  EXPECT_FALSE(Throws(0, platform::kFromThenOn, [&] {
    const platform::CriticalSectionGuard guard(g_JobListLock);
    for (auto at = list.Begin(); at != list.End(); ++at) {
      at->NextTimeWindow = at->ScheduleID.Data1 % 3 == 0 ? 7 : 2000 - at->NextTimeWindow;
      list.MarkChanged(at);
    }
    list.Sort();
  }));
  EXPECT_EQ(TakeRefusedCount(), 0);
  EXPECT_EQ(ContentsOf(list).front(), (std::pair<std::uint32_t, std::int64_t>{3, 7}));
}

class JobEngineMemory : public qx::testing::ServiceFixture, public testing::WithParamInterface<FaultMode> {
 protected:
  void SetUp() override {
    ServiceFixture::SetUp();
    for (const std::int64_t ahead : {3600, 7200, 10800}) m_ids.push_back(Create(Daily(ahead)));
    m_expected = Windows();
    Settle();
  }
  std::vector<std::int64_t> Windows() const {
    std::vector<std::int64_t> windows;
    for (const ScheduleGuid& id : m_ids) windows.push_back(ListedWindow(id));
    return windows;
  }
  static void RemoveFromList(const ScheduleGuid& id) {
    const platform::CriticalSectionGuard guard(g_JobListLock);
    const auto at = g_JobList.Find(id);
    at->ReleaseScheduler();
    g_JobList.Erase(at);
  }
  void Settle() {
    while (TakeEvent() >= 0) {
    }
    m_sink->heard.clear();
    m_log.Clear();
  }
  // The scheduler thread's life from the present to the sleep number `sleeps`, with memory that runs out on the way.
  bool LiveThrows(long ahead, int sleeps) {
    qx::CSchedulerLoop loop(m_apartment, m_service);
    int slept = 0;
    loop.SetSleepNotice([&](std::int64_t) {
      if (++slept < sleeps) return;
      AllowMemory();
      g_SchedulerEvents.Set(SHUTDOWN_EVENT);
    });
    return Throws(ahead, GetParam(), [&] { (void)qx::ThreadProcedure(loop); });
  }

  static constexpr const char* kHasCounted = "Number of Schedules in the registry = 3";  // from here on they are loaded
  std::vector<ScheduleGuid> m_ids;
  std::vector<std::int64_t> m_expected;
};

INSTANTIATE_TEST_SUITE_P(RunsOut, JobEngineMemory, testing::ValuesIn(kModes), [](const auto& tested) {
  return tested.param == platform::kOnce ? "Once" : "FromThenOn";
});

TEST_P(JobEngineMemory, ARefreshSkipsWhatItCanNotLoadAndTheNextOneLoadsIt) {
  for (long ahead = 0;; ++ahead) {
    m_log.Clear();
    const bool thrown = Throws(ahead, GetParam(), [&] { (void)m_service.Refresh(); });
    if (TakeRefusedCount() == 0) break;
    const bool hasBegun = m_log.Has(3, kHasCounted);
    EXPECT_FALSE(thrown && hasBegun) << ahead;
    if (hasBegun && GetParam() == platform::kOnce) {
      EXPECT_GE(g_JobList.Size(), 2u) << ahead;
    }
    ASSERT_EQ(m_service.Refresh(), kStatusOk) << ahead;
    ASSERT_EQ(Windows(), m_expected) << ahead;
  }
}

// Also where nothing is set aside; what it can't load leaves nothing behind.
TEST_P(JobEngineMemory, ALoadSkipsWhatItCanNotLoadAndTheNextOneLoadsIt) {
  for (long ahead = 0;; ++ahead) {
    DoCleanUp();
    (void)Throws(ahead, GetParam(), [] { (void)PopulateJobList(); });
    const bool refused = TakeRefusedCount() != 0;
    if (!refused) {
      EXPECT_EQ(Windows(), m_expected);
      EXPECT_GT(ahead, 30) << "the refusals met nobody";
      break;
    }
    DoCleanUp();
    ASSERT_EQ(PopulateJobList(), kStatusOk) << ahead;
    ASSERT_EQ(Windows(), m_expected) << ahead;
  }
}

TEST_P(JobEngineMemory, AScheduleWithoutAJobIsToldWholeOrNotAtAll) {
  RemoveFromList(m_ids[1]);
  for (long ahead = 0;; ++ahead) {
    ScheduleInfo info;
    Status status = kStatusFailure;
    if (Throws(ahead, GetParam(), [&] { status = m_service.GetScheduleInfo(m_ids[1], info); })) status = kStatusFailure;
    if (TakeRefusedCount() == 0) {
      EXPECT_EQ(status, kStatusOk);
      EXPECT_GT(ahead, 30) << "the refusals met nobody";
      break;
    }
    EXPECT_EQ(status == kStatusOk, static_cast<bool>(info)) << ahead;
  }
}

TEST_P(JobEngineMemory, WhatWasLoadedAheadIsListedOrLoadedCallByCall) {
  for (long ahead = 0;; ++ahead) {
    DoCleanUp();
    auto loaded = std::make_unique<qx::LoadAhead>(m_folder + "/registry.db", 3);
    ASSERT_TRUE(loaded->Wait());
    m_log.Clear();
    bool done = false;
    const bool thrown = Throws(ahead, GetParam(), [&] { done = PopulateJobList(std::move(loaded)) == kStatusOk; });
    const bool refused = TakeRefusedCount() != 0;
    EXPECT_FALSE(thrown && m_log.Has(3, kHasCounted)) << ahead;
    if (!thrown && GetParam() == platform::kOnce) {
      EXPECT_TRUE(done);
      EXPECT_EQ(Windows(), m_expected) << ahead;
      EXPECT_EQ(m_log.Count(1, "Failed to add the job to the job list, error = 80040200"), 0) << ahead;
    }
    if (!refused) break;
  }
}

TEST_P(JobEngineMemory, TheSchedulerLaunchesAtMostOnceAndGoesOn) {
  const platform::CountingLauncher launcher;
  const ScheduleGuid ending = Create(Once());
  for (long ahead = 0;; ++ahead) {
    m_clock.SetWall(kPresent);
    ASSERT_EQ(m_service.Refresh(), kStatusOk);
    Settle();
    const std::uint64_t before = launcher.count();
    ASSERT_FALSE(LiveThrows(ahead, 3)) << ahead;  // at two of them
    const bool refused = TakeRefusedCount() != 0;
    EXPECT_LE(launcher.count() - before, 3u) << ahead;
    EXPECT_NE(ListedWindow(ending), -1) << ahead;
    for (const std::int64_t window : Windows()) EXPECT_GT(window, platform::NowSeconds() - 1) << ahead;
    (void)m_apartment.Step(0);
    if (!refused) {
      EXPECT_EQ(launcher.count() - before, 3u);
      EXPECT_EQ(m_sink->heard.size(), 3u);
      break;
    }
  }
}

TEST_P(JobEngineMemory, APassOverAChangedClockIsMadeUntilItIsDone) {
  for (long ahead = 0;; ++ahead) {
    m_clock.SetWall(kPresent);
    ASSERT_EQ(m_service.Refresh(), kStatusOk);
    RemoveFromList(m_ids[1]);  // has to come back
    Settle();
    m_clock.SetWall(kPresent - kSecondsOfDay);
    g_SchedulerEvents.Set(SYSTEM_TIME_CHANGED);
    ASSERT_FALSE(LiveThrows(ahead, GetParam() == platform::kOnce ? 3 : 4)) << ahead;
    const bool refused = TakeRefusedCount() != 0;
    if (refused && TakeEvent() == SYSTEM_TIME_CHANGED) {  // memory was back for the last sleep only
      qx::TimeChangePass(m_apartment, m_service);
    }
    // Told so: without memory for the arrays the pass ends, and no window is computed.
    const bool hadNoArrays = m_log.Has(1, "Failed to send the Notification");
    for (std::size_t i = 0; i < m_ids.size() && !hadNoArrays; ++i) {
      const std::int64_t window = ListedWindow(m_ids[i]);
      if (window == -2) {
        EXPECT_TRUE(refused && i == 1) << ahead;  // skipped as any that can't be loaded
      } else {
        EXPECT_EQ((window - m_expected[i]) % kSecondsOfDay, 0) << ahead;
        EXPECT_GT(window, platform::NowSeconds() - 1) << ahead;
        EXPECT_LE(window, platform::NowSeconds() + kSecondsOfDay) << ahead;
      }
    }
    if (!refused) break;
  }
}

TEST_P(JobEngineMemory, NoNoticeOfAChangedClockIsLost) {
  for (long ahead = 0;; ++ahead) {
    platform::ClockWatch watch;
    qx::CTimeChangeThread thread(watch);
    int handedOn = 0;
    ASSERT_EQ(watch.Register([&](const platform::ClockNotice& notice) {
                if (++handedOn > 2) AllowMemory();
                thread.OnNotice(notice);
              }),
              0u);
    m_clock.Advance(10000);
    EXPECT_FALSE(Throws(ahead, GetParam(), [&] { thread.HandOn({platform::ClockNotice::kTimeChange, false}); }))
        << ahead;
    EXPECT_EQ(TakeEvent(), SYSTEM_TIME_CHANGED) << ahead;
    if (TakeRefusedCount() == 0) break;
  }
}

}  // namespace
