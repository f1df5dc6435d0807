#include <gtest/gtest.h>

#include <map>
#include <sstream>
#include <string>

#include "foundation/include/zfcstring.h"
#include "foundation/include/zfcutf8.h"
#include "foundation/tests/system_page.h"
#include "platform/testing/fault.h"
#include "platform/text.h"

namespace ZepFoundation {
namespace {

const char16_t kLoneSurrogate[] = {u'a', 0xD83D, 0};

TEST(WideString, IsMadeInEveryToldWay) {
  EXPECT_EQ(wcstring(), u"");
  EXPECT_EQ(wcstring(u"abc"), u"abc");
  EXPECT_EQ(wcstring(static_cast<const char16_t*>(nullptr)), u"");
  EXPECT_EQ(wcstring(u"abc", 2), u"ab");
  EXPECT_EQ(wcstring(wcstring(u"abcdef"), 2, 3), u"cde");
  EXPECT_EQ(wcstring(wcstring(u"abcdef"), 6, 3), u"");
  EXPECT_THROW(wcstring(wcstring(u"abc"), 4, 1), std::out_of_range);
  EXPECT_EQ(wcstring(std::u16string(u"abc")), u"abc");
  EXPECT_EQ(wcstring(cstring("caf\xC3\xA9")), u"caf\u00E9");
  EXPECT_EQ(wcstring(3, u'x'), u"xxx");
  CZepUTF8 utf8(u"\u20AC", 1);
  EXPECT_EQ(wcstring(utf8), u"\u20AC");
  wcstring assigned;
  assigned = u"one";
  EXPECT_EQ(assigned, u"one");
  assigned = cstring("two");
  EXPECT_EQ(assigned, u"two");
  assigned = wcstring(u"three");
  EXPECT_EQ(assigned, u"three");
}

TEST(NarrowString, IsMadeInEveryToldWay) {
  EXPECT_EQ(cstring(), "");
  EXPECT_EQ(cstring("abc"), "abc");
  EXPECT_EQ(cstring(static_cast<const char*>(nullptr)), "");
  EXPECT_EQ(cstring("abc", 2), "ab");
  EXPECT_EQ(cstring(cstring("abcdef"), 2, 3), "cde");
  EXPECT_THROW(cstring(cstring("abc"), 4, 1), std::out_of_range);
  EXPECT_EQ(cstring(std::string("abc")), "abc");
  EXPECT_EQ(cstring(wcstring(u"caf\u00E9")), "caf\xC3\xA9");
  EXPECT_EQ(cstring(3, 'x'), "xxx");
  CZepUTF8 utf8(u"\u20AC", 1);
  EXPECT_EQ(cstring(utf8), "\xE2\x82\xAC");
  cstring assigned("before");
  EXPECT_THROW(assigned = wcstring(kLoneSurrogate), CharConversion_error);
  EXPECT_EQ(assigned, "before");
  assigned = wcstring(u"after");
  EXPECT_EQ(assigned, "after");
}

TEST(WideString, AsciiOfACharacterOutsideTheCodePageThrowsAndPrintWritesTheFailure) {
  const SystemPage western(platform::kCodePageWestern);
  const wcstring text(u"a\u4E2D");
  try {
    (void)text.ascii();
    FAIL() << "nothing was thrown";
  } catch (const CharConversion_error& error) {
    EXPECT_STREQ(error.what(), "wcstring::ascii");
  }
  std::ostringstream stream;
  text.Print(stream);
  EXPECT_EQ(stream.str(), "Unicode to ascii failure");
}

TEST(WideString, AsciiTakesBestFitForAForm) {
  const SystemPage western(platform::kCodePageWestern);
  EXPECT_STREQ(wcstring(u"\u0100\u20AC\u00E9").ascii(), "A\x80\xE9");
}

TEST(WideString, AsciiUnderUtf8FailsForALoneSurrogateAlone) {
  EXPECT_STREQ(wcstring(u"caf\u00E9 \u4E2D \U0001F600").ascii(), "caf\xC3\xA9 \xE4\xB8\xAD \xF0\x9F\x98\x80");
  EXPECT_THROW((void)wcstring(kLoneSurrogate).ascii(), CharConversion_error);
}

TEST(WideString, AsciiThrowsWhenThePlatformFails) {
  const wcstring text(u"a");
  for (const int call : {1, 2}) {
    const auto plan =
        platform::FaultPlan::FailCall(platform::Operation::kConvertText, call, platform::ERROR_INVALID_PARAMETER);
    EXPECT_THROW((void)text.ascii(), CharConversion_error) << call;
  }
  EXPECT_STREQ(text.ascii(), "a");
}

TEST(WideString, PrintWritesTheConvertedText) {
  std::ostringstream stream;
  wcstring(u"caf\u00E9").Print(stream);
  cstring("!\xFF").Print(stream);
  EXPECT_EQ(stream.str(), "caf\xC3\xA9!\xFF");
}

TEST(NarrowString, UnicodeReportsNoError) {
  EXPECT_EQ(std::u16string(cstring("a\xFF").unicode()), u"a\uFFFD");
  EXPECT_EQ(std::u16string(cstring().unicode()), u"");
  const auto plan =
      platform::FaultPlan::FailCall(platform::Operation::kConvertText, 1, platform::ERROR_INVALID_PARAMETER);
  EXPECT_EQ(std::u16string(cstring("abc").unicode()), u"");
}

TEST(NarrowString, UnicodeGoesByTheSystemCodePage) {
  const SystemPage western(platform::kCodePageWestern);
  EXPECT_EQ(std::u16string(cstring("\x80\xE9").unicode()), u"\u20AC\u00E9");
}

TEST(Strings, TheirOwnFormIsTheTextItself) {
  const wcstring wide(u"abc");
  EXPECT_EQ(wide.unicode(), wide.c_str());
  wcstring changeable(u"abc");
  EXPECT_EQ(changeable.unicode(), changeable.c_str());
  const cstring narrow("abc");
  EXPECT_EQ(narrow.ascii(), narrow.c_str());
}

TEST(Strings, ConvertToUtf8Text) {
  CZepUTF8 fromWide = wcstring(u"\u20AC").utf8();
  EXPECT_STREQ(fromWide.Utf8().second, "\xE2\x82\xAC");
  const SystemPage western(platform::kCodePageWestern);
  CZepUTF8 fromNarrow = cstring("\x80").utf8();
  EXPECT_STREQ(fromNarrow.Utf8().second, "\xE2\x82\xAC");
}

TEST(Strings, CompareAndOrderByTheirText) {
  EXPECT_TRUE(wcstring(u"a") < wcstring(u"b"));
  EXPECT_TRUE(wcstring(u"a") == wcstring(u"a"));
  EXPECT_TRUE(wcstring(u"a") != u"b");
  EXPECT_TRUE(wcstring(u"B") < u"a");
  EXPECT_TRUE(cstring("a") < cstring("b"));
  EXPECT_TRUE(cstring("a") < cstring("\xC3"));  // bytes, unsigned
  EXPECT_TRUE(cstring("a") == "a");
  std::map<wcstring, int> map{{u"two", 2}, {u"one", 1}};
  EXPECT_EQ(map.begin()->second, 1);
  EXPECT_EQ(map.at(u"two"), 2);
}

TEST(Strings, Concatenate) {
  EXPECT_EQ(wcstring(u"a") + wcstring(u"b") + u"c" + u'd', u"abcd");
  EXPECT_EQ(u"x" + wcstring(u"y"), u"xy");
  EXPECT_EQ(cstring("a") + cstring("b") + "c" + 'd', "abcd");
  EXPECT_EQ("x" + cstring("y"), "xy");
  wcstring text(u"a");
  text += text.view();
  text += u'b';
  EXPECT_EQ(text, u"aab");
  EXPECT_EQ(text.substr(1), u"ab");
}

TEST(Strings, MapCaseWithoutALocale) {
  EXPECT_EQ(wcstring(u"Caf\u00C9 \u0416 \u00DF").tolower(), u"caf\u00E9 \u0436 \u00DF");
  EXPECT_EQ(wcstring(u"caf\u00E9 \u0436 \u00FF").toupper(), u"CAF\u00C9 \u0416 \u0178");
  EXPECT_EQ(cstring("aZ\xC3\xA9[").toupper(), "AZ\xC3\xA9[");
  EXPECT_EQ(cstring("aZ\xC3\x89[").tolower(), "az\xC3\x89[");
}

TEST(Strings, ACopyDoesNotShareTheConversion) {
  const wcstring original(u"abc");
  const char* converted = original.ascii();
  const wcstring copy(original);
  EXPECT_NE(copy.ascii(), converted);
  EXPECT_STREQ(converted, "abc");  // still the original's
}

TEST(Strings, ReadTakesOneWordAndItsWhiteSpace) {
  std::istringstream stream("caf\xC3\xA9\tnext\n last");
  wcstring wide(u"old");
  wide.Read(stream);
  EXPECT_EQ(wide, u"caf\u00E9");
  cstring narrow("old");
  narrow.Read(stream);
  EXPECT_EQ(narrow, "next");
  narrow.Read(stream);  // the blank ends an empty word
  EXPECT_EQ(narrow, "");
  EXPECT_TRUE(stream.good());
  wide.Read(stream);
  EXPECT_EQ(wide, u"last");
  EXPECT_TRUE(stream.eof());
  EXPECT_FALSE(stream.fail());
  wide.Read(stream);
  EXPECT_EQ(wide, u"");
  EXPECT_TRUE(stream.fail());
}

}  // namespace
}  // namespace ZepFoundation
