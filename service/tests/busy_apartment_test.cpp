// The scheduler goes on while the apartment is busy: with a call that takes its time, with a client that doesn't come
// back from an event.
#include <future>
#include <thread>

#include "platform/testing/counting_launcher.h"
#include "service/scheduler_loop.h"
#include "service/tests/service_fixture.h"

namespace qx::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class BusyApartment : public ServiceFixture {
 protected:
  // Somebody works in the apartment, and one call keeps it until Free().
  void Occupy() {
    m_thread = std::thread([this] { m_apartment.Run(); });
    m_apartment.Post([this] {
      m_isBusy.set_value();
      m_isFree.get_future().wait();
    });
    m_isBusy.get_future().wait();
  }
  void Free() { m_isFree.set_value(); }
  // All that was queued is done.
  void End() {
    m_apartment.Quit();
    m_thread.join();
  }
  ScheduleGuid Add(std::int64_t secondsAhead) {
    const ScheduleGuid id = Create(Daily(secondsAhead));
    EXPECT_EQ(TakeEvent(), CREATE_EVENT);
    m_sink->heard.clear();
    return id;
  }
  static std::string Told(const ScheduleGuid& id, std::int64_t secondsAhead) {
    return "window " + Text(id) + " " + std::to_string(kPresent + secondsAhead + kSecondsOfDay);
  }

  std::vector<std::int64_t> m_starts;  // seconds behind the present
  platform::CountingLauncher m_launcher{[this](std::u16string_view) -> platform::ErrorCode {
    m_starts.push_back(platform::NowSeconds() - kPresent);
    return platform::ERROR_SUCCESS;
  }};
  CSchedulerLoop m_loop{m_apartment, m_service};
  std::thread m_thread;
  std::promise<void> m_isBusy, m_isFree;
};

TEST_F(BusyApartment, JobsStartOnTheirSecondWhileACallTakesAMinuteAndAreToldInOrderBehindIt) {
  const ScheduleGuid last = Add(59);
  const ScheduleGuid first = Add(1);
  const ScheduleGuid second = Add(20);
  const ScheduleGuid alsoSecond = Add(20);  // the newer one of a second runs first
  Occupy();
  for (int i = 0; i < 3; ++i) ASSERT_TRUE(m_loop.Step());
  EXPECT_THAT(m_starts, ElementsAre(1, 20, 20, 59));
  EXPECT_EQ(platform::NowSeconds(), kPresent + 59);
  EXPECT_THAT(m_sink->heard, IsEmpty());  // nobody waited, nobody was told yet
  Free();
  End();
  EXPECT_THAT(m_sink->heard, ElementsAre(Told(first, 1), Told(alsoSecond, 20), Told(second, 20), Told(last, 59)));
}

TEST_F(BusyApartment, ManyNoticesWaitForAFreeApartmentAndArriveInOrder) {
  constexpr int kJobs = 60;
  std::vector<std::string> expected;
  for (int i = 1; i <= kJobs; ++i) expected.push_back(Told(Add(i), i));
  Occupy();
  for (int i = 0; i < kJobs; ++i) ASSERT_TRUE(m_loop.Step());
  ASSERT_EQ(m_starts.size(), static_cast<std::size_t>(kJobs));
  for (int i = 0; i < kJobs; ++i) ASSERT_EQ(m_starts[static_cast<std::size_t>(i)], i + 1);
  Free();
  End();
  EXPECT_EQ(m_sink->heard, expected);
}

// Takes its first event and doesn't come back until it may.
class SlowSink : public RecordingSink {
 public:
  void NextTimeWindow_Modify(const ScheduleGuid& id, std::int32_t window) override {
    RecordingSink::NextTimeWindow_Modify(id, window);
    if (heard.size() > 1) return;
    began.set_value();
    mayEnd.get_future().wait();
  }
  std::promise<void> began, mayEnd;
};

TEST_F(BusyApartment, AClientThatKeepsAnEventDelaysNoJob) {
  const auto slow = std::make_shared<SlowSink>();
  std::uint32_t cookie = 0;
  ASSERT_EQ(m_service.Advise(slow, cookie), 0u);
  const ScheduleGuid first = Add(5);
  const ScheduleGuid second = Add(6);
  slow->heard.clear();
  m_thread = std::thread([this] { m_apartment.Run(); });
  ASSERT_TRUE(m_loop.Step());
  slow->began.get_future().wait();  // the first event is with it
  ASSERT_TRUE(m_loop.Step());
  EXPECT_THAT(m_starts, ElementsAre(5, 6));
  slow->mayEnd.set_value();
  End();
  EXPECT_THAT(slow->heard, ElementsAre(Told(first, 5), Told(second, 6)));
  EXPECT_THAT(m_sink->heard, ElementsAre(Told(first, 5), Told(second, 6)));
}

}  // namespace
}  // namespace qx::testing
