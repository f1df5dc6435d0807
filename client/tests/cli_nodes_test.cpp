#include "client/cli_nodes.h"

#include <sys/stat.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "client/tests/node_service.h"
#include "platform/process.h"

namespace {

using nlohmann::json;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class CliNodes : public CliTest {
 protected:
  Result Ask(const std::vector<std::string>& words) {
    std::vector<const char*> argv = {"qxsched"};
    for (const std::string& word : words) argv.push_back(word.c_str());
    qx::OnlineSettings settings;
    settings.connect = [this](const platform::BusAddress&, std::unique_ptr<qx::ServiceLink>& link) {
      link = std::make_unique<FakeLink>(m_service);
      return platform::ErrorCode{0};
    };
    settings.confirm = false;
    std::istringstream in;
    std::ostringstream out, err;
    const int exit = qx::RunQxsched(static_cast<int>(argv.size()), argv.data(), in, out, err, settings);
    return {exit, out.str(), err.str()};
  }
  NodeService m_service;
};

TEST_F(CliNodes, NamesAreReadWithThisNodeInFrontWhereItIsMissing) {
  NodeNames names;
  std::string error;
  ASSERT_TRUE(qx::ParseNodeList("a,10.0.0.2", names, error));
  EXPECT_EQ(names, (NodeNames{u"localhost", u"a", u"10.0.0.2"}));
  ASSERT_TRUE(qx::ParseNodeList("a,localhost", names, error));
  EXPECT_EQ(names, (NodeNames{u"a", u"localhost"}));
  for (const char* list : {"", "a,,b", ",a", "a,"}) {
    EXPECT_FALSE(qx::ParseNodeList(list, names, error)) << list;
    EXPECT_THAT(error, HasSubstr("a name is empty"));
  }
  EXPECT_FALSE(qx::ParseNodeList("a,b,a", names, error));
  EXPECT_EQ(error, "--nodes: \"a\" stands twice");
}

TEST_F(CliNodes, ANodeInOtherLettersIsTheSameNode) {
  EXPECT_EQ(Ask({"nodes", "exec", "--nodes", "b,B", "x"}).exit, 2);  // the command would run twice
  EXPECT_EQ(Ask({"nodes", "exec", "--nodes", "LocalHost", "x"}).exit, 2);
  EXPECT_THAT(m_service.carried, IsEmpty());
  EXPECT_EQ(Ask({"nodes", "exec", "--nodes", "B,LOCALHOST", "x"}).exit, 0);
  EXPECT_THAT(m_service.carried, ElementsAre("perform B,localhost"));
}

TEST_F(CliNodes, ANameThatNoNodeCanHaveIsRefusedBeforeAnythingIsChanged) {
  m_service.schedules[Id(0xAB120001)].bstrName = u"nightly";
  for (const char* list : {"b, c", " b", "b\tc", "b\n", "b,c\xE4"}) {
    const Result result = Ask({"rm", "nightly", "-y", "--no-backup", "--nodes", list});
    EXPECT_EQ(result.exit, 2) << list;
    EXPECT_THAT(result.err, HasSubstr("is no node's name")) << list;
  }
  EXPECT_EQ(Ask({"nodes", "exec", "--nodes", "b, c", "x"}).exit, 2);
  EXPECT_THAT(m_service.carried, IsEmpty());
  EXPECT_EQ(m_service.schedules.size(), 1u);
}

TEST_F(CliNodes, ACreationGoesToTheNodes) {
  const std::string file =
      Write("job.toml", "name = \"daily\"\n[job]\nwrapper = \"/bin/true\"\n[window]\nstart = \"22:00\"\nend = \"23:00\"\n"
                        "[days]\nevery = [\"sun\"]\n");
  const Result result = Ask({"add", file, "--nodes", "b"});
  EXPECT_EQ(result.exit, 0) << result.err;
  EXPECT_EQ(result.out, "{AB120000-0000-4001-8000-000000000000}\n");
  EXPECT_THAT(m_service.carried, ElementsAre("create localhost,b"));
}

TEST_F(CliNodes, ADeletionGoesToTheNodesAndEachHasItsLine) {
  m_service.schedules[Id(0xAB120001)].bstrName = u"nightly";
  const Result result = Ask({"rm", "nightly", "-y", "--no-backup", "--nodes", "b,c"});
  EXPECT_EQ(result.exit, 0) << result.err;
  EXPECT_THAT(m_service.carried, ElementsAre("delete localhost,b,c"));
  EXPECT_THAT(result.err, AllOf(HasSubstr("qxsched: b: done\n"), HasSubstr("qxsched: c: done\n"),
                                HasSubstr("qxsched: localhost: done\n")));
  EXPECT_TRUE(m_service.schedules.empty());
}

TEST_F(CliNodes, ANodeThatDidntDoItIsToldWithItsSentenceAndTheExitIsSeven) {
  m_service.schedules[Id(0xAB120001)].bstrName = u"nightly";
  m_service.answers = {{u"b", 1}, {u"c", static_cast<std::int32_t>(0x8004020D)}};
  const Result result = Ask({"rm", "nightly", "-y", "--no-backup", "-q", "--nodes", "b,c"});
  EXPECT_EQ(result.exit, 7);
  EXPECT_THAT(result.err, AllOf(HasSubstr("qxsched: b: no answer, or the operation failed there (the log of this node "
                                          "or of that one says why)"),
                                HasSubstr("qxsched: c: 0x8004020D ")));
  EXPECT_TRUE(m_service.schedules.empty());  // what was done here stays
}

TEST_F(CliNodes, AFailureHereIsTheCommandsOwnAndNoNodeIsShown) {
  m_service.schedules[Id(0xAB120001)].bstrName = u"nightly";
  m_service.refusal = kStatusNoSuchKey;
  const Result result = Ask({"rm", "nightly", "-y", "--no-backup", "--nodes", "b"});
  EXPECT_NE(result.exit, 0);
  EXPECT_NE(result.exit, 7);
  EXPECT_THAT(result.err, AllOf(HasSubstr("0x8004020D"), Not(HasSubstr("b: "))));
}

TEST_F(CliNodes, WithoutTheOptionNothingIsCarried) {
  m_service.schedules[Id(0xAB120001)].bstrName = u"nightly";
  EXPECT_EQ(Ask({"rm", "nightly", "-y", "--no-backup"}).exit, 0);
  EXPECT_THAT(m_service.carried, IsEmpty());
}

TEST_F(CliNodes, AModificationGoesToTheNodesAndWhatTheyWontTakeIsToldAhead) {
  SCHEDULE_OBJECT& record = m_service.schedules[Id(0xAB120001)];
  record.bstrName = u"nightly";
  record.bstrWrapperBinaryName = u"/bin/true";
  record.bstrXMLFilePathName = u"/tmp/a&b.xml";
  record.bstrParameters = std::u16string(5000, u'x');
  record.stScheduleRules.adwDaysOfMonth.fill(1);
  record.stScheduleRules.lStartTime = 1796040000;
  record.stScheduleRules.dwTimeDuration = 60000;
  const Result result = Ask({"set", "nightly", "description=other", "--nodes", "b"});
  EXPECT_THAT(result.err, AllOf(HasSubstr("bytes, the other nodes take at most 4900"),
                                HasSubstr("\"/tmp/a&b.xml\" has a \"<\" or \"&\"")))
      << result.exit;
  EXPECT_THAT(m_service.carried, ElementsAre("modify localhost,b"));
}

TEST_F(CliNodes, WhatTheOtherNodesParserRefusesIsToldAhead) {
  struct Case {
    const char* parameters;
    const char* told;  // empty for nothing
  };
  const Case cases[] = {{"a<b", R"("a<b" has a "<" or "&", which can't be carried)"},
                        {"x]]>y", R"("x]]>y" has a "]]>", which can't be carried: the other nodes will refuse)"},
                        {R"(x\u0001)", "has a control character, which can't be carried"},
                        {R"(]] > \t\u00E4)", ""}};
  for (const Case& c : cases) {
    const std::string file = Write("job.toml", "name = \"daily\"\n[job]\nwrapper = \"/bin/true\"\nparameters = \"" +
                                                   std::string(c.parameters) +
                                                   "\"\n[window]\nstart = \"22:00\"\nend = \"23:00\"\n"
                                                   "[days]\nevery = [\"sun\"]\n");
    const Result result = Ask({"add", file, "--nodes", "b"});
    EXPECT_EQ(result.exit, 0) << result.err;
    EXPECT_THAT(result.err, HasSubstr(c.told));
    EXPECT_EQ(result.err.find("can't be carried") == std::string::npos, *c.told == '\0') << result.err;
  }
}

