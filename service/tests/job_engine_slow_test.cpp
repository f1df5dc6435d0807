// The job engine at its full size: a hundred thousand schedules, a million launches.
#include <malloc.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cmath>

#include "platform/testing/judges_memory.h"
#include "service/tests/simulated_machine.h"

namespace {

using platform::CountingLauncher;
using qx::testing::kPresent;
using qx::testing::kSecondsOfDay;
using qx::testing::MakeNode;

constexpr std::uint32_t kMany = 100'000;

double SecondsOf(const std::function<void()>& work) {
  const auto begin = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

struct Footprint {
  std::size_t heap;      // bytes in use
  std::size_t resident;  // bytes
  std::ptrdiff_t descriptors;
};

Footprint Measure() {
  malloc_trim(0);
  const std::size_t heap = platform::HeldBytes();
  std::size_t pages = 0, resident = 0;
  std::ifstream("/proc/self/statm") >> pages >> resident;
  return {heap, resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE)),
          std::distance(std::filesystem::directory_iterator("/proc/self/fd"), std::filesystem::directory_iterator())};
}

// Within one in a hundred of what it was.
void ExpectFlat(const Footprint& before, const Footprint& after) {
  EXPECT_LE(after.heap, before.heap + before.heap / 100);
  if (platform::kJudgesMemory) {
    EXPECT_LE(after.resident, before.resident + before.resident / 100);
  }
  EXPECT_EQ(after.descriptors, before.descriptors);
}

class JobEngine : public qx::testing::ServiceFixture {
 protected:
  void SetUp() override {
    ServiceFixture::SetUp();
    m_writer = ZepFoundation::SetServiceLogWriter(ZepFoundation::NullServiceLogWriter());
  }
  void TearDown() override {
    ZepFoundation::SetServiceLogWriter(m_writer);
    ServiceFixture::TearDown();
  }

  // Schedules of every day; the n-th, from 1, runs `apart` seconds behind the one before it.
  void ListMany(std::uint32_t count, std::int64_t apart) {
    for (std::uint32_t number = 1; number <= count; ++number) {
      ASSERT_EQ(g_JobList.AddJob(MakeNode(Daily(3600 + (number - 1) * apart), number)), kStatusOk);
    }
  }
  // One cycle, and what it told; returns how many events clients heard.
  std::size_t StepAndDeliver() {
    EXPECT_TRUE(m_loop.Step());
    (void)m_apartment.Step(0);
    const std::size_t heard = m_sink->heard.size();
    m_sink->heard.clear();
    return heard;
  }

  qx::CSchedulerLoop m_loop{m_apartment, m_service};
  ZepFoundation::ServiceLogWriter* m_writer = nullptr;
};

TEST_F(JobEngine, StartsAHundredThousandJobsOfOneSecondInOnePassNewestFirst) {
  ListMany(kMany, 0);
  std::vector<std::uint32_t> order;
  CountingLauncher launcher([&](std::u16string_view line) {
    order.push_back(
        static_cast<std::uint32_t>(std::stoul(qx::testing::Narrow(line.substr(line.find(u'{') + 1, 8)), nullptr, 16)));
    return platform::ErrorCode{0};
  });
  for (int day = 0; day < 3; ++day) {
    order.clear();
    EXPECT_EQ(StepAndDeliver(), kMany);
    EXPECT_EQ(platform::NowSeconds(), kPresent + 3600 + day * kSecondsOfDay);
    ASSERT_EQ(order.size(), kMany);
    for (std::uint32_t i = 0; i < kMany; ++i) ASSERT_EQ(order[i], kMany - i);
  }
  EXPECT_EQ(g_JobList.Size(), kMany);
}

