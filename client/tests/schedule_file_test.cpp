#include "client/schedule_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <rapidcheck.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "client/time_text.h"
#include "common/zepSchedIUnknown.h"
#include "platform/profile.h"
#include "platform/testing/temporary_folder.h"
#include "platform/testing/virtual_clock.h"
#include "platform/text.h"

namespace {

using qx::Finding;
using qx::ScheduleFile;
using qx::Severity;
using testing::HasSubstr;

constexpr std::int64_t kFileNow = 1796040000;  // 2026-11-30 12:00:00 UTC
constexpr const char* kWinterAndSummer = "CET-1CEST,M3.5.0,M10.5.0/3";

ScheduleFile Parse(std::string_view text, const platform::Zone& zone, bool relative = false,
                   std::function<bool(std::u16string_view)> exists = {}, std::int64_t now = kFileNow) {
  return qx::ParseScheduleFile(text, {zone, now, relative, std::move(exists)});
}

ScheduleFile Parse(std::string_view text) {
  return Parse(text, platform::Zone::FromTz(kWinterAndSummer));
}

std::string Shown(const ScheduleFile& file) {
  std::string all;
  for (const Finding& finding : file.findings) all += qx::FormatFinding("f", finding) + "\n";
  return all;
}

// Head that makes the rest of a case complete; one line, so that a case's own text begins on line 2.
const std::string kJob = "job.wrapper = \"/bin/true\"\n";

const char* const kWholeFile = R"(name        = "last friday snapshot"
description = "Quarter data, volume 17"
application = "snapshot"
object_id   = "vol-17"
task_code   = 4
[job]
wrapper     = "/usr/lib/qx/snapwrap"
xml         = "/srv/qx/vol-17.xml"
parameters  = "-v"
pre_script  = "/srv/qx/quiesce"
post_script = ""
pass_id     = true
run_now     = false
[window]
start       = "22:00"
end         = "02:00"
restart     = "1h"
[days]
effective   = 2026-12-01
last        = ["fri"]
of_month    = [1, 15, "last"]
repeat      = { every = 14, anchor = 2026-12-01 }
include     = [2026-12-28]
exclude     = [2026-12-25]
)";

TEST(ScheduleFile, FillsEveryFieldOfTheRecord) {
  const platform::Zone zone = platform::Zone::FromTz(kWinterAndSummer);
  const ScheduleFile file = Parse(kWholeFile, zone);
  EXPECT_EQ(Shown(file), "");
  const SCHEDULE_OBJECT& r = file.record;
  EXPECT_EQ(r.bstrName, u"last friday snapshot");
  EXPECT_EQ(r.bstrDescription, u"Quarter data, volume 17");
  EXPECT_EQ(r.bstrApplication, u"snapshot");
  EXPECT_EQ(r.bstrObjectID, u"vol-17");
  EXPECT_EQ(r.dwTaskOpCode, 4u);
  EXPECT_EQ(r.bstrWrapperBinaryName, u"/usr/lib/qx/snapwrap");
  EXPECT_EQ(r.bstrXMLFilePathName, u"/srv/qx/vol-17.xml");
  EXPECT_EQ(r.bstrParameters, u"-v");
  EXPECT_EQ(r.bstrPreScript, u"/srv/qx/quiesce");
  EXPECT_EQ(r.bstrPostScript, u"");
  EXPECT_EQ(r.bUseGUID, 1u);
  EXPECT_EQ(r.bRunNow, 0u);
  const SCHEDULE_RULE& rules = r.stScheduleRules;
  EXPECT_EQ(qx::FormatInstant(rules.lStartTime, zone), "2026-11-29 22:00:00 +0100");
  EXPECT_EQ(qx::FormatInstant(rules.lEndTime, zone), "2026-11-29 02:00:00 +0100");
  EXPECT_EQ(rules.dwTimeDuration, 0u);
  EXPECT_EQ(rules.bRestartInterval, 1u);
  EXPECT_EQ(rules.dwRestartInterval, 3600000u);
  EXPECT_EQ(rules.bEffectiveDate, 1u);
  EXPECT_EQ(qx::FormatInstant(rules.lEffectiveDate, zone), "2026-12-01 12:00:00 +0100");
  EXPECT_EQ(rules.dwDaysOfWeek4[5], 1u);
  EXPECT_EQ(rules.dwDaysOfWeek0, (std::array<std::uint32_t, 7>{}));
  EXPECT_EQ(rules.adwDaysOfMonth[0], 1);
  EXPECT_EQ(rules.adwDaysOfMonth[14], 1);
  EXPECT_EQ(rules.adwDaysOfMonth[31], 1);
  EXPECT_EQ(rules.bRepeatInterval, 1u);
  EXPECT_EQ(rules.dwRepeatInterval, 14);
  EXPECT_EQ(rules.lAnchorDate, rules.lEffectiveDate);
  EXPECT_EQ(qx::FormatInstant(rules.alIncludeDates[0], zone), "2026-12-28 12:00:00 +0100");
  EXPECT_EQ(qx::FormatInstant(rules.alExcludeDates[0], zone), "2026-12-25 12:00:00 +0100");
  EXPECT_EQ(rules.alIncludeDates[1], 0);
}

TEST(ScheduleFile, TakesEveryWeekdayNameIntoAllFiveWeeks) {
  const auto file = Parse(kJob + "days.every = [\"sun\", \"sat\"]\ndays.second = [\"mon\"]\n");
  EXPECT_EQ(Shown(file), "");
  const SCHEDULE_RULE& r = file.record.stScheduleRules;
  for (const auto* week : {&r.dwDaysOfWeek0, &r.dwDaysOfWeek2, &r.dwDaysOfWeek3, &r.dwDaysOfWeek4}) {
    EXPECT_EQ(*week, (std::array<std::uint32_t, 7>{1, 0, 0, 0, 0, 0, 1}));
  }
  EXPECT_EQ(r.dwDaysOfWeek1, (std::array<std::uint32_t, 7>{1, 1, 0, 0, 0, 0, 1}));
}

