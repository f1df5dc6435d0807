// The commands that change one schedule, on a service within the process.
#include <cstdlib>
#include <nlohmann/json.hpp>

#include "client/tests/online_fixture.h"

namespace {

using nlohmann::json;
using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

class CliChange : public CliOnline {
 protected:
  CliChange() {
    // A record that keeps to the carrier date, as one from the service does.
    id = Have(Id(0xAAAA1111), u"daily", kTonight);
  }
  ~CliChange() override {
    ::unsetenv("VISUAL");
    ::unsetenv("EDITOR");
  }
  SCHEDULE_OBJECT& Record() { return service.schedules.at(id); }
  std::string Show() { return Ask({"show", kIdA}).out; }
  // The editor is a script of the shell; $1 is the file.
  void Editor(const std::string& script) {
    const std::string file = Write("editor.sh", "#!/bin/sh\n" + script + "\n");
    std::filesystem::permissions(file, std::filesystem::perms::owner_all);
    ::setenv("VISUAL", file.c_str(), 1);
  }
  ScheduleGuid id;
};

// --- set ---

TEST_F(CliChange, SetsKeysAndShowsWhatChanged) {
  const Result result = Ask({"set", "daily", "window.start=21:00", "job.parameters=-v two"});
  EXPECT_EQ(result.exit, 0) << result.err;
  EXPECT_EQ(result.out,
            "- job.parameters = \"-v one\"\n+ job.parameters = \"-v two\"\n"
            "- window.start = \"22:00\"\n+ window.start = \"21:00\"\n");
}

TEST_F(CliChange, SetsAListByItsElements) {
  const Result result = Ask({"set", "daily", "days.exclude+=2026-12-24,2026-12-25"});
  EXPECT_EQ(result.exit, 0) << result.err;
  EXPECT_EQ(result.out, "+ days.exclude = [2026-12-24, 2026-12-25]\n");
  EXPECT_THAT(result.err, HasSubstr("changed: " + std::string(kIdA) + " \"daily\", next 2026-11-30 22:00:00 +0100"));
  EXPECT_THAT(Show(), HasSubstr("exclude = [2026-12-24, 2026-12-25]"));
  EXPECT_EQ(Ask({"set", "daily", "days.exclude-=2026-12-24"}).exit, 0);
  EXPECT_THAT(Show(), HasSubstr("exclude = [2026-12-25]"));
}

TEST_F(CliChange, TellsWhatASetWouldChange) {
  const Result result = Ask({"set", "daily", "job.parameters=", "--dry-run"});
  EXPECT_EQ(result.exit, 0);
  EXPECT_EQ(result.out, "- job.parameters = \"-v one\"\n");
  EXPECT_THAT(result.err, HasSubstr("would change:"));
  EXPECT_EQ(Record().bstrParameters, u"-v one");
}

TEST_F(CliChange, TellsASetAsJson) {
  const json out = json::parse(Ask({"--json", "set", "daily", "name=other"}).out);
  EXPECT_EQ(out["id"], kIdA);
  EXPECT_EQ(out["changes"],
            json::array({{{"key", "name"}, {"before", "\"daily\""}, {"after", "\"other\""}}}));
}

TEST_F(CliChange, SendsNothingWhenNothingChanges) {
  service.beforeModify = [] { FAIL() << "modified"; };
  const Result result = Ask({"set", "daily", "name=daily"});
  EXPECT_EQ(result.exit, 0);
  EXPECT_THAT(result.err, HasSubstr("nothing to change"));
}

TEST_F(CliChange, RefusesASetThatCantBe) {
  struct Case {
    const char* assignment;
    int exit;
    const char* text;
  };
  const Case cases[] = {
      {"widow.start=1", 2, "unknown key \"widow.start\""},
      {"window.start", 2, "is no KEY=VALUE"},
      {"window.start=25:00", 5, "window.start"},
      {"days.every=", 5, "0x8004020A No run day rule defined."},
      {"window.restart=5h", 5, "0x8004020C"},
      {"job.xml=relative/path", 5, "relative path"},
      {"application=other", 1, "application is fixed after creation"},
      {"job.pass_id=false", 1, "job.pass_id is fixed after creation"},
  };
  service.beforeModify = [] { FAIL() << "modified"; };
  for (const Case& c : cases) {
    const Result result = Ask({"set", "daily", c.assignment});
    EXPECT_EQ(result.exit, c.exit) << c.assignment << result.err;
    EXPECT_THAT(result.err, HasSubstr(c.text)) << c.assignment;
  }
}

// A record may hold a relative path from elsewhere; it stands in nobody's way.
TEST_F(CliChange, LeavesAnOldRelativePathAlone) {
  Record().bstrPreScript = u"relative/quiesce";
  EXPECT_EQ(Ask({"set", "daily", "name=other"}).exit, 0);
  EXPECT_EQ(Record().bstrPreScript, u"relative/quiesce");
}

// --- what becomes of a modification ---

TEST_F(CliChange, TellsAModificationThatWasTakenBack) {
  service.takesBack = true;
  const Result result = Ask({"set", "daily", "name=other"});
  EXPECT_EQ(result.exit, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_THAT(result.err, AllOf(HasSubstr("the service took the change back; the schedule is as it was"),
                                HasSubstr("hint: see qxsched log")));
}

TEST_F(CliChange, TellsAModificationThatBecameSomethingElse) {
  service.spoil = [](SCHEDULE_OBJECT& record) { record.bstrParameters = u"--evil"; };
  const Result result = Ask({"set", "daily", "name=other"});
  EXPECT_EQ(result.exit, 1);
  EXPECT_THAT(result.err, HasSubstr("job.parameters is \"--evil\", asked for: \"-v one\""));
}

// The service's file keeps whole seconds of a duration: of the whole day it drops 59 milliseconds.
TEST_F(CliChange, TakesAWholeDayForOneWithoutItsMilliseconds) {
  service.spoil = [](SCHEDULE_OBJECT& record) {
    record.stScheduleRules.lStartTime = kTonight - 22 * 3600;
    record.stScheduleRules.lEndTime = kTonight + 2 * 3600 - 1;
    record.stScheduleRules.dwTimeDuration = 86399000;
  };
  const Result result = Ask({"set", "daily", "window.start=", "window.end=", "window.duration="});
  EXPECT_EQ(result.exit, 0) << result.err;
  const Result again = Ask({"set", "daily", "window.start=00:00", "window.end=23:59:59"});
  EXPECT_EQ(again.exit, 0) << again.err;
  EXPECT_THAT(again.err, HasSubstr("nothing to change"));
}

TEST_F(CliChange, TellsARefusedModification) {
  service.refusal = kStatusNoDirectory;
  const Result result = Ask({"set", "daily", "name=other"});
  EXPECT_EQ(result.exit, 1);
  EXPECT_THAT(result.err, AllOf(HasSubstr("0x8004020F The directory of the XML path doesn't exist."), HasSubstr("hint:")));
}

TEST_F(CliChange, SaysThatTheOutcomeOfALostModificationIsntKnown) {
  service.lossOnChange = {std::string(platform::kBusErrorNoReply), "the service went away"};
  const Result result = Ask({"set", "daily", "name=other"});
  EXPECT_EQ(result.exit, 6);
  EXPECT_THAT(result.err, HasSubstr("whether the change was made isn't known"));
}

TEST_F(CliChange, NeverGuessesAName) {
  Have(Id(0xBBBB1111), u"daily", -1);
  for (const char* command : {"edit", "skip", "run"}) {
    const Result result = Ask({command, "daily"});
    EXPECT_EQ(result.exit, 3) << command;
    EXPECT_THAT(result.err, AllOf(HasSubstr("is ambiguous, 2 schedules answer to it:"), HasSubstr(kIdA))) << command;
  }
  EXPECT_EQ(Ask({"set", "daily", "name=x"}).exit, 3);
}

// --- edit ---

TEST_F(CliChange, EditsWithABackup) {
  Editor("sed -i 's/-v one/-v two/' \"$1\"");
  const Result result = Ask({"edit", "daily"});
  EXPECT_EQ(result.exit, 0) << result.err;
  EXPECT_EQ(Record().bstrParameters, u"-v two");
  ASSERT_EQ(Backups().size(), 1u) << "the working file is gone";
  EXPECT_THAT(result.err, AllOf(HasSubstr("backup: " + Backups()[0]), HasSubstr("changed: ")));
  std::ifstream backup(Backups()[0]);
  std::string first;
  std::getline(backup, first);
  EXPECT_EQ(first, std::string("# ") + kIdA + ", before an edit");
}

TEST_F(CliChange, TakesAnUnchangedOrEmptyTextForNothing) {
  for (const char* script : {"true", ": > \"$1\"", "echo '# only a comment' >> \"$1\""}) {
    Editor(script);
    const Result result = Ask({"edit", "daily"});
    EXPECT_EQ(result.exit, 0) << script;
    EXPECT_THAT(result.err, HasSubstr("nothing to change")) << script;
    EXPECT_THAT(Backups(), IsEmpty()) << script;
  }
}

TEST_F(CliChange, OpensATextWithErrorsAgain) {
  settings.confirm = true;
  Editor("if [ -e '" + Path("second") + "' ]; then sed -i 's/strat/start/' \"$1\"; else touch '" + Path("second") +
         "'; sed -i 's/^start = .*/strat = \"21:00\"/' \"$1\"; fi");
  const Result result = Ask({"edit", "daily"}, "y\n");
  EXPECT_EQ(result.exit, 0) << result.err;
  EXPECT_THAT(result.err, AllOf(HasSubstr("unknown key \"window.strat\""), HasSubstr("Edit again? [Y/n] ")));
  EXPECT_THAT(Show(), HasSubstr("start = \"21:00\""));
}

TEST_F(CliChange, KeepsATextThatIsntUsed) {
  settings.confirm = true;
  Editor("echo 'nonsense' >> \"$1\"");
  const Result result = Ask({"edit", "daily"}, "n\n");
  EXPECT_EQ(result.exit, 5);
  ASSERT_EQ(Backups().size(), 1u);
  EXPECT_THAT(result.err, HasSubstr("your text is kept: " + Backups()[0]));
  std::ifstream kept(Backups()[0]);
  std::stringstream text;
  text << kept.rdbuf();
  EXPECT_THAT(text.str(), HasSubstr("nonsense"));
}

TEST_F(CliChange, DoesntAskWhereNobodyAnswers) {
  Editor("echo 'nonsense' >> \"$1\"");
  const Result result = Ask({"edit", "daily"});
  EXPECT_EQ(result.exit, 5);
  EXPECT_THAT(result.err, Not(HasSubstr("Edit again?")));
}

TEST_F(CliChange, OpensATextAgainThatTheServiceRefuses) {
  settings.confirm = true;
  service.refusal = kStatusRestartTooLong;
  Editor("sed -i 's/-v one/-v two/' \"$1\"");
  int asked = 0;
  service.beforeModify = [&] {
    if (++asked == 2) service.refusal = kStatusOk;
  };
  const Result result = Ask({"edit", "daily"}, "y\n");
  EXPECT_EQ(result.exit, 0) << result.err;
  EXPECT_EQ(Record().bstrParameters, u"-v two");
}

TEST_F(CliChange, ChangesNothingWhenTheEditorFails) {
  Editor("sed -i 's/-v one/-v two/' \"$1\"; exit 3");
  const Result result = Ask({"edit", "daily"});
  EXPECT_EQ(result.exit, 1);
  EXPECT_THAT(result.err, AllOf(HasSubstr("ended with 3; nothing is changed"), HasSubstr("hint: $VISUAL or $EDITOR")));
  EXPECT_EQ(Record().bstrParameters, u"-v one");
  const std::string kept = Path("backups/edit-AAAA1111.toml");
  EXPECT_THAT(result.err, HasSubstr("your text is kept: " + kept)) << "it may be an hour's work";
  std::ostringstream text;
  text << std::ifstream(kept).rdbuf();
  EXPECT_THAT(text.str(), HasSubstr("-v two"));
  ASSERT_TRUE(std::filesystem::remove(kept));
  for (const std::string editor : {"/nonexistent/editor", "false", "rm"}) {
    ::setenv("VISUAL", editor.c_str(), 1);
    EXPECT_EQ(Ask({"edit", "daily"}).exit, 1) << editor;
    EXPECT_FALSE(std::filesystem::exists(kept)) << "nothing was written: " << editor;
  }
}

TEST_F(CliChange, NamesAFixedKeyThatWasEdited) {
  Editor("sed -i 's/vol-17/vol-18/' \"$1\"");
  const Result result = Ask({"edit", "daily"});
  EXPECT_EQ(result.exit, 5);
  EXPECT_THAT(result.err, HasSubstr("object_id is fixed after creation"));
  EXPECT_EQ(Record().bstrObjectID, u"vol-17");
}

TEST_F(CliChange, LosesNothingThatSomebodyElseChangedMeanwhile) {
  Editor("sed -i 's/-v one/-v two/' \"$1\"");
  settings.confirm = true;
  int fetched = 0;
  service.beforeGet = [&] {
    if (++fetched == 2) Record().bstrDescription = u"of somebody else";
  };
  const Result result = Ask({"edit", "daily"});
  EXPECT_EQ(result.exit, 1);
  EXPECT_THAT(result.err, AllOf(HasSubstr("somebody else changed the schedule meanwhile"), HasSubstr("your text is kept")));
  EXPECT_EQ(Record().bstrParameters, u"-v one");
}

TEST_F(CliChange, OtherCommandsLeaveAScheduleThatSomebodyElseChangedMeanwhile) {
  for (const std::vector<std::string>& words : {std::vector<std::string>{"set", "daily", "job.parameters=-v two"},
                                                {"skip", "daily"}, {"run", "daily"}}) {
    Record().bstrDescription = u"";
    int fetched = 0;
    service.beforeGet = [&] {
      if (++fetched == 2) Record().bstrDescription = u"of somebody else";
    };
    const Result result = Ask(words);
    service.beforeGet = {};
    EXPECT_EQ(result.exit, 1) << words[0];
    EXPECT_THAT(result.err, HasSubstr("somebody else changed the schedule meanwhile; it stays as it is now"))
        << words[0];
    EXPECT_EQ(Record().bstrDescription, u"of somebody else") << words[0];
    EXPECT_EQ(Record().bstrParameters, u"-v one");
    EXPECT_EQ(Record().stScheduleRules.alExcludeDates[0], 0);
    EXPECT_EQ(service.launched, 0);
  }
}

TEST_F(CliChange, SaysNothingOfAFileThatTheEditorDeleted) {
  ::setenv("VISUAL", "rm", 1);
  const Result result = Ask({"edit", "daily"});
  EXPECT_EQ(result.exit, 1);
  EXPECT_THAT(result.err, AllOf(HasSubstr("0x80070002"), testing::Not(HasSubstr("left behind"))));
}

TEST_F(CliChange, ChangesNothingWithoutABackup) {
  Editor("sed -i 's/-v one/-v two/' \"$1\"");
  ASSERT_TRUE(std::filesystem::create_directory(Path("backups")));
  Editor("sed -i 's/-v one/-v two/' \"$1\"; mv '" + Path("backups") + "' '" + Path("away") + "'; touch '" +
         Path("backups") + "'; mkdir -p \"$(dirname \"$1\")\" 2>/dev/null; true");
  const Result result = Ask({"edit", "daily"});
  EXPECT_NE(result.exit, 0);
  EXPECT_EQ(Record().bstrParameters, u"-v one");
}

// --- skip and run ---

TEST_F(CliChange, SkipsTheDayOfTheNextWindowAndTakesItBack) {
  const Result result = Ask({"skip", "daily"});
  EXPECT_EQ(result.exit, 0) << result.err;
  EXPECT_THAT(result.err, AllOf(HasSubstr("leaves out 2026-11-30 (Mon), next 2026-12-01 22:00:00 +0100"),
                                HasSubstr("hint: qxsched skip --undo takes it back")));
  EXPECT_EQ(json::parse(Ask({"--json", "skip", "daily"}).out)["skipped"], "2026-12-01");
  EXPECT_THAT(Show(), HasSubstr("exclude = [2026-11-30, 2026-12-01]"));
  EXPECT_THAT(Ask({"skip", "daily", "--undo"}).err, HasSubstr("runs on 2026-11-30 (Mon) again"));
  EXPECT_THAT(Show(), HasSubstr("exclude = [2026-12-01]"));
  EXPECT_EQ(Ask({"skip", "daily", "--undo"}).exit, 0);
  const Result none = Ask({"skip", "daily", "--undo"});
  EXPECT_EQ(none.exit, 1);
  EXPECT_THAT(none.err, HasSubstr("no day from today on is left out"));
}

TEST_F(CliChange, SkipsTheDayOnWhichAWindowOverMidnightOpened) {
  SCHEDULE_RULE& rules = Record().stScheduleRules;  // daily, 22:00 to 02:00, each hour
  rules.dwTimeDuration = 14400000;
  rules.bRestartInterval = 1;
  rules.dwRestartInterval = 3600000;
  m_clock.SetWall(1796076600);  // Monday 2026-11-30 23:10:00 +0100: the next start is Monday's at 00:00
  EXPECT_THAT(Ask({"skip", "daily"}).err, HasSubstr("leaves out 2026-11-30 (Mon), next 2026-12-01 22:00:00 +0100"));
  m_clock.SetWall(1796081400);  // Tuesday 00:30, with 01:00 and 02:00 to come again
  EXPECT_THAT(Ask({"skip", "daily", "--undo"}).err,
              HasSubstr("runs on 2026-11-30 (Mon) again, next 2026-12-01 01:00:00 +0100"));
  EXPECT_THAT(Ask({"skip", "daily"}).err, HasSubstr("leaves out 2026-11-30 (Mon), next 2026-12-01 22:00:00 +0100"));
  m_clock.SetWall(1796086800);  // Tuesday 02:00: Monday's window has nothing to come
  EXPECT_THAT(Ask({"skip", "daily", "--undo"}).err, HasSubstr("no day from today on is left out"));
}

TEST_F(CliChange, DoesntSkipTheLastWindow) {
  SCHEDULE_RULE& rules = Record().stScheduleRules;
  for (auto* week : {&rules.dwDaysOfWeek0, &rules.dwDaysOfWeek1, &rules.dwDaysOfWeek2, &rules.dwDaysOfWeek3,
                     &rules.dwDaysOfWeek4}) {
    week->fill(0);
  }
  rules.alIncludeDates[0] = 1796036400;  // 2026-11-30, noon
  const Result result = Ask({"skip", "daily"});
  EXPECT_EQ(result.exit, 5);
  EXPECT_THAT(result.err, AllOf(HasSubstr("nothing is changed"), HasSubstr("it was the last window")));
}

TEST_F(CliChange, HasTheServiceStartAJob) {
  const Result result = Ask({"run", "daily"});
  EXPECT_EQ(result.exit, 0) << result.err;
  EXPECT_EQ(service.launched, 1);
  EXPECT_THAT(result.err, HasSubstr("it doesn't say whether the job started"));
  EXPECT_EQ(json::parse(Ask({"--json", "run", "daily"}).out), (json{{"id", kIdA}, {"asked", true}}));
  service.refusal = kStatusBackdated;
  const Result refused = Ask({"run", "daily"});
  EXPECT_EQ(refused.exit, 5);
  EXPECT_THAT(refused.err, AllOf(HasSubstr("0x80040210"), HasSubstr("can't be started this way")));
  EXPECT_THAT(Ask({"run", "--help"}).out, HasSubstr("a job that can't be started isn't told"));
}

// --- export and restore ---

TEST_F(CliChange, ExportsOneScheduleToTheOutput) {
  const Result result = Ask({"export", "daily"});
  EXPECT_EQ(result.exit, 0);
  EXPECT_THAT(result.out, AllOf(testing::StartsWith(std::string("# ") + kIdA + ", exported\n"), HasSubstr("name = \"daily\"")));
  EXPECT_EQ(Ask({"check", Write("exported.toml", result.out)}).exit, 0);
}

TEST_F(CliChange, ExportsEachScheduleToAFileOfItsOwnWhateverItsName) {
  Have(Id(0xAAAA1111), u"a-AAAA3333-0000-4001-8000-000000000000", kTonight);
  Have(Id(0xAAAA2222), u"a", kTonight);
  Have(Id(0xAAAA3333), u"a", kTonight);
  const Result result = Ask({"export", "-o", Path("out")});
  EXPECT_EQ(result.exit, 0) << result.Told();
  std::size_t files = 0;
  for ([[maybe_unused]] const auto& file : std::filesystem::directory_iterator(Path("out"))) ++files;
  EXPECT_EQ(files, service.schedules.size()) << result.Told();
}

TEST_F(CliChange, ExportsSeveralIntoADirectory) {
  Have(Id(0xBBBB1111), u"daily", -1);
  Have(Id(0xCCCC1111), u"../we/ird \u00E4", -1);
  Have(Id(0xDDDD1111), u"", -1);
  EXPECT_EQ(Ask({"export"}).exit, 2);
  const Result result = Ask({"export", "-o", Path("out")});
  EXPECT_EQ(result.exit, 0) << result.err;
  EXPECT_EQ(result.out, Path("out/daily.toml") + "\n" + Path("out/daily-BBBB1111-0000-4001-8000-000000000000.toml\n") +
                            Path("out/we-ird-\u00C3\u00A4.toml").substr(0, Path("out/we-ird-").size()) + "\xC3\xA4.toml\n" +
                            Path("out/DDDD1111-0000-4001-8000-000000000000.toml\n"));
  const Result again = Ask({"export", "-o", Path("out")});
  EXPECT_EQ(again.exit, 1);
  EXPECT_THAT(again.err, AllOf(HasSubstr("is there already; nothing is written"), HasSubstr("--force")));
  EXPECT_EQ(Ask({"export", "-o", Path("out"), "--force"}).exit, 0);
  EXPECT_EQ(json::parse(Ask({"--json", "export"}).out).size(), 4u);
}

TEST_F(CliChange, SetNamesTheKeyWhoseValueIsNoToml) {
  struct Case {
    const char* assignment;
    const char* message;
  };
  for (const Case& c : {Case{"days.include=2026-02-29", "qxsched: set: days.include: Error while parsing date: "},
                        Case{"days.effective=2026-13-01", "qxsched: set: days.effective: Error while parsing date: "},
                        Case{"days.of_month=007", "qxsched: set: days.of_month: Error while parsing "},
                        Case{"description=\xff", "qxsched: set: description: Encountered invalid utf-8"}}) {
    const Result result = Ask({"set", "daily", c.assignment});
    EXPECT_EQ(result.exit, 5) << c.assignment;
    EXPECT_THAT(result.err, StartsWith(c.message));
  }
  EXPECT_THAT(Ask({"set", "daily", "days.every="}).err,
              StartsWith("qxsched: set: 0x8004020A No run day rule defined.\n"));
}

TEST_F(CliChange, RestoresUnderANewId) {
  ASSERT_EQ(Ask({"rm", "daily"}).exit, 0);
  ASSERT_EQ(Backups().size(), 1u);
  const Result result = Ask({"restore", Backups()[0]});
  EXPECT_EQ(result.exit, 0) << result.err;
  EXPECT_EQ(result.out, "{AB120000-0000-4001-8000-000000000000}\n");
  EXPECT_THAT(result.err, HasSubstr(std::string("restored under a new ID; it was ") + kIdA));
}

TEST_F(CliChange, RestoresNoScheduleThatIsStillThere) {
  const std::string backup = Write("b.toml", std::string("# ") + kIdA + ", before an edit\n" + Show());
  const Result result = Ask({"restore", backup});
  EXPECT_EQ(result.exit, 1);
  EXPECT_THAT(result.err, AllOf(HasSubstr("is still there; nothing is restored"), HasSubstr("--copy")));
  EXPECT_EQ(service.schedules.size(), 1u);
  EXPECT_EQ(Ask({"restore", "--copy", backup}).exit, 0);
  EXPECT_EQ(service.schedules.size(), 2u);
}

TEST_F(CliChange, RestoresNothingOfABadFile) {
  EXPECT_EQ(Ask({"restore", Path("none.toml")}).exit, 3);
  EXPECT_EQ(Ask({"restore", Write("bad.toml", "nonsense")}).exit, 5);
  const Result directory = Ask({"restore", m_directory});
  EXPECT_EQ(directory.exit, 3);
  EXPECT_EQ(directory.err, "qxsched: " + m_directory + ": is a directory\n");
  EXPECT_EQ(service.schedules.size(), 1u);
}

}  // namespace
