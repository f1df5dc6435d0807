#include <gmock/gmock.h>
#include <signal.h>
#include <unistd.h>

#include <condition_variable>
#include <iostream>
#include <mutex>
#include <nlohmann/json.hpp>

#include "client/schedule_json.h"
#include "client/tests/online_fixture.h"
#include "platform/host.h"
#include "platform/terminal.h"
#include "platform/text.h"

namespace {

using nlohmann::json;
using platform::Utf8FromWide;
using platform::WideFromUtf8;
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

const std::string kDaily =
    "name = \"daily\"\n[job]\nwrapper = \"/bin/true\"\n[window]\nstart = \"22:00\"\nend = \"23:00\"\n"
    "[days]\nevery = [\"sun\",\"mon\",\"tue\",\"wed\",\"thu\",\"fri\",\"sat\"]\n";

// --- list ---

TEST_F(CliOnline, ListsSchedulesByTheirNextWindow) {
  Have(Id(0xAAAA1111), u"late", kTonight + 86400);
  Have(Id(0xAAAA2222), u"early", kTonight);
  Have(Id(0xAAAA3333), u"over", -1);
  service.damaged = {u"{00000000-0000-4001-8000-000000000000}"};
  const std::string table =
      "NEXT                       NAME   ID                                      COMMAND\n"
      "2026-11-30 22:00:00 +0100  early  {AAAA2222-0000-4001-8000-000000000000}  /bin/echo -v one\n"
      "2026-12-01 22:00:00 +0100  late   {AAAA1111-0000-4001-8000-000000000000}  /bin/echo -v one\n"
      "-                          over   {AAAA3333-0000-4001-8000-000000000000}  /bin/echo -v one\n"
      "damaged                           {00000000-0000-4001-8000-000000000000}\n"
      "\n"
      "4 schedules, 1 without a window to come, 1 damaged, zone CET-1CEST,M3.5.0,M10.5.0/3.\n";
  for (const std::vector<std::string>& words : {std::vector<std::string>{}, {"list"}}) {
    const Result result = Ask(words);
    EXPECT_EQ(result.exit, 0);
    EXPECT_EQ(result.out, table);
    EXPECT_EQ(result.err, "");
  }
}

TEST_F(CliOnline, ListsWithoutLegend) {
  Have(Id(0xAAAA1111), u"one", kTonight);
  EXPECT_EQ(Ask({"list", "--no-legend"}).out,
            "2026-11-30 22:00:00 +0100  one   {AAAA1111-0000-4001-8000-000000000000}  /bin/echo -v one\n");
}

TEST_F(CliOnline, ListsAsJson) {
  Have(Id(0xAAAA1111), u"one", kTonight);
  Have(Id(0xAAAA2222), u"two", -1);
  const Result result = Ask({"list", "--json"});
  EXPECT_EQ(result.exit, 0);
  EXPECT_EQ(result.out,
            "[{\"id\":\"{AAAA1111-0000-4001-8000-000000000000}\",\"name\":\"one\",\"application\":\"app\","
            "\"object_id\":\"vol-17\",\"task_code\":4,\"wrapper\":\"/bin/echo\",\"xml\":\"/tmp/x.xml\","
            "\"parameters\":\"-v one\",\"pre_script\":\"\",\"post_script\":\"\",\"pass_id\":true,"
            "\"next_window\":1796072400},"
            "{\"id\":\"{AAAA2222-0000-4001-8000-000000000000}\",\"name\":\"two\",\"application\":\"app\","
            "\"object_id\":\"vol-17\",\"task_code\":4,\"wrapper\":\"/bin/echo\",\"xml\":\"/tmp/x.xml\","
            "\"parameters\":\"-v one\",\"pre_script\":\"\",\"post_script\":\"\",\"pass_id\":true,"
            "\"next_window\":null}]\n");
  service.schedules.clear();
  EXPECT_EQ(Ask({"list", "--json"}).out, "[]\n");
}

TEST_F(CliOnline, MarksADamagedScheduleInJson) {
  service.damaged = {u"{00000000-0000-4001-8000-000000000000}"};
  const json list = json::parse(Ask({"list", "--json"}).out);
  ASSERT_EQ(list.size(), 1u);
  EXPECT_EQ(list[0]["damaged"], true);
  EXPECT_EQ(list[0]["next_window"], nullptr);
}

TEST_F(CliOnline, ReadsEveryPageOfTheList) {
  for (std::uint32_t i = 0; i < 25; ++i) Have(Id(0xAAAA0000 + i), u"n", kTonight);
  service.pageRows = 7;
  EXPECT_EQ(json::parse(Ask({"list", "--json"}).out).size(), 25u);
}

TEST_F(CliOnline, CutsWhatATerminalHasNoRoomFor) {
  Have(Id(0xAAAA1111), u"a name that goes on for longer than anybody reads", kTonight);
  service.schedules.begin()->second.bstrParameters = std::u16string(200, u'ä');
  for (const std::size_t columns : {80u, 100u, 120u}) {
    settings.columns = columns;
    std::istringstream lines(Ask({"list", "--no-legend"}).out);
    std::string line;
    ASSERT_TRUE(std::getline(lines, line));
    EXPECT_EQ(WideFromUtf8(line).size(), columns) << line;
    EXPECT_THAT(line, AllOf(HasSubstr("2026-11-30 22:00:00 +0100"), HasSubstr("{AAAA1111"), HasSubstr("…")));
  }
}

TEST_F(CliOnline, ColumnsStandBeneathEachOtherWhateverTheLettersOfAName) {
  Have(Id(0xAAAA1111), u"nightly", kTonight);
  Have(Id(0xAAAA2222), u"夜間保存", kTonight);
  Have(Id(0xAAAA3333), u"e\u0301te\u0301", kTonight);
  const std::string list = Ask({"list", "--no-legend"}).out;
  EXPECT_THAT(list, AllOf(HasSubstr("  nightly   {AAAA1111"), HasSubstr("  夜間保存  {AAAA2222"),
                          HasSubstr("  e\u0301te\u0301       {AAAA3333")));
  settings.columns = 80;
  service.schedules.begin()->second.bstrParameters = std::u16string(200, u'保');
  std::istringstream lines(Ask({"list", "--no-legend"}).out);
  std::string line;
  while (std::getline(lines, line)) EXPECT_LE(platform::FitText(line).columns, 80u) << line;
}

TEST_F(CliOnline, ShowsTimesInTheZoneOfTheService) {
  Have(Id(0xAAAA1111), u"one", kTonight);
  service.properties.zone = "ZZZ+5";
  EXPECT_THAT(Ask({"list"}).out, AllOf(HasSubstr("2026-11-30 16:00:00 -0500"), HasSubstr("zone ZZZ+5.")));
}

TEST_F(CliOnline, RefusesAZoneThatIsUnknownHere) {
  service.properties.zone = "Nowhere/Atall";
  const Result result = Ask({"list"});
  EXPECT_EQ(result.exit, 1);
  EXPECT_THAT(result.err, HasSubstr("the zone of the service is unknown here: \"Nowhere/Atall\""));
}

TEST_F(CliOnline, SendsNoControlCharactersOfANameToTheTerminal) {
  Have(Id(0xAAAA1111), u"a\u001b[31m", kTonight);
  EXPECT_THAT(Ask({"list"}).out, AllOf(HasSubstr("a\\x1B[31m"), Not(HasSubstr("\033"))));
}

// --- SCHEDULE ---

TEST_F(CliOnline, FindsAScheduleByIdByDigitsAndByName) {
  Have(Id(0xAAAA1111), u"first", kTonight);
  Have(Id(0xAAAA2222), u"second", kTonight);
  for (const char* word : {"{AAAA1111-0000-4001-8000-000000000000}", "aaaa1111-0000-4001-8000-000000000000", "aaaa1",
                           "AAAA1111-00", "{AAAA1", "first"}) {
    const Result result = Ask({"show", word, "--json"});
    EXPECT_EQ(result.exit, 0) << word << result.err;
    EXPECT_THAT(result.out, HasSubstr("\"bstrName\":\"first\"")) << word;
  }
}

TEST_F(CliOnline, EndsWith3ForWhatIsNotThere) {
  Have(Id(0xAAAA1111), u"first", kTonight);
  for (const char* word : {"second", "firs", "FIRST", "bbbb", "aaa", "{BBBB1111-0000-4001-8000-000000000000}"}) {
    for (const char* command : {"show", "next", "rm"}) {
      const Result result = Ask({command, word});
      EXPECT_EQ(result.exit, 3) << command << word;
      EXPECT_EQ(result.out, "") << command << word;
      EXPECT_THAT(result.err, HasSubstr("qxsched: hint: ")) << command << word;
    }
  }
  EXPECT_EQ(service.schedules.size(), 1u);
  EXPECT_THAT(Ask({"show", "aaa"}).err, HasSubstr("at least four digits"));
}

TEST_F(CliOnline, ListsTheCandidatesOfAnAmbiguousWord) {
  Have(Id(0xAAAA1111), u"twin", kTonight);
  Have(Id(0xAAAA2222), u"twin", kTonight);
  for (const char* word : {"aaaa", "twin"}) {
    const Result result = Ask({"rm", word, "--yes"});
    EXPECT_EQ(result.exit, 3);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, std::string("qxsched: ") + word + ": is ambiguous, 2 schedules answer to it:\n  " + kIdA +
                              "  twin\n  " + kIdB + "  twin\nqxsched: hint: give more digits of the ID\n");
  }
  EXPECT_EQ(service.schedules.size(), 2u);
}