TEST(ScheduleFile, LeavesAbsentFieldsAbsentAndTheXmlPathEmpty) {
  const auto file = Parse(kJob);
  SCHEDULE_OBJECT expected;
  expected.bstrWrapperBinaryName = u"/bin/true";
  expected.bstrXMLFilePathName = u"";
  EXPECT_EQ(file.record, expected);
}

struct BadCase {
  int line;
  std::string text;  // begins on line 2
  const char* shown;
};
const BadCase kBad[] = {
    {__LINE__, "colour = 1\n",
     "f:2:1: unknown key \"colour\" (allowed: name, description, application, object_id, task_code, job, window, "
     "days)\n"},
    {__LINE__, "[window]\nstrat = \"22:00\"\n",
     "f:3:1: unknown key \"window.strat\" (allowed: start, end, duration, restart)\n"},
    {__LINE__, "[days]\nrepeat = { every = 2, from = 2026-01-01 }\n",
     "f:3:23: unknown key \"days.repeat.from\" (allowed: every, anchor)\n"},
    {__LINE__, "name = 5\n", "f:2:8: name is a whole number (allowed: a string)\n"},
    {__LINE__, "window = \"22:00\"\n", "f:2:10: window is a string (allowed: a table)\n"},
    {__LINE__, "task_code = -1\n", "f:2:13: task_code is out of range: -1 (allowed: 0 to 4294967295)\n"},
    {__LINE__, "task_code = 4294967296\n",
     "f:2:13: task_code is out of range: 4294967296 (allowed: 0 to 4294967295)\n"},
    {__LINE__, "task_code = 1.5\n", "f:2:13: task_code is a number with a fraction (allowed: 0 to 4294967295)\n"},
    {__LINE__, "job.pass_id = 1\n", "f:2:15: job.pass_id is a whole number (allowed: true or false)\n"},
    {__LINE__, "name = \"a\\nb\"\n", "f:2:8: name holds a line end or a NUL (allowed: text of one line)\n"},
    {__LINE__, "job.parameters = \"a\\rb\"\n",
     "f:2:18: job.parameters holds a line end or a NUL (allowed: text of one line)\n"},
    {__LINE__, "object_id = \"a\\u0000b\"\n",
     "f:2:13: object_id holds a line end or a NUL (allowed: text of one line)\n"},
    {__LINE__, "name = \"a\\uFFFFb\"\n", "f:2:8: name holds a character that the service can't be told: U+FFFF\n"},
    {__LINE__, "job.parameters = \"\\uFDD0\"\n",
     "f:2:18: job.parameters holds a character that the service can't be told: U+FDD0\n"},
    {__LINE__, "description = \"\\U0010FFFE\"\n",
     "f:2:15: description holds a character that the service can't be told: U+10FFFE\n"},
    {__LINE__, "window.start = \"24:00\"\n",
     "f:2:16: window.start isn't a time of day: \"24:00\" (allowed: \"HH:MM\" or \"HH:MM:SS\")\n"},
    {__LINE__, "window.start = \"9:00\"\n",
     "f:2:16: window.start isn't a time of day: \"9:00\" (allowed: \"HH:MM\" or \"HH:MM:SS\")\n"},
    {__LINE__, "window.end = 1200\n", "f:2:14: window.end is a whole number (allowed: \"HH:MM\" or \"HH:MM:SS\")\n"},
    {__LINE__, "window.start = \"10:00\"\nwindow.end = \"10:00:00\"\n",
     "f:3:8: window.end equals the start: the window would have no length (allowed: another time, or duration = "
     "\"24h\" for a whole day)\n"},
    {__LINE__, "window.end = \"00:00\"\n",
     "f:2:8: window.end equals the start: the window would have no length (allowed: another time, or duration = "
     "\"24h\" for a whole day)\n"},
    {__LINE__, "window.duration = \"four hours\"\n",
     "f:2:19: window.duration isn't a length: \"four hours\" (allowed: a length, as \"4h\", \"90m\", \"1h30m\", "
     "\"45s\")\n"},
    {__LINE__, "window.duration = 4\n",
     "f:2:19: window.duration is a whole number (allowed: a length, as \"4h\", \"90m\", \"1h30m\", \"45s\")\n"},
    {__LINE__, "window.duration = \"0s\"\n",
     "f:2:19: window.duration is out of range: \"0s\"; the service would not apply it (allowed: 1s to 24h)\n"},
    {__LINE__, "days.effective = \"2026-12-01\"\n",
     "f:2:18: days.effective isn't a date: \"2026-12-01\" (allowed: a date without quotes, as 2026-12-01)\n"},
    {__LINE__, "days.effective = 2026-12-01T10:00:00\n",
     "f:2:18: days.effective is a date with a time (allowed: a date without quotes, as 2026-12-01)\n"},
    {__LINE__, "days.effective = 2038-01-01\n",
     "f:2:18: days.effective is out of range: 2038-01-01 (allowed: 1970-01-02 to 2037-12-30)\n"},
    {__LINE__, "days.include = [1969-12-31]\n",
     "f:2:17: days.include is out of range: 1969-12-31 (allowed: 1970-01-02 to 2037-12-30)\n"},
    {__LINE__, "days.exclude = 2026-12-01\n",
     "f:2:16: days.exclude is a date (allowed: a list of dates without quotes, as [2026-12-24, 2026-12-31])\n"},
    {__LINE__, "days.of_month = [0, 32, \"first\", 1.5]\n",
     "f:2:18: days.of_month is out of range: 0 (allowed: a list of 1 to 31 and \"last\")\n"
     "f:2:21: days.of_month is out of range: 32 (allowed: a list of 1 to 31 and \"last\")\n"
     "f:2:25: days.of_month names no day: \"first\" (allowed: a list of 1 to 31 and \"last\")\n"
     "f:2:34: days.of_month is a number with a fraction (allowed: a list of 1 to 31 and \"last\")\n"},
    {__LINE__, "days.last = [\"friday\", 5]\n",
     "f:2:14: days.last names no weekday: \"friday\" (allowed: a list of \"sun\", \"mon\", \"tue\", \"wed\", \"thu\", "
     "\"fri\", \"sat\")\n"
     "f:2:24: days.last is a whole number (allowed: a list of \"sun\", \"mon\", \"tue\", \"wed\", \"thu\", \"fri\", "
     "\"sat\")\n"},
    {__LINE__, "days.repeat = {anchor = 2026-01-01}\n",
     "f:2:15: days.repeat has no key every (allowed: { every = DAYS, anchor = DATE })\n"},
    {__LINE__, "days.repeat = 3\n",
     "f:2:15: days.repeat is a whole number (allowed: { every = DAYS, anchor = DATE })\n"},
    {__LINE__, "days.repeat.every = 4294967296\n",
     "f:2:21: days.repeat.every is out of range: 4294967296 (allowed: 1 to 9999)\n"},
    {__LINE__, "job.xml = \"vol.xml\"\n",
     "f:2:11: job.xml is a relative path; the service runs in a directory of its own (allowed: an absolute path, or "
     "--allow-relative-paths)\n"},
    {__LINE__, "job.pre_script = \"./before\"\n",
     "f:2:18: job.pre_script is a relative path; the service runs in a directory of its own (allowed: an absolute "
     "path, or --allow-relative-paths)\n"},
    {__LINE__, "job.post_script = \"bin\\\\after\"\n",
     "f:2:19: job.post_script is a relative path; the service runs in a directory of its own (allowed: an absolute "
     "path, or --allow-relative-paths)\n"},
    {__LINE__, "window.duration = \"25h\"\n",
     "f:2:19: window.duration is out of range: \"25h\"; the service would not apply it (allowed: 1s to "
     "24h)\n"},
    {__LINE__, "window.restart = \"500ms\"\n",
     "f:2:18: window.restart is out of range: \"500ms\"; the service would switch the restart off (allowed: "
     "1s to 24h)\n"},
    {__LINE__, "days.repeat.every = 0\n",
     "f:2:21: days.repeat.every is out of range: 0; the service would repeat every 2 days (allowed: 1 to "
     "9999)\n"},
    {__LINE__, "days.repeat.every = 10000\n",
     "f:2:21: days.repeat.every is out of range: 10000; the service would repeat every 2 days (allowed: 1 to "
     "9999)\n"},
};

