// The real program qxsched against the real service.
#include <gmock/gmock.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <map>
#include <set>

#include "platform/descriptor.h"
#include "tests/line_reader.h"
#include "tests/qxsched_program.h"

namespace {

using nlohmann::json;
using qx::testing::Child;
using qx::testing::LineReader;
using qx::testing::RunningService;
using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

class QxschedProgram : public qx::testing::ProgramFixture {
 protected:
  QxschedProgram() : ProgramFixture({"TZ=ZZZ+5", "PATH=/usr/bin:/bin", "HOME=/nonexistent"}) {}

  // Adds the daily schedule; its ID.
  std::string Add() {
    const json added = AskJson({"add", Write("daily.toml", kDaily)});
    EXPECT_EQ(added.value("status", ""), "0x00000000") << added;
    return added.value("id", "");
  }

  const std::string kDaily =
      "name = \"daily\"\napplication = \"app\"\ntask_code = 7\n[job]\nwrapper = \"/bin/true\"\nparameters = \"-v\"\n"
      "[window]\nstart = \"22:00\"\nend = \"23:00\"\n"
      "[days]\nevery = [\"sun\", \"mon\", \"tue\", \"wed\", \"thu\", \"fri\", \"sat\"]\nexclude = [2036-01-01]\n";
};

TEST_F(QxschedProgram, TakesAScheduleThroughItsLife) {
  EXPECT_EQ(AskJson({"list"}), json::array());
  const std::string id = Add();
  const json list = AskJson({"list"});
  ASSERT_EQ(list.size(), 1u);
  EXPECT_EQ(list[0]["id"], id);
  EXPECT_EQ(list[0]["name"], "daily");
  EXPECT_EQ(list[0]["application"], "app");
  EXPECT_EQ(list[0]["task_code"], 7);
  EXPECT_EQ(list[0]["wrapper"], "/bin/true");
  EXPECT_EQ(list[0]["parameters"], "-v");
  EXPECT_EQ(list[0]["pass_id"], false);
  // The times of the file were those of the service's zone, not of the client's.
  EXPECT_EQ(list[0]["next_window"].get<std::int64_t>() % 86400, 22 * 3600);

  const Result shown = Ask({"show", id.substr(1, 8)});
  EXPECT_EQ(shown.exit, 0);
  EXPECT_THAT(shown.out,
              AllOf(StartsWith("# id: " + id + "\n# next: "), HasSubstr("22:00:00 +0000"), HasSubstr("2036-01-01")));
  const json record = AskJson({"show", "daily"});
  EXPECT_EQ(record["bstrName"], "daily");
  EXPECT_EQ(record["lNextTimeWindow"], list[0]["next_window"]);
  EXPECT_EQ(AskJson({"next", "daily", "-n", "1"})["windows"][0]["start"], list[0]["next_window"]);

  const json removed = AskJson({"rm", "daily"});
  ASSERT_EQ(removed.size(), 1u);
  EXPECT_EQ(removed[0]["id"], id);
  EXPECT_EQ(AskJson({"list"}), json::array());
  // The backup brings it back under another ID.
  const json again = AskJson({"add", removed[0]["backup"].get<std::string>()});
  EXPECT_NE(again["id"], id);
  EXPECT_EQ(AskJson({"list"})[0]["next_window"], list[0]["next_window"]);
}

// The service's file keeps whole seconds of the time to the day's end, 23:59:59.059.
TEST_F(QxschedProgram, FindsNoChangeInAFileWithoutAnEndBehindARestartOfTheService) {
  for (const char* window : {"", "start = \"23:00\"\n", "start = \"23:00\"\nend = \"23:59:59\"\n"}) {
    SCOPED_TRACE(window);
    const std::string file = Write("open.toml", "name = \"open\"\n[job]\nwrapper = \"/bin/true\"\n[window]\n" +
                                                    std::string(window) + "[days]\nof_month = [1]\n");
    EXPECT_EQ(Ask({"apply", file}).exit, 0);
    const Result before = Ask({"diff", file});
    EXPECT_EQ(before.exit, 0);
    EXPECT_EQ(before.out, "qxsched: no difference\n");
    const Result shown = Ask({"show", "open"});
    ASSERT_EQ(m_service.Stop(), 0);
    m_service.Start();
    const Result behind = Ask({"diff", file});
    EXPECT_EQ(behind.exit, 0);
    EXPECT_EQ(behind.out, "qxsched: no difference\n");
    EXPECT_EQ(Ask({"show", "open"}).out, shown.out);
    EXPECT_EQ(Ask({"rm", "open"}).exit, 0);
  }
}

TEST_F(QxschedProgram, TellsWhatTheServiceSaysAboutItself) {
  (void)Add();
  const json status = AskJson({"status"});
  EXPECT_EQ(status["reachable"], true);
  EXPECT_EQ(status["zone"], "UTC");
  EXPECT_EQ(status["state_directory"], m_service.Root());
  EXPECT_EQ(status["schedules"], 1);
  EXPECT_EQ(status["with_window"], 1);
  EXPECT_EQ(status["next_wake_up"], AskJson({"list"})[0]["next_window"]);
  EXPECT_EQ(Ask({"refresh"}).exit, 0);
}

TEST_F(QxschedProgram, ShowsEventsAsTheyComeUntilAnInterrupt) {
  LineReader lines(m_service.Jobs() + "/events");
  Child monitor(kProgram, Words({"monitor", "--json"}), lines.Name(), Environment());
  ASSERT_NE(lines.WaitFor("waiting for events"), "");
  const std::string id = Add();
  EXPECT_EQ(lines.WaitFor("Schedule_Add"), "{\"event\":\"Schedule_Add\",\"id\":\"" + id + "\"}");
  EXPECT_EQ(Ask({"rm", id}).exit, 0);
  EXPECT_EQ(lines.WaitFor("Schedule_Delete"), "{\"event\":\"Schedule_Delete\",\"id\":\"" + id + "\"}");
  monitor.Signal(SIGINT);
  EXPECT_EQ(monitor.Wait(), 0);
}

TEST_F(QxschedProgram, EndsMonitoringWithTheBus) {
  LineReader lines(m_service.Jobs() + "/events");
  Child monitor(kProgram, Words({"monitor"}), lines.Name(), Environment());
  ASSERT_NE(lines.WaitFor("waiting for events"), "");
  m_service.Bus().Kill();
  EXPECT_NE(lines.WaitFor("the bus of the service is lost"), "");
  EXPECT_EQ(monitor.Wait(), 6);
}

TEST_F(QxschedProgram, AConfiguredTraceIsWrittenFromTheNextStartOn) {
  const std::string trace = m_service.Jobs() + "/rules.trace";
  ASSERT_EQ(Ask({"config", "trace", "--path", trace, "--filter", "error,inform,debug", "--size", "1024"}).exit, 0);
  (void)Add();
  EXPECT_FALSE(std::filesystem::exists(trace));
  ASSERT_EQ(m_service.Stop(), 0);
  m_service.Start();
  (void)Add();
  EXPECT_THAT(RunningService::ReadFile(trace), HasSubstr("Save(PropertyBag) Item number="));
}

// Waits for the kernel's notice that the machine's clock shows a time, in seconds since 1970.
void WaitForTime(std::int64_t time) {
  const platform::Descriptor timer(timerfd_create(CLOCK_REALTIME, TFD_CLOEXEC));
  const itimerspec when = {{}, {time, 0}};
  ASSERT_EQ(timerfd_settime(timer.Get(), TFD_TIMER_ABSTIME, &when, nullptr), 0);
  std::uint64_t expirations = 0;
  while (read(timer.Get(), &expirations, sizeof expirations) < 0) ASSERT_EQ(errno, EINTR);
}

// The due times are real: each is waited for by what the service or the clock tells.
TEST_F(QxschedProgram, RecordsALaunchAndTheWindowThatPassedWhileTheServiceWasKilled) {
  qx::SchedulerClient client;
  m_service.Connect(client);
  ScheduleGuid early{}, late{};
  const std::int64_t soon = platform::NowSeconds() + 6;
  ASSERT_EQ(client.CreateSchedule(m_service.Job("early", soon), early), kStatusOk);
  const std::int64_t due = soon + 7;
  ASSERT_EQ(client.CreateSchedule(m_service.Job("late", due), late), kStatusOk);
  // Its first list has both, whatever the machine does meanwhile.
  LineReader lines(m_service.Jobs() + "/record");
  const std::string metrics = m_service.Jobs() + "/qxsched.prom";
  Child record(kProgram, Words({"record", "--json", "--metrics", metrics}), lines.Name(), Environment());

  const json launch = json::parse(lines.WaitFor("\"launch\""), nullptr, false);
  EXPECT_EQ(launch.value("name", ""), "early") << launch;
  EXPECT_EQ(launch.value("window", 0), soon) << launch;
  EXPECT_EQ(launch.value("next_window", 0), soon + 86400) << launch;

  m_service.Process().Signal(SIGKILL);
  (void)m_service.Process().Wait();
  ASSERT_LT(platform::NowSeconds(), due) << "too slow a machine: the window was there before the kill";
  ASSERT_NE(lines.WaitFor("\"service-down\""), "");
  WaitForTime(due + 1);
  m_service.Start();
  const json missed = json::parse(lines.WaitFor("\"missed\""), nullptr, false);
  EXPECT_EQ(missed.value("window", 0), due) << missed;
  EXPECT_EQ(missed.value("reason", ""), "the service was down");

  const json history = AskJson({"history", "--missed", "--since", "1h"});
  ASSERT_EQ(history.size(), 1u) << history;
  EXPECT_EQ(history[0], missed);
  EXPECT_EQ(history[0]["name"], "late");
  const Result named = Ask({"history", "late", "--missed"});
  EXPECT_EQ(named.exit, 0);
  EXPECT_THAT(named.out, AllOf(HasSubstr("missed"), HasSubstr("1 entry; launches are known, results are not.")));
  record.Signal(SIGINT);
  EXPECT_EQ(record.Wait(), 0);
  EXPECT_THAT(RunningService::ReadFile(metrics),
              AllOf(HasSubstr("\nqxsched_launches_total 1\n"), HasSubstr("\nqxsched_missed_windows_total 1\n")));
}

TEST_F(QxschedProgram, RecordsOverARestartOfTheBus) {
  LineReader lines(m_service.Jobs() + "/record");
  Child record(kProgram, Words({"record"}), lines.Name(), Environment());
  ASSERT_NE(lines.WaitFor("service-up"), "");
  m_service.Bus().Kill();
  ASSERT_NE(lines.WaitFor("record-end"), "");
  ASSERT_NE(lines.WaitFor("the bus can't be reached"), "");
  m_service.Bus().Restart();
  ASSERT_NE(lines.WaitFor("record-begin"), "");
  EXPECT_NE(lines.WaitFor("service-up"), "");
  const std::string id = Add();
  EXPECT_NE(lines.WaitFor("added"), "");
  record.Signal(SIGINT);
  EXPECT_EQ(record.Wait(), 0);
}

// A bus that starts the service on demand would start it for each of its calls.
TEST_F(QxschedProgram, RecordsWithoutAService) {
  ASSERT_EQ(m_service.Stop(), 0);
  LineReader lines(m_service.Jobs() + "/record");
  Child record(kProgram, Words({"record"}), lines.Name(), Environment());
  ASSERT_NE(lines.WaitFor("record-begin"), "");
  m_service.Start();
  EXPECT_NE(lines.WaitFor("service-up"), "");
  const std::string id = Add();
  EXPECT_NE(lines.WaitFor("added"), "");
  ASSERT_EQ(m_service.Stop(), 0);
  EXPECT_NE(lines.WaitFor("service-down"), "");
  record.Signal(SIGINT);
  EXPECT_EQ(record.Wait(), 0);
}

// --- an apply that is cut off ---

class CutApply : public QxschedProgram {
 protected:
  static constexpr int kFiles = 40;
  static constexpr int kCutBehind = 7;  // schedules made

