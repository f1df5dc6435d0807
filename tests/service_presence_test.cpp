// The coming and going of the real service, as a client that watches it is told; and the unit of the recorder, which
// lives by that.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

#include "tests/file_watch.h"
#include "tests/line_reader.h"
#include "tests/running_service.h"

namespace qx::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class WatchService : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(service.Bus().Address().empty()) << "no dbus-daemon";
    ASSERT_NO_FATAL_FAILURE(service.Register());
    ASSERT_NO_FATAL_FAILURE(service.Connect(client));
  }
  std::function<void(bool)> Keep() {
    return [this](bool present) { log->events.push_back({present ? "came" : "left", {}, 0}); };
  }
  bool Hear(std::string_view name) { return RunningService::WaitFor(client, *log, name).has_value(); }

  RunningService service;
  SchedulerClient client;
  std::shared_ptr<EventLog> log = std::make_shared<EventLog>();
};

TEST_F(WatchService, TellsOfEachComingAndLeaving) {
  ASSERT_EQ(client.WatchService(Keep()), kStatusOk);
  for (int turn = 0; turn < 2; ++turn) {
    service.Start();
    EXPECT_TRUE(Hear("came")) << turn;
    std::uint32_t process = 0;
    EXPECT_EQ(client.ServiceProcess(process), kStatusOk);
    EXPECT_EQ(process, static_cast<std::uint32_t>(service.Process().Id()));
    if (turn == 0) {
      EXPECT_EQ(service.Stop(), 0);
    } else {
      service.Process().Signal(SIGKILL);
    }
    EXPECT_TRUE(Hear("left")) << turn;
  }
  EXPECT_THAT(log->events, IsEmpty());
}

TEST_F(WatchService, ToldInItsPlaceAmongTheEvents) {
  std::uint32_t cookie = 0;
  ASSERT_EQ(client.WatchService(Keep()), kStatusOk);
  ASSERT_EQ(client.Advise(log, cookie), kStatusOk);
  service.Start();
  ASSERT_TRUE(Hear("came"));
  SchedulerClient other;
  service.Connect(other);
  ScheduleGuid id{};
  ASSERT_EQ(other.CreateSchedule(service.Job("one", platform::NowSeconds() + 3600), id), kStatusOk);
  ASSERT_EQ(service.Stop(), 0);
  const std::uint32_t begun = platform::TickCount();
  while (log->events.size() < 2 && platform::TickCount() - begun < kPatience) (void)client.WaitForEvents(kLookMs);
  std::vector<std::string> names;
  for (const Event& event : log->events) names.push_back(event.name);
  EXPECT_THAT(names, ElementsAre("Schedule_Add", "left"));
}

TEST_F(WatchService, StaysOverANewConnection) {
  service.Start();
  ASSERT_EQ(client.WatchService(Keep()), kStatusOk);
  service.Bus().Kill();
  EXPECT_EQ(client.WaitForEvents(kPatience), 0u);
  EXPECT_FALSE(client.IsConnected());
  EXPECT_THAT(log->events, IsEmpty()) << "a bus that is lost isn't a service that left";
  service.Bus().Restart();
  service.Connect(client);
  std::uint32_t process = 0;
  ASSERT_EQ(client.ServiceProcess(process), kStatusOk);
  if (process == 0) {
    EXPECT_TRUE(Hear("came"));
  }
  EXPECT_EQ(service.Stop(), 0);
  EXPECT_TRUE(Hear("left"));
}

TEST_F(WatchService, NeitherWatchingNorAskingForTheProcessNeedsAService) {
  ASSERT_EQ(client.WatchService(Keep()), kStatusOk);
  std::uint32_t process = 7;
  EXPECT_EQ(client.ServiceProcess(process), kStatusOk);
  EXPECT_EQ(process, 0u);
  EXPECT_FALSE(client.LastError().IsSet());
  EXPECT_EQ(client.WaitForEvents(0), 0u);
  EXPECT_THAT(log->events, IsEmpty());
}

TEST_F(WatchService, AnotherWatcherTakesThePlaceOfTheFirst) {
  ASSERT_EQ(client.WatchService([](bool) { ADD_FAILURE() << "replaced"; }), kStatusOk);
  ASSERT_EQ(client.WatchService(Keep()), kStatusOk);
  service.Start();
  EXPECT_TRUE(Hear("came"));
  EXPECT_THAT(log->events, IsEmpty()) << "told once";
}

TEST_F(WatchService, NobodyInTheWatchersPlaceEndsItAndTheNextIsToldOnce) {
  ASSERT_EQ(client.WatchService({}), kStatusOk);
  ASSERT_EQ(client.WatchService(Keep()), kStatusOk);
  ASSERT_EQ(client.WatchService({}), kStatusOk);
  ASSERT_EQ(client.WatchService(Keep()), kStatusOk);
  service.Start();
  EXPECT_TRUE(Hear("came"));
  EXPECT_THAT(log->events, IsEmpty()) << "told once";
  ASSERT_EQ(client.WatchService({}), kStatusOk);
  EXPECT_EQ(service.Stop(), 0);
  std::uint32_t process = 7;
  ASSERT_EQ(client.ServiceProcess(process), kStatusOk);
  ASSERT_EQ(process, 0u) << "the bus has told that it left";
  EXPECT_EQ(client.WaitForEvents(0), 0u);
  EXPECT_THAT(log->events, IsEmpty());
}