TEST(ScheduleFile, TellsWhatIsWrongWhereItStandsAndWhatIsAllowed) {
  for (const BadCase& c : kBad) {
    const auto file = Parse(kJob + c.text);
    EXPECT_EQ(Shown(file), c.shown) << "case of line " << c.line;
    EXPECT_TRUE(qx::HasErrors(file.findings)) << "case of line " << c.line;
  }
}

const BadCase kWarned[] = {
    {__LINE__, "window.duration = \"1s500ms\"\n",
     "f:2:19: warning: window.duration has a fraction of a second, which the service would lose at its next start\n"},
    {__LINE__, "window.start = \"10:00:00.5\"\n",
     "f:2:16: warning: window.start has a fraction of a second, which is dropped\n"},
    {__LINE__, "days.include = [2026-12-24, 2026-12-24]\n",
     "f:2:29: warning: days.include names a date twice: 2026-12-24\n"},
    {__LINE__, "window.start = \"10:00\"\nwindow.end = \"11:00\"\nwindow.duration = \"2h\"\n",
     "f:3:8: warning: window.end is not used: window.duration is given too and wins\n"},
    {__LINE__, "window.start = \"10:00\"\nwindow.end = \"10:00\"\nwindow.duration = \"2h\"\n",
     "f:3:8: warning: window.end is not used: window.duration is given too and wins\n"},
    {__LINE__, "name = \" padded\"\n",
     "f:2:8: warning: name has blanks or quotes at its ends; the service would lose them at its next start\n"},
    {__LINE__, "description = \"'quoted'\"\n",
     "f:2:15: warning: description has blanks or quotes at its ends; the service would lose them at its next start\n"},
    {__LINE__, "name = \"" + std::string(256, 'n') + "\"\n",
     "f:2:8: warning: name is longer than 255 characters; the service would cut it at its next start\n"},
};

TEST(ScheduleFile, WarnsOfWhatTheServiceWouldDropOrChange) {
  for (const BadCase& c : kWarned) {
    const auto file = Parse(kJob + c.text);
    EXPECT_EQ(Shown(file), c.shown) << "case of line " << c.line;
    EXPECT_FALSE(qx::HasErrors(file.findings)) << "case of line " << c.line;
  }
}

TEST(ScheduleFile, TellsAllFindingsAtOnceInOrderOfPlace) {
  const auto file = Parse("zone = 1\ntask_code = -1\n[job]\nwrapper = \"bin/x\"\n[window]\nstart = \"25:00\"\n");
  ASSERT_EQ(file.findings.size(), 4u) << Shown(file);
  EXPECT_EQ(file.findings[0].position, (qx::TextPosition{1, 1}));
  EXPECT_EQ(file.findings[1].position, (qx::TextPosition{2, 13}));
  EXPECT_EQ(file.findings[2].position, (qx::TextPosition{4, 11}));
  EXPECT_EQ(file.findings[3].position, (qx::TextPosition{6, 9}));
}