TEST_F(CliNodes, WhatTheServiceItselfCantBeToldIsCarriedNowhere) {
  const std::string file = Write("job.toml", "[job]\nwrapper = \"/bin/true\"\nparameters = \"x\\uFFFE\"\n"
                                             "[days]\nevery = [\"sun\"]\n");
  const Result result = Ask({"add", file, "--nodes", "b"});
  EXPECT_EQ(result.exit, 5) << result.err;
  EXPECT_THAT(result.err, HasSubstr("holds a character that the service can't be told: U+FFFE"));
  EXPECT_THAT(m_service.carried, testing::IsEmpty());
}

TEST_F(CliNodes, AWrongListIsAUsageError) {
  const Result result = Ask({"rm", "x", "--nodes", "a,,b"});
  EXPECT_EQ(result.exit, 2);
  EXPECT_THAT(result.err, HasSubstr("--nodes: a name is empty"));
}

TEST_F(CliNodes, ACommandRunsOnTheOthersAlone) {
  m_service.answers = {{u"c", static_cast<std::int32_t>(0x80070002)}};
  const Result result = Ask({"nodes", "exec", "--nodes", "b,c", "--", "/bin/sh", "-c", "echo \"a b\" \\"});
  EXPECT_EQ(result.exit, 7);
  EXPECT_EQ(m_service.command, R"(/bin/sh -c "echo \"a b\" \\")");
  EXPECT_THAT(m_service.carried, ElementsAre("perform localhost,b,c"));
  EXPECT_THAT(result.err, AllOf(HasSubstr("qxsched: b: done"), HasSubstr("qxsched: c: 0x80070002 "),
                                Not(HasSubstr("localhost"))));
  EXPECT_EQ(Ask({"nodes", "exec", "--nodes", "b", "echo  a \"b\""}).exit, 0);
  EXPECT_EQ(m_service.command, "echo  a \"b\"");  // one word is a whole command line
}