TEST_F(WatchService, WithoutAConnectionIsRefused) {
  client.Disconnect();
  std::uint32_t process = 7;
  EXPECT_EQ(client.WatchService(Keep()) >> 16, 0x8007u);
  EXPECT_TRUE(client.LastError().IsSet());
  EXPECT_EQ(client.ServiceProcess(process) >> 16, 0x8007u);
  EXPECT_EQ(process, 7u);
  // Refused is not kept: the next one subscribes.
  service.Connect(client);
  ASSERT_EQ(client.WatchService(Keep()), kStatusOk);
  service.Start();
  EXPECT_TRUE(Hear("came"));
}

// --- the unit of the recorder ---

class RecordUnit : public ::testing::Test {
 protected:
  static std::string Text() {
    return RunningService::ReadFile(test_paths::Source() + "/packaging/qxsched-record.service");
  }
  // The value of a key.
  static std::string Value(const std::string& key) {
    std::istringstream lines(Text());
    for (std::string line; std::getline(lines, line);) {
      if (line.starts_with(key + "=")) return line.substr(key.size() + 1);
    }
    ADD_FAILURE() << "no " << key;
    return "";
  }
  static std::string Replaced(std::string text, const std::string& what, const std::string& by) {
    const std::size_t at = text.find(what);
    EXPECT_NE(at, std::string::npos) << what;
    return at == std::string::npos ? text : text.replace(at, what.size(), by);
  }
};

TEST_F(RecordUnit, IsOneThatSystemdTakesWithoutAWord) {
  constexpr const char* kAnalyze = "/usr/bin/systemd-analyze";
  ASSERT_EQ(access(kAnalyze, X_OK), 0) << "systemd-analyze isn't installed (Debian package systemd)";
  std::string pattern = ::testing::TempDir() + "qx-unit-XXXXXX";
  ASSERT_NE(mkdtemp(pattern.data()), nullptr);
  const std::string unit = pattern + "/qxsched-record.service";
  const auto verify = [&](const std::string& text) {
    std::ofstream(unit) << text;
    Child child(kAnalyze, {"verify", "--man=no", unit}, pattern + "/output", {"PATH=/usr/bin:/bin", "HOME=/root"});
    const int code = child.Wait();
    return std::to_string(code) + ": " + RunningService::ReadFile(pattern + "/output");
  };
  const std::string text = Replaced(Text(), "/usr/bin/qxsched", test_paths::Programs() + "/qxsched");
  EXPECT_EQ(verify(text), "0: ");
  EXPECT_THAT(verify(text + "[Service]\nRestarts=always\n"), HasSubstr("Restarts")) << "the check can fail";
  std::filesystem::remove_all(pattern);
}

TEST_F(RecordUnit, ItsCommandRecordsAndItsSignalEndsItInOrder) {
  RunningService service;
  ASSERT_NO_FATAL_FAILURE(service.Register());
  ASSERT_EQ(Value("StateDirectory"), "qxsched-record");
  const std::string place = service.Directory() + "/qxsched-record";
  std::filesystem::create_directory(place);
  std::string command = Replaced(Value("ExecStart"), "/var/lib/qxsched-record", place);
  command = Replaced(command, "--bus system", "--bus " + service.Bus().Address());
  std::istringstream split(Replaced(command, "/usr/bin", test_paths::Programs()));
  std::vector<std::string> words;
  for (std::string word; split >> word;) words.push_back(word);
  const std::string program = words.front();
  words.erase(words.begin());
  Child record(program, words, service.Jobs() + "/output", service.Environment());

  // What is in the file, asked as people ask: the file isn't named.
  const auto history = [&] {
    Child child(program, {"--root", service.Root(), "history", "--no-legend"}, service.Jobs() + "/history",
                service.Environment());
    (void)child.Wait();
    return RunningService::ReadFile(service.Jobs() + "/history");
  };
  // Looks each second too: the write that a watch hears of makes no entry, but what follows it in mapped memory; and a
  // recorder may end without a write.
  const auto shows = [&](const std::string& word) {
    constexpr std::uint32_t kSecond = 1000;
    bool shown = false;
    (void)FileWatch(place).Until(
        [&] {
          shown = history().find(word) != std::string::npos;
          return shown || record.HasEnded();
        },
        kSecond);
    return shown;
  };
  EXPECT_TRUE(shows("record-begin")) << history();
  service.Start();
  EXPECT_TRUE(shows("service-up")) << history();
  EXPECT_EQ(service.Stop(), 0);
  EXPECT_TRUE(shows("service-down")) << "it outlives the service: " << history();
  ASSERT_EQ(Value("KillSignal"), "SIGINT");
  record.Signal(SIGINT);
  EXPECT_EQ(record.Wait(), 0);
  EXPECT_THAT(history(), HasSubstr("record-end    (stopped)\n"));
  EXPECT_EQ(RunningService::ReadFile(service.Jobs() + "/output"), "");
}

}  // namespace
}  // namespace qx::testing