TEST(ScheduleFile, MissesTheWrapper) {
  EXPECT_EQ(Shown(Parse("name = \"x\"\n")), "f:1:1: job.wrapper is missing: there is no program to start\n");
  EXPECT_EQ(Shown(Parse("name = \"x\"\n[job]\nxml = \"\"\n")),
            "f:2:2: job.wrapper is missing: there is no program to start\n");
  EXPECT_EQ(Shown(Parse("job.wrapper = \"\"\n")),
            "f:1:15: job.wrapper is empty: there is no program to start (allowed: the program to start)\n");
}

struct WrapperCase {
  int line;
  const char* toml;
  bool exists;
  const char16_t* record;
  const char* shown;
};
const WrapperCase kWrappers[] = {
    {__LINE__, "'backup'", false, u"backup", ""},
    {__LINE__, "'/opt/qx/backup'", false, u"/opt/qx/backup", ""},
    {__LINE__, "'\\opt\\backup'", false, u"\\opt\\backup", ""},
    {__LINE__, "'C:\\qx\\backup'", false, u"C:\\qx\\backup", ""},
    {__LINE__, "'/opt/my jobs/backup'", true, u"\"/opt/my jobs/backup\"", ""},
    {__LINE__, "'\"/opt/my jobs/backup\"'", false, u"\"/opt/my jobs/backup\"", ""},
    {__LINE__, "'/opt/my jobs/backup'", false, u"/opt/my jobs/backup",
     "f:1:15: warning: job.wrapper has blanks and isn't quoted: the text ahead of the first one is taken for the "
     "program (allowed: '\"/path with blanks/program\"')\n"},
    {__LINE__, "' /opt/backup'", false, u" /opt/backup",
     "f:1:15: warning: job.wrapper begins with a blank: the command line would begin with an empty word\n"},
    {__LINE__, "'bin/backup'", false, u"bin/backup",
     "f:1:15: job.wrapper is a relative path; the service runs in a directory of its own (allowed: an absolute path, "
     "or --allow-relative-paths)\n"},
    {__LINE__, "'\"bin/my backup\"'", false, u"\"bin/my backup\"",
     "f:1:15: job.wrapper is a relative path; the service runs in a directory of its own (allowed: an absolute path, "
     "or --allow-relative-paths)\n"},
};

TEST(ScheduleFile, QuotesAWrapperThatNamesAnExistingFileAndWarnsOtherwise) {
  const platform::Zone zone = platform::Zone::FromTz("UTC0");
  for (const WrapperCase& c : kWrappers) {
    const auto file = Parse(std::string("job.wrapper = ") + c.toml + "\n", zone, false,
                            [&](std::u16string_view) { return c.exists; });
    EXPECT_EQ(file.record.bstrWrapperBinaryName, c.record) << "case of line " << c.line;
    EXPECT_EQ(Shown(file), c.shown) << "case of line " << c.line;
  }
}

TEST(ScheduleFile, TakesRelativePathsWhenAllowed) {
  const auto file = Parse("[job]\nwrapper = \"bin/x\"\nxml = \"a.xml\"\npre_script = \"p\"\npost_script = \"q\"\n",
                          platform::Zone::FromTz("UTC0"), true);
  EXPECT_EQ(Shown(file), "");
  EXPECT_EQ(file.record.bstrXMLFilePathName, u"a.xml");
}

std::string DateList(int count) {
  std::string list;
  for (int i = 0; i < count; ++i) {
    list += (i == 0 ? "" : ", ") + qx::FormatDate(platform::DaysFromCivil(2027, 1, 1) + i);
  }
  return "[" + list + "]";
}

TEST(ScheduleFile, TakesIncludeDatesUpTo364WarnsAt365AndRefusesMore) {
  EXPECT_EQ(Shown(Parse(kJob + "days.include = " + DateList(364) + "\n")), "");
  EXPECT_EQ(Shown(Parse(kJob + "days.include = " + DateList(365) + "\n")),
            "f:2:16: warning: days.include has more than 364 dates; the service would take the exclude dates for "
            "include dates too (allowed: 364 dates)\n");
  EXPECT_THAT(Shown(Parse(kJob + "days.include = " + DateList(366) + "\n")), HasSubstr("days.include has too many"));
  EXPECT_EQ(Shown(Parse(kJob + "days.exclude = " + DateList(365) + "\n")), "");
  EXPECT_THAT(Shown(Parse(kJob + "days.exclude = " + DateList(366) + "\n")), HasSubstr("days.exclude has too many"));
}

TEST(ScheduleFile, EndsWithTheFirstErrorOfATextThatIsNotToml) {
  const auto file = Parse("name = \"x\"\nobject_id = \n");
  ASSERT_EQ(file.findings.size(), 1u);
  EXPECT_EQ(file.findings[0].position.line, 2u);
  EXPECT_TRUE(qx::HasErrors(file.findings));
}

TEST(ScheduleFile, RefusesDatesThatAreNotInTheCalendar) {
  const auto file = Parse(kJob + "days.effective = 2026-02-30\n");
  ASSERT_EQ(file.findings.size(), 1u);
  EXPECT_EQ(file.findings[0].position.line, 2u);
}

