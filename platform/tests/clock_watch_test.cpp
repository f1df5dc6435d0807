#include "platform/clock_watch.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/clock.h"
#include "platform/descriptor.h"
#include "platform/testing/fault.h"
#include "platform/testing/temporary_folder.h"

namespace platform {
namespace {

class ClockWatchTest : public testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::create_directory(directory + "/zones");
    Write("zones/first", "1");
    Write("zones/second", "2");
    std::filesystem::create_symlink("zones/first", Link());
  }

  std::string Link() const { return directory + "/localtime"; }
  void Write(const std::string& name, const std::string& text) const {
    std::ofstream file(directory + "/" + name);
    file << text;
  }

  static ClockNotice Next(ClockWatch& watch) {
    ClockNotice notice;
    EXPECT_EQ(watch.Read(notice), ERROR_SUCCESS);
    return notice;
  }
  // Nothing is pending: a notice asked for comes first.
  static void ExpectQuiet(ClockWatch& watch) {
    watch.SetGuard(1);
    EXPECT_EQ(Next(watch).message, ClockNotice::kGuard);
  }

  const TemporaryFolder m_temporary{"qx-watch"};
  const std::string directory = m_temporary.Path();
};

TEST_F(ClockWatchTest, HandsNoticesToTheRegisteredProcedure) {
  ClockWatch watch(Link());
  std::vector<std::uint32_t> seen;
  watch.Dispatch({ClockNotice::kTimeChange, false});  // nobody is registered
  ASSERT_EQ(watch.Register([&](const ClockNotice& notice) { seen.push_back(notice.message); }), ERROR_SUCCESS);
  ASSERT_EQ(watch.Create(), ERROR_SUCCESS);
  watch.NotifyForTest();
  watch.Dispatch(Next(watch));
  EXPECT_THAT(seen, testing::ElementsAre(ClockNotice::kTimeChange));
  EXPECT_EQ(watch.Register(nullptr), ERROR_INVALID_PARAMETER);
}

TEST_F(ClockWatchTest, NoticesALinkThatIsReplaced) {
  ClockWatch watch(Link());
  ASSERT_EQ(watch.Create(), ERROR_SUCCESS);
  std::filesystem::create_symlink("zones/second", directory + "/fresh");
  std::filesystem::rename(directory + "/fresh", Link());
  EXPECT_EQ(Next(watch).message, ClockNotice::kTimeChange);
  ExpectQuiet(watch);
}

TEST_F(ClockWatchTest, NoticesOnceThatAFileTookTheLinksPlace) {
  ClockWatch watch(Link());
  ASSERT_EQ(watch.Create(), ERROR_SUCCESS);
  std::filesystem::remove(Link());
  Write("localtime", "3");
  Write("localtime", "4");
  EXPECT_EQ(Next(watch).message, ClockNotice::kTimeChange);
  ExpectQuiet(watch);
}

TEST_F(ClockWatchTest, NoticesNewDataBehindTheLinkAndBehindItsSuccessor) {
  ClockWatch watch(Link());
  ASSERT_EQ(watch.Create(), ERROR_SUCCESS);
  Write("zones/first", "new rules");
  EXPECT_EQ(Next(watch).message, ClockNotice::kTimeChange);

  std::filesystem::create_directory(directory + "/other");
  Write("other/third", "3");
  std::filesystem::create_symlink("other/third", directory + "/fresh");
  std::filesystem::rename(directory + "/fresh", Link());
  EXPECT_EQ(Next(watch).message, ClockNotice::kTimeChange);
  Write("other/third", "33");
  EXPECT_EQ(Next(watch).message, ClockNotice::kTimeChange);
  ExpectQuiet(watch);
}

TEST_F(ClockWatchTest, IgnoresOtherFilesBesideTheLink) {
  ClockWatch watch(Link());
  ASSERT_EQ(watch.Create(), ERROR_SUCCESS);
  Write("hostname", "x");
  Write("zones/second", "x");
  std::filesystem::remove(directory + "/hostname");
  ExpectQuiet(watch);
}

// Writes a file again and again, until it is told to end or has done so for far longer than any wait for quiet.
class RestlessWriter {
 public:
  explicit RestlessWriter(std::string file) : m_file(std::move(file)), m_thread([this] { Write(); }) {
    while (!m_begun) std::this_thread::yield();
  }
  ~RestlessWriter() { m_thread.join(); }
  RestlessWriter(const RestlessWriter&) = delete;
  RestlessWriter& operator=(const RestlessWriter&) = delete;
  // Whether it was still at it.
  bool End() {
    m_wanted = false;
    return !m_gaveUp;
  }

 private:
  void Write() {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    const Descriptor pace(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC));
    const itimerspec every = {{0, 5'000'000}, {0, 5'000'000}};
    EXPECT_EQ(timerfd_settime(pace.Get(), 0, &every, nullptr), 0);
    while (m_wanted && !m_gaveUp) {
      std::ofstream(m_file) << "x";
      m_begun = true;
      std::uint64_t ticks = 0;
      EXPECT_EQ(read(pace.Get(), &ticks, sizeof ticks), static_cast<ssize_t>(sizeof ticks));
      m_gaveUp = std::chrono::steady_clock::now() > end;
    }
  }

  const std::string m_file;
  std::atomic<bool> m_wanted{true}, m_begun{false}, m_gaveUp{false};
  std::thread m_thread;
};

