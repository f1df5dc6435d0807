#include "platform/apartment.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "platform/testing/fault.h"

namespace platform {
namespace {

using testing::ElementsAre;

std::vector<std::string> g_reports;
void Collect(std::string_view where, std::string_view what) {
  g_reports.push_back(std::string(where) + ": " + std::string(what));
}

// An apartment that runs on a thread of its own until the end of the test.
class RunningApartment {
 public:
  RunningApartment() : m_thread([this] { apartment.Run(); }) {
    std::promise<void> running;
    apartment.Post([&] { running.set_value(); });
    running.get_future().wait();  // from here on the other thread is the apartment's own
  }
  ~RunningApartment() {
    apartment.Quit();
    m_thread.join();
  }
  Apartment apartment;

 private:
  std::thread m_thread;
};

TEST(Apartment, RunsPostedTasksInOrderOnlyWhenItSteps) {
  Apartment apartment;
  std::vector<int> order;
  for (int i = 1; i <= 3; ++i) EXPECT_TRUE(apartment.Post([&order, i] { order.push_back(i); }));
  EXPECT_TRUE(order.empty());
  EXPECT_TRUE(apartment.Step(0));
  EXPECT_THAT(order, ElementsAre(1, 2, 3));
}

TEST(Apartment, RunsATaskThatATaskPostedInTheNextTurn) {
  Apartment apartment;
  std::vector<int> order;
  apartment.Post([&] {
    order.push_back(1);
    apartment.Post([&] { order.push_back(3); });
    order.push_back(2);
  });
  apartment.Step(0);
  EXPECT_THAT(order, ElementsAre(1, 2));
  apartment.Step(Apartment::kForever);  // doesn't wait: a task is queued
  EXPECT_THAT(order, ElementsAre(1, 2, 3));
}

TEST(Apartment, RunsASentTaskInlineOnItsOwnThread) {
  Apartment apartment;
  bool ran = false;
  EXPECT_TRUE(apartment.IsOwnThread());
  EXPECT_TRUE(apartment.Send([&] { ran = true; }));
  EXPECT_TRUE(ran);
}

TEST(Apartment, RunsASentTaskBehindWhatIsQueuedAndReturnsAfterIt) {
  RunningApartment running;
  std::vector<int> order;
  std::thread::id where;
  running.apartment.Post([&] { order.push_back(1); });
  EXPECT_TRUE(running.apartment.Send([&] {
    order.push_back(2);
    where = std::this_thread::get_id();
  }));
  EXPECT_THAT(order, ElementsAre(1, 2));
  EXPECT_NE(where, std::this_thread::get_id());
  EXPECT_FALSE(running.apartment.IsOwnThread());
}

TEST(Apartment, SendsFromATaskToItselfWithoutWaitingForItself) {
  RunningApartment running;
  bool inner = false;
  EXPECT_TRUE(running.apartment.Send([&] { EXPECT_TRUE(running.apartment.Send([&] { inner = true; })); }));
  EXPECT_TRUE(inner);
}

TEST(Apartment, KeepsTheOrderOfEachOfManyPosters) {
  RunningApartment running;
  constexpr int kPosters = 4;
  constexpr int kTasks = 2000;
  std::vector<std::vector<int>> seen(kPosters);
  std::vector<std::thread> posters;
  for (int p = 0; p < kPosters; ++p) {
    posters.emplace_back([&, p] {
      for (int i = 0; i < kTasks; ++i) running.apartment.Post([&seen, p, i] { seen[static_cast<std::size_t>(p)].push_back(i); });
    });
  }
  for (std::thread& poster : posters) poster.join();
  EXPECT_TRUE(running.apartment.Send([] {}));
  for (const std::vector<int>& order : seen) {
    EXPECT_EQ(order.size(), static_cast<std::size_t>(kTasks));
    EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
  }
}

TEST(Apartment, RunsWhatWasQueuedBeforeItQuitsAndNothingAfter) {
  Apartment apartment;
  int ran = 0;
  apartment.Post([&] { ++ran; });
  apartment.Quit();
  EXPECT_FALSE(apartment.Step(0));
  EXPECT_EQ(ran, 1);
  EXPECT_TRUE(apartment.HasEnded());
  EXPECT_FALSE(apartment.Post([&] { ++ran; }));
  EXPECT_FALSE(apartment.Send([&] { ++ran; }));
  EXPECT_FALSE(apartment.Step(0));
  EXPECT_EQ(ran, 1);
}

TEST(Apartment, QuitsFromATaskAndFromAnotherThread) {
  Apartment apartment;
  apartment.Post([&] { apartment.Quit(); });
  apartment.Run();
  EXPECT_TRUE(apartment.HasEnded());

  Apartment other;
  std::thread quitter([&] { other.Quit(); });
  other.Run();
  quitter.join();
  EXPECT_TRUE(other.HasEnded());
}

TEST(Apartment, LetsGoOfASenderWhoseTaskItDoesNotRun) {
  Apartment apartment;
  bool ran = false;
  bool result = true;
  std::thread sender([&] { result = apartment.Send([&ran] { ran = true; }); });
  // Whether the task is put in before or after the end, the sender is let go and told the truth.
  std::thread ender([&] {
    apartment.Quit();
    apartment.Run();
  });
  ender.join();
  sender.join();
  EXPECT_EQ(result, ran);
}

TEST(Apartment, CatchesWhateverATaskThrowsAndGoesOn) {
  g_reports.clear();
  SetGuardReport(Collect);
  Apartment apartment;
  bool ran = false;
  apartment.Post([] { throw std::runtime_error("bad day"); });
  apartment.Post([] { throw 7; });
  apartment.Post([&] { ran = true; });
  EXPECT_TRUE(apartment.Step(0));
  SetGuardReport(nullptr);
  EXPECT_TRUE(ran);
  EXPECT_THAT(g_reports, ElementsAre("task: bad day", "task: not a standard exception"));
}

TEST(Apartment, RunsTimersWhenTheyAreDueInTheirOrder) {
  Apartment apartment;
  std::vector<int> order;
  apartment.StartTimer(6, [&] { order.push_back(2); });
  apartment.StartTimer(3, [&] { order.push_back(1); });
  const auto stopped = apartment.StartTimer(4, [&] { order.push_back(9); });
  apartment.StopTimer(stopped);
  while (order.size() < 2) apartment.Step(Apartment::kForever);  // the timers alone end the waits
  EXPECT_THAT(order, ElementsAre(1, 2));
}

// A pipe's reading end that gives its bytes one by one.
class ByteSource : public PollSource {
 public:
  explicit ByteSource(int fd) : m_fd(fd) {}
  bool Process() override {
    pollfd ready = {m_fd, POLLIN, 0};
    if (poll(&ready, 1, 0) <= 0) return false;
    char c = 0;
    if (read(m_fd, &c, 1) == 1) seen += c;
    return true;
  }
  int PollDescriptor() const override { return m_fd; }
  short PollEvents() const override { return POLLIN; }
  std::optional<std::uint32_t> PollLimit() const override { return std::nullopt; }
  std::string seen;

