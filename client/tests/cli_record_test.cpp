#include "client/cli_record.h"

#include <gmock/gmock.h>

#include <nlohmann/json.hpp>

#include "client/history_store.h"
#include "client/tests/online_fixture.h"
#include "platform/testing/fault.h"

namespace {

using nlohmann::json;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

class RecordCommand : public CliOnline {
 protected:
  RecordCommand() {
    platform::SetStateDirectory(m_directory);
    service.whenQuiet = [] { return true; };
  }

  // Records while `turns` run, one in each turn.
  Result Record(std::vector<std::function<void()>> turns, qx::RecordArguments arguments = {}) {
    std::istringstream in;
    std::ostringstream out, err;
    qx::CliContext context{in, out, err, {}};
    context.options.json = asJson;
    std::size_t turn = 0;
    arguments.stop = [&] {
      if (turn == turns.size()) return true;
      turns[turn++]();
      return false;
    };
    const int exit = qx::RunRecord(context, settings, arguments);
    return {exit, out.str(), err.str()};
  }
  static void Nothing() {}
  std::function<void()> Launch(const ScheduleGuid& id, std::int32_t next) {
    return [this, id, next] {
      service.schedules[id].lNextTimeWindow = next;
      service.Tell([id, next](ISchedulerServiceEvents& sink) { sink.NextTimeWindow_Modify(id, next); });
    };
  }
  std::function<void()> Wait(std::int64_t seconds) {
    return [this, seconds] { m_clock.Advance(static_cast<std::uint64_t>(seconds) * 1000); };
  }
  void Leave() {
    service.process = 0;
    service.presence(false);
  }
  void Come(std::uint32_t process) {
    service.process = process;
    service.presence(true);
  }