TEST_F(JobEngine, ComputesAHundredThousandWindowsAnewAtAChangeOfTheClock) {
  ListMany(kMany, 0);
  MakeKey(std::u16string(qx::kSchedulesKey) + u"\\any");  // without a key nothing is done
  m_clock.SetWall(kPresent + 30 * kSecondsOfDay);
  g_SchedulerEvents.Set(SYSTEM_TIME_CHANGED);
  EXPECT_TRUE(m_loop.Step());
  (void)m_apartment.Step(0);
  ASSERT_EQ(m_sink->heard.size(), 1u);
  EXPECT_EQ(m_sink->heard.front().substr(0, 12), "time 100000 ");
  const platform::CriticalSectionGuard guard(g_JobListLock);
  for (auto at = g_JobList.Begin(); at != g_JobList.End(); ++at) {
    ASSERT_EQ(at->NextTimeWindow, kPresent + 30 * kSecondsOfDay + 3600);
  }
}

// What an insertion, a deletion and a launch cost may grow with the logarithm of the list, not with its length: the
// lists differ by a factor of a hundred, the costs by less than ten, of which the caches take most.
TEST_F(JobEngine, WalksOverNoListToInsertDeleteOrLaunch) {
  constexpr std::uint32_t kFew = 500;
  constexpr std::uint32_t kHundredTimesAsMany = 100 * kFew;
  constexpr double kLimit = 10;
  const CountingLauncher launcher;
  struct Cost {
    double change = INFINITY;
    double launch = INFINITY;
  };
  const auto measure = [&](std::uint32_t count) {
    DoCleanUp();
    m_clock.SetWall(kPresent);
    // Within one day, so that a launched one goes to the very end and the next launch is another's.
    for (std::uint32_t number = 1; number <= count; ++number) {
      EXPECT_EQ(g_JobList.AddJob(MakeNode(Daily(3600 + number * 40'000 / count * 2), number)), kStatusOk);
    }
    CJobNode middle = MakeNode(Daily(3600 + 40'000), count + 1);
    Cost cost;
    for (int round = 0; round < 7; ++round) {
      cost.change = std::min(cost.change, SecondsOf([&] {
                               for (int i = 0; i < 200; ++i) {
                                 EXPECT_EQ(g_JobList.AddJob(middle), kStatusOk);
                                 g_JobList.RemoveJob(middle);
                               }
                             }));
      const std::uint64_t before = launcher.count();
      const double seconds = SecondsOf([&] {
        while (launcher.count() - before < 100) (void)StepAndDeliver();
      });
      cost.launch = std::min(cost.launch, seconds / static_cast<double>(launcher.count() - before));
    }
    middle.ReleaseScheduler();
    return cost;
  };
  const Cost few = measure(kFew);
  const Cost many = measure(kHundredTimesAsMany);
  RecordProperty("insertAndDeleteRatio", std::to_string(many.change / few.change));
  RecordProperty("launchRatio", std::to_string(many.launch / few.launch));
  std::printf("ratio of the costs: insert and delete %.2f, launch %.2f\n", many.change / few.change,
              many.launch / few.launch);
  EXPECT_LT(many.change, few.change * kLimit);
  EXPECT_LT(many.launch, few.launch * kLimit);
}

TEST_F(JobEngine, KeepsItsMemoryFlatOverAMillionLaunches) {
  ListMany(1000, 60);
  const CountingLauncher launcher;
  const auto launch = [&](std::uint64_t upTo) {
    while (launcher.count() < upTo) (void)StepAndDeliver();
  };
  launch(20'000);
  const Footprint before = Measure();
  for (std::uint64_t launches = 100'000; launches <= 1'000'000; launches += 100'000) {
    launch(launches);
    ExpectFlat(before, Measure());
  }
  EXPECT_EQ(g_JobList.Size(), 1000u);
}

TEST_F(JobEngine, LeaksNothingOverAHundredThousandRealLaunches) {
  ListMany(200, 0);
  const auto launchDay = [&] {
    (void)StepAndDeliver();
    ASSERT_TRUE(platform::WaitForAllChildren(60'000));
  };
  for (int day = 0; day < 10; ++day) launchDay();
  const Footprint before = Measure();
  for (std::uint32_t launches = 0; launches < kMany; launches += 200) launchDay();
  ExpectFlat(before, Measure());
  EXPECT_EQ(platform::LiveChildren(), 0u);
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}

}  // namespace
