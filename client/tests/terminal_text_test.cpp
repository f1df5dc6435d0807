#include "client/terminal_text.h"

#include <gtest/gtest.h>

namespace {

TEST(Printable, ShowsWhatATerminalWouldObey) {
  struct Case {
    int line;
    const char* text;
    const char* shown;
  };
  const Case cases[] = {
      {__LINE__, "", ""},
      {__LINE__, "plain ~", "plain ~"},
      {__LINE__, "gew\u00F6hnlich \u591C \U0001F319", "gew\u00F6hnlich \u591C \U0001F319"},
      {__LINE__, "a\tb\nc\x1B[31m\x7F", "a\\x09b\\x0Ac\\x1B[31m\\x7F"},
      {__LINE__, "\xC2\x80|\xC2\x9B|\xC2\xA0", "\\x80|\\x9B|\xC2\xA0"},
      {__LINE__, "\u200E\u200F\u2027\u2028\u2029\u202A\u202E\u202F",
       "\\u200E\\u200F\u2027\\u2028\\u2029\\u202A\\u202E\u202F"},
      {__LINE__, "\u2066\u2069\u206A\u061C", "\\u2066\\u2069\u206A\\u061C"},
      {__LINE__, "\xFF\xFE!", "\\xFF\\xFE!"},
      {__LINE__, "\xC3", "\\xC3"},
      {__LINE__, "\xC3(", "\\xC3("},
      {__LINE__, "\xE2\x82|\xED\xA0\x80", "\\xE2\\x82|\\xED\\xA0\\x80"},
      {__LINE__, "\x80\xBF", "\\x80\\xBF"},
  };
  for (const Case& c : cases) EXPECT_EQ(qx::Printable(c.text), c.shown) << "line " << c.line;
}

}  // namespace