 private:
  int m_fd;
};

TEST(Apartment, ListensToItsSourcesInTheSamePoll) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  ByteSource source(ends[0]);
  Apartment apartment;
  apartment.AddSource(&source);
  ASSERT_EQ(write(ends[1], "ab", 2), 2);
  while (source.seen.size() < 2) apartment.Step(Apartment::kForever);
  EXPECT_EQ(source.seen, "ab");
  apartment.RemoveSource(&source);
  ASSERT_EQ(write(ends[1], "c", 1), 1);
  apartment.Step(0);
  EXPECT_EQ(source.seen, "ab");
  close(ends[0]);
  close(ends[1]);
}

// Always has more to do.
class BusySource : public PollSource {
 public:
  bool Process() override { return ++calls > 0; }
  int PollDescriptor() const override { return -1; }
  short PollEvents() const override { return 0; }
  std::optional<std::uint32_t> PollLimit() const override { return std::nullopt; }
  int calls = 0;
};

TEST(Apartment, RunsItsTasksBesideASourceThatAlwaysHasMore) {
  BusySource source;
  Apartment apartment;
  apartment.AddSource(&source);
  bool ran = false;
  apartment.Post([&] { ran = true; });
  apartment.Step(Apartment::kForever);
  EXPECT_TRUE(ran);
  EXPECT_LE(source.calls, 16);
  apartment.RemoveSource(&source);
}

// Has three pieces of work; in the midst of the first one a task is put in.
class OrderedSource : public PollSource {
 public:
  OrderedSource(Apartment& apartment, std::string& order) : m_apartment(apartment), m_order(order) {}
  bool Process() override {
    if (m_left == 0) return false;
    m_order += 'w';
    if (--m_left == 2) m_apartment.Post([this] { m_order += 't'; });
    return m_left > 0;
  }
  int PollDescriptor() const override { return -1; }
  short PollEvents() const override { return 0; }
  std::optional<std::uint32_t> PollLimit() const override { return 0; }