TEST(ScheduleFile, BoundsTheSizeAndDepthOfWhatItReads) {
  EXPECT_THAT(Shown(Parse(std::string(qx::kScheduleFileLimit + 1, '#'))), HasSubstr("too large"));
  std::string deep = "a";
  for (int i = 0; i < 400000; ++i) deep += ".a";
  EXPECT_EQ(Shown(Parse(deep + " = 1\n")), "f:1:66: the key has too many parts (allowed: 32 dots)\n");
  EXPECT_THAT(Shown(Parse("[" + deep + "]\n")), HasSubstr("too many parts"));
  EXPECT_THAT(Shown(Parse("x = { " + deep + " = 1 }\n")), HasSubstr("too many parts"));
  EXPECT_TRUE(qx::HasErrors(Parse("x = " + std::string(100000, '[')).findings));
  // Dots in texts and comments are no keys.
  const std::string dots(60, '.');
  EXPECT_EQ(Shown(Parse(kJob + "description = \"x" + dots + "\\\"" + dots + "x\" # " + dots + "\nname = '''" + dots +
                        "'x'" + dots + "'''\n")),
            "");
}

// --- times of day ---

TEST(ScheduleFile, LetsTimesOfDayTravelOnAQuietDate) {
  const platform::Zone zone = platform::Zone::FromTz(kWinterAndSummer);
  struct Case {
    int line;
    const char* now;
    const char* carried;
  };
  // The clock goes back on Sunday 2026-10-25 and forward on Sunday 2026-03-29.
  const Case cases[] = {
      {__LINE__, "2026-11-30 12:00", "2026-11-29 02:30:00 +0100"},
      {__LINE__, "2026-10-28 12:00", "2026-10-27 02:30:00 +0100"},
      {__LINE__, "2026-10-27 12:00", "2026-10-23 02:30:00 +0200"},
      {__LINE__, "2026-10-26 12:00", "2026-10-23 02:30:00 +0200"},
      {__LINE__, "2026-10-25 12:00", "2026-10-23 02:30:00 +0200"},
      {__LINE__, "2026-10-24 12:00", "2026-10-23 02:30:00 +0200"},
      {__LINE__, "2026-03-29 12:00", "2026-03-27 02:30:00 +0100"},
      {__LINE__, "2026-03-31 12:00", "2026-03-27 02:30:00 +0100"},
      {__LINE__, "2026-04-01 00:00", "2026-03-31 02:30:00 +0200"},
  };
  for (const Case& c : cases) {
    const std::int64_t now = qx::ParseInstant(c.now, zone, 0).value();
    const auto file = Parse(kJob + "window.start = \"02:30\"\n", zone, false, {}, now);
    EXPECT_EQ(qx::FormatInstant(file.record.stScheduleRules.lStartTime, zone), c.carried) << "case of line " << c.line;
  }
}

TEST(TimeText, ReadsLengths) {
  struct Case {
    const char* text;
    std::int64_t milliseconds;  // -1: refused
  };
  const Case cases[] = {{"4h", 14400000},
                        {"90m", 5400000},
                        {"1h30m", 5400000},
                        {"45s", 45000},
                        {"1d", 86400000},
                        {"24h", 86400000},
                        {"1s500ms", 1500},
                        {"250ms", 250},
                        {"0s", 0},
                        {"1d2h3m4s5ms", 93784005},
                        {"", -1},
                        {"h", -1},
                        {"4", -1},
                        {"4 h", -1},
                        {"-4h", -1},
                        {"30m1h", -1},
                        {"1h1h", -1},
                        {"4x", -1},
                        {"1.5h", -1},
                        {"50d", -1},
                        {"99999999999999999999s", -1}};
  for (const Case& c : cases) {
    const auto value = qx::ParseDuration(c.text);
    EXPECT_EQ(value ? static_cast<std::int64_t>(*value) : -1, c.milliseconds) << c.text;
  }
}

TEST(TimeText, ReadsInstants) {
  const platform::Zone zone = platform::Zone::FromTz("ZZZ-2");
  struct Case {
    const char* text;
    std::int64_t seconds;  // -1: refused
  };
  const Case cases[] = {{"now", 77},
                        {"@5", 5},
                        {"1970-01-02", 79200},
                        {"1970-01-02 00:00", 79200},
                        {"1970-01-02T00:00:01", 79201},
                        {"1970-01-02T00:00:00Z", 86400},
                        {"1970-01-02 00:00:00 +0100", 82800},
                        {"1970-01-02T00:00-01:00", 90000},
                        {"", -1},
                        {"@", -1},
                        {"@x", -1},
                        {"@9999999999999999999", -1},
                        {"yesterday", -1},
                        {"1970-02-30", -1},
                        {"1970-01-02x", -1},
                        {"1970-01-02 25:00", -1},
                        {"1970-01-02 10:00 CET", -1}};
  for (const Case& c : cases) EXPECT_EQ(qx::ParseInstant(c.text, zone, 77).value_or(-1), c.seconds) << c.text;
}

TEST(TimeText, KnowsZonesByNameAndByRule) {
  for (const char* zone : {"CET-1CEST,M3.5.0,M10.5.0/3", "ZZZ0", "<+03>-3", "UTC0"}) {
    EXPECT_TRUE(qx::IsKnownZone(zone)) << zone;
  }
  for (const char* zone : {"", "Nowhere/Atall", "/etc/localtime", "../localtime", "XX0", "<3", "ABC"}) {
    EXPECT_FALSE(qx::IsKnownZone(zone)) << zone;
  }
}

TEST(TimeText, TakesNoOtherFileAmongTheZonesForOne) {
  EXPECT_TRUE(qx::IsKnownZone("Europe/Berlin"));
  // The last one also begins as a rule does.
  for (const char* file : {"tzdata.zi", "zone.tab", "Europe", "iso3166.tab"}) {
    ASSERT_TRUE(std::filesystem::exists(std::string("/usr/share/zoneinfo/") + file)) << file;
    EXPECT_FALSE(qx::IsKnownZone(file)) << file;
  }
}