TEST_F(CliNodes, SaysThatItIsNotKnownWhereACommandRanWhenTheServiceIsLost) {
  m_service.lossOnChange = {std::string(platform::kBusErrorNoReply), "gone"};
  const Result result = Ask({"nodes", "exec", "--nodes", "b,c", "x"});
  EXPECT_EQ(result.exit, 6);
  EXPECT_THAT(result.err, HasSubstr("on which nodes the command ran isn't known"));
  m_service.lossOnChange = {std::string(platform::kBusErrorAccessDenied), "not you"};
  EXPECT_THAT(Ask({"nodes", "exec", "--nodes", "b,c", "x"}).err, Not(HasSubstr("isn't known")));
}

TEST_F(CliNodes, ACommandThatCannotBeCarriedIsRefused) {
  EXPECT_EQ(Ask({"nodes", "exec", "--nodes", "localhost", "x"}).exit, 2);
  EXPECT_EQ(Ask({"nodes", "exec", "--nodes", "b", "echo /<OpData>"}).exit, 2);
  EXPECT_THAT(m_service.carried, IsEmpty());
  EXPECT_EQ(Ask({"nodes"}).exit, 2);
}

TEST_F(CliNodes, AProgramWithAQuotationMarkIsCarriedAsItIsOrRefused) {
  EXPECT_EQ(Ask({"nodes", "exec", "--nodes", "b", "--", "/tmp/a\"b", "x"}).exit, 0);
  EXPECT_EQ(m_service.command, "/tmp/a\"b x");
  EXPECT_EQ(platform::SplitCommandLine(platform::WideFromUtf8(m_service.command)),
            (std::vector<std::u16string>{u"/tmp/a\"b", u"x"}));
  m_service.carried.clear();
  for (const char* program : {"/tmp/a \"b", "\"/tmp/a", "\"/tmp/a b\""}) {
    const Result result = Ask({"nodes", "exec", "--nodes", "b", "--", program, "x"});
    EXPECT_EQ(result.exit, 2) << program;
    EXPECT_THAT(result.err, HasSubstr("can't be carried")) << program;
  }
  EXPECT_THAT(m_service.carried, IsEmpty());
}