TEST_F(CliOnline, TakesANameThatIsAlsoTheBeginningOfAnotherIdForAmbiguous) {
  Have(Id(0xAAAA1111), u"first", kTonight);
  Have(Id(0xBBBB2222), u"aaaa", kTonight);
  EXPECT_EQ(Ask({"show", "aaaa"}).exit, 3);
}

// --- show, next ---

TEST_F(CliOnline, ShowsARecordAsAFileWithItsNextWindows) {
  Have(Id(0xAAAA1111), u"first", kTonight);
  const Result result = Ask({"show", "first"});
  EXPECT_EQ(result.exit, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_THAT(result.out, testing::StartsWith("# id: {AAAA1111-0000-4001-8000-000000000000}\n"
                                              "# next: 2026-11-30 22:00:00 +0100 to 2026-12-01 00:00:00 +0100\n"
                                              "# next: 2026-12-01 22:00:00 +0100 to 2026-12-02 00:00:00 +0100\n"
                                              "# next: 2026-12-02 22:00:00 +0100 to 2026-12-03 00:00:00 +0100\n"
                                              "name"));
  // The text is a schedule file.
  EXPECT_EQ(Ask({"check", Write("shown.toml", result.out)}).exit, 0);
}

TEST_F(CliOnline, ShowsARecordAsJsonWithTheNamesOfItsFields) {
  const auto id = Have(Id(0xAAAA1111), u"first", kTonight);
  const json shown = json::parse(Ask({"show", "first", "--json"}).out);
  SCHEDULE_OBJECT record;
  std::string error;
  ASSERT_TRUE(qx::RecordFromJson(shown, record, error)) << error;
  EXPECT_EQ(record, service.schedules[id]);
}

TEST_F(CliOnline, SaysThatNoWindowComes) {
  const auto id = Have(Id(0xAAAA1111), u"first", -1);
  SCHEDULE_RULE& rules = service.schedules[id].stScheduleRules;
  rules = {};
  EXPECT_THAT(Ask({"show", "first"}).out, HasSubstr("# next: none, 0x8004020A No run day rule defined.\n"));
  rules.alIncludeDates[0] = 1700000000;
  EXPECT_THAT(Ask({"show", "first"}).out, HasSubstr("# next: none\n"));
}

TEST_F(CliOnline, ComputesTheWindowsOfAScheduleOfTheService) {
  Have(Id(0xAAAA1111), u"first", kTonight);
  service.properties.zone = "ZZZ+5";
  const Result result = Ask({"next", "first", "-n", "1", "--no-legend", "--from", "2026-12-01 00:00"});
  EXPECT_EQ(result.exit, 0);
  EXPECT_EQ(result.out, "2026-12-01 16:00:00 -0500  Tue  2026-12-01 18:00:00 -0500\n");
  // A zone that was asked for wins.
  EXPECT_EQ(Ask({"next", "first", "-n", "1", "--no-legend", "--zone", "UTC0"}).out,
            "2026-11-30 21:00:00 +0000  Mon  2026-11-30 23:00:00 +0000\n");
}

// --- status, refresh ---

TEST_F(CliOnline, ShowsWhatTheServiceSaysAboutItself) {
  Have(Id(0xAAAA1111), u"a", kTonight);
  Have(Id(0xAAAA2222), u"b", -1);
  service.damaged = {u"{00000000-0000-4001-8000-000000000000}"};
  const Result result = Ask({"status"});
  EXPECT_EQ(result.exit, 0);
  EXPECT_EQ(result.out,
            "Service:          running, version 1.2.3\n"
            "Zone:             CET-1CEST,M3.5.0,M10.5.0/3\n"
            "Port:             19810\n"
            "Log level:        3\n"
            "Next wake-up:     2026-11-30 14:00:00 +0100\n"
            "State directory:  /var/lib/qxsvc\n"
            "Schedules:        3 (1 with a window to come, 1 without, 1 damaged)\n");
  EXPECT_EQ(Ask({"status", "--json"}).out,
            "{\"reachable\":true,\"version\":\"1.2.3\",\"zone\":\"CET-1CEST,M3.5.0,M10.5.0/3\",\"port\":19810,"
            "\"trace_level\":3,\"next_wake_up\":1796043600,\"state_directory\":\"/var/lib/qxsvc\",\"schedules\":3,"
            "\"with_window\":1,\"without_window\":1,\"damaged\":1}\n");
  service.properties.nextWakeUp = -1;
  EXPECT_THAT(Ask({"status", "--json"}).out, HasSubstr("\"next_wake_up\":null"));
  EXPECT_THAT(Ask({"status"}).out, HasSubstr("Next wake-up:     none\n"));
}

TEST_F(CliOnline, SaysInJsonThatTheServiceIsNotThere) {
  connectCode = platform::ERROR_FILE_NOT_FOUND;
  const Result result = Ask({"status", "--json"});
  EXPECT_EQ(result.exit, 6);
  EXPECT_EQ(result.out, "{\"reachable\":false}\n");
}

TEST_F(CliOnline, HasTheServiceReadItsStoreAgain) {
  EXPECT_EQ(Ask({"refresh"}).exit, 0);
  EXPECT_EQ(service.refreshed, 1);
  service.refusal = kStatusFailure;
  const Result refused = Ask({"refresh"});
  EXPECT_EQ(refused.exit, 1);
  EXPECT_THAT(refused.err, HasSubstr("0x00000001 The operation failed.\nqxsched: hint: "));
}

// --- add ---

TEST_F(CliOnline, AddsAScheduleFromAFile) {
  const Result result = Ask({"add", Write("a.toml", kDaily)});
  EXPECT_EQ(result.exit, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.out, "{AB120000-0000-4001-8000-000000000000}\n");
  ASSERT_EQ(service.schedules.size(), 1u);
  const SCHEDULE_OBJECT& record = service.schedules.begin()->second;
  EXPECT_EQ(record.bstrName, u"daily");
  EXPECT_EQ(record.bstrWrapperBinaryName, u"/bin/true");
  EXPECT_EQ(record.stScheduleRules.lStartTime % 86400, 21 * 3600);
  EXPECT_EQ(Ask({"add", Path("a.toml"), "--json"}).out,
            "{\"status\":\"0x00000000\",\"id\":\"{AB120001-0000-4001-8000-000000000000}\"}\n");
  EXPECT_EQ(Ask({"add", "-"}, kDaily).exit, 0);
}

TEST_F(CliOnline, ADirectoryOfASchedulesNameDoesntHideIt) {
  Have(Id(0xAAAA1111), u"backup", kTonight);
  Have(Id(0xAAAA2222), u"..", kTonight);
  std::filesystem::create_directory(Path("backup"));
  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::current_path(m_directory);
  for (const char* name : {"backup", ".."}) {
    EXPECT_EQ(Ask({"next", name}).exit, 0) << name;
    EXPECT_EQ(Ask({"calendar", name}).exit, 0) << name;
  }
  const Result file = Ask({"next", "backup/"});
  EXPECT_EQ(file.exit, 3);
  EXPECT_EQ(file.err, "qxsched: backup/: is a directory\n");
  std::filesystem::current_path(before);
}

TEST_F(CliOnline, TellsTheIdOfWhatItMadeWhereTheOutputTakesNothing) {
  std::istringstream in;
  for (const std::vector<std::string>& words :
       {std::vector<std::string>{"-q", "add", Write("a.toml", kDaily)}, {"add", "--json", Path("a.toml")},
        {"restore", Path("a.toml")}}) {
    std::ostringstream out;
    std::ostringstream err;
    out.setstate(std::ios::badbit);
    EXPECT_EQ(RunWith(words, in, out, err), 1);
    const std::string id = platform::Utf8FromWide(platform::GuidText(service.schedules.rbegin()->first));
    EXPECT_THAT(err.str(), EndsWith("qxsched: created: " + id + "\nqxsched: the output can't be written\n"));
  }
}

TEST_F(CliOnline, SaysOfAScheduleThatCantBeReadWhatMayBeWrong) {
  Have(Id(0xAAAA1111), u"daily", kTonight);
  for (const Status status : {kStatusFailure, Status{0x80000006}}) {
    service.unreadable = status;
    for (const char* command : {"show", "next", "export", "skip", "run", "rm"}) {
      const Result result = Ask({command, "daily"});
      EXPECT_EQ(result.exit, 1) << command;
      EXPECT_THAT(result.err, AllOf(HasSubstr("the file of its rules, its ID with .ini, is missing or damaged"),
                                    HasSubstr("qxsched log"),
                                    Not(HasSubstr("wrapper")), Not(HasSubstr("Unknown"))))
          << command;
    }
    EXPECT_EQ(Ask({"rm", "daily", "--no-backup"}).exit, 0);
    Have(Id(0xAAAA1111), u"daily", kTonight);
  }
}

TEST_F(CliOnline, ReadsTimesOfAFileInTheZoneOfTheService) {
  service.properties.zone = "ZZZ+5";
  ASSERT_EQ(Ask({"add", Write("a.toml", kDaily)}).exit, 0);
  EXPECT_EQ(service.schedules.begin()->second.stScheduleRules.lStartTime % 86400, 3 * 3600);
}

TEST_F(CliOnline, SendsNothingOfAFileWithErrors) {
  struct Case {
    const char* text;
    int exit;
    const char* says;
  };
  const Case cases[] = {
      {"x = 1\n", 5, "unknown"},
      {"job.wrapper = \"/bin/true\"\n", 5, "0x8004020A No run day rule defined."},
      {"job.wrapper = \"./w\"\ndays.of_month = [1]\n", 5, "relative"},
      {"job.wrapper = \"/bin/true\"\ndays.include = [2020-01-01]\n", 5, "0x80040210 The rules lie wholly in the past."},
  };
  for (const Case& c : cases) {
    const Result result = Ask({"add", Write("a.toml", c.text)});
    EXPECT_EQ(result.exit, c.exit) << c.text;
    EXPECT_EQ(result.out, "") << c.text;
    EXPECT_THAT(result.err, HasSubstr(c.says)) << c.text;
  }
  EXPECT_THAT(Ask({"add", Write("a.toml", cases[1].text)}).err, HasSubstr("qxsched: hint: give days"));
  EXPECT_EQ(Ask({"add", Path("none.toml")}).exit, 3);
  EXPECT_TRUE(service.schedules.empty());
  EXPECT_EQ(Ask({"add", "--allow-relative-paths", Write("a.toml", cases[2].text)}).exit, 0);
}

TEST_F(CliOnline, TellsWhatTheServiceRefuses) {
  struct Case {
    Status status;
    int exit;
    const char* says;
  };
  const Case cases[] = {
      {kStatusRestartTooLong, 5, "0x8004020C The Restart interval exceeds the size of the time-window."},
      {kStatusNoDirectory, 1, "0x8004020F The directory of the XML path doesn't exist."},
      {kStatusRegistryWrite, 1, "0x80040203 The schedule's registry data can't be written."},
      {kStatusFailure, 1, "0x00000001 The operation failed."},
      {0x80070000 | platform::ERROR_ACCESS_DENIED, 4, "0x80070005 "},
  };
  const std::string file = Write("a.toml", kDaily);
  for (const Case& c : cases) {
    service.refusal = c.status;
    const Result result = Ask({"add", file});
    EXPECT_EQ(result.exit, c.exit) << c.says;
    EXPECT_EQ(result.out, "") << c.says;
    EXPECT_THAT(result.err, AllOf(HasSubstr(c.says), HasSubstr("qxsched: hint: "))) << c.says;
  }
  service.refusal = kStatusNoDirectory;
  EXPECT_EQ(Ask({"add", file, "--json"}).out, "{\"status\":\"0x8004020F\",\"id\":null}\n");
}

TEST_F(CliOnline, TellsACallThatTheServiceTurnsDownByItsName) {
  struct Case {
    std::string_view name;
    int exit;
  };
  const Case cases[] = {
      {platform::kBusErrorAccessDenied, 4},   {platform::kBusErrorInvalidArgs, 5},    {platform::kBusErrorFailed, 1},
      {platform::kBusErrorServiceUnknown, 6}, {platform::kBusErrorNameHasNoOwner, 6}, {platform::kBusErrorNoReply, 6},
      {platform::kBusErrorDisconnected, 6},   {platform::kBusErrorLimitsExceeded, 1},
  };
  const std::string file = Write("a.toml", kDaily);
  for (const Case& c : cases) {
    service.lossOnChange = {std::string(c.name), "the reason"};
    const Result result = Ask({"add", file, "--json"});
    EXPECT_EQ(result.exit, c.exit) << c.name;
    EXPECT_EQ(result.out, "") << c.name;
    EXPECT_THAT(result.err, HasSubstr("the reason (0x800710E0, " + std::string(c.name) + ")"));
    const bool mayBeDone = result.err.find("whether the schedule was created isn't known") != std::string::npos;
    EXPECT_EQ(mayBeDone, c.exit == 6) << c.name;
  }
}

// --- reaching the service ---

TEST_F(CliOnline, EndsWith6WhenNobodyIsThere) {
  const std::string file = Write("a.toml", kDaily);
  const std::vector<std::vector<std::string>> commands = {
      {}, {"list"}, {"show", "x"}, {"status"}, {"add", file}, {"rm", "x"}, {"monitor"}, {"refresh"}, {"next", "x"}};
  for (const bool onTheBus : {false, true}) {
    connectCode = onTheBus ? platform::ERROR_SUCCESS : platform::ERROR_FILE_NOT_FOUND;
    if (onTheBus) service.propertiesError = {std::string(platform::kBusErrorServiceUnknown), "no such name"};
    for (const auto& words : commands) {
      const Result result = Ask(words);
      EXPECT_EQ(result.exit, 6);
      EXPECT_EQ(result.out, "");
      EXPECT_THAT(result.err, AllOf(HasSubstr("qxsched: the service can't be reached: "), HasSubstr("0x8007"),
                                    HasSubstr(onTheBus ? "hint: start it with: " : "no message bus of ")));
    }
  }
}

TEST_F(CliOnline, EndsWith4WhenTheBusIsNotForThisUser) {
  connectCode = platform::ERROR_ACCESS_DENIED;
  EXPECT_EQ(Ask({"list"}).exit, 4);
  connectCode = platform::ERROR_SUCCESS;
  service.propertiesError = {std::string(platform::kBusErrorAccessDenied), "policy"};
  const Result result = Ask({"list"});
  EXPECT_EQ(result.exit, 4);
  EXPECT_THAT(result.err, HasSubstr("group qxsched"));
}

TEST_F(CliOnline, AsksOnTheBusThatItIsTold) {
  (void)Ask({"--bus", "unix:path=/tmp/x", "list"});
  EXPECT_EQ(address.kind, platform::BusAddress::Kind::kExplicit);
  EXPECT_EQ(address.address, "unix:path=/tmp/x");
  (void)Ask({"list"});
  EXPECT_EQ(address.kind,
            platform::RunsAsRoot() ? platform::BusAddress::Kind::kSystem : platform::BusAddress::Kind::kSession);
  service.propertiesError = {std::string(platform::kBusErrorServiceUnknown), "gone"};
  EXPECT_THAT(Ask({"--bus", "unix:path=/tmp/x", "list"}).err,
              HasSubstr(" --foreground --bus=unix:path=/tmp/x\n"));
}

TEST_F(CliOnline, SaysHowTheServiceThatWasAskedIsStarted) {
  struct Case {
    std::vector<std::string> words;
    const char* hint;
  };
  const Case nobody[] = {
      {{"--bus", "system", "list"}, "start it with: systemctl start QxSchedService\n"},
      {{"--root", "/tmp/s", "--bus", "session", "list"},
       "start it with: QxSchedService --root=/tmp/s --foreground --bus=session\n"},
  };
  service.propertiesError = {std::string(platform::kBusErrorServiceUnknown), "gone"};
  for (const Case& c : nobody) EXPECT_THAT(Ask(c.words).err, HasSubstr(c.hint));
  const Case noBus[] = {
      {{"--bus", "system", "list"}, "hint: start it with: systemctl start dbus; "},
      {{"--bus", "session", "list"}, "hint: dbus-run-session -- bash gives a shell with a bus of its own; "},
      {{"--bus", "unix:path=/tmp/x", "list"}, "no message bus at unix:path=/tmp/x: 0x80070002 "},
  };
  connectCode = platform::ERROR_FILE_NOT_FOUND;
  for (const Case& c : noBus) EXPECT_THAT(Ask(c.words).err, HasSubstr(c.hint));
}

// --- rm ---

TEST_F(CliOnline, DeletesAfterABackup) {
  const auto id = Have(Id(0xAAAA1111), u"first", kTonight);
  Have(Id(0xBBBB2222), u"second", kTonight);
  const SCHEDULE_OBJECT before = service.schedules[id];
  const Result result = Ask({"rm", "first", "aaaa1111"});
  EXPECT_EQ(result.exit, 0);
  EXPECT_EQ(result.out, "");
  const std::string file = Path("backups/AAAA1111-0000-4001-8000-000000000000-20261130-120000.toml");
  EXPECT_EQ(result.err, "qxsched: backup: " + file + "\nqxsched: deleted: " + kIdA + " \"first\"\n");
  EXPECT_EQ(service.schedules.count(id), 0u);
  EXPECT_EQ(service.schedules.size(), 1u);
  // The backup brings the schedule back.
  ASSERT_EQ(Ask({"add", file}).exit, 0);
  SCHEDULE_OBJECT after = service.schedules[Id(0xAB120000)];
  after.lNextTimeWindow = before.lNextTimeWindow;
  after.stScheduleRules.lStartTime = before.stScheduleRules.lStartTime;  // on another date that carries it
  after.stScheduleRules.lEndTime = before.stScheduleRules.lEndTime;
  EXPECT_EQ(after, before);
}

TEST_F(CliOnline, NeverWritesABackupOverAnother) {
  for (int i = 0; i < 3; ++i) {
    Have(Id(0xAAAA1111), u"first", kTonight);
    ASSERT_EQ(Ask({"rm", "first"}).exit, 0);
  }
  EXPECT_EQ(Backups().size(), 3u);
}

TEST_F(CliOnline, TellsOfDeletionsAsJson) {
  Have(Id(0xAAAA1111), u"first", kTonight);
  EXPECT_EQ(Ask({"rm", "first", "--no-backup", "--json"}).out,
            std::string("[{\"id\":\"") + kIdA + "\",\"status\":\"0x00000000\",\"backup\":null}]\n");
}

TEST_F(CliOnline, DeletesNothingWhenTheBackupFails) {
  Have(Id(0xAAAA1111), u"first", kTonight);
  Have(Id(0xBBBB2222), u"second", kTonight);
  Write("backups", "not a directory");
  const Result result = Ask({"rm", "first", "second"});
  EXPECT_NE(result.exit, 0);
  EXPECT_EQ(service.schedules.size(), 2u);
  EXPECT_THAT(result.err, AllOf(HasSubstr("the backup can't be written to " + Path("backups")),
                                HasSubstr("nothing is deleted"), HasSubstr("--no-backup")));
  EXPECT_EQ(Ask({"rm", "first", "--no-backup"}).exit, 0);
  EXPECT_EQ(service.schedules.size(), 1u);
}

TEST_F(CliOnline, DeletesADamagedScheduleOnlyWithoutABackup) {
  service.damaged = {WideFromUtf8(kIdA)};
  const Result kept = Ask({"rm", "aaaa1"});
  EXPECT_EQ(kept.exit, 3);
  EXPECT_THAT(kept.err, AllOf(HasSubstr("0x80040202 The schedule's registry data can't be read."),
                              HasSubstr("nothing is deleted"), HasSubstr("--no-backup")));
  EXPECT_EQ(service.damaged.size(), 1u);
  EXPECT_EQ(Ask({"rm", "aaaa1", "--no-backup"}).exit, 0);
  EXPECT_TRUE(service.damaged.empty());
}

TEST_F(CliOnline, DeletesNothingWhenOneOfSeveralIsNotThere) {
  Have(Id(0xAAAA1111), u"first", kTonight);
  EXPECT_EQ(Ask({"rm", "first", "second"}).exit, 3);
  EXPECT_EQ(Ask({"rm", "first", "{BBBB2222-0000-4001-8000-000000000000}"}).exit, 3);
  EXPECT_EQ(service.schedules.size(), 1u);
}

TEST_F(CliOnline, AsksBeforeADeletionOnATerminal) {
  settings.confirm = true;
  Have(Id(0xAAAA1111), u"first", kTonight);
  for (const char* answer : {"n\n", "\n", "", "yo\n"}) {
    const Result result = Ask({"rm", "first"}, answer);
    EXPECT_EQ(result.exit, 1) << answer;
    EXPECT_THAT(result.err, AllOf(HasSubstr(std::string("  ") + kIdA + " \"first\"\nDelete this schedule? [y/N] "),
                                  HasSubstr("nothing is deleted")));
  }
  EXPECT_EQ(service.schedules.size(), 1u);
  EXPECT_TRUE(Backups().empty());
  EXPECT_EQ(Ask({"rm", "first"}, "y\n").exit, 0);
  EXPECT_TRUE(service.schedules.empty());
  Have(Id(0xAAAA1111), u"first", kTonight);
  EXPECT_THAT(Ask({"rm", "first", "--yes"}).err, Not(HasSubstr("[y/N]")));
  EXPECT_TRUE(service.schedules.empty());
}

TEST_F(CliOnline, TellsADeletionThatTheServiceRefuses) {
  Have(Id(0xAAAA1111), u"first", kTonight);
  service.refusal = kStatusSchedulesKey;
  const Result result = Ask({"rm", "first", "--json"});
  EXPECT_EQ(result.exit, 1);
  EXPECT_THAT(result.err, HasSubstr("0x80040204 The \"Schedules\" key can't be opened for deleting."));
  EXPECT_EQ(json::parse(result.out)[0]["status"], "0x80040204");
}

TEST_F(CliOnline, SaysWhatBecameOfEachWhenTheServiceIsLost) {
  Have(Id(0xAAAA1111), u"first", kTonight);
  Have(Id(0xAAAA2222), u"second", kTonight);
  const std::string first = kIdA;
  const std::string second = kIdB;
  service.lossOnChange = {std::string(platform::kBusErrorNoReply), "gone"};
  const Result result = Ask({"rm", "first", "second", "--no-backup", "--json"});
  EXPECT_EQ(result.exit, 6);
  EXPECT_THAT(result.err, AllOf(HasSubstr("whether it was deleted isn't known; see qxsched show " + first),
                                HasSubstr("not deleted: " + second + " \"second\"\n")));
  const auto report = json::parse(result.out);
  ASSERT_EQ(report.size(), 2u);
  EXPECT_EQ(report[0]["id"], first);
  EXPECT_EQ(report[0]["status"], "0x800710E0");
  EXPECT_EQ(report[1]["id"], second);
  EXPECT_EQ(report[1]["status"], nullptr);
  EXPECT_THAT(Ask({"add", Write("a.toml", kDaily)}).err, HasSubstr("whether the schedule was created isn't known"));
}

// --- monitor ---

void TellOneOfEach(FakeService& service) {
  const ScheduleGuid id = Id(0xAAAA1111);
  service.Tell([id](auto& sink) { sink.Schedule_Add(id); });
  service.Tell([id](auto& sink) { sink.Schedule_Modify(id); });
  service.Tell([id](auto& sink) { sink.NextTimeWindow_Modify(id, 1796072400); });
  service.Tell([id](auto& sink) { sink.NextTimeWindow_Modify(id, -1); });
  service.Tell([](auto& sink) {
    sink.SystemTime_Change(2, {WideFromUtf8(kIdA), WideFromUtf8(kIdB)}, {1796072400, -1});
  });
  service.Tell([id](auto& sink) { sink.Schedule_Delete(id); });
}

TEST_F(CliOnline, WritesEachEventAsALineOfJson) {
  TellOneOfEach(service);
  const Result result = Ask({"monitor", "--json"});
  const std::string a = std::string("\"id\":\"") + kIdA + "\"";
  EXPECT_EQ(result.out, "{\"event\":\"Schedule_Add\"," + a + "}\n{\"event\":\"Schedule_Modify\"," + a +
                            "}\n{\"event\":\"NextTimeWindow_Modify\"," + a +
                            ",\"next_window\":1796072400}\n{\"event\":\"NextTimeWindow_Modify\"," + a +
                            ",\"next_window\":null}\n{\"event\":\"SystemTime_Change\",\"schedules\":[{" + a +
                            ",\"next_window\":1796072400},{\"id\":\"" + kIdB +
                            "\",\"next_window\":null}]}\n{\"event\":\"Schedule_Delete\"," + a + "}\n");
}

TEST_F(CliOnline, WritesEventsForPeople) {
  TellOneOfEach(service);
  const std::string now = "2026-11-30 13:00:00 +0100  ";
  const std::string a = kIdA;
  EXPECT_EQ(Ask({"monitor"}).out, now + "Schedule_Add           " + a + "\n" + now + "Schedule_Modify        " + a +
                                      "\n" + now + "NextTimeWindow_Modify  " + a +
                                      "  next 2026-11-30 22:00:00 +0100\n" + now + "NextTimeWindow_Modify  " + a +
                                      "  no window to come\n" + now + "SystemTime_Change      2 schedules\n    " + a +
                                      "  next 2026-11-30 22:00:00 +0100\n    " + kIdB + "  no window to come\n" + now +
                                      "Schedule_Delete        " + a + "\n");
}

TEST_F(CliOnline, EndsMonitoringWith6WhenTheBusIsLost) {
  const Result result = Ask({"monitor"});
  EXPECT_EQ(result.exit, 6);
  EXPECT_THAT(result.err, AllOf(HasSubstr("waiting for events"), HasSubstr("the bus of the service is lost")));
}

TEST_F(CliOnline, EndsMonitoringByAnInterrupt) {
  bool sent = false;
  service.whenQuiet = [&sent] {
    if (!sent) (void)::kill(::getpid(), SIGINT);
    sent = true;
    return true;
  };
  const Result result = Ask({"monitor"});
  EXPECT_EQ(result.exit, 0);
  EXPECT_TRUE(sent);
}

// A buffer that another thread can wait for text in.
class HeardBuffer : public std::stringbuf {
 public:
  void AwaitText(const std::string& text) {
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [&] { return str().find(text) != std::string::npos; });
  }

 protected:
  std::streamsize xsputn(const char* text, std::streamsize count) override {
    const std::lock_guard lock(m_mutex);
    const std::streamsize put = std::stringbuf::xsputn(text, count);
    m_changed.notify_all();
    return put;
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_changed;
};

TEST_F(CliOnline, SaysWhatItWaitsForWhenTheAnswerTakesLong) {
  HeardBuffer heard;
  std::ostream err(&heard);
  settings.noticeAfterMs = 0;
  service.during = [&] { heard.AwaitText("waiting for the service to create the schedule"); };
  std::istringstream in;
  std::ostringstream out;
  EXPECT_EQ(RunWith({"add", Write("a.toml", kDaily)}, in, out, err), 0);
  EXPECT_THAT(heard.str(), HasSubstr("(Ctrl-C leaves; the operation goes on)\n"));
  EXPECT_THAT(out.str(), HasSubstr("{AB120000"));
}

TEST_F(CliOnline, LeavesOnAnInterruptWithAWordThatTheOperationGoesOn) {
  service.during = [] {
    (void)::kill(::getpid(), SIGINT);
    std::mutex mutex;
    std::unique_lock lock(mutex);
    std::condition_variable().wait(lock, [] { return false; });  // the service never answers
  };
  const std::string file = Write("a.toml", kDaily);
  std::istringstream in;
  std::ostringstream out;
  EXPECT_EXIT((void)RunWith({"add", file}, in, out, std::cerr), testing::KilledBySignal(SIGINT),
              "left; the service goes on to create the schedule");
}

TEST_F(CliOnline, EndsWith2ForWrongWords) {
  for (const std::vector<std::string>& words :
       {std::vector<std::string>{"show"}, {"add"}, {"rm"}, {"list", "x"}, {"add", "a", "b"}, {"monitor", "x"}}) {
    EXPECT_EQ(Ask(words).exit, 2) << words.front();
  }
}

}  // namespace