TEST(TimeText, TakesAZoneFileOfAServiceByItsPathAndNothingElse) {
  const platform::TemporaryFolder directory{"zone"};
  const std::string pipe = directory.Path() + "/pipe";
  const std::string text = directory.Path() + "/text";
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  std::ofstream(text) << "TZ is none";
  for (const std::string zone : {"Europe/Berlin", "/usr/share/zoneinfo/Europe/Berlin", "CET-1CEST,M3.5.0,M10.5.0/3"}) {
    EXPECT_TRUE(qx::IsToldZone(zone)) << zone;
    EXPECT_TRUE(qx::IsToldZone(":" + zone)) << zone;
  }
  // Nobody writes to the pipe: it would be read for ever.
  for (const std::string& zone : {pipe, text, directory.Path(), std::string("/dev/zero"), std::string("/none"),
                                  std::string("Nowhere/Atall"), std::string("../localtime"), std::string()}) {
    EXPECT_FALSE(qx::IsToldZone(zone)) << zone;
    EXPECT_FALSE(qx::IsToldZone(":" + zone)) << zone;
  }
  EXPECT_FALSE(qx::IsToldZone("::UTC"));
}

// --- writing ---

TEST(ScheduleFile, IsWrittenWithItsKeysInOrder) {
  const platform::Zone zone = platform::Zone::FromTz(kWinterAndSummer);
  EXPECT_EQ(qx::WriteScheduleFile(Parse(kWholeFile, zone).record, zone), R"(name = "last friday snapshot"
description = "Quarter data, volume 17"
application = "snapshot"
object_id = "vol-17"
task_code = 4

[job]
wrapper = "/usr/lib/qx/snapwrap"
xml = "/srv/qx/vol-17.xml"
parameters = "-v"
pre_script = "/srv/qx/quiesce"
post_script = ""
pass_id = true
run_now = false

[window]
start = "22:00"
end = "02:00"
restart = "1h"

[days]
effective = 2026-12-01
last = ["fri"]
of_month = [1, 15, "last"]
repeat = { every = 14, anchor = 2026-12-01 }
include = [2026-12-28]
exclude = [2026-12-25]
)");
}

TEST(ScheduleFile, EscapesWhatTomlStringsCannotHoldAndWhatATerminalWouldObey) {
  const platform::Zone zone = platform::Zone::FromTz("UTC0");
  SCHEDULE_OBJECT record;
  record.bstrWrapperBinaryName = u"w";
  for (const auto& [name, line] : {
           std::pair(u"a\"b\\c\td\u00e9\x7f", "name = \"a\\\"b\\\\c\\u0009d\xc3\xa9\\u007F\"\n"),
           std::pair(u"a\u009b2Jb\u202ec\u2028d\u20acz\U0001F600",
                     "name = \"a\\u009B2Jb\\u202Ec\\u2028d\xe2\x82\xacz\xf0\x9f\x98\x80\"\n"),
       }) {
    record.bstrName = name;
    const std::string text = qx::WriteScheduleFile(record, zone);
    EXPECT_THAT(text, HasSubstr(line));
    EXPECT_EQ(Parse(text, zone).record.bstrName, record.bstrName);
  }
}

TEST(ScheduleFile, WritesNoRestartThatTheServiceKeepsWithoutALength) {
  SCHEDULE_OBJECT record;
  record.bstrWrapperBinaryName = u"w";
  record.stScheduleRules.bRestartInterval = 1;
  const platform::Zone zone = platform::Zone::FromTz("UTC0");
  EXPECT_THAT(qx::WriteScheduleFile(record, zone), testing::Not(HasSubstr("restart")));
}

TEST(ScheduleFile, WritesTheEndWhereItSaysTheSameAsTheDuration) {
  const platform::Zone zone = platform::Zone::FromTz("UTC0");
  const auto window = [&](std::int32_t start, std::int32_t end, std::uint32_t duration) {
    SCHEDULE_OBJECT record;
    record.stScheduleRules.lStartTime = start;
    record.stScheduleRules.lEndTime = end;
    record.stScheduleRules.dwTimeDuration = duration;
    const std::string text = qx::WriteScheduleFile(record, zone);
    const std::size_t at = text.find("[window]\n");
    return at == std::string::npos ? std::string() : text.substr(at + 9);
  };
  constexpr std::int32_t kDay = 1700006400;  // a midnight
  EXPECT_EQ(window(kDay + 79200, kDay + 7200, 14400000), "start = \"22:00\"\nend = \"02:00\"\n");
  EXPECT_EQ(window(kDay + 79200, kDay + 7200, 3600000), "start = \"22:00\"\nduration = \"1h\"\n");
  EXPECT_EQ(window(kDay + 36000, kDay + 36000, 86400000), "start = \"10:00\"\nduration = \"24h\"\n");
  EXPECT_EQ(window(kDay, kDay + 86399, 86399059), "# the whole day\n");
  EXPECT_EQ(window(kDay, kDay + 86399, 86399000), "# the whole day\n");
  EXPECT_EQ(window(0, 0, 86399000), "# the whole day\n");
  EXPECT_EQ(window(kDay + 82800, kDay + 86399, 3599059), "start = \"23:00\"\n# to the end of the day\n");
  EXPECT_EQ(window(kDay + 82800, kDay + 86399, 3599000), "start = \"23:00\"\n# to the end of the day\n");
  EXPECT_EQ(window(kDay + 86399, kDay + 86399, 59), "start = \"23:59:59\"\n# to the end of the day\n");
  EXPECT_EQ(window(kDay + 82800, kDay + 86398, 3598000), "start = \"23:00\"\nend = \"23:59:58\"\n");
  EXPECT_EQ(window(kDay + 82800, kDay, 3600000), "start = \"23:00\"\nend = \"00:00\"\n");
  EXPECT_EQ(window(kDay + 1, kDay, 86399000), "start = \"00:00:01\"\nend = \"00:00\"\n");
  EXPECT_EQ(window(0, 0, 5000), "duration = \"5s\"\n");
  EXPECT_EQ(window(0, 0, 0), "");
}