  void SetUp() override {
    QxschedProgram::SetUp();
    ASSERT_NO_FATAL_FAILURE(m_service.Connect(m_client));
    // The last one is there already and gets another parameter.
    ASSERT_EQ(Ask({"add", Write("old.toml", Text(kFiles - 1, "-v"))}).exit, 0);
    m_files = m_service.Jobs() + "/files";
    std::filesystem::create_directory(m_files);
    for (int i = 0; i < kFiles; ++i) Write("files/" + Name(i) + ".toml", Text(i, "-w"));
    m_events = std::make_shared<qx::testing::EventLog>();
    std::uint32_t cookie = 0;
    ASSERT_EQ(m_client.Advise(m_events, cookie), 0u);
  }
  static std::string Name(int i) { return "job" + std::to_string(100 + i); }
  std::string Text(int i, const std::string& parameters) const {
    std::string text = kDaily;
    text.replace(text.find("\"daily\""), 7, "\"" + Name(i) + "\"");
    text.replace(text.find("\"-v\""), 4, "\"" + parameters + "\"");
    return text;
  }
  // Applies, and cuts in the middle; what qxsched told of each file.
  std::map<std::string, std::string> ApplyAndCut(const std::function<void()>& cut) {
    const std::string output = m_service.Jobs() + "/apply.out";
    Child apply(kProgram, Words({"--json", "--quiet", "apply", m_files}), output, Environment());
    for (int i = 0; i < kCutBehind; ++i) EXPECT_TRUE(RunningService::WaitFor(m_client, *m_events, "Schedule_Add"));
    cut();
    EXPECT_EQ(apply.Wait(), 6);
    m_told = RunningService::ReadFile(output);
    std::map<std::string, std::string> results;
    const std::size_t begin = m_told.find("[{");
    if (begin == std::string::npos) {
      ADD_FAILURE() << m_told;
      return results;
    }
    const json report = json::parse(m_told.substr(begin, m_told.find('\n', begin) - begin), nullptr, false);
    EXPECT_EQ(report.size(), static_cast<std::size_t>(kFiles)) << m_told;
    for (const json& item : report) results[item["name"]] = item["result"];
    return results;
  }
  // What was told is what is there, and each schedule is whole; applied again, all are.
  void ExpectToldAndWhole(const std::map<std::string, std::string>& results) {
    std::map<std::string, json> there;
    for (const json& row : AskJson({"list"})) {
      EXPECT_TRUE(there.emplace(row["name"], row).second) << "twice: " << row;
      EXPECT_GT(row["next_window"].get<std::int64_t>(), 0) << row;
    }
    int created = 0, unknown = 0, notDone = 0;
    for (const auto& [name, result] : results) {
      created += result == "created";
      unknown += result == "unknown";
      notDone += result == "not done";
      if (result == "created") {
        ASSERT_TRUE(there.contains(name)) << name << " was told as created";
        EXPECT_EQ(there[name]["parameters"], "-w");
      } else if (result == "not done") {
        const bool old = name == Name(kFiles - 1);
        EXPECT_EQ(there.contains(name), old) << name;
        if (old) {
          EXPECT_EQ(there[name]["parameters"], "-v");
        }
      }
    }
    EXPECT_GE(created, kCutBehind - 1) << m_told;  // the answer to the last one may be lost with the service
    EXPECT_EQ(unknown, 1) << m_told;
    EXPECT_EQ(created + unknown + notDone, kFiles) << m_told;
    EXPECT_THAT(m_told, AllOf(HasSubstr("of 40 files: "), HasSubstr("1 unknown"), HasSubstr(" not done")));

    const Result again = Ask({"apply", m_files});
    EXPECT_EQ(again.exit, 0) << again.out;
    const json list = AskJson({"list"});
    EXPECT_EQ(list.size(), static_cast<std::size_t>(kFiles));
    std::set<std::string> names;
    for (const json& row : list) {
      names.insert(row["name"]);
      EXPECT_EQ(row["parameters"], "-w") << row;
    }
    EXPECT_EQ(names.size(), static_cast<std::size_t>(kFiles));
  }

