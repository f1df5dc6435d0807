// apply and diff, on a service within the process.
#include <sys/stat.h>

#include <nlohmann/json.hpp>

#include "client/tests/online_fixture.h"

namespace {

using nlohmann::json;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

class CliApply : public CliOnline {
 protected:
  CliApply() {
    Have(Id(0xAAAA1111), u"daily", kTonight);
    exported = Ask({"export", kIdA}).out;
    std::filesystem::create_directory(Path("files"));
  }
  // A file of the directory: the schedule "daily" with another name and parameters.
  std::string File(const std::string& file, const std::string& name, const std::string& parameters) {
    std::string text = exported;
    const auto put = [&](const std::string& from, const std::string& to) { text.replace(text.find(from), from.size(), to); };
    put("\"daily\"", "\"" + name + "\"");
    put("-v one", parameters);
    return Write("files/" + file, text);
  }
  std::string exported;
};

TEST_F(CliApply, CreatesChangesAndKeeps) {
  Have(Id(0xBBBB1111), u"second", -1);
  const std::string a = File("a.toml", "daily", "-v one"), b = File("b.toml", "second", "-v two"),
                    c = File("c.toml", "third", "-v three");
  Write("files/readme.txt", "not a schedule");
  Write("files/.hidden.toml", "nonsense");
  const Result result = Ask({"apply", Path("files/")});
  EXPECT_EQ(result.exit, 0) << result.err;
  EXPECT_EQ(result.out, "unchanged " + a + ": " + kIdA + " \"daily\"\n" +                                      //
                            "changed " + b + ": {BBBB1111-0000-4001-8000-000000000000} \"second\"\n" +        //
                            "created " + c + ": {AB120000-0000-4001-8000-000000000000} \"third\"\n");
  EXPECT_EQ(service.schedules.at(Id(0xBBBB1111)).bstrParameters, u"-v two");
  ASSERT_EQ(Backups().size(), 1u);
  EXPECT_THAT(result.err, HasSubstr("backup: " + Backups()[0]));
  // Once more changes nothing.
  service.beforeModify = [] { FAIL() << "modified"; };
  EXPECT_EQ(Ask({"apply", Path("files")}).exit, 0);
  EXPECT_EQ(service.schedules.size(), 3u);
}

TEST_F(CliApply, TellsWhatItWouldDo) {
  const std::string a = File("a.toml", "daily", "-v two"), b = File("b.toml", "new", "-v two");
  const Result result = Ask({"apply", "--dry-run", Path("files")});
  EXPECT_EQ(result.exit, 0) << result.err;
  EXPECT_EQ(result.out, "would change " + a + ": " + kIdA + " \"daily\"\n- job.parameters = \"-v one\"\n" +
                            "+ job.parameters = \"-v two\"\nwould create " + b + ": \"new\"\n");
  EXPECT_EQ(service.schedules.size(), 1u);
}

TEST_F(CliApply, ChangesNothingWhenOneFileHasErrors) {
  File("a.toml", "daily", "-v two");
  Write("files/b.toml", "nonsense");
  Write("files/c.toml", "name = \"c\"\njob.wrapper = \"/bin/true\"\n");
  const Result result = Ask({"apply", Path("files")});
  EXPECT_EQ(result.exit, 5);
  EXPECT_THAT(result.err, AllOf(HasSubstr("files/b.toml:1:"), HasSubstr("0x8004020A No run day rule defined."),
                                HasSubstr("nothing is changed")));
  EXPECT_EQ(service.schedules.at(Id(0xAAAA1111)).bstrParameters, u"-v one");
}

TEST_F(CliApply, NeverGuessesWhichScheduleIsMeant) {
  Have(Id(0xBBBB1111), u"daily", -1);
  const std::string file = File("a.toml", "daily", "-v two");
  const Result result = Ask({"apply", file});
  EXPECT_EQ(result.exit, 3);
  EXPECT_THAT(result.err, AllOf(HasSubstr("2 schedules bear the name \"daily\":"), HasSubstr(kIdA), HasSubstr("{BBBB1111"),
                                HasSubstr("nothing is changed")));
  EXPECT_EQ(Ask({"diff", file}).exit, 3);
}

TEST_F(CliApply, TakesNoTwoFilesOfOneNameAndNoneWithout) {
  File("a.toml", "daily", "-v two");
  File("b.toml", "daily", "-v three");
  Write("files/c.toml", "job.wrapper = \"/bin/true\"\ndays.of_month = [1]\n");
  const Result result = Ask({"apply", Path("files")});
  EXPECT_EQ(result.exit, 3);
  EXPECT_THAT(result.err, AllOf(HasSubstr("b.toml: has the name of "), HasSubstr("c.toml: has no name")));
  EXPECT_EQ(service.schedules.at(Id(0xAAAA1111)).bstrParameters, u"-v one");
}

// The next apply would find no schedule of the file's name, and make another one.
TEST_F(CliApply, TakesNoNameThatTheServiceWouldChangeAtItsNextStart) {
  for (const std::string& name : {std::string("blank "), std::string("'quoted'"), std::string(256, 'n')}) {
    const std::string file = File("a.toml", name, "-v two");
    for (const char* command : {"apply", "diff"}) {
      const Result result = Ask({command, file});
      EXPECT_EQ(result.exit, 5) << name;
      EXPECT_THAT(result.err, HasSubstr("a file belongs to the schedule that bears its name")) << name;
    }
  }
  EXPECT_EQ(service.schedules.size(), 1u);
}

TEST_F(CliApply, RefusesAChangeOfAFixedKey) {
  service.schedules.at(Id(0xAAAA1111)).bstrApplication = u"other";
  const Result result = Ask({"apply", File("a.toml", "daily", "-v two")});
  EXPECT_EQ(result.exit, 1);
  EXPECT_THAT(result.err, AllOf(HasSubstr("application of {AAAA1111"), HasSubstr("is fixed after creation")));
  EXPECT_EQ(service.schedules.at(Id(0xAAAA1111)).bstrParameters, u"-v one");
}

TEST_F(CliApply, GoesOnBehindAFileThatTheServiceRefuses) {
  File("a.toml", "daily", "-v two");
  File("b.toml", "new", "-v two");
  service.beforeModify = [&] { service.refusal = kStatusNoDirectory; };
  service.during = [&] { service.refusal = kStatusOk; };
  const Result result = Ask({"apply", Path("files")});
  EXPECT_EQ(result.exit, 1);
  EXPECT_THAT(result.err, AllOf(HasSubstr("0x8004020F"), HasSubstr("of 2 files: 1 created, 1 failed")));
  EXPECT_EQ(service.schedules.size(), 2u);
}

TEST_F(CliApply, LeavesAScheduleThatSomebodyElseChangedMeanwhile) {
  File("a.toml", "first", "-v");
  File("b.toml", "daily", "-v two");
  SCHEDULE_OBJECT& record = service.schedules.at(Id(0xAAAA1111));
  service.during = [&] { record.bstrDescription = u"of somebody else"; };
  const Result result = Ask({"apply", Path("files")});
  EXPECT_EQ(result.exit, 1);
  EXPECT_THAT(result.err, AllOf(HasSubstr("somebody else changed the schedule meanwhile; it stays as it is now"),
                                HasSubstr("of 2 files: 1 created, 1 failed")));
  EXPECT_EQ(record.bstrDescription, u"of somebody else");
  EXPECT_EQ(record.bstrParameters, u"-v one");
  EXPECT_EQ(Backups().size(), 0u);
}

TEST_F(CliApply, SaysWhatIsDoneAndWhatIsNotWhenTheServiceIsLost) {
  const std::string a = File("a.toml", "first", "-v"), b = File("b.toml", "daily", "-v two"), c = File("c.toml", "last", "-v");
  service.beforeModify = [&] {
    service.lossOnChange = {std::string(platform::kBusErrorNoReply), "the service went away"};
  };
  Result result = Ask({"apply", Path("files")});
  EXPECT_EQ(result.exit, 6);
  EXPECT_THAT(result.out, AllOf(HasSubstr("created " + a), Not(HasSubstr(b)), Not(HasSubstr(c))));
  EXPECT_THAT(result.err, AllOf(HasSubstr("of 3 files: 1 created, 1 unknown, 1 not done"),
                                HasSubstr(b + ": whether the service carried it out isn't known; apply again"),
                                HasSubstr("  not done: " + c)));
  service.lossOnChange = {};
  service.beforeModify = {};
  EXPECT_EQ(Ask({"apply", Path("files")}).exit, 0);
  EXPECT_EQ(service.schedules.size(), 3u);
}

TEST_F(CliApply, TellsEachFileAsJson) {
  File("a.toml", "first", "-v");
  File("b.toml", "daily", "-v two");
  File("c.toml", "last", "-v");
  service.beforeModify = [&] {
    service.lossOnChange = {std::string(platform::kBusErrorNoReply), "the service went away"};
  };
  const Result result = Ask({"--json", "apply", Path("files")});
  const json out = json::parse(result.out);
  ASSERT_EQ(out.size(), 3u);
  EXPECT_EQ(out[0]["result"], "created");
  EXPECT_EQ(out[0]["id"], "{AB120000-0000-4001-8000-000000000000}");
  EXPECT_EQ(out[1]["result"], "unknown");
  EXPECT_EQ(out[1]["changes"][0]["key"], "job.parameters");
  EXPECT_EQ(out[2]["result"], "not done");
}

TEST_F(CliApply, KeepsTheAnchorOfARepeatThatNamesNone) {
  SCHEDULE_OBJECT& record = service.schedules.at(Id(0xAAAA1111));
  record.stScheduleRules.bRepeatInterval = 1;
  record.stScheduleRules.dwRepeatInterval = 3;
  record.stScheduleRules.lAnchorDate = 1795345200;  // 2026-11-22, noon
  exported = Ask({"export", kIdA}).out;
  const std::size_t anchor = exported.find(", anchor = 2026-11-22");
  ASSERT_NE(anchor, std::string::npos) << exported;
  exported.erase(anchor, std::string(", anchor = 2026-11-22").size());
  EXPECT_THAT(Ask({"diff", File("a.toml", "daily", "-v one")}).err, HasSubstr("no difference"));
  EXPECT_EQ(Ask({"apply", File("a.toml", "daily", "-v two")}).exit, 0);
  EXPECT_EQ(service.schedules.at(Id(0xAAAA1111)).stScheduleRules.lAnchorDate, 1795345200);
}

TEST_F(CliApply, SaysThatADirectoryIsEmptyOrAFileIsMissing) {
  EXPECT_EQ(Ask({"apply", Path("files")}).exit, 3);
  EXPECT_EQ(Ask({"apply", Path("none.toml")}).exit, 3);
}

TEST_F(CliApply, WaitsForNobodyWhereADirectoryHoldsAPipe) {
  File("a.toml", "third", "-v three");
  const std::string pipe = Path("files/pipe.toml");
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  for (const char* const command : {"apply", "diff"}) {
    const Result result = Ask({command, Path("files")});
    EXPECT_EQ(result.exit, 3);
    EXPECT_EQ(result.err,
              "qxsched: " + pipe + ": is a pipe or a device, which is read only where it is named itself\n");
  }
  EXPECT_EQ(service.schedules.size(), 1u);
}

// --- diff ---

TEST_F(CliApply, ShowsTheDifference) {
  const std::string file = File("a.toml", "daily", "-v two");
  const Result result = Ask({"diff", file});
  EXPECT_EQ(result.exit, 0);
  EXPECT_EQ(result.out, std::string("--- ") + kIdA + " \"daily\"\n+++ " + file +
                            "\n- job.parameters = \"-v one\"\n+ job.parameters = \"-v two\"\n");
  EXPECT_EQ(Ask({"diff", "--exit-code", file}).exit, 1);
  EXPECT_EQ(json::parse(Ask({"--json", "diff", file}).out)[0]["action"], "change");
  const Result same = Ask({"diff", "--exit-code", File("a.toml", "daily", "-v one")});
  EXPECT_EQ(same.exit, 0);
  EXPECT_EQ(same.out, "");
  EXPECT_THAT(same.err, HasSubstr("no difference"));
}

}  // namespace
