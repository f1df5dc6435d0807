#include "service/event_sinks.h"

#include <stdexcept>

#include "service/tests/service_fixture.h"

namespace {

using qx::testing::RecordingSink;
using testing::ElementsAre;
using testing::IsEmpty;

const ScheduleGuid kSender = CLSID_SchedulerService;

class EventSinks : public testing::Test {
 protected:
  std::uint32_t Advise(CProxyISchedulerServiceEvents::Sink sink) {
    std::uint32_t cookie = 0;
    EXPECT_EQ(m_events.Advise(std::move(sink), cookie), 0u);
    return cookie;
  }
  ZepFoundation::CapturedServiceLog m_log;
  CProxyISchedulerServiceEvents m_events;
};

TEST_F(EventSinks, RefusesASinkWithoutTheInterface) {
  std::uint32_t cookie = 5;
  EXPECT_EQ(m_events.Advise(nullptr, cookie), 0x80040202u);
  EXPECT_EQ(cookie, 5u);
  EXPECT_EQ(m_events.SlotCount(), 0u);
}

TEST_F(EventSinks, KnowsNoCookieThatItDidNotGive) {
  EXPECT_EQ(m_events.Unadvise(0), 0x80040200u);
  const std::uint32_t cookie = Advise(std::make_shared<RecordingSink>());
  EXPECT_EQ(m_events.Unadvise(cookie + 1), 0x80040200u);
  EXPECT_EQ(m_events.Unadvise(cookie), 0u);
  EXPECT_EQ(m_events.Unadvise(cookie), 0x80040200u);
}

TEST_F(EventSinks, GrowsByDoublingAndUsesEmptySlotsAgain) {
  std::vector<std::uint32_t> cookies;
  std::vector<std::size_t> slots;
  for (int i = 0; i < 5; ++i) {
    cookies.push_back(Advise(std::make_shared<RecordingSink>()));
    slots.push_back(m_events.SlotCount());
  }
  EXPECT_THAT(slots, ElementsAre(1, 2, 4, 4, 8));
  EXPECT_EQ(m_events.Unadvise(cookies[1]), 0u);
  const std::uint32_t again = Advise(std::make_shared<RecordingSink>());
  EXPECT_EQ(m_events.SlotCount(), 8u);
  EXPECT_EQ(m_events.Unadvise(cookies[1]), 0x80040200u);  // the slot has a new owner
  EXPECT_EQ(m_events.Unadvise(again), 0u);
}

TEST_F(EventSinks, TellsEverySinkEachEvent) {
  const auto first = std::make_shared<RecordingSink>();
  const auto second = std::make_shared<RecordingSink>();
  const std::uint32_t cookie = Advise(first);
  Advise(second);
  m_events.Fire_Schedule_Add(kSender);
  m_events.Fire_Schedule_Modify(kSender);
  EXPECT_EQ(m_events.Unadvise(cookie), 0u);
  m_events.Fire_Schedule_Delete(kSender);
  m_events.Fire_NextTimeWindow_Modify(kSender, -1);
  m_events.Fire_SystemTime_Change(2, {u"{A}", u"{B}"}, {5, -1});
  const std::string id = qx::testing::Narrow(platform::GuidText(kSender));
  EXPECT_THAT(first->heard, ElementsAre("add " + id, "modify " + id));
  EXPECT_THAT(second->heard, ElementsAre("add " + id, "modify " + id, "delete " + id, "window " + id + " -1",
                                         "time 2 {A}=5 {B}=-1"));
}

// Runs a body at each addition.
class ActingSink : public RecordingSink {
 public:
  explicit ActingSink(std::function<void()> act) : m_act(std::move(act)) {}
  void Schedule_Add(const ScheduleGuid&) override { m_act(); }

 private:
  std::function<void()> m_act;
};

TEST_F(EventSinks, IsNotStoppedByASinkThatFails) {
  Advise(std::make_shared<ActingSink>([] { throw std::runtime_error("gone"); }));
  const auto second = std::make_shared<RecordingSink>();
  Advise(second);
  m_events.Fire_Schedule_Add(kSender);
  EXPECT_EQ(second->heard.size(), 1u);
}

TEST_F(EventSinks, LetsASinkAdviseAndUnadviseInsideItsEvent) {
  const auto late = std::make_shared<RecordingSink>();
  const auto gone = std::make_shared<RecordingSink>();
  std::uint32_t own = 0, other = 0;
  own = Advise(std::make_shared<ActingSink>([&] {
    EXPECT_EQ(m_events.Unadvise(own), 0u);
    EXPECT_EQ(m_events.Unadvise(other), 0u);
    Advise(late);  // into the first slot, which this event has passed
  }));
  other = Advise(gone);
  m_events.Fire_Schedule_Add(kSender);
  EXPECT_THAT(gone->heard, IsEmpty());
  EXPECT_THAT(late->heard, IsEmpty());
  m_events.Fire_Schedule_Delete(kSender);
  EXPECT_EQ(late->heard.size(), 1u);
}

TEST_F(EventSinks, ReachesNoSlotThatCameWhileTheEventWasFired) {
  const auto late = std::make_shared<RecordingSink>();
  Advise(std::make_shared<ActingSink>([&] { Advise(late); }));
  m_events.Fire_Schedule_Add(kSender);
  EXPECT_THAT(late->heard, IsEmpty());
}

}  // namespace
