// foundation/tests/log_format_test.cpp: what the recorded calls don't show: missing, mismatched and hostile input.
#include "foundation/include/zfclogformat.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <vector>

namespace {

using ZepFoundation::FormatLogText;
using ZepFoundation::LogArgument;
using Arguments = std::vector<LogArgument>;

std::string Narrow(const std::string& format, const Arguments& arguments = {}) {
  std::string out;
  const int result = FormatLogText(out, 2000, format, arguments);
  EXPECT_EQ(result, static_cast<int>(out.size())) << format;
  return out;
}
std::u16string Wide(const std::u16string& format, const Arguments& arguments = {}) {
  std::u16string out;
  const int result = FormatLogText(out, 2000, format, arguments);
  EXPECT_EQ(result, static_cast<int>(out.size()));
  return out;
}

struct NarrowCase {
  int line;
  const char* format;
  Arguments arguments;
  const char* expected;
};

TEST(LogFormat, PrintsNothingForAMissingArgument) {
  const NarrowCase cases[] = {
      {__LINE__, "[%s]", {}, "[]"},          {__LINE__, "[%20d]", {}, "[]"},  {__LINE__, "[%f] [%x]", {1.0}, "[1.000000] []"},
      {__LINE__, "[%*d]", {}, "[]"},         {__LINE__, "[%*d]", {5}, "[]"},  {__LINE__, "[%c%p%S%hs]", {}, "[]"},
      {__LINE__, "%s%s%s%s", {"a"}, "a"},
  };
  for (const NarrowCase& c : cases) EXPECT_EQ(Narrow(c.format, c.arguments), c.expected) << "line " << c.line;
}

TEST(LogFormat, ConvertsAnArgumentOfAnotherKind) {
  const NarrowCase cases[] = {
      {__LINE__, "%s", {42}, "42"},
      {__LINE__, "%5s|", {-42}, "  -42|"},
      {__LINE__, "%s", {0x100000002LL}, "4294967298"},
      {__LINE__, "%s", {1.5}, "1.500000"},
      {__LINE__, "%s", {u'x'}, "x"},
      {__LINE__, "%s", {reinterpret_cast<const void*>(0x12)}, "0000000000000012"},
      {__LINE__, "%d", {"text"}, "text"},
      {__LINE__, "%d", {u"wide"}, "wide"},
      {__LINE__, "%x", {1e300}, "ffffffff"},
      {__LINE__, "%f", {3}, "3.000000"},
      {__LINE__, "%f", {"text"}, "text"},
      {__LINE__, "%f", {-3}, "-3.000000"},
      {__LINE__, "%d", {2.9}, "2"},
      {__LINE__, "%d", {std::numeric_limits<double>::quiet_NaN()}, "0"},
      {__LINE__, "%c", {"text"}, "text"},
      {__LINE__, "%d", {nullptr}, "0"},
      {__LINE__, "%u", {true}, "1"},
      {__LINE__, "%S", {"narrow"}, "narrow"},
      {__LINE__, "%*d|", {"text", 5}, "5|"},
  };
  for (const NarrowCase& c : cases) EXPECT_EQ(Narrow(c.format, c.arguments), c.expected) << "line " << c.line;
  EXPECT_EQ(Wide(u"%s %S", {"narrow", u"wide \u4e2d"}), u"narrow wide \u4e2d");
}

TEST(LogFormat, TakesWidthsAndPrecisionsFromArguments) {
  EXPECT_EQ(Narrow("[%*d]", {5, 42}), "[   42]");
  EXPECT_EQ(Narrow("[%*d]", {-5, 42}), "[42   ]");
  EXPECT_EQ(Narrow("[%.*s]", {2, "abc"}), "[ab]");
  EXPECT_EQ(Narrow("[%.*s]", {-1, "abc"}), "[abc]");
  std::string out;
  EXPECT_EQ(FormatLogText(out, 4, "%*d", {{LogArgument(std::numeric_limits<int>::min()), LogArgument(1)}}), -1);
  EXPECT_EQ(out, "1   ");
}

TEST(LogFormat, RoundsRealNumbersAwayFromZero) {
  const NarrowCase cases[] = {
      {__LINE__, "%.0f", {0.5}, "1"},        {__LINE__, "%.0f", {1.5}, "2"},         {__LINE__, "%.0f", {-2.5}, "-3"},
      {__LINE__, "%.2f", {0.125}, "0.13"},   {__LINE__, "%.1f", {9.96}, "10.0"},     {__LINE__, "%.0f", {99.5}, "100"},
      {__LINE__, "%#.0f", {1.0}, "1."},      {__LINE__, "%.3e", {9999.6}, "1.000e+04"}, {__LINE__, "%.0e", {9.5}, "1e+01"},
      {__LINE__, "%#.0e", {9.5}, "1.e+01"},  {__LINE__, "%e", {0.0}, "0.000000e+00"}, {__LINE__, "%e", {1e-100}, "1.000000e-100"},
      {__LINE__, "%g", {0.0001}, "0.0001"},  {__LINE__, "%g", {1e6}, "1e+06"},       {__LINE__, "%g", {123456.0}, "123456"},
      {__LINE__, "%G", {1e-7}, "1E-07"},     {__LINE__, "%+f", {1.0}, "+1.000000"},  {__LINE__, "%09.2f", {-1.5}, "-00001.50"},
      {__LINE__, "%5f", {-std::numeric_limits<double>::infinity()}, " -inf"},
      {__LINE__, "%F", {std::numeric_limits<double>::quiet_NaN()}, "NAN"},
  };
  for (const NarrowCase& c : cases) EXPECT_EQ(Narrow(c.format, c.arguments), c.expected) << "line " << c.line;
}

TEST(LogFormat, PrintsTheGreatestNumberWhole) {
  EXPECT_EQ(Narrow("%f", {std::numeric_limits<double>::max()}).size(), 309u + 7u);
  EXPECT_EQ(Narrow("%.1500f", {std::numeric_limits<double>::denorm_min()}).size(), 1502u);
}

TEST(LogFormat, ReadsOverAConversionWithoutAMeaning) {
  const NarrowCase cases[] = {
      {__LINE__, "error %l", {42}, "error "},   {__LINE__, "error %l.", {42}, "error ."}, {__LINE__, "100%", {}, "100"},
      {__LINE__, "[%q] %d", {1}, "[q] 1"},      {__LINE__, "[%5%]", {1}, "[]"},           {__LINE__, "[%n%d]", {7}, "[7]"},
      {__LINE__, "%-+ #0", {1}, ""},            {__LINE__, "%5.", {1}, ""},               {__LINE__, "[%\xe9]", {1}, "[\xe9]"},
  };
  for (const NarrowCase& c : cases) EXPECT_EQ(Narrow(c.format, c.arguments), c.expected) << "line " << c.line;
}

TEST(LogFormat, EndsATextArgumentAtItsFirstZero) {
  EXPECT_EQ(Narrow("[%s]", {std::string_view("a\0b", 3)}), "[a]");
  EXPECT_EQ(Wide(u"[%s]", {std::u16string_view(u"a\0b", 3)}), u"[a]");
}

TEST(LogFormat, StopsAtTheBufferWhateverWidthIsAsked) {
  std::string out;
  bool overflow = false;
  char buffer[8];
  EXPECT_EQ(FormatLogText(out, 16, "%2000000000d", {{LogArgument(1)}}), -1);
  EXPECT_EQ(out, std::string(16, ' '));
  EXPECT_EQ(FormatLogText(out, 16, "%.2000000000d", {{LogArgument(1)}}), -1);
  EXPECT_EQ(FormatLogText(out, 16, "%.2000000000f", {{LogArgument(1.0)}}), -1);
  EXPECT_EQ(FormatLogText(std::span<char>(buffer), "123456789", {}, &overflow), -1);
  EXPECT_TRUE(overflow);
}

TEST(LogFormat, TellsAnUnconvertibleCharacterFromAnOverflow) {
  char buffer[8];
  bool overflow = true;
  EXPECT_EQ(FormatLogText(std::span<char>(buffer), "%S", {{LogArgument(u"\u4e2d")}}, &overflow), -1);
  EXPECT_FALSE(overflow);
}

TEST(LogFormat, TakesTheBytesOfWideTextWhereNarrowTextIsNamed) {
  EXPECT_EQ(Narrow("%s", {u"%s"}), "%");
  EXPECT_EQ(Narrow("%s", {u"\u4241\u0043"}), "ABC");
}

}  // namespace
