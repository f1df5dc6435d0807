#include <gmock/gmock.h>

#include <nlohmann/json.hpp>

#include "client/tests/cli_fixture.h"

namespace {

using testing::HasSubstr;
using testing::StartsWith;

class Cli : public CliTest {};

TEST_F(Cli, TellsItsVersionAndItsHelp) {
  const Result version = Run({"--version"});
  EXPECT_EQ(version.exit, 0);
  EXPECT_THAT(version.out, testing::MatchesRegex("qxsched [0-9]+\\.[0-9]+\\.[0-9]+\n"));
  const Result help = Run({"--help"});
  EXPECT_EQ(help.exit, 0);
  for (const char* word : {"next", "check", "--root", "--bus", "--no-pager", "--no-legend", "--quiet", "--json"}) {
    EXPECT_THAT(help.out, HasSubstr(word));
  }
  const Result next = Run({"next", "--help"});
  EXPECT_EQ(next.exit, 0);
  EXPECT_THAT(next.out, HasSubstr("--batch"));
}

TEST_F(Cli, EndsWith2ForWordsThatItDoesNotKnow) {
  const std::vector<std::vector<std::string>> cases = {
      {"nonsense"},
      {"--nonsense"},
      {"next"},
      {"next", "-n", "0", "x.toml"},
      {"next", "-n", "x"},
      {"check"},
      {"next", "--batch", "x.toml"},
      {"next", "--batch", "-n", "3"},
      {"next", "-n", "100001", "x.toml"},
  };
  for (const auto& words : cases) {
    const Result result = Run(words);
    EXPECT_EQ(result.exit, 2) << words.front();
    EXPECT_THAT(result.err, HasSubstr("qxsched: ")) << words.front();
    EXPECT_EQ(result.out, "") << words.front();
  }
}

const std::string kFridayNight =
    "[job]\nwrapper = \"/bin/true\"\n[window]\nstart = \"22:00\"\nend = \"02:00\"\n"
    "[days]\nlast = [\"fri\"]\nexclude = [2026-12-25]\n";

TEST_F(Cli, ShowsTheComingWindows) {
  const std::string file = Write("a.toml", kFridayNight);
  const Result result = Run({"next", "-n", "3", file});
  EXPECT_EQ(result.exit, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.out,
            "START                      DAY  END                        MARKS\n"
            "2027-01-29 22:00:00 +0100  Fri  2027-01-30 02:00:00 +0100  skips 2026-12-25\n"
            "2027-02-26 22:00:00 +0100  Fri  2027-02-27 02:00:00 +0100\n"
            "2027-03-26 22:00:00 +0100  Fri  2027-03-27 02:00:00 +0100\n"
            "\n"
            "3 windows, zone CET-1CEST,M3.5.0,M10.5.0/3.\n");
}

TEST_F(Cli, MarksZoneChangesTheLastWindowAndTheRule) {
  const std::string file = Write("a.toml",
                                 "[job]\nwrapper = \"/bin/true\"\n[window]\nstart = \"02:30\"\nduration = \"1h\"\n"
                                 "[days]\ninclude = [2027-03-28, 2027-10-31, 2027-11-05]\n");
  const Result result = Run({"--no-legend", "next", "--why", file});
  EXPECT_EQ(result.exit, 0);
  EXPECT_EQ(result.out,
            "2027-03-28 03:30:00 +0200  Sun  2027-03-28 03:30:00 +0200  include  zone change\n"
            "2027-10-31 02:30:00 +0100  Sun  2027-10-31 03:30:00 +0100  include  zone change\n"
            "2027-11-05 02:30:00 +0100  Fri  2027-11-05 03:30:00 +0100  include  last window\n");
}

TEST_F(Cli, NamesTheRuleThatGivesADay) {
  struct Case {
    int line;
    const char* days;
    const char* rules;  // of the first window behind 2026-12-01
  };
  const Case cases[] = {
      {__LINE__, "every = [\"tue\"]", "every tue"},                   // 2026-12-01
      {__LINE__, "first = [\"tue\"]", "first tue"},                   //
      {__LINE__, "second = [\"wed\"]", "second wed"},                 // 2026-12-09
      {__LINE__, "last = [\"thu\"]", "last thu"},                     // 2026-12-31, the fifth
      {__LINE__, "fourth = [\"mon\"]\nlast = [\"mon\"]\n", "fourth mon+last mon"},  // 2026-12-28
      {__LINE__, "of_month = [15]", "day 15"},
      {__LINE__, "of_month = [\"last\"]", "last day"},
      {__LINE__, "of_month = [31, \"last\"]", "day 31+last day"},
      {__LINE__, "include = [2026-12-03]", "include"},
      {__LINE__, "repeat = { every = 14, anchor = 2026-12-02 }", "every 14 days"},
      {__LINE__, "every = [\"tue\"]\nof_month = [1]\n", "every tue, day 1"},
  };
  for (const Case& c : cases) {
    const std::string file =
        Write("a.toml", "job.wrapper = \"/bin/true\"\nwindow.start = \"22:00\"\n[days]\n" + std::string(c.days) + "\n");
    const Result result = Run({"--json", "next", "-n", "1", "--from", "2026-12-01", file});
    const auto rules = nlohmann::json::parse(result.out)["windows"][0]["rules"];
    std::string text;
    for (const auto& rule : rules) text += (text.empty() ? "" : ", ") + rule.get<std::string>();
    EXPECT_EQ(text, c.rules) << "line " << c.line << " " << result.out;
  }
}

TEST_F(Cli, ARestartBehindMidnightHasTheRuleOfItsWindow) {
  const std::string file = Write("a.toml",
                                 "job.wrapper = \"/bin/true\"\n[window]\nstart = \"23:00\"\nend = \"01:00\"\n"
                                 "restart = \"1h\"\n[days]\nlast = [\"fri\"]\nof_month = [5]\n");
  const Result result = Run({"--no-legend", "next", "--why", "-n", "6", "--from", "2026-12-01", file});
  EXPECT_EQ(result.out,
            "2026-12-05 23:00:00 +0100  Sat  2026-12-06 01:00:00 +0100  day 5\n"
            "2026-12-06 00:00:00 +0100  Sun  2026-12-06 01:00:00 +0100  day 5\n"
            "2026-12-06 01:00:00 +0100  Sun  2026-12-06 01:00:00 +0100  day 5\n"
            "2026-12-25 23:00:00 +0100  Fri  2026-12-26 01:00:00 +0100  last fri\n"
            "2026-12-26 00:00:00 +0100  Sat  2026-12-26 01:00:00 +0100  last fri\n"
            "2026-12-26 01:00:00 +0100  Sat  2026-12-26 01:00:00 +0100  last fri\n");
}

TEST_F(Cli, ShowsWindowsAsJson) {
  const std::string file = Write("a.toml", kFridayNight);
  const Result result = Run({"next", file, "-n", "1", "--json", "--from", "2026-01-01"});
  EXPECT_EQ(result.exit, 0);
  EXPECT_EQ(result.out,
            "{\"zone\":\"CET-1CEST,M3.5.0,M10.5.0/3\",\"windows\":[{\"start\":1769806800,\"end\":1769821200,"
            "\"last\":false,\"match\":2,\"rules\":[\"last fri\"],\"zone_change\":false,\"skipped\":[]}]}\n");
}

TEST_F(Cli, ComputesInTheZoneThatItIsTold) {
  const std::string file = Write("a.toml", kFridayNight);
  const Result result = Run({"next", file, "-n", "1", "--no-legend", "--zone", "ZZZ+5"});
  EXPECT_EQ(result.out, "2027-01-29 22:00:00 -0500  Fri  2027-01-30 02:00:00 -0500  skips 2026-12-25\n");
  EXPECT_EQ(Run({"next", file, "--zone", "Nowhere/Atall"}).exit, 2);
}

TEST_F(Cli, BeginsBehindTheInstantThatItIsTold) {
  const std::string file = Write("a.toml",
                                 "job.wrapper = \"w\"\nwindow.start = \"10:00\"\nwindow.end = \"11:00\"\n"
                                 "days.include = [2026-06-01, 2026-06-02]\n");
  const Result at = Run({"next", file, "--no-legend", "--from", "2026-06-01 10:00"});
  EXPECT_EQ(at.exit, 0);
  EXPECT_EQ(at.out, "2026-06-02 10:00:00 +0200  Tue  2026-06-02 11:00:00 +0200  last window\n");
  const Result past = Run({"next", file});
  EXPECT_EQ(past.exit, 0);
  EXPECT_EQ(past.out, "");
  EXPECT_EQ(past.err, "qxsched: no window after 2026-11-30 13:00:00 +0100\n");
  EXPECT_EQ(Run({"--json", "next", file}).out, "{\"zone\":\"CET-1CEST,M3.5.0,M10.5.0/3\",\"windows\":[]}\n");
  for (const char* from : {"tomorrow", "2026-13-01", "2038-06-01", "@-1"}) {
    const Result bad = Run({"next", file, "--from", from});
    EXPECT_EQ(bad.exit, 2) << from;
    EXPECT_THAT(bad.err, StartsWith("qxsched: --from: ")) << from;
  }
}

TEST_F(Cli, RefusesWindowsOfAMalformedOrRefusedFile) {
  const Result malformed = Run({"next", Write("a.toml", "x = 1\n")});
  EXPECT_EQ(malformed.exit, 5);
  EXPECT_THAT(malformed.err, HasSubstr("a.toml:1:1: "));
  const Result refused = Run({"next", Write("b.toml", "job.wrapper = \"w\"\n")});
  EXPECT_EQ(refused.exit, 5);
  EXPECT_THAT(refused.err, HasSubstr("0x8004020A No run day rule defined."));
  EXPECT_EQ(refused.out, "");
}

TEST_F(Cli, ReadsTheScheduleFromTheInput) {
  EXPECT_EQ(Run({"next", "-", "-n", "1", "--no-legend"}, kFridayNight).out,
            "2027-01-29 22:00:00 +0100  Fri  2027-01-30 02:00:00 +0100  skips 2026-12-25\n");
}

TEST_F(Cli, EndsWith3ForAFileThatIsNotThere) {
  EXPECT_EQ(Run({"next", Path("none.toml")}).exit, 3);
  EXPECT_EQ(Run({"next", m_directory}).exit, 3);
}

TEST_F(Cli, GetsASchedulesRecordFromTheSourceThatItIsGiven) {
  std::istringstream in;
  std::ostringstream out;
  std::ostringstream err;
  qx::CliContext context{in, out, err, {}, false, false};
  context.options.noLegend = true;
  qx::NextArguments arguments;
  arguments.source = "nightly";
  arguments.count = 1;
  const auto source = [](qx::CliContext&, const std::string& name, SCHEDULE_OBJECT& record) {
    if (name != "nightly") return static_cast<int>(qx::kExitUnreachable);
    record.stScheduleRules.dwTimeDuration = 3600000;
    record.stScheduleRules.adwDaysOfMonth[1] = 1;
    return static_cast<int>(qx::kExitDone);
  };
  EXPECT_EQ(qx::RunNext(context, arguments, source), 0);
  EXPECT_EQ(out.str(), "2026-12-02 00:00:00 +0100  Wed  2026-12-02 01:00:00 +0100\n");
  arguments.source = "other";
  EXPECT_EQ(qx::RunNext(context, arguments, source), 6);
}

TEST_F(Cli, AnswersABatchInTheZoneThatItIsTold) {
  const std::string query = "{\"id\":1,\"fresh\":true,\"ref\":1714651200}\n";
  EXPECT_EQ(Run({"next", "--batch", "--zone", "UTC0"}, query).out,
            "{\"id\":1,\"validate\":\"0x00000000\",\"windows\":[{\"hr\":\"0x00000000\",\"start\":1714694400,"
            "\"end\":1714780799,\"last\":0,\"match\":2}]}\n");
  EXPECT_EQ(Run({"next", "--batch"}, "x\n").exit, 0);
}

// Counts the lines that would go into the service log.
class CountingWriter : public ZepFoundation::ServiceLogWriter {
 public:
  void Write(std::uint32_t, std::string_view) override { ++m_lines; }
  int m_lines = 0;
};

TEST_F(Cli, WritesNoServiceLog) {
  CountingWriter writer;
  ZepFoundation::SetServiceLogWriter(&writer);
  EXPECT_EQ(Run({"check", Write("a.toml", kFridayNight)}).exit, 0);
  EXPECT_EQ(writer.m_lines, 0);
}

TEST_F(Cli, ColoursOnlyWhenToldTo) {
  EXPECT_EQ(qx::Paint(false, qx::Colour::kRed, "x"), "x");
  EXPECT_EQ(qx::Paint(true, qx::Colour::kRed, "x"), "\033[31mx\033[0m");
  EXPECT_EQ(qx::Paint(true, qx::Colour::kPlain, "x"), "x");
  EXPECT_EQ(Run({"check", Write("a.toml", "x = 1\n")}).err.find('\033'), std::string::npos);
}

TEST_F(Cli, EndsWith1WhenItsOutputIsClosed) {
  const std::string file = Write("a.toml", kFridayNight);
  for (const std::vector<const char*>& words :
       {std::vector<const char*>{"qxsched", "next", file.c_str()}, {"qxsched", "next", "--batch"},
        {"qxsched", "--help"}, {"qxsched", "help", "next"}, {"qxsched", "--version"}}) {
    std::istringstream in("{\"fresh\":true}\n");
    std::ostream closed(nullptr);
    std::ostringstream err;
    EXPECT_EQ(qx::RunQxsched(static_cast<int>(words.size()), words.data(), in, closed, err), 1);
    EXPECT_EQ(err.str(), "qxsched: the output can't be written\n");
  }
}

TEST_F(Cli, TakesTheStateDirectoryThatItIsTold) {
  (void)Run({"--root", m_directory, "check", Write("a.toml", kFridayNight)});
  EXPECT_EQ(platform::StateDirectory(), m_directory);
}

}  // namespace
