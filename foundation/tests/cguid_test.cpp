#include <gtest/gtest.h>

#include <cstring>
#include <sstream>
#include <string>

#include "foundation/include/zfcguid.h"
#include "foundation/testing/captured_log.h"
#include "foundation/tests/system_page.h"
#include "platform/testing/fault.h"
#include "platform/text.h"

namespace ZepFoundation {
namespace {

constexpr const char16_t* kText = u"{14334370-2F7E-45E1-91F1-683AC3056172}";

TEST(CGUID, AZeroOneIsValidOneAndAGeneratedOneIsValidZero) {
  const CGUID zero(0, 0, wcstring());
  EXPECT_EQ(zero.Valid(), 1);
  EXPECT_EQ(CGUID().Valid(), 0);
  EXPECT_EQ(CGUID(1, 0, wcstring()).Valid(), 0);
}

TEST(CGUID, TheOtherConstructorParametersHaveNoEffect) {
  EXPECT_EQ(CGUID(0, 17, u"state").Valid(), 1);
  EXPECT_EQ(CGUID(0xFF, 17, u"state").Valid(), 0);
}

TEST(CGUID, AFailedGenerationIsAllZero) {
  const platform::FaultPlan plan = platform::FaultPlan::FailCall(platform::Operation::kCreateGuid, 1,
                                                                 platform::ERROR_IO_DEVICE, platform::kFromThenOn);
  EXPECT_EQ(CGUID().Valid(), 1);
  EXPECT_EQ(CGUID(1, 0, wcstring()).Valid(), 1);
}

TEST(CGUID, ReadsItsTextForm) {
  const CGUID guid(kText);
  EXPECT_EQ(guid.Data1, 0x14334370u);
  EXPECT_EQ(guid.Data4[7], 0x72);
  EXPECT_EQ(CGUID(wcstring(u"{14334370-2f7e-45e1-91f1-683ac3056172}")), guid);
  EXPECT_EQ(guid.Valid(), 0);
}

TEST(CGUID, TextThatIsNoIdentifierGivesAllZero) {
  for (const char16_t* text : {u"", u"x", u"{14334370-", u"{14334370-2F7E-45E1-91F1-683AC3056172}x",
                               u"{14334370-2F7E-45E1-91F1-683AC305617G}", u"14334370-2F7E-45E1-91F1-683AC3056172"}) {
    EXPECT_EQ(CGUID(text).Valid(), 1) << platform::Utf8FromWide(text);
    CGUID guid;
    guid.GUIDFromString(text);
    EXPECT_EQ(guid.Valid(), 1) << platform::Utf8FromWide(text);
  }
  EXPECT_EQ(CGUID(static_cast<const char16_t*>(nullptr)).Valid(), 1);
}

TEST(CGUID, TextHas38CharactersAndStrippedText32) {
  const CGUID guid(kText);
  EXPECT_EQ(guid.GUIDAsString(0), kText);
  EXPECT_EQ(guid.GUIDAsString(0).length(), 38u);
  EXPECT_EQ(guid.GUIDAsString(1), u"143343702F7E45E191F1683AC3056172");
  EXPECT_EQ(guid.GUIDAsString(1).length(), 32u);
  EXPECT_EQ(guid.GUIDAsString(2), kText);  // only 1 strips
}

TEST(CGUID, ComparesAsBytesInMemoryOrder) {
  const CGUID low(u"{02000001-0000-0000-0000-000000000000}");
  const CGUID high(u"{01000002-0000-0000-0000-000000000000}");
  EXPECT_TRUE(low < high);
  EXPECT_FALSE(high < low);
  EXPECT_FALSE(low == high);
  EXPECT_TRUE(low == CGUID(low));
  EXPECT_FALSE(low < low);
}

TEST(CGUID, PrintsItsTextToNarrowAndWideStreams) {
  const CGUID guid(kText);
  std::ostringstream narrow;
  guid.Print(narrow);
  EXPECT_EQ(narrow.str(), "{14334370-2F7E-45E1-91F1-683AC3056172}");
  std::basic_ostringstream<char16_t> wide;
  guid.Print(wide);
  EXPECT_EQ(wide.str(), kText);
}

TEST(CGUID, ReadsOneTokenFromNarrowAndWideStreams) {
  std::istringstream narrow(" \t{14334370-2F7E-45E1-91F1-683AC3056172}\nrest");
  CGUID guid;
  guid.Read(narrow);
  EXPECT_EQ(guid, CGUID(kText));
  std::string rest;
  narrow >> rest;
  EXPECT_EQ(rest, "rest");
  std::basic_istringstream<char16_t> wide(u"  {14334370-2F7E-45E1-91F1-683AC3056172}");
  CGUID other;
  other.Read(wide);
  EXPECT_EQ(other, CGUID(kText));
  other.Read(wide);
  EXPECT_TRUE(wide.fail());
  EXPECT_EQ(other.Valid(), 1);
}

TEST(CGUID, SettingAStateFileChangesNothing) {
  CGUID::SetStateFilePath(u"/tmp/state");
  EXPECT_EQ(CGUID().Valid(), 0);
}

TEST(IsValidGUIDString, AcceptsTheTextForm) {
  const CapturedServiceLog log;
  EXPECT_EQ(IsValidGUIDString(kText), 1);
  EXPECT_EQ(IsValidGUIDString(u"{14334370-2f7e-45e1-91f1-683ac3056172}"), 1);
  EXPECT_TRUE(log.lines().empty());
}

TEST(IsValidGUIDString, AcceptsTheLetterGAloneAndTextBehindTheEnd) {
  const CapturedServiceLog log;
  EXPECT_EQ(IsValidGUIDString(u"{GGGGGGGG-GGGG-GGGG-GGGG-GGGGGGGGGGGG}"), 1);
  EXPECT_EQ(IsValidGUIDString(u"{zzzzzzzz-zzzz-zzzz-zzzz-zzzzzzzzzzzz} and more"), 1);
  EXPECT_TRUE(log.lines().empty());
}

TEST(IsValidGUIDString, RejectsAnUnderscoreAtPositionFiveAndLogsThePosition) {
  const CapturedServiceLog log;
  EXPECT_EQ(IsValidGUIDString(u"{GGGG_GGG-GGGG-GGGG-GGGG-GGGGGGGGGGGG}"), 0);
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_TRUE(log.Has(0, "IsValidGUIDString:Invalid character _ at 5 in GUIDString"));
}

struct RefusedText {
  int line;
  const char16_t* text;
  const char* logged;
};
const RefusedText kRefusedTexts[] = {
    {__LINE__, nullptr, "IsValidGUIDString:Invalid character in GUIDString"},
    {__LINE__, u"", "IsValidGUIDString:Invalid character in GUIDString"},
    {__LINE__, u"{", "IsValidGUIDString:Invalid character in GUIDString"},
    {__LINE__, u"{14334370-2F7E-45E1-91F1-683AC305617", "IsValidGUIDString:Invalid character in GUIDString"},
    {__LINE__, u"{14334370-2F7E-45E1-91F1-683AC3056172", "IsValidGUIDString:Invalid character in GUIDString"},
    {__LINE__, u"{_4334370_2F7E-45E1-91F1-683AC3056172}", "IsValidGUIDString:Invalid character in GUIDString"},
    {__LINE__, u"(14334370-2F7E-45E1-91F1-683AC3056172)", "IsValidGUIDString:Invalid character in GUIDString"},
    {__LINE__, u"{_4334370-2F7E-45E1-91F1-683AC305617_}", "IsValidGUIDString:Invalid character _ at 1 in GUIDString"},
    {__LINE__, u"{14334370-2F7E-45E1-91F1-683AC305617@}", "IsValidGUIDString:Invalid character @ at 36 in GUIDString"},
    {__LINE__, u"{14334370-[F7E-45E1-91F1-683AC3056172}", "IsValidGUIDString:Invalid character [ at 10 in GUIDString"},
    {__LINE__, u"{14334370-2F7E-45E1-91F%-683AC3056172}", "IsValidGUIDString:Invalid character % at 23 in GUIDString"},
    // A line of the log stays one line.
    {__LINE__, u"{14334370-2F7E-45E1-91F\n-683AC3056172}", "IsValidGUIDString:Invalid character   at 23 in GUIDString"},
};

TEST(IsValidGUIDString, LogsTheFirstWrongCharacter) {
  for (const RefusedText& c : kRefusedTexts) {
    SCOPED_TRACE(c.line);
    const CapturedServiceLog log;
    EXPECT_EQ(IsValidGUIDString(c.text), 0);
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_TRUE(log.Has(0, c.logged)) << log.lines()[0];
  }
}

TEST(IsValidGUIDString, LogsASignThatTheCodePageWritesAsAPercentSign) {
  const SystemPage western(platform::kCodePageWestern);
  const CapturedServiceLog log;
  EXPECT_EQ(IsValidGUIDString(u"{1433\uFF05370-2F7E-45E1-91F1-683AC3056172}"), 0);
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_TRUE(log.Has(0, "IsValidGUIDString:Invalid character % at 5 in GUIDString")) << log.lines()[0];
}

}  // namespace
}  // namespace ZepFoundation