 private:
  Apartment& m_apartment;
  std::string& m_order;
  int m_left = 3;
};

TEST(Apartment, RunsATaskAheadOfTheWorkThatWasBegunBehindIt) {
  std::string order;
  Apartment apartment;
  OrderedSource source(apartment, order);
  apartment.AddSource(&source);
  apartment.Post([&] { order += 't'; });
  apartment.Step(0);
  EXPECT_EQ(order, "twtww");
  apartment.RemoveSource(&source);
}

TEST(Apartment, LetsATaskTakeOutTheSourceThatIsBeingWorkedOn) {
  BusySource source;
  Apartment apartment;
  apartment.AddSource(&source);
  apartment.Post([&] { apartment.RemoveSource(&source); });
  apartment.Step(0);
  EXPECT_EQ(source.calls, 0);
}

TEST(Apartment, WorksWithoutADescriptorForWaking) {
  rlimit before = {};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  const rlimit none = {0, before.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  Apartment apartment;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
  bool ran = false;
  std::thread poster([&] { apartment.Post([&] { ran = true; }); });
  while (!ran) apartment.Step(Apartment::kForever);
  poster.join();
  EXPECT_TRUE(ran);
}

TEST(ApartmentProxy, PostsToItsApartment) {
  Apartment apartment;
  ApartmentProxy proxy;
  EXPECT_FALSE(proxy.Post([] {}));
  ASSERT_EQ(proxy.Create(apartment), ERROR_SUCCESS);
  bool ran = false;
  EXPECT_TRUE(proxy.Post([&] { ran = true; }));
  apartment.Step(0);
  EXPECT_TRUE(ran);
  proxy.Release();
  EXPECT_FALSE(static_cast<bool>(proxy));
}

TEST(ApartmentProxy, CannotBeMadeForAnApartmentThatHasEnded) {
  Apartment apartment;
  apartment.Quit();
  apartment.Run();
  ApartmentProxy proxy;
  EXPECT_EQ(proxy.Create(apartment), ERROR_NOT_CONNECTED);
  EXPECT_FALSE(static_cast<bool>(proxy));
}

TEST(ApartmentProxy, FailsToBeMadeWithTheInjectedCode) {
  Apartment apartment;
  ApartmentProxy proxy;
  const FaultPlan plan = FaultPlan::FailCall(Operation::kBusCreateInstance, 1, 1168);
  EXPECT_EQ(proxy.Create(apartment), 1168u);
  EXPECT_FALSE(static_cast<bool>(proxy));
}

}  // namespace
}  // namespace platform
