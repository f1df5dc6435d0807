#include <gmock/gmock.h>

#include "client/tests/cli_fixture.h"
#include "tests/test_paths.h"

namespace {

using testing::HasSubstr;
using testing::Not;

class Check : public CliTest {};

const std::string kGood = "job.wrapper = \"/bin/true\"\ndays.every = [\"mon\"]\n";

TEST_F(Check, SaysOkOfAFileWithoutFindings) {
  const std::string file = Write("a.toml", kGood);
  const Result result = Run({"check", file});
  EXPECT_EQ(result.exit, 0);
  EXPECT_EQ(result.out, file + ": ok\n");
  EXPECT_EQ(result.err, "");
}

TEST_F(Check, TellsAllFindingsOfAMalformedFileAtOnce) {
  const std::string file = Write("a.toml", "task_code = -1\n[job]\nwraper = \"x\"\n");
  const Result result = Run({"check", file});
  EXPECT_EQ(result.exit, 5);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "qxsched: " + file +
                            ":1:13: task_code is out of range: -1 (allowed: 0 to 4294967295)\n"
                            "qxsched: " +
                            file +
                            ":2:2: job.wrapper is missing: there is no program to start\n"
                            "qxsched: " +
                            file +
                            ":3:1: unknown key \"job.wraper\" (allowed: wrapper, xml, parameters, pre_script, "
                            "post_script, pass_id, run_now)\n");
}

TEST_F(Check, GivesTheSentenceAndNumberOfRulesThatTheServiceRefuses) {
  struct Case {
    const char* rules;
    const char* place;
    const char* sentence;
    const char* hint;
  };
  const Case cases[] = {
      {"", "", "0x8004020A No run day rule defined.", "give days: weekdays, of_month, repeat or include"},
      {"[days]\nexclude = [2027-01-01]\n", ":2:2", "0x8004020A No run day rule defined.",
       "give days: weekdays, of_month, repeat or include"},
      {"[window]\nduration = \"1h\"\nrestart = \"2h\"\n[days]\nevery = [\"mon\"]\n", ":4:1",
       "0x8004020C The Restart interval exceeds the size of the time-window.",
       "give a shorter restart or a longer window"},
      {"[days]\ninclude = [2026-11-29]\n", ":2:2", "0x80040210 The rules lie wholly in the past.",
       "give a rule with a date to come"},
  };
  for (const Case& c : cases) {
    const std::string file = Write("a.toml", std::string("job.wrapper = \"/bin/true\"\n") + c.rules);
    const Result result = Run({"check", file});
    EXPECT_EQ(result.exit, 5) << c.sentence;
    EXPECT_EQ(result.err, "qxsched: " + file + c.place + ": " + c.sentence + "\nqxsched: hint: " + c.hint + "\n");
  }
}

TEST_F(Check, TakesARestartAsLongAsTheWindow) {
  const std::string file =
      Write("a.toml",
            "job.wrapper = \"/bin/true\"\n[window]\nduration = \"1h\"\nrestart = \"1h\"\n[days]\nevery = [\"mon\"]\n");
  EXPECT_EQ(Run({"check", file}).exit, 0);
}

TEST_F(Check, RefusesAValueOutOfRange) {
  const std::string file = Write("a.toml", kGood + "window.duration = \"25h\"\n");
  const Result result = Run({"check", file});
  EXPECT_EQ(result.exit, 5);
  EXPECT_EQ(result.err, "qxsched: " + file +
                            ":3:19: window.duration is out of range: \"25h\"; the service would not apply "
                            "it (allowed: 1s to 24h)\n");
}

TEST_F(Check, WarnsWithoutRefusingUnlessStrict) {
  const std::string file = Write("a.toml", kGood + "window.duration = \"1s500ms\"\n");
  const std::string warning = "qxsched: " + file +
                              ":3:19: warning: window.duration has a fraction of a second, which the service would lose "
                              "at its next start\n";
  Result result = Run({"check", file});
  EXPECT_EQ(result.exit, 0);
  EXPECT_EQ(result.err, warning);
  result = Run({"check", "--strict", file});
  EXPECT_EQ(result.exit, 5);
  EXPECT_EQ(result.err, warning);
  result = Run({"-q", "check", file});
  EXPECT_EQ(result.exit, 0);
  EXPECT_EQ(result.out + result.err, "");
}