  qx::SchedulerClient m_client;
  std::shared_ptr<qx::testing::EventLog> m_events;
  std::string m_files;
  std::string m_told;
};

TEST_F(CutApply, ByTheServicesDeathTellsWhatIsDoneAndLeavesNothingHalfDone) {
  const auto results = ApplyAndCut([&] {
    m_service.Process().Signal(SIGKILL);
    ASSERT_EQ(m_service.Process().Wait(), 128 + SIGKILL);
  });
  ASSERT_NO_FATAL_FAILURE(m_service.Start());
  ExpectToldAndWhole(results);
}

TEST_F(CutApply, ByTheBusTellsWhatIsDoneAndLeavesNothingHalfDone) {
  const auto results = ApplyAndCut([&] { m_service.Bus().Kill(); });
  m_service.Bus().Restart();
  // The service finds the bus again by itself; a fresh one doesn't make the test wait for it.
  ASSERT_EQ(m_service.Stop(), 0);
  ASSERT_NO_FATAL_FAILURE(m_service.Start());
  ExpectToldAndWhole(results);
}

TEST_F(QxschedProgram, TellsThatItsOutputIsClosed) {
  std::vector<std::string> words = Words({"config", "get"});
  words.insert(words.begin(), {"-c", "exec \"$0\" \"$@\" >&-", kProgram});
  const std::string output = m_service.Jobs() + "/closed.out";
  Child child("/bin/sh", words, output, Environment());
  EXPECT_EQ(child.Wait(), 1);
  EXPECT_EQ(RunningService::ReadFile(output), "qxsched: the output can't be written\n");
}

TEST_F(QxschedProgram, TellsApartWhatGoesWrong) {
  const Result refused = Ask({"add", Write("none.toml", "job.wrapper = \"/bin/true\"\n")});
  EXPECT_EQ(refused.exit, 5);
  EXPECT_THAT(refused.out, HasSubstr("0x8004020A No run day rule defined."));
  const Result place = Ask({"add", Write("place.toml",
                                         "job.wrapper = \"/bin/true\"\njob.xml = \"/nonexistent/x.xml\"\n"
                                         "days.of_month = [1]\n")});
  EXPECT_EQ(place.exit, 1);
  EXPECT_THAT(place.out, AllOf(HasSubstr("0x8004020F The directory of the XML path doesn't exist."),
                               HasSubstr("hint: create the directory")));
  EXPECT_EQ(Ask({"show", "nobody"}).exit, 3);
  EXPECT_EQ(Ask({"show", "{00000000-0000-4001-8000-000000000000}"}).exit, 3);
  EXPECT_EQ(AskJson({"list"}), json::array());
  ASSERT_EQ(m_service.Stop(), 0);
  const Result stopped = Ask({"list"});
  EXPECT_EQ(stopped.exit, 6);
  EXPECT_THAT(stopped.out,
              HasSubstr("hint: start it with: QxSchedService --root=" + m_service.Root() + " --foreground --bus="));
  m_service.Bus().Kill();
  EXPECT_EQ(Ask({"list"}).exit, 6);
}

}  // namespace
