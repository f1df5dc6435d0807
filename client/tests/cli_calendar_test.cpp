#include "client/cli_calendar.h"

#include <sys/stat.h>
#include <nlohmann/json.hpp>

#include "client/tests/online_fixture.h"
#include "platform/testing/fault.h"

namespace {

using testing::HasSubstr;
using testing::Not;

constexpr char kDailyFile[] =
    "name = \"daily\"\n[job]\nwrapper = \"/bin/true\"\n[window]\nstart = \"22:00\"\nduration = \"1h\"\n"
    "[days]\nevery = [\"sun\",\"mon\",\"tue\",\"wed\",\"thu\",\"fri\",\"sat\"]\nexclude = [2026-12-25]\n";

class CalendarCommand : public CliOnline {
 protected:
  [[nodiscard]] std::string Text(const std::string& file) const {
    std::ifstream in(file, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
  }
};

TEST_F(CalendarCommand, ShowsAFileWithoutAService) {
  connectCode = platform::ERROR_FILE_NOT_FOUND;
  const Result result = Ask({"calendar", Write("daily.toml", kDailyFile), "--month", "2026-12"});
  EXPECT_EQ(result.exit, qx::kExitDone) << result.err;
  EXPECT_THAT(result.out, HasSubstr("December 2026\n"));
  EXPECT_THAT(result.out, HasSubstr("2026-12-25 Fri  excluded: daily (every fri)\n"));
  EXPECT_THAT(result.out, HasSubstr("1 schedule, 30 windows, 1 excluded"));
}

TEST_F(CalendarCommand, ReadsTheInputAndTakesThePresentMonth) {
  const Result result = Ask({"calendar", "-"}, kDailyFile);
  EXPECT_EQ(result.exit, qx::kExitDone) << result.err;
  EXPECT_THAT(result.out, HasSubstr("November 2026\n"));
  EXPECT_THAT(result.out, HasSubstr("30<"));
}

TEST_F(CalendarCommand, ShowsAllSchedulesOfTheServiceOrThoseNamed) {
  Have(Id(0xAB120001), u"one", kTonight);
  Have(Id(0xCD120002), u"two", kTonight);
  Have(Id(0xEF120003), u"", kTonight);
  service.damaged.push_back(u"{99999999-0000-0000-0000-000000000000}");
  const Result all = Ask({"calendar", "--month", "2026-12"});
  EXPECT_EQ(all.exit, qx::kExitDone) << all.err;
  EXPECT_THAT(all.out, HasSubstr("3 schedules, 93 windows"));
  EXPECT_THAT(all.err, HasSubstr("{99999999-0000-0000-0000-000000000000}: is damaged and left out"));
  const Result named = Ask({"calendar", "two", "AB12", "--month", "2026-12"});
  EXPECT_EQ(named.exit, qx::kExitDone) << named.err;
  EXPECT_THAT(named.out, HasSubstr("2 schedules, 62 windows"));
  const Result page = Ask({"calendar", "--month", "2026-12", "--html", "-"});
  EXPECT_THAT(page.out, HasSubstr("EF120003")) << "without a name, the beginning of the ID";
}

TEST_F(CalendarCommand, LeavesOutAScheduleThatIsDeletedMeanwhile) {
  (void)Have(Id(0xAB120000), u"stays", static_cast<std::int32_t>(platform::NowSeconds() + 3600));
  (void)Have(Id(0xAB120001), u"goes", static_cast<std::int32_t>(platform::NowSeconds() + 3600));
  service.beforeGet = [this] { service.schedules.erase(Id(0xAB120001)); };
  const Result all = Ask({"calendar", "--month", "2026-12"});
  EXPECT_EQ(all.exit, qx::kExitDone);
  EXPECT_THAT(all.out, HasSubstr("1 schedule, "));
  EXPECT_THAT(all.err, HasSubstr("{AB120001-0000-4001-8000-000000000000}: is left out"));
  EXPECT_EQ(Ask({"calendar", "{AB120001-0000-4001-8000-000000000000}", "--month", "2026-12"}).exit, qx::kExitNotFound);
}

TEST_F(CalendarCommand, TakesFilesAndSchedulesTogether) {
  Have(Id(0xAB120001), u"one", kTonight);
  const Result result = Ask({"calendar", "one", Write("daily.toml", kDailyFile), "--month", "2026-12"});
  EXPECT_EQ(result.exit, qx::kExitDone) << result.err;
  EXPECT_THAT(result.out, HasSubstr("2 schedules, 61 windows"));
}

TEST_F(CalendarCommand, ComputesInTheZoneThatIsChosen) {
  const Result result =
      Ask({"calendar", Write("daily.toml", kDailyFile), "--month", "2026-03", "--zone", "America/New_York"});
  EXPECT_EQ(result.exit, qx::kExitDone) << result.err;
  EXPECT_THAT(result.out, HasSubstr("2026-03-08 Sun  clock goes forward 1h at 02:00"));
  EXPECT_EQ(Ask({"calendar", Path("daily.toml"), "--zone", "Nowhere/Land"}).exit, qx::kExitUsage);
}

TEST_F(CalendarCommand, RefusesMonthsAndYearsThatHaveNoCalendarAndTellsWhatIsAllowed) {
  const std::string file = Write("daily.toml", kDailyFile);
  for (const char* bad : {"2026-13", "2026-00", "1969-12", "2038-01", "december", ""}) {
    const Result result = Ask({"calendar", file, std::string("--month=") + bad, "--html", Path("page.html")});
    EXPECT_EQ(result.exit, qx::kExitUsage) << bad;
    EXPECT_EQ(result.out, "");
    EXPECT_FALSE(std::filesystem::exists(Path("page.html")));
    if (*bad != '\0') {
      EXPECT_THAT(result.err, HasSubstr("allowed: YYYY-MM as 2026-12, years 1970 to 2037")) << bad;
    }
  }
  const Result year = Ask({"calendar", file, "--year", "2038"});
  EXPECT_EQ(year.exit, qx::kExitUsage);
  EXPECT_THAT(year.err, HasSubstr("--year: \"2038\" has no calendar (allowed: YYYY as 2026, years 1970 to 2037)"));
  EXPECT_EQ(Ask({"calendar", file, "--year", "2026", "--month", "2026-01"}).exit, qx::kExitUsage);
}

TEST_F(CalendarCommand, WritesThePageAndNothingElse) {
  const Result result =
      Ask({"calendar", Write("daily.toml", kDailyFile), "--year", "2026", "--html", Path("page.html")});
  EXPECT_EQ(result.exit, qx::kExitDone) << result.err;
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "qxsched: written: " + Path("page.html") + "\n");
  EXPECT_THAT(Text(Path("page.html")), HasSubstr("<title>Schedules, 2026</title>"));
}

TEST_F(CalendarCommand, APageThatCantBeWrittenLeavesTheOldOne) {
  const std::string file = Write("daily.toml", kDailyFile);
  const std::string page = Write("page.html", "the old page");
  for (int n = 1;; ++n) {
    platform::FaultPlan plan = platform::FaultPlan::FailAnyCall(n, platform::ERROR_DISK_FULL);
    const Result result = Ask({"calendar", file, "--month", "2026-12", "--html", page});
    plan.Remove();
    if (plan.hits() == 0) {
      EXPECT_EQ(result.exit, qx::kExitDone) << result.err;
      break;
    }
    const std::string now = Text(page);
    if (result.exit != qx::kExitDone) {
      EXPECT_NE(result.err, "") << n;
    }
    EXPECT_TRUE(now == "the old page" || now.ends_with("</html>\n")) << n;
  }
  EXPECT_THAT(Text(page), HasSubstr("December 2026"));
}

TEST_F(CalendarCommand, TellsWhyAPageCantBeWritten) {
  const std::string file = Write("daily.toml", kDailyFile);
  const Result nowhere = Ask({"calendar", file, "--html", Path("none/page.html")});
  EXPECT_EQ(nowhere.exit, qx::kExitFailed);
  EXPECT_THAT(nowhere.err, HasSubstr(Path("none/page.html") + ": the page can't be written: "));
  const Result directory = Ask({"calendar", file, "--html", m_directory});
  EXPECT_EQ(directory.exit, qx::kExitPermission);
  EXPECT_TRUE(std::filesystem::is_directory(m_directory));
}

TEST_F(CalendarCommand, AFileWithErrorsWritesNothing) {
  const std::string page = Write("page.html", "the old page");
  const Result result = Ask({"calendar", Write("bad.toml", "[window]\nstart = \"25:00\"\n"), "--html", page});
  EXPECT_EQ(result.exit, qx::kExitRulesRefused);
  EXPECT_THAT(result.err, HasSubstr("bad.toml:2:"));
  EXPECT_EQ(Text(page), "the old page");
  EXPECT_EQ(Ask({"calendar", Path("none.toml")}).exit, qx::kExitNotFound);
  EXPECT_EQ(Ask({"calendar", "nobody"}).exit, qx::kExitNotFound);
  connectCode = platform::ERROR_FILE_NOT_FOUND;
  EXPECT_EQ(Ask({"calendar"}).exit, qx::kExitUnreachable);
}

TEST_F(CalendarCommand, RulesInThePastHaveACalendarOfTheirTime) {
  const std::string file = Write("old.toml",
                                 "name = \"old\"\n[job]\nwrapper = \"/bin/true\"\n[window]\nstart = \"10:00\"\n"
                                 "duration = \"1h\"\n[days]\ninclude = [2025-05-06]\n");
  const Result result = Ask({"calendar", file, "--month", "2025-05"});
  EXPECT_EQ(result.exit, qx::kExitDone) << result.err;
  EXPECT_THAT(result.out, HasSubstr("1 schedule, 1 window,"));
  EXPECT_THAT(result.out, HasSubstr("2025-05-06 Tue  last window: old\n"));
}

TEST_F(CalendarCommand, GivesItsDaysAsJson) {
  const Result result = Ask({"calendar", Write("daily.toml", kDailyFile), "--month", "2026-12", "--json"});
  const auto month = nlohmann::json::parse(result.out);
  ASSERT_EQ(month["days"].size(), 31u);
  EXPECT_EQ(month["windows"], 30);
  EXPECT_EQ(month["days"][0]["date"], "2026-12-01");
  EXPECT_EQ(month["days"][0]["entries"][0]["reason"], "every tue");
  EXPECT_EQ(month["days"][24]["excluded"], 1);
  EXPECT_EQ(month["days"][24]["exclusions"][0]["schedule"], "daily");
}

}  // namespace