TEST_F(CliNodes, ACommandThatIsNoUtf8IsRefusedAsAnotherOneWouldBeRun) {
  const Result result = Ask({"nodes", "exec", "--nodes", "b", "--", "/bin/rm", "/tmp/\xE4"});
  EXPECT_EQ(result.exit, 2);
  EXPECT_THAT(result.err, HasSubstr("isn't UTF-8"));
  EXPECT_THAT(m_service.carried, IsEmpty());
}

TEST_F(CliNodes, AnEmptyCommandOrKeyfileAsOfAnUnsetVariableIsRefused) {
  const Result command = Ask({"nodes", "exec", "--nodes", "b", ""});
  EXPECT_EQ(command.exit, 2);
  EXPECT_THAT(command.err, HasSubstr("the command is empty"));
  EXPECT_EQ(Ask({"nodes", "exec", "--nodes", "b", "--", "", "x"}).exit, 2);
  EXPECT_THAT(m_service.carried, IsEmpty());
  const Result keyfile = Ask({"--root", Path(""), "nodes", "keyfile", ""});
  EXPECT_EQ(keyfile.exit, 2);
  EXPECT_THAT(keyfile.err, HasSubstr("FILE: the value is empty"));
  EXPECT_FALSE(std::filesystem::exists(Path("nodes.key")));
}

TEST_F(CliNodes, ResultsAsJson) {
  m_service.answers = {{u"c", 1}};
  const Result result = Ask({"--json", "-q", "nodes", "exec", "--nodes", "b,c", "x"});
  EXPECT_EQ(result.exit, 7);
  const json shown = json::parse(result.out);
  ASSERT_EQ(shown["nodes"].size(), 2u);
  EXPECT_EQ(shown["nodes"][0]["node"], "b");
  EXPECT_EQ(shown["nodes"][0]["status"], "0x00000000");
  EXPECT_EQ(shown["nodes"][1]["status"], "0x00000001");
}

TEST_F(CliNodes, AKeyfileIsMadeOnceForItsOwnerAlone) {
  const std::string file = Path("nodes.key");
  const Result made = Ask({"nodes", "keyfile", file, "--account", "SITE\\sched"});
  EXPECT_EQ(made.exit, 0) << made.err;
  EXPECT_EQ(made.out, file + "\n");
  struct stat info {};
  ASSERT_EQ(stat(file.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);
  std::ifstream in(file);
  const std::string text(std::istreambuf_iterator<char>(in), {});
  EXPECT_TRUE(text.starts_with("SITE\\sched:0:")) << text;
  const Result again = Ask({"nodes", "keyfile", file});
  EXPECT_EQ(again.exit, 1);
  EXPECT_THAT(again.err, HasSubstr("is there already"));
  EXPECT_EQ(Ask({"--root", Path(""), "nodes", "keyfile"}).exit, 1);  // the standard place is that very file
  EXPECT_EQ(Ask({"nodes", "keyfile", Path("none/x")}).exit, 1);
  for (const char* account : {"noslash", "\\x", "A\\", "A:B\\c", "A\\b c"}) {
    EXPECT_EQ(Ask({"nodes", "keyfile", Path("other"), "--account", account}).exit, 2) << account;
  }
}

}  // namespace
