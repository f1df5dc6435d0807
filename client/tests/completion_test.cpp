// What a shell offers; the scripts themselves are tried in their shells.
#include "client/cli_completion.h"

#include <nlohmann/json.hpp>

#include "client/tests/online_fixture.h"

namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class Completion : public CliOnline {
 protected:
  // The offered texts, without what they are.
  std::vector<std::string> Offer(const std::vector<std::string>& words) {
    std::vector<const char*> argv = {"qxsched", "__complete"};
    for (const std::string& word : words) argv.push_back(word.c_str());
    std::istringstream in;
    std::ostringstream out, err;
    EXPECT_EQ(qx::RunQxsched(static_cast<int>(argv.size()), argv.data(), in, out, err, settings), 0);
    EXPECT_EQ(err.str(), "");
    std::vector<std::string> offered;
    std::istringstream lines(out.str());
    for (std::string line; std::getline(lines, line);) offered.push_back(line.substr(0, line.find('\t')));
    return offered;
  }
};

TEST_F(Completion, OffersCommandsAndOptions) {
  EXPECT_THAT(Offer({""}), AllOf(Contains("list"), Contains("apply"), Contains("completion"), Not(Contains("__complete"))));
  EXPECT_THAT(Offer({"re"}), ElementsAre("reg", "refresh", "restore", "record"));
  EXPECT_THAT(Offer({"--js"}), ElementsAre("--json"));
  EXPECT_THAT(Offer({"next", "--w"}), ElementsAre("--why"));
  EXPECT_THAT(Offer({"next", "--no-p"}), ElementsAre("--no-pager"));
  EXPECT_THAT(Offer({"config", ""}), ElementsAre("trace", "get", "set"));
  EXPECT_THAT(Offer({"reg", "s"}), ElementsAre("set"));
  EXPECT_THAT(Offer({"nonsense", ""}), IsEmpty());
}

TEST_F(Completion, OffersTheNamesOfSchedules) {
  Have(Id(0xAAAA1111), u"nightly backup", -1);
  Have(Id(0xBBBB1111), u"nightly backup", -1);
  Have(Id(0xAAAA2222), u"other", -1);
  EXPECT_THAT(Offer({"show", ""}), ElementsAre("nightly backup", "other"));
  EXPECT_THAT(Offer({"show", "nightly b"}), ElementsAre("nightly backup"));
  EXPECT_THAT(Offer({"rm", "other", "{BB"}), ElementsAre("{BBBB1111-0000-4001-8000-000000000000}"));
  EXPECT_THAT(Offer({"rm", "AAAA"}),
              ElementsAre("AAAA1111-0000-4001-8000-000000000000", "AAAA2222-0000-4001-8000-000000000000"));
  EXPECT_THAT(Offer({"show", "other", ""}), IsEmpty()) << "show takes one";
  EXPECT_THAT(Offer({"next", "oth"}), ElementsAre("other", ":files"));
}

TEST_F(Completion, OffersNothingOfAScheduleWithoutAService) {
  connectCode = platform::ERROR_FILE_NOT_FOUND;
  EXPECT_THAT(Offer({"show", ""}), IsEmpty());
}

TEST_F(Completion, AsksTheServiceThatTheWordsName) {
  EXPECT_THAT(Offer({"--bus", "unix:path=/a", "show", ""}), IsEmpty());
  EXPECT_EQ(address.address, "unix:path=/a");
  EXPECT_THAT(Offer({"show", "--bus=unix:path=/b", ""}), IsEmpty());
  EXPECT_EQ(address.address, "unix:path=/b");
}

TEST_F(Completion, OffersValues) {
  EXPECT_THAT(Offer({"--bus", ""}), ElementsAre("session", "system"));
  EXPECT_THAT(Offer({"--root", ""}), ElementsAre(":files"));
  EXPECT_THAT(Offer({"add", ""}), ElementsAre(":files"));
  EXPECT_THAT(Offer({"apply", "x"}), ElementsAre(":files"));
  EXPECT_THAT(Offer({"completion", ""}), ElementsAre("bash", "zsh", "fish"));
  EXPECT_THAT(Offer({"config", "set", "po"}), ElementsAre("port"));
  Have(Id(0xAAAA1111), u"daily", -1);
  EXPECT_THAT(Offer({"set", "daily", "window."}),
              ElementsAre("window.start=", "window.end=", "window.duration=", "window.restart="));
  EXPECT_THAT(Offer({"set", "daily", "name=x", "desc"}), ElementsAre("description="));
}

TEST_F(Completion, HasAScriptForEachShell) {
  for (const char* shell : {"bash", "zsh", "fish"}) {
    EXPECT_THAT(Ask({"completion", shell}).out, HasSubstr("__complete")) << shell;
  }
  EXPECT_EQ(Ask({"completion", "tcsh"}).exit, 2);
}

}  // namespace