// A record that the file form can hold: what a client can say in a file, with every field at its will.
SCHEDULE_OBJECT ArbitraryRecord(const platform::Zone& zone) {
  using namespace rc;
  SCHEDULE_OBJECT record;
  const auto text = [] {
    return BSTR(*gen::map(gen::container<std::string>(gen::inRange<char>(' ', '\x7f')), [](const std::string& narrow) {
      return u"/x" + std::u16string(narrow.begin(), narrow.end()) + u"\u4e00x";
    }));
  };
  const auto maybe = [&] { return *gen::arbitrary<bool>() ? text() : BSTR(); };
  record.bstrName = maybe();
  record.bstrDescription = maybe();
  record.bstrApplication = maybe();
  record.bstrObjectID = maybe();
  record.dwTaskOpCode = *gen::arbitrary<std::uint32_t>();
  record.bstrWrapperBinaryName = text();
  record.bstrXMLFilePathName = text();
  record.bstrParameters = maybe();
  record.bstrPreScript = maybe();
  record.bstrPostScript = maybe();
  record.bUseGUID = *gen::inRange(0, 2);
  record.bRunNow = *gen::inRange(0, 2);
  SCHEDULE_RULE& rules = record.stScheduleRules;
  const std::int64_t carrier = qx::CarrierDay(kFileNow, zone) * 86400;
  const auto timeOfDay = [&](int from) {
    return static_cast<std::int32_t>(zone.ToSeconds(carrier + *gen::inRange(from, 86400)));
  };
  const auto date = [&] {
    const std::int64_t day = *gen::inRange<std::int64_t>(2, 24835);  // 1970-01-03 to 2037-12-30
    return static_cast<std::int32_t>(qx::NoonOf(day, zone));
  };
  if (*gen::arbitrary<bool>()) rules.lStartTime = timeOfDay(0);
  switch (*gen::inRange(0, 3)) {
    case 0:
      rules.dwTimeDuration = *gen::inRange<std::uint32_t>(1000, 86400001);
      break;
    case 1:
      rules.lEndTime = timeOfDay(1);
      break;
    default:
      break;
  }
  const std::int32_t start = rules.lStartTime == 0 ? 0 : qx::LocalTimeOfDay(rules.lStartTime, zone);
  if (rules.lEndTime != 0 && qx::LocalTimeOfDay(rules.lEndTime, zone) == start) rules.lEndTime = 0;
  // A window to the rule object's own end is written without a duration.
  if (static_cast<std::uint32_t>(start) + rules.dwTimeDuration / 1000 == 86399) rules.dwTimeDuration = 1000;
  if (*gen::arbitrary<bool>()) {
    rules.bRestartInterval = 1;
    rules.dwRestartInterval = *gen::inRange<std::uint32_t>(1000, 86400001);
  }
  if (*gen::arbitrary<bool>()) {
    rules.bEffectiveDate = 1;
    rules.lEffectiveDate = date();
  }
  if (*gen::arbitrary<bool>()) {
    rules.bRepeatInterval = 1;
    rules.dwRepeatInterval = *gen::inRange(1, 10000);
    if (*gen::arbitrary<bool>()) rules.lAnchorDate = date();
  }
  for (auto& day : rules.adwDaysOfMonth) day = static_cast<std::int16_t>(*gen::inRange(0, 2));
  for (auto* week :
       {&rules.dwDaysOfWeek0, &rules.dwDaysOfWeek1, &rules.dwDaysOfWeek2, &rules.dwDaysOfWeek3, &rules.dwDaysOfWeek4}) {
    for (auto& day : *week) day = static_cast<std::uint32_t>(*gen::inRange(0, 2));
  }
  for (auto* dates : {&rules.alIncludeDates, &rules.alExcludeDates}) {
    std::set<std::int32_t> chosen;
    const int count = *gen::inRange(0, 20);
    for (int i = 0; i < count; ++i) chosen.insert(date());
    std::copy(chosen.begin(), chosen.end(), dates->begin());
  }
  return record;
}

TEST(ScheduleFile, ComesBackAsTheRecordThatWasWritten) {
  for (const char* tz : {"UTC0", kWinterAndSummer, "ZZZ12", "ZZZ-13"}) {
    const platform::Zone zone = platform::Zone::FromTz(tz);
    EXPECT_TRUE(rc::check(std::string("write then read is the identity, zone ") + tz, [&] {
      const SCHEDULE_OBJECT record = ArbitraryRecord(zone);
      const std::string text = qx::WriteScheduleFile(record, zone);
      const ScheduleFile file = Parse(text, zone);
      if (qx::HasErrors(file.findings)) RC_FAIL(text + Shown(file));
      RC_ASSERT(file.record == record);
    }));
  }
}

TEST(ScheduleFile, GivesAnyBytesAFindingOrARecord) {
  const platform::Zone zone = platform::Zone::FromTz("UTC0");
  EXPECT_TRUE(rc::check("no bytes crash the reader", [&] {
    std::string text = kWholeFile;
    const int edits = *rc::gen::inRange(1, 12);
    for (int i = 0; i < edits; ++i) {
      text[*rc::gen::inRange<std::size_t>(0, text.size())] = *rc::gen::arbitrary<char>();
    }
    const ScheduleFile file = Parse(text, zone);
    for (const Finding& finding : file.findings) RC_ASSERT(!finding.text.empty());
  }));
}

