#include "client/cli_suggest.h"

#include <gtest/gtest.h>

namespace {

TEST(Suggest, CountsTheEditsBetweenTwoWords) {
  struct Case {
    int line;
    const char* a;
    const char* b;
    std::size_t edits;
  };
  const Case cases[] = {
      {__LINE__, "", "", 0},         {__LINE__, "list", "list", 0},     {__LINE__, "", "list", 4},
      {__LINE__, "lst", "list", 1},  {__LINE__, "lisst", "list", 1},    {__LINE__, "lost", "list", 1},
      {__LINE__, "lits", "list", 1}, {__LINE__, "lsit", "list", 1},     {__LINE__, "show", "list", 4},
      {__LINE__, "ab", "ba", 1},     {__LINE__, "abcdef", "badcfe", 3},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(qx::EditDistance(c.a, c.b), c.edits) << "line " << c.line;
    EXPECT_EQ(qx::EditDistance(c.b, c.a), c.edits) << "line " << c.line;
  }
}

TEST(Suggest, NamesTheNearestWordOrNone) {
  const std::vector<std::string> known = {"list", "log", "status", "set", "show", "calendar", "completion", "config"};
  struct Case {
    int line;
    const char* word;
    const char* suggestion;
  };
  const Case cases[] = {
      {__LINE__, "lst", "list"},    {__LINE__, "stauts", "status"},
      {__LINE__, "shw", "show"},    {__LINE__, "cal", "calendar"},
      {__LINE__, "co", ""},         {__LINE__, "logg", "log"},
      {__LINE__, "frobnicate", ""}, {__LINE__, "", ""},
      {__LINE__, "x", ""},          {__LINE__, "com", "completion"},
  };
  for (const Case& c : cases) EXPECT_EQ(qx::Suggest(c.word, known), c.suggestion) << "line " << c.line;
}

}  // namespace
