#include "client/schedule_word.h"

#include <gtest/gtest.h>

#include <sstream>

namespace {

using qx::NamedId;

const std::vector<NamedId> kCandidates = {
    {"{ABCD1111-0000-4001-8000-000000000001}", "nightly"}, {"{ABCD2222-0000-4001-8000-000000000002}", "poll"},
    {"{12340000-0000-4001-8000-000000000003}", "poll"},    {"{99990000-0000-4001-8000-000000000004}", ""},
    {"{56780000-0000-4001-8000-000000000005}", "abcd1"},
};

TEST(ScheduleWord, NamesOneScheduleOrNone) {
  struct Case {
    int line;
    const char* word;
    int at;  // -1: none, with the error
    const char* error;
  };
  const Case cases[] = {
      {__LINE__, "nightly", 0, ""},
      {__LINE__, "ABCD11", 0, ""},
      {__LINE__, "{abcd1111-0000", 0, ""},
      {__LINE__, "1234", 2, ""},
      {__LINE__, "poll", -1, "qxsched: poll: is ambiguous, 2 schedules answer to it:\n"},
      {__LINE__, "abcd", -1, "qxsched: abcd: is ambiguous, 2 schedules answer to it:\n"},
      {__LINE__, "abcd1", -1, "qxsched: abcd1: is ambiguous, 2 schedules answer to it:\n"},
      {__LINE__, "Nightly", -1, "qxsched: Nightly: nobody\nqxsched: hint: look\n"},
      {__LINE__, "999", -1, "qxsched: 999: nobody\nqxsched: hint: the beginning of an ID needs at least four digits\n"},
      {__LINE__, "", -1, "qxsched: \"\": nobody\nqxsched: hint: look\n"},
      {__LINE__, "{}", -1, "qxsched: {}: nobody\nqxsched: hint: look\n"},
  };
  for (const Case& c : cases) {
    std::istringstream in;
    std::ostringstream out, err;
    qx::CliContext context{in, out, err, {}};
    std::size_t at = 77;
    const int exit = qx::FindByWord(context, c.word, kCandidates, "nobody", "look", at);
    EXPECT_EQ(exit, c.at < 0 ? qx::kExitNotFound : qx::kExitDone) << "line " << c.line;
    EXPECT_EQ(at, c.at < 0 ? 77 : static_cast<std::size_t>(c.at)) << "line " << c.line;
    EXPECT_EQ(err.str().substr(0, std::string(c.error).size()), c.error) << "line " << c.line;
    EXPECT_EQ(out.str(), "");
  }
}

TEST(ScheduleWord, ListsThoseThatAnswerButNotWithoutEnd) {
  std::vector<NamedId> many;
  for (int i = 0; i < 12; ++i) many.push_back({"{ID" + std::to_string(i) + "}", "a\tb"});
  std::istringstream in;
  std::ostringstream out, err;
  qx::CliContext context{in, out, err, {}};
  std::size_t at = 0;
  EXPECT_EQ(qx::FindByWord(context, "a\tb", many, "nobody", "look", at), qx::kExitNotFound);
  const std::string text = err.str();
  const std::string end = "  {ID9}  a\\x09b\n  ...\nqxsched: hint: give more digits of the ID\n";
  EXPECT_NE(text.find(end), std::string::npos) << text;
  EXPECT_EQ(text.find("{ID10}"), std::string::npos) << text;
}

}  // namespace