TEST_F(Check, WarnsOfAnXmlPathInAMissingDirectory) {
  const std::string file = Write("a.toml", kGood + "job.xml = \"" + Path("no/such/a.xml") + "\"\n");
  Result result = Run({"check", file});
  EXPECT_EQ(result.exit, 0);
  EXPECT_EQ(result.err, "qxsched: " + file +
                            ":3:5: warning: job.xml lies in a directory that doesn't exist on this "
                            "machine: " +
                            Path("no/such") + "\n");
  Write("a.toml", kGood + "job.xml = \"" + Path("a.xml") + "\"\n");
  EXPECT_EQ(Run({"check", file}).err, "");
}

TEST_F(Check, WarnsOfAProgramThatIsNotThere) {
  const std::string there = Write("prog", "#!/bin/sh\n"), gone = Path("gone");
  struct Case {
    int line;
    std::string wrapper;  // as a literal of TOML
    std::string missing;
  };
  const Case cases[] = {
      {__LINE__, "'" + there + "'", ""},
      {__LINE__, "'" + there + " -v'", ""},
      {__LINE__, "'\"" + there + "\" -v'", ""},
      {__LINE__, "'logger -t x'", ""},  // looked for on the service's PATH
      {__LINE__, "'" + gone + "'", gone},
      {__LINE__, "'" + gone + " -v'", gone},
      {__LINE__, "'\"" + gone + "\" -v'", gone},
  };
  for (const Case& c : cases) {
    const std::string file = Write("a.toml", "job.wrapper = " + c.wrapper + "\ndays.every = [\"mon\"]\n");
    const Result result = Run({"check", file});
    EXPECT_EQ(result.exit, 0) << "line " << c.line;
    const std::string warning = ":1:5: warning: job.wrapper names a program that doesn't exist on this machine: ";
    const auto about = HasSubstr(warning + (c.missing.empty() ? "" : c.missing + "\n"));
    if (c.missing.empty()) {
      EXPECT_THAT(result.err, Not(about)) << "line " << c.line;
    } else {
      EXPECT_THAT(result.err, about) << "line " << c.line;
    }
  }
}

TEST_F(Check, ReadsWhatIsNoPlainFile) {
  const Result result = Run({"check", "/dev/null"});
  EXPECT_EQ(result.exit, 5);
  EXPECT_EQ(result.err, "qxsched: /dev/null:1:1: job.wrapper is missing: there is no program to start\n");
  EXPECT_EQ(Run({"check", m_directory}).err, "qxsched: " + m_directory + ": is a directory\n");
}

TEST_F(Check, QuotesAWrapperOfAnExistingFile) {
  const std::string program = Write("my program", "#!/bin/sh\n");
  const std::string file = Write("a.toml", "job.wrapper = \"" + program + "\"\ndays.every = [\"mon\"]\n");
  EXPECT_EQ(Run({"check", file}).err, "");
  std::filesystem::remove(program);
  EXPECT_THAT(Run({"check", file}).err, HasSubstr(":1:15: warning: job.wrapper has blanks and isn't quoted"));
}

TEST_F(Check, ReadsRecordsAsJson) {
  const std::string file =
      Write("a.json", R"({"bstrWrapperBinaryName":"w","stScheduleRules":{"bLastDayOfMonth":1,"adwDaysOfMonth":[1]}})");
  Result result = Run({"check", file});
  EXPECT_EQ(result.exit, 0);
  EXPECT_EQ(result.err, "qxsched: " + file +
                            ": warning: bLastDayOfMonth is not read; the last day of the month is "
                            "adwDaysOfMonth[31]\n");
  Write("a.json", R"({"stScheduleRules":{"bLastDayOfMonth":1}})");
  result = Run({"check", file});
  EXPECT_EQ(result.exit, 5);
  EXPECT_THAT(result.err, HasSubstr(file + ": 0x8004020A No run day rule defined.\n"));
  Write("a.json", R"({"bstrNam":1})");
  result = Run({"check", file});
  EXPECT_EQ(result.exit, 5);
  EXPECT_EQ(result.err, "qxsched: " + file + ": bstrNam is unknown\n");
  Write("a.json", "{");
  EXPECT_EQ(Run({"check", file}).exit, 5);
}