TEST_F(ClockWatchTest, TellsAChangeOfTheZoneBesideAFileThatNeverRests) {
  ClockWatch watch(Link());
  ASSERT_EQ(watch.Create(), ERROR_SUCCESS);
  RestlessWriter writer(directory + "/neighbour");
  std::filesystem::create_symlink("zones/second", directory + "/fresh");
  std::filesystem::rename(directory + "/fresh", Link());
  EXPECT_EQ(Next(watch).message, ClockNotice::kTimeChange);
  EXPECT_TRUE(writer.End()) << "the notice came only when all was quiet";
}

TEST_F(ClockWatchTest, TellsAChangeOfAZoneFileThatNeverRests) {
  ClockWatch watch(Link());
  ASSERT_EQ(watch.Create(), ERROR_SUCCESS);
  RestlessWriter writer(directory + "/zones/first");
  EXPECT_EQ(Next(watch).message, ClockNotice::kTimeChange);
  watch.NotifyForTest();  // and other notices aren't held up by it
  EXPECT_EQ(Next(watch).message, ClockNotice::kTimeChange);
  EXPECT_TRUE(writer.End()) << "the notice came only when all was quiet";
}

TEST_F(ClockWatchTest, GivesTheGuardWhenItsMomentHasPassed) {
  ClockWatch watch(Link());
  ASSERT_EQ(watch.Create(), ERROR_SUCCESS);
  watch.SetGuard(NowSeconds() - 5);
  EXPECT_EQ(Next(watch).message, ClockNotice::kGuard);
  watch.SetGuard(NowSeconds() + 1000000);  // replaces nothing that is due
  watch.NotifyForTest();
  EXPECT_EQ(Next(watch).message, ClockNotice::kTimeChange);
  watch.SetGuard(NowSeconds() - 5);
  watch.SetGuard(0);  // taken back before it was read
  watch.NotifyForTest();
  EXPECT_EQ(Next(watch).message, ClockNotice::kTimeChange);
}

TEST_F(ClockWatchTest, TellsTheGuardsMoment) {
  ClockWatch watch(Link());
  EXPECT_EQ(watch.Guard(), 0);
  watch.SetGuard(1000);
  EXPECT_EQ(Next(watch).message, ClockNotice::kGuard);
  EXPECT_EQ(watch.Guard(), 1000);
  watch.SetGuard(-5);
  EXPECT_EQ(watch.Guard(), 0);
}

TEST_F(ClockWatchTest, EndsAtOnceAndForGoodWhenDestroyed) {
  ClockWatch watch(Link());
  ASSERT_EQ(watch.Create(), ERROR_SUCCESS);
  std::thread other([&] { watch.Destroy(); });
  EXPECT_EQ(Next(watch).message, 0u);
  other.join();
  watch.NotifyForTest();
  EXPECT_EQ(Next(watch).message, 0u);
}

TEST_F(ClockWatchTest, ServesWithoutHavingBeenCreated) {
  ClockWatch watch(Link());
  {
    const FaultPlan plan = FaultPlan::FailCall(Operation::kCreateClockWatch, 1, 1407);
    EXPECT_EQ(watch.Create(), 1407u);
  }
  watch.NotifyForTest();
  EXPECT_EQ(Next(watch).message, ClockNotice::kTimeChange);
}

TEST_F(ClockWatchTest, FailsAtEachStepWithTheInjectedCode) {
  ClockWatch watch(Link());
  {
    const FaultPlan plan = FaultPlan::FailCall(Operation::kRegisterClockWatch, 1, 1410);
    EXPECT_EQ(watch.Register([](const ClockNotice&) {}), 1410u);
  }
  const FaultPlan plan = FaultPlan::FailCall(Operation::kReadClockWatch, 1, 1400);
  ClockNotice notice = {99, true};
  EXPECT_EQ(watch.Read(notice), 1400u);
  EXPECT_EQ(notice, (ClockNotice{99, true}));
}

TEST_F(ClockWatchTest, CreatesWithoutAZoneFile) {
  ClockWatch watch(directory + "/missing/localtime");
  EXPECT_EQ(watch.Create(), ERROR_SUCCESS);
  ExpectQuiet(watch);
}

TEST_F(ClockWatchTest, LoadsTheZoneAnewBeforeItsNotice) {
  const char* const before = std::getenv("TZ");
  const std::string old = before == nullptr ? "" : before;
  setenv("TZ", "UTC", 1);
  ReloadZone();
  ClockWatch watch(Link());
  ASSERT_EQ(watch.Create(), ERROR_SUCCESS);
  setenv("TZ", "ZZZ-5", 1);
  Write("localtime.new", "x");
  std::filesystem::rename(directory + "/localtime.new", Link());
  EXPECT_EQ(Next(watch), (ClockNotice{ClockNotice::kTimeChange, true}));
  EXPECT_EQ(CurrentZone().OffsetAt(0), 5 * 3600);
  if (before == nullptr) {
    unsetenv("TZ");
  } else {
    setenv("TZ", old.c_str(), 1);
  }
  ReloadZone();
}

}  // namespace
}  // namespace platform
