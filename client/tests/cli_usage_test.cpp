#include "client/cli_usage.h"

#include <gmock/gmock.h>

#include "client/tests/cli_fixture.h"

namespace {

using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

class CliUsage : public CliTest {};

TEST_F(CliUsage, TheHelpOfACommandNamesItsWholeLine) {
  struct Case {
    std::vector<std::string> words;
    const char* usage;
  };
  const Case cases[] = {
      {{"--help"}, "\nUsage: qxsched [OPTIONS] [SUBCOMMAND]\n"},
      {{"help"}, "\nUsage: qxsched [OPTIONS] [SUBCOMMAND]\n"},
      {{"show", "--help"}, "\nUsage: qxsched show [OPTIONS] SCHEDULE\n"},
      {{"help", "show"}, "\nUsage: qxsched show [OPTIONS] SCHEDULE\n"},
      // An alias of the shell may have put options ahead of it.
      {{"--json", "help", "show"}, "\nUsage: qxsched show [OPTIONS] SCHEDULE\n"},
      {{"--root=/tmp", "--bus", "session", "help", "show"}, "\nUsage: qxsched show [OPTIONS] SCHEDULE\n"},
      {{"--json", "-q", "help"}, "\nUsage: qxsched [OPTIONS] [SUBCOMMAND]\n"},
      {{"help", "reg", "set"}, "\nUsage: qxsched reg set [OPTIONS] KEY NAME DATA\n"},
      {{"reg", "set", "--help"}, "\nUsage: qxsched reg set [OPTIONS] KEY NAME DATA\n"},
  };
  for (const Case& c : cases) {
    const Result result = Run(c.words);
    EXPECT_EQ(result.exit, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_THAT(result.out, AllOf(HasSubstr(c.usage), Not(HasSubstr(" TEXT"))));
  }
  EXPECT_THAT(Run({"next", "--help"}).out,
              AllOf(HasSubstr("-n,--count N in [1 - 100000]"), Not(HasSubstr("Excludes")),
                    EndsWith("\nOptions of every command (--json, --bus, --root and others): qxsched --help\n")));
}

TEST_F(CliUsage, AnUnknownWordIsNamedWithTheOneThatWasProbablyMeant) {
  struct Case {
    std::vector<std::string> words;
    const char* error;
  };
  const Case cases[] = {
      {{"lst"}, "unknown command \"lst\"\nqxsched: hint: did you mean list? see qxsched --help\n"},
      {{"frobnicate"}, "unknown command \"frobnicate\"\nqxsched: hint: see qxsched --help\n"},
      {{"help", "shwo"}, "unknown command \"shwo\"\nqxsched: hint: did you mean show? see qxsched --help\n"},
      {{"lst", "--help"}, "unknown command \"lst\"\nqxsched: hint: did you mean list? see qxsched --help\n"},
      {{"list", "--jsn"}, "unknown option \"--jsn\"\nqxsched: hint: did you mean --json? see qxsched list --help\n"},
      {{"next", "--form=now", "x"},
       "unknown option \"--form=now\"\nqxsched: hint: did you mean --from? see qxsched next --help\n"},
      {{"--bus", "help", "list", "extra"},
       "unexpected argument \"extra\"\nqxsched: hint: see qxsched list --help\n"},
      {{"list", "extra"}, "unexpected argument \"extra\"\nqxsched: hint: see qxsched list --help\n"},
      {{"next", "--", "x", "--json"}, "unexpected argument \"--json\"\nqxsched: hint: see qxsched next --help\n"},
      {{"log", "--since", "1h"}, "unknown option \"--since\"\nqxsched: hint: see qxsched log --help\n"},
      {{"reg", "lst"}, "unknown command \"lst\"\nqxsched: hint: did you mean list? see qxsched reg --help\n"},
  };
  for (const Case& c : cases) {
    const Result result = Run(c.words);
    EXPECT_EQ(result.exit, 2);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, std::string("qxsched: ") + c.error);
  }
}

// A script's unset variable must not become the default: this host alone, the default store.
TEST_F(CliUsage, AnEmptyValueIsRefused) {
  const std::string file = Write("a.toml", "[job]\nwrapper = \"/bin/true\"\n");
  const std::vector<std::vector<std::string>> lines = {
      {"list", "--bus", ""},          {"--root", "", "config", "get"},    {"--root=", "config", "get"},
      {"add", file, "--nodes", ""},   {"add", file, "--nodes="},          {"calendar", file, "--month", ""},
      {"next", file, "--zone", ""},   {"history", "--since", ""},         {"record", "--file", ""},
      {"export", "--output", ""},     {"export", "-o", ""},               {"list", "--bus", "x", "--bus", ""},
      {"nodes", "exec", "--nodes", "", "true"}};
  for (const std::vector<std::string>& line : lines) {
    const Result result = Run(line);
    EXPECT_EQ(result.exit, 2) << line[0];
    EXPECT_THAT(result.err, AllOf(HasSubstr(": the value is empty\n"), HasSubstr(" --help\n"))) << line[0];
    EXPECT_EQ(result.out, "") << line[0];
  }
  EXPECT_THAT(Run({"export", "-o", ""}).err, HasSubstr("qxsched: --output: the value is empty"));
  EXPECT_THAT(Run({"config", "set", "port", "x", "--destdir", ""}).err, HasSubstr("is no port"));
}

TEST_F(CliUsage, AMistakeOfAKnownCommandPointsToItsHelp) {
  const std::vector<std::vector<std::string>> cases = {
      {"reg"}, {"reg", "get", "HKLM\\a"}, {"next", "-n", "0", "x"}, {"next", "-n", "x"}, {"show"}};
  const char* commands[] = {"reg", "reg get", "next", "next", "show"};
  for (std::size_t i = 0; i < cases.size(); ++i) {
    const Result result = Run(cases[i]);
    EXPECT_EQ(result.exit, 2);
    EXPECT_THAT(result.err, EndsWith(std::string("\nqxsched: hint: see qxsched ") + commands[i] + " --help\n"));
  }
}

}  // namespace