TEST_F(Check, AnswersInJson) {
  const std::string good = Write("a.toml", kGood);
  const std::string bad = Write("b.toml", "job.wrapper = \"w\"\n[days]\neffective = \"soon\"\n");
  const std::string empty = Write("c.toml", "job.wrapper = \"w\"\n");
  const Result result = Run({"--json", "check", good, bad, empty});
  EXPECT_EQ(result.exit, 5);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(
      result.out,
      "[{\"file\":\"" + good +
          "\",\"ok\":true,\"status\":\"0x00000000\",\"findings\":[]},"
          "{\"file\":\"" +
          bad +
          "\",\"ok\":false,\"status\":\"0x00000000\",\"findings\":[{\"severity\":\"error\","
          "\"line\":3,\"column\":13,\"key\":\"days.effective\",\"text\":\"days.effective isn't a date: \\\"soon\\\"\","
          "\"allowed\":\"a date without quotes, as 2026-12-01\"}]},"
          "{\"file\":\"" +
          empty +
          "\",\"ok\":false,\"status\":\"0x8004020A\",\"findings\":[{\"severity\":\"error\","
          "\"line\":0,\"column\":0,\"key\":\"\",\"text\":\"0x8004020A No run day rule defined.\",\"allowed\":\"\"}]}]"
          "\n");
}

TEST_F(Check, ReadsTheInputForAHyphen) {
  EXPECT_EQ(Run({"check", "-"}, kGood).out, "-: ok\n");
  EXPECT_EQ(Run({"check", "-"}, "x = 1\n").exit, 5);
}

TEST_F(Check, TellsFilesThatCannotBeReadApart) {
  Result result = Run({"check", Path("none.toml")});
  EXPECT_EQ(result.exit, 3);
  EXPECT_THAT(result.err, HasSubstr("qxsched: " + Path("none.toml") + ": "));
  EXPECT_EQ(Run({"check", m_directory}).exit, 3);
  // A refused file weighs more than a missing one, whatever their order.
  const std::string bad = Write("b.toml", "x = 1\n");
  EXPECT_EQ(Run({"check", bad, Path("none.toml")}).exit, 5);
  EXPECT_EQ(Run({"check", Path("none.toml"), bad}).exit, 5);
}

TEST_F(Check, ReadsTimesInTheZoneThatItIsTold) {
  // 02:30 doesn't exist on 2026-03-29 in the fixture's zone, but the rules are sound in any.
  const std::string file = Write("a.toml", kGood + "window.start = \"02:30\"\n");
  EXPECT_EQ(Run({"check", "--zone", "UTC0", file}).exit, 0);
  const Result result = Run({"check", "--zone", "Nowhere/Atall", file});
  EXPECT_EQ(result.exit, 2);
  EXPECT_THAT(result.err, HasSubstr("--zone: unknown zone: \"Nowhere/Atall\""));
}

TEST_F(Check, FindsNoErrorInTheExamples) {
  int count = 0;
  for (const auto& entry : std::filesystem::directory_iterator(test_paths::Source() + "/examples")) {
    if (entry.path().extension() != ".toml") continue;
    ++count;
    const Result result = Run({"check", entry.path().string()});
    EXPECT_EQ(result.exit, 0) << entry.path() << "\n" << result.err;
  }
  EXPECT_GE(count, 5);
}

TEST_F(Check, ShowsControlCharactersInsteadOfSendingThem) {
  const std::string file = Write("a.toml", "\"a\\u001b[2Jb\" = 1\n");
  const Result result = Run({"check", file});
  EXPECT_THAT(result.err, HasSubstr("unknown key \"a\\x1B[2Jb\""));
}

}  // namespace