  static constexpr std::int32_t kNow = 1796040000;
  bool asJson = false;
};

TEST_F(RecordCommand, ShowsAndKeepsALaunch) {
  const ScheduleGuid id = Have(Id(0xAB120000), u"daily", kNow + 10);
  const Result result = Record({Nothing, Nothing, Wait(10), Launch(id, kNow + 86410), Nothing, Nothing});
  EXPECT_EQ(result.exit, 0);
  EXPECT_THAT(result.err, HasSubstr("launches are known, results are not"));
  EXPECT_THAT(result.out,
              HasSubstr("  launch        {AB120000-0000-4001-8000-000000000000}  \"daily\"  window 2026-11-30 "
                        "13:00:10 +0100  next 2026-12-01 13:00:10 +0100\n"));
  const Result history = Ask({"history"});
  EXPECT_EQ(history.exit, 0);
  // The same lines, and a last one.
  EXPECT_EQ(history.out, result.out + "\n4 entries; launches are known, results are not.\n");
  EXPECT_THAT(result.out, AllOf(StartsWith("2026-11-30 13:00:00 +0100  record-begin\n"), HasSubstr("  service-up\n"),
                                HasSubstr("  record-end    (stopped)\n")));
}

TEST_F(RecordCommand, FindsTheWindowsThatPassedWhileTheServiceWasDown) {
  (void)Have(Id(0xAB120000), u"daily", kNow + 10);
  (void)Have(Id(0xAB120001), u"weekly", kNow + 1000);
  const Result result = Record({Nothing, Nothing, [this] { Leave(); }, Wait(20),
                                [this] {
                                  service.schedules[Id(0xAB120000)].lNextTimeWindow = kNow + 86410;
                                  Come(4712);
                                },
                                Nothing, Nothing});
  EXPECT_EQ(result.exit, 0);
  const auto missed = json::parse(Ask({"--json", "history", "--missed"}).out);
  ASSERT_EQ(missed.size(), 1u);
  EXPECT_EQ(missed[0]["kind"], "missed");
  EXPECT_EQ(missed[0]["id"], "{AB120000-0000-4001-8000-000000000000}");
  EXPECT_EQ(missed[0]["name"], "daily");
  EXPECT_EQ(missed[0]["window"], kNow + 10);
  EXPECT_EQ(missed[0]["next_window"], kNow + 86410);
  EXPECT_EQ(missed[0]["reason"], "the service was down");
}

TEST_F(RecordCommand, KeepsWhatItKnowsForTheNextRecorder) {
  (void)Have(Id(0xAB120000), u"daily", kNow + 10);
  EXPECT_EQ(Record({Nothing, Nothing, Nothing}).exit, 0);
  m_clock.Advance(60000);
  service.schedules[Id(0xAB120000)].lNextTimeWindow = kNow + 86410;
  const Result result = Record({Nothing, Nothing, Nothing});
  EXPECT_THAT(result.out,
              HasSubstr("unknown       {AB120000-0000-4001-8000-000000000000}  \"daily\"  window 2026-11-30 "
                        "13:00:10 +0100  next 2026-12-01 13:00:10 +0100  (nobody recorded)\n"));
}

TEST_F(RecordCommand, ConnectsAgainWhenTheBusIsLost) {
  bool lost = false;
  connectCode = platform::ERROR_CONNECTION_REFUSED;
  service.whenQuiet = [&] { return !std::exchange(lost, false); };
  const Result result = Record({Nothing, Nothing, [this] { connectCode = 0; }, Nothing, Nothing, [&] { lost = true; },
                                Nothing, Nothing, Nothing});
  EXPECT_EQ(result.exit, 0);
  EXPECT_THAT(result.err, HasSubstr("the bus can't be reached"));
  EXPECT_EQ(result.err.find("can't be reached"), result.err.rfind("can't be reached")) << "told once";
  const auto history = json::parse(Ask({"--json", "history"}).out);
  std::vector<std::string> kinds;
  for (const auto& entry : history) kinds.push_back(entry["kind"]);
  EXPECT_THAT(kinds,
              ElementsAre("record-begin", "service-up", "record-end", "record-begin", "service-up", "record-end"));
}

TEST_F(RecordCommand, WritesLinesOfJson) {
  asJson = true;
  const Result result = Record({Nothing, Nothing});
  EXPECT_THAT(result.out,
              StartsWith("{\"time\":1796040000,\"kind\":\"record-begin\",\"id\":null,\"name\":null,\"window\":null,"
                         "\"next_window\":null,\"reason\":\"\"}\n"));
}

TEST_F(RecordCommand, WritesMetrics) {
  const ScheduleGuid id = Have(Id(0xAB120000), u"daily", kNow + 10);
  qx::RecordArguments arguments;
  arguments.metrics = Path("qxsched.prom");
  std::string running;
  const auto read = [&] {
    std::stringstream text;
    text << std::ifstream(arguments.metrics).rdbuf();
    return text.str();
  };
  EXPECT_EQ(Record({Nothing, Nothing, Wait(10), Launch(id, kNow + 86410), Nothing, Nothing, [&] { running = read(); }},
                   arguments)
                .exit,
            0);
  EXPECT_THAT(running, AllOf(HasSubstr("# HELP qxsched_service_up Whether the service is on the bus.\n"
                                       "# TYPE qxsched_service_up gauge\nqxsched_service_up 1\n"),
                             HasSubstr("\nqxsched_launches_total 1\n"), HasSubstr("\nqxsched_missed_windows_total 0\n"),
                             HasSubstr("\nqxsched_changes_total{change=\"added\"} 0\n"),
                             HasSubstr("\nqxsched_next_window_time_seconds " + std::to_string(kNow + 86410) + "\n"),
                             HasSubstr("\nqxsched_last_launch_time_seconds " + std::to_string(kNow + 10) + "\n"),
                             HasSubstr("\nqxsched_schedules 1\n")));
  EXPECT_THAT(read(), HasSubstr("\nqxsched_service_up 0\n")) << "it ended";
}

TEST_F(RecordCommand, GoesOnWithoutMetricsThatCanNotBeWritten) {
  qx::RecordArguments arguments;
  arguments.metrics = Path("none/qxsched.prom");
  const Result result = Record({Nothing, Nothing, Nothing}, arguments);
  EXPECT_EQ(result.exit, 0);
  EXPECT_THAT(result.err, HasSubstr("qxsched.prom: the metrics can't be written: "));
}

TEST_F(RecordCommand, SetsADamagedHistoryAsideWithAWord) {
  Write("history.db", std::string("SQLite format 3\0", 16) + std::string(8984, 'x'));
  const Result shown = Ask({"history"});
  EXPECT_EQ(shown.exit, 1);
  EXPECT_THAT(shown.err, AllOf(HasSubstr("the history is damaged"), HasSubstr("hint: qxsched record sets")));
  const Result result = Record({Nothing, Nothing});
  EXPECT_EQ(result.exit, 0);
  EXPECT_THAT(result.err, HasSubstr("it is set aside as " + Path("history.db.damaged") + ", a new one is begun"));
  EXPECT_EQ(Ask({"history"}).exit, 0);
}

TEST_F(RecordCommand, MarksTheEndOfARecorderThatWasKilled) {
  {
    qx::HistoryStore store;
    std::string aside;
    ASSERT_EQ(store.OpenForWriting(Path("history.db"), {}, aside), 0u);
    ASSERT_EQ(store.Append({{kNow - 500, qx::HistoryKind::kRecordBegin, "", "", {}, {}, ""}}, {}), 0u);
    ASSERT_EQ(store.SetFact("recorded_until", std::to_string(kNow - 100)), 0u);
  }
  EXPECT_EQ(Record({Nothing}).exit, 0);
  const auto history = json::parse(Ask({"--json", "history"}).out);
  ASSERT_GE(history.size(), 2u);
  EXPECT_EQ(history[1]["kind"], "record-end");
  EXPECT_EQ(history[1]["time"], kNow - 100);
  EXPECT_EQ(history[1]["reason"], "the recorder ended without a word");
}

#ifdef QX_FAULT_SEAM
TEST_F(RecordCommand, WritesEachEntryOnceWhereTheDiskIsFullBehindIt) {
  for (const std::string_view refused :
       {"INSERT OR REPLACE INTO facts", "DELETE FROM entries", "INSERT INTO entries"}) {
    SCOPED_TRACE(refused);
    std::filesystem::remove(Path("history.db"));
    bool isRefused = false;
    std::size_t entries = 0;
    const platform::FaultPlan plan =
        platform::FaultPlan::Ask([&](int, platform::Operation operation, std::string_view detail) {
          if (isRefused || operation != platform::Operation::kWriteFile || !detail.starts_with(refused)) return 0u;
          isRefused = true;
          return platform::ERROR_DISK_FULL;
        });
    const Result result = Record({Nothing, Nothing});
    EXPECT_EQ(result.exit, 0) << result.err;
    EXPECT_TRUE(isRefused);
    std::set<std::string> kinds;
    for (const auto& entry : json::parse(Ask({"--json", "history"}).out)) {
      kinds.insert(entry["kind"].get<std::string>());
      ++entries;
    }
    EXPECT_GE(entries, 2u);
    EXPECT_EQ(kinds.size(), entries);
  }
}

TEST_F(RecordCommand, EndsWhenTheHistoryCanNotBeWritten) {
  std::optional<platform::FaultPlan> plan;
  const Result result =
      Record({Nothing, Nothing,
              [&] {
                plan.emplace(platform::FaultPlan::FailCall(platform::Operation::kWriteFile, 1,
                                                           platform::ERROR_IO_DEVICE, platform::kFromThenOn));
                Leave();
              },
              Nothing, Nothing});
  EXPECT_EQ(result.exit, 1);
  EXPECT_THAT(result.err, HasSubstr(Path("history.db") + ": "));
}
#endif

TEST_F(RecordCommand, RefusesASecondRecorder) {
  qx::HistoryStore store;
  std::string aside;
  ASSERT_EQ(store.OpenForWriting(Path("history.db"), {}, aside), 0u);
  const Result result = Record({Nothing});
  EXPECT_EQ(result.exit, 1);
  EXPECT_THAT(result.err, HasSubstr("another recorder writes this history"));
}

class HistoryCommand : public RecordCommand {
 protected:
  HistoryCommand() {
    qx::HistoryStore store;
    std::string aside;
    EXPECT_EQ(store.OpenForWriting(Path("history.db"), {}, aside), 0u);
    using enum qx::HistoryKind;
    EXPECT_EQ(store.Append({{kNow - 7200, kAdded, kFirst, "", {}, {}, ""},
                            {kNow - 3600, kLaunch, kFirst, "daily", kNow - 3600, kNow + 82800, ""},
                            {kNow - 60, kMissed, kSecond, "we\033ekly", kNow - 600, -1, "the service was down"}},
                           {}),
              0u);
    EXPECT_EQ(store.SetFact("zone", "UTC"), 0u);
  }
  const std::string kFirst = "{AB120000-0000-4001-8000-000000000000}";
  const std::string kSecond = "{AB130000-0000-4001-8000-000000000000}";
};

TEST_F(HistoryCommand, ShowsEntriesInTheZoneOfTheService) {
  const Result result = Ask({"history", "--no-legend"});
  EXPECT_EQ(result.exit, 0);
  EXPECT_EQ(result.out, "2026-11-30 10:00:00 +0000  added         " + kFirst +
                            "  \"daily\"\n"
                            "2026-11-30 11:00:00 +0000  launch        " +
                            kFirst +
                            "  \"daily\"  window 2026-11-30 11:00:00 +0000"
                            "  next 2026-12-01 11:00:00 +0000\n"
                            "2026-11-30 11:59:00 +0000  missed        " +
                            kSecond +
                            "  \"we\\x1Bekly\"  window 2026-11-30 11:50:00 +0000"
                            "  next none to come  (the service was down)\n");
}

TEST_F(HistoryCommand, ShowsTheControlsOfATextAndSendsNone) {
  qx::HistoryStore store;
  std::string aside;
  const std::string text = "\x1b[31m\n";
  ASSERT_EQ(store.OpenForWriting(Path("texts.db"), {}, aside), 0u);
  ASSERT_EQ(store.Append({{5, qx::HistoryKind::kMissed, text, text, 5, {}, text}}, {}), 0u);
  const Result result = Ask({"history", "--no-legend", "--file", Path("texts.db")});
  EXPECT_EQ(result.exit, 0);
  EXPECT_THAT(result.out, HasSubstr(R"(missed        \x1B[31m\x0A  "\x1B[31m\x0A")"));
  EXPECT_EQ(std::count(result.out.begin(), result.out.end(), '\n'), 1);
}

TEST_F(HistoryCommand, FindsASchedule) {
  for (const std::string& word : {kFirst, std::string("ab12"), std::string("daily")}) {
    const Result result = Ask({"history", word, "--no-legend"});
    EXPECT_EQ(result.exit, 0) << word;
    EXPECT_THAT(result.out, AllOf(HasSubstr("launch"), Not(HasSubstr("missed")))) << word;
  }
  const Result none = Ask({"history", "nobody"});
  EXPECT_EQ(none.exit, 3);
  EXPECT_THAT(none.err, HasSubstr("nobody: no such schedule in the history"));
  EXPECT_THAT(Ask({"history", "AB1"}).err, HasSubstr("at least four digits"));
  const Result both = Ask({"history", "{AB1"});
  EXPECT_EQ(both.exit, 3);
}

TEST_F(HistoryCommand, ShowsWhatIsSince) {
  struct Row {
    const char* since;
    std::size_t entries;
  };
  for (const Row& row : {Row{"10m", 1},
                         {"1h", 2},
                         {"2h", 3},
                         {"2026-11-30T11:00:01Z", 1},
                         {"2026-11-30", 3},
                         {"now", 0},
                         {"@1796036400", 2}}) {
    const Result result = Ask({"--json", "history", "--since", row.since});
    EXPECT_EQ(result.exit, 0) << row.since;
    EXPECT_EQ(json::parse(result.out).size(), row.entries) << row.since;
  }
}

TEST_F(HistoryCommand, RefusesAnUnknownTimeWithWhatIsAllowed) {
  for (const char* since : {"yesterday", "2026-13-01", "10", " "}) {
    const Result result = Ask({"history", "--since", since});
    EXPECT_EQ(result.exit, 2) << since;
    EXPECT_THAT(result.err, AllOf(HasSubstr(std::string("not a time: \"") + since + "\""), HasSubstr("allowed: "),
                                  HasSubstr("2h"), HasSubstr("2026-12-01T22:00"), HasSubstr("@SECONDS")));
    EXPECT_EQ(result.out, "");
  }
}

TEST_F(HistoryCommand, NeedsAHistory) {
  const Result result = Ask({"history", "--file", Path("none.db")});
  EXPECT_EQ(result.exit, 3);
  EXPECT_THAT(result.err, AllOf(HasSubstr("no history: " + Path("none.db")), HasSubstr("hint: qxsched record")));
  EXPECT_FALSE(std::filesystem::exists(Path("none.db")));
}

TEST_F(HistoryCommand, ShowsThatOfTheUnitWhereTheStateDirectoryHasNone) {
  std::filesystem::create_directory(Path("state"));
  std::filesystem::create_directory(Path("qxsched-record"));
  const auto show = [&] { return Run({"--root", Path("state"), "history"}); };
  EXPECT_EQ(show().exit, 3);
  std::filesystem::rename(Path("history.db"), Path("qxsched-record/history.db"));
  EXPECT_THAT(show().out, HasSubstr("3 entries"));
  std::string aside;
  ASSERT_EQ(qx::HistoryStore().OpenForWriting(Path("state/history.db"), {}, aside), 0u);
  EXPECT_THAT(show().out, HasSubstr("0 entries"));
}

TEST_F(HistoryCommand, LeavesAFileThatIsNone) {
  {
    platform::Database other;
    ASSERT_EQ(other.Open(Path("other.db"), platform::Database::Access::kReadWrite), 0u);
    ASSERT_EQ(other.Run("CREATE TABLE t(n)"), 0u);
  }
  const Result result = Ask({"history", "--file", Path("other.db")});
  EXPECT_EQ(result.exit, 1);
  EXPECT_THAT(result.err, HasSubstr("is not a history"));
}

TEST_F(HistoryCommand, SaysInItsHelpWhatItDoesNotKnow) {
  for (const char* command : {"record", "history"}) {
    EXPECT_THAT(Ask({command, "--help"}).out, HasSubstr("Launches are known, results are not")) << command;
  }
}

TEST_F(HistoryCommand, RefusesBoundsOutOfRange) {
  EXPECT_EQ(Ask({"record", "--max-size", "0"}).exit, 2);
  EXPECT_EQ(Ask({"record", "--max-age", "40000"}).exit, 2);
}

}  // namespace