TEST(ScheduleFile, WarnsExactlyOfTheNameThatAFileOfRulesDoesntGiveBack) {
  platform::TemporaryFolder folder("qxrules");
  const std::u16string path = platform::WideFromUtf8(folder.Path() + "/rules.ini");
  const std::u16string inside = u"a b";
  std::vector<std::u16string> names = {u"\"", u"'", u"\"\"", u"'\""};
  for (const std::size_t length : {255, 256}) names.emplace_back(length, u'n');
  for (const char16_t c : std::u16string(u"\t\v\f \"'\u0001\u001f\u0085\u00a0\u2028\u3000\ufeff;=[]#\\x")) {
    for (const std::u16string& name : {c + inside, inside + c, c + inside + c}) names.push_back(name);
  }
  for (const std::u16string& name : names) {
    ASSERT_EQ(platform::WriteProfileString(path, u"General", u"m_Name", name.c_str()), 0u);
    std::vector<char16_t> buffer(256);
    std::uint32_t length = 0;
    ASSERT_EQ(platform::GetProfileString(path, u"General", u"m_Name", u"", buffer, length), 0u);
    const bool comesBack = std::u16string_view(buffer.data(), length) == name;
    SCHEDULE_OBJECT record;
    record.bstrName = name;
    EXPECT_EQ(qx::CheckRecord(record).empty(), comesBack) << platform::Utf8FromWide(name);
  }
}

// --- records ---

TEST(CheckRecord, WarnsOfEveryValueThatTheServiceWouldDrop) {
  SCHEDULE_OBJECT record;
  record.bstrName = u"\"quoted\"";
  record.stScheduleRules.lEndTime = 1;
  record.stScheduleRules.dwTimeDuration = 999;
  record.stScheduleRules.bRestartInterval = 256;
  record.stScheduleRules.dwRestartInterval = 1001;
  record.stScheduleRules.bRepeatInterval = 1;
  record.stScheduleRules.lAnchorDate = 2147483647;
  record.stScheduleRules.bLastDayOfMonth = 1;
  record.stScheduleRules.alIncludeDates.fill(1700000000);
  std::string all;
  for (const Finding& finding : qx::CheckRecord(record)) {
    EXPECT_EQ(finding.severity, Severity::kWarning);
    all += finding.text + "\n";
  }
  EXPECT_EQ(all,
            "bstrName has blanks or quotes at its ends; the service would lose them at its next start\n"
            "dwTimeDuration is out of range: 999 ms; the service would not apply it\n"
            "lEndTime is not used: dwTimeDuration is given too and wins\n"
            "bRestartInterval has a low byte of 0: the service would take it as off\n"
            "dwRestartInterval has a fraction of a second, which the service would lose at its next start\n"
            "dwRepeatInterval is out of range: 0; the service would repeat every 2 days\n"
            "lAnchorDate lies behind 2037; the service would not apply it\n"
            "bLastDayOfMonth is not read; the last day of the month is adwDaysOfMonth[31]\n"
            "alIncludeDates has more than 364 dates; the service would take the exclude dates for include dates too\n");
  EXPECT_TRUE(qx::CheckRecord(SCHEDULE_OBJECT{}).empty());
}

TEST(CheckRecord, WarnsOfAFlagThatTheServiceKeepsAsOneOnly) {
  SCHEDULE_OBJECT record;
  for (const std::uint32_t on : {1u, 0x101u}) {
    record.stScheduleRules.bEffectiveDate = on;
    EXPECT_THAT(qx::CheckRecord(record), testing::IsEmpty()) << on;
  }
  for (const std::uint32_t lost : {2u, 255u, 0xFFFFFFFFu}) {
    record.stScheduleRules.bEffectiveDate = lost;
    const std::vector<Finding> findings = qx::CheckRecord(record);
    ASSERT_EQ(findings.size(), 1u) << lost;
    EXPECT_EQ(findings[0].text, "bEffectiveDate isn't 1: the service would take it as off at its next start");
  }
}

TEST(CheckRecord, WarnsOfADateOfAListThatTheServiceWouldNotApply) {
  SCHEDULE_OBJECT record;
  record.stScheduleRules.alExcludeDates[1] = 2147483647;  // behind the end of the list
  EXPECT_THAT(qx::CheckRecord(record), testing::IsEmpty());
  record.stScheduleRules.alExcludeDates[0] = 1700000000;
  const std::vector<Finding> findings = qx::CheckRecord(record);
  ASSERT_EQ(findings.size(), 1u);
  EXPECT_EQ(findings[0].text, "alExcludeDates has a date behind 2037; the service would not apply it");
}

TEST(CheckRecord, HasNothingAgainstAnEndThatStandsWhereTheDurationPutsIt) {
  struct Case {
    int line;
    std::int32_t start, end;
    std::uint32_t duration;
    bool warns;
  };
  const std::int32_t day = 86400;
  for (const Case& c : {Case{__LINE__, 30 * day + 3600, 30 * day + 10800, 7200000, false},
                        Case{__LINE__, 30 * day + 82800, 30 * day + 3600, 7200000, false},   // over midnight
                        Case{__LINE__, 30 * day + 82800, 30 * day + 82800, 86400000, false},
                        Case{__LINE__, 30 * day + 3600, 30 * day + 10801, 7200000, true},
                        Case{__LINE__, 30 * day + 3600, 30 * day + 3600, 7200000, true}}) {
    SCHEDULE_OBJECT record;
    record.stScheduleRules.lStartTime = c.start;
    record.stScheduleRules.lEndTime = c.end;
    record.stScheduleRules.dwTimeDuration = c.duration;
    EXPECT_EQ(!qx::CheckRecord(record).empty(), c.warns) << "line " << c.line;
  }
}

}  // namespace
