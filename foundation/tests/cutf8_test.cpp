#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "foundation/include/zfcutf8.h"
#include "foundation/tests/system_page.h"
#include "platform/testing/fault.h"
#include "platform/text.h"

namespace ZepFoundation {
namespace {

using platform::kCodePageUtf7;
using platform::kCodePageUtf8;
using platform::kCodePageWestern;

std::string Text(std::pair<std::uint32_t, const char*> pair) {
  return pair.second == nullptr ? "(null)" : std::string(pair.second, pair.first);
}

TEST(CZepUTF8, ANullPointerGivesZeroAndNull) {
  for (const CZepUTF8& empty :
       {CZepUTF8(static_cast<const char*>(nullptr), 5, kCodePageUtf8),
        CZepUTF8(static_cast<const char16_t*>(nullptr), 5), CZepUTF8("abc", 0, kCodePageUtf8), CZepUTF8()}) {
    CZepUTF8 copy(empty);
    EXPECT_EQ(copy.Utf8(), std::make_pair(0u, static_cast<const char*>(nullptr)));
    EXPECT_EQ(copy.Ansi(), std::make_pair(0u, static_cast<const char*>(nullptr)));
    EXPECT_EQ(copy.Utf7(), std::make_pair(0u, static_cast<const char*>(nullptr)));
    EXPECT_EQ(copy.MultibyteStr(kCodePageWestern), std::make_pair(0u, static_cast<const char*>(nullptr)));
    EXPECT_EQ(copy.Unicode(), std::make_pair(0u, static_cast<const char16_t*>(nullptr)));
  }
}

TEST(CZepUTF8, CopiesUtf8BytesAsTheyAre) {
  const CZepUTF8 text("a\xFF\0b", 4, kCodePageUtf8);
  EXPECT_EQ(Text(text.Utf8()), std::string("a\xFF\0b", 4));
  EXPECT_EQ(text.Utf8().second[4], '\0');
}

TEST(CZepUTF8, ConvertsOtherCodePagesAndWideText) {
  EXPECT_EQ(Text(CZepUTF8("\x80", 1, kCodePageWestern).Utf8()), "\xE2\x82\xAC");
  EXPECT_EQ(Text(CZepUTF8("+IKw-", 5, kCodePageUtf7).Utf8()), "\xE2\x82\xAC");
  EXPECT_EQ(Text(CZepUTF8(u"\u20AC\U0001F600", 3).Utf8()), "\xE2\x82\xAC\xF0\x9F\x98\x80");
}

TEST(CZepUTF8, ConvertsOut) {
  CZepUTF8 text(u"\u20ACa", 2);
  const auto [count, wide] = text.Unicode();
  EXPECT_EQ(std::u16string(wide, count), u"\u20ACa");
  EXPECT_EQ(Text(text.Utf7()), "+IKw-a");
  EXPECT_EQ(Text(text.Ansi()),
            "\xE2\x82\xAC"
            "a");
  EXPECT_EQ(Text(text.MultibyteStr(kCodePageWestern)),
            "\x80"
            "a");
  EXPECT_EQ(Text(text.MultibyteStr(kCodePageUtf8)),
            "\xE2\x82\xAC"
            "a");
}

TEST(CZepUTF8, RemembersTheLastConversionByItsKind) {
  CZepUTF8 text(u"\u20AC", 1);
  EXPECT_EQ(text.cachedKind(), 0);
  (void)text.Unicode();
  EXPECT_EQ(text.cachedKind(), 5);
  const char* seven = text.Utf7().second;
  EXPECT_EQ(text.cachedKind(), 3);
  EXPECT_EQ(text.MultibyteStr(kCodePageUtf7).second, seven);
  (void)text.MultibyteStr(kCodePageUtf8);
  EXPECT_EQ(text.cachedKind(), 4);
  const char* ansi = text.Ansi().second;
  EXPECT_EQ(text.cachedKind(), 1);
  EXPECT_EQ(text.MultibyteStr(0).second, ansi);
  (void)text.MultibyteStr(kCodePageWestern);
  EXPECT_EQ(text.cachedKind(), 0);
}

TEST(CZepUTF8, NeverReusesACacheOfNoKnownKind) {
  CZepUTF8 text(u"\u20AC", 1);
  EXPECT_EQ(Text(text.MultibyteStr(kCodePageWestern)), "\x80");
  auto plan = platform::FaultPlan::CountOnly();
  (void)text.MultibyteStr(kCodePageWestern);
  EXPECT_GT(plan.calls(), 0);
}

TEST(CZepUTF8, ReusesACacheOfTheSameKind) {
  CZepUTF8 text(u"\u20AC", 1);
  (void)text.Ansi();
  auto plan = platform::FaultPlan::CountOnly();
  EXPECT_EQ(Text(text.Ansi()), "\xE2\x82\xAC");
  EXPECT_EQ(plan.calls(), 0);
}

TEST(CZepUTF8, ComparesAppendsAndCopies) {
  const CZepUTF8 a("a", 1, kCodePageUtf8), b("b", 1, kCodePageUtf8);
  EXPECT_TRUE(a == CZepUTF8(u"a", 1));
  EXPECT_FALSE(a == b);
  EXPECT_TRUE(a < b);
  EXPECT_TRUE(CZepUTF8() < a);
  EXPECT_TRUE(a < CZepUTF8("\xC3\xA9", 2, kCodePageUtf8));
  EXPECT_EQ(Text((a + b).Utf8()), "ab");
  CZepUTF8 text;
  text.Append(a);
  (void)text.Unicode();
  text.Append(text);
  EXPECT_EQ(Text(text.Utf8()), "aa");
  EXPECT_EQ(text.cachedKind(), 0);
  CZepUTF8 assigned;
  assigned = text;
  EXPECT_TRUE(assigned == text);
  CZepUTF8 moved(std::move(assigned));
  EXPECT_TRUE(moved == text);
  EXPECT_EQ(assigned.Utf8(), std::make_pair(0u, static_cast<const char*>(nullptr)));  // NOLINT: emptied
}

struct ErrorCase {
  platform::ErrorCode code;
  const char* text;
};
const ErrorCase kErrors[] = {
    {87, "Invalid parameter"},   {122, "Insufficient Buffer"}, {1004, "Invalid flags"},
    {1113, "Translation error"}, {5, "Unknown error"},
};

TEST(CZepUTF8, ThrowsTheTextOfThePlatformsCode) {
  for (const ErrorCase& c : kErrors) {
    const auto plan = platform::FaultPlan::FailCall(platform::Operation::kConvertText, 1, c.code);
    try {
      const CZepUTF8 text(u"a", 1);
      FAIL() << "nothing was thrown for " << c.code;
    } catch (const CZepUTFError& error) {
      EXPECT_EQ(error.code(), static_cast<std::int32_t>(c.code));
      EXPECT_STREQ(error.what(), c.text);
    }
  }
}

TEST(CZepUTF8, ThrowsForACodePageThatDoesNotExist) {
  CZepUTF8 text(u"a", 1);
  try {
    (void)text.MultibyteStr(12345);
    FAIL() << "nothing was thrown";
  } catch (const CZepUTFError& error) {
    EXPECT_EQ(error.code(), 87);
    EXPECT_STREQ(error.what(), "Invalid parameter");
  }
  EXPECT_EQ(Text(text.Utf8()), "a");
}

TEST(CZepUTF8, ThrowsBadAllocWhenMemoryIsExhausted) {
  const auto plan = platform::FaultPlan::FailCall(platform::Operation::kAllocate, 1, platform::ERROR_OUTOFMEMORY,
                                                  platform::kOnce, "CZepUTF8");
  try {
    const CZepUTF8 text("a", 1, kCodePageUtf8);
    FAIL() << "nothing was thrown";
  } catch (const CZepUTFError& error) {
    EXPECT_EQ(error.code(), 14);
    EXPECT_STREQ(error.what(), "bad_alloc");
  }
}

TEST(CZepUTF8, AFailedConversionLeavesTheObjectAsItWas) {
  CZepUTF8 text(u"\u20AC", 1);
  (void)text.Ansi();
  for (int call = 1; call <= 4; ++call) {
    const auto plan = platform::FaultPlan::FailCall(platform::Operation::kConvertText, call, 1113);
    EXPECT_THROW((void)text.Utf7(), CZepUTFError) << call;
    EXPECT_EQ(text.cachedKind(), 1);
  }
  EXPECT_EQ(Text(text.Utf8()), "\xE2\x82\xAC");
}

TEST(CZepUTF8, RefusedMemoryLeavesTheObjectAsItWas) {
  CZepUTF8 text(u"\u20AC", 1);
  const char* const ansi = text.Ansi().second;
  const CZepUTF8 other("b", 1, kCodePageUtf8);
  const struct {
    int allocations;
    void (*use)(CZepUTF8& text, const CZepUTF8& other);
  } uses[] = {
      {1, [](CZepUTF8& t, const CZepUTF8&) { (void)t.Unicode(); }},
      {2, [](CZepUTF8& t, const CZepUTF8&) { (void)t.Utf7(); }},
      {2, [](CZepUTF8& t, const CZepUTF8&) { (void)t.MultibyteStr(kCodePageWestern); }},
      {1, [](CZepUTF8& t, const CZepUTF8& o) { t.Append(o); }},
      {1, [](CZepUTF8& t, const CZepUTF8& o) { t = o; }},
  };
  for (const auto& c : uses) {
    for (int call = 1; call <= c.allocations; ++call) {
      const auto plan = platform::FaultPlan::FailCall(platform::Operation::kAllocate, call,
                                                      platform::ERROR_OUTOFMEMORY, platform::kOnce, "CZepUTF8");
      EXPECT_THROW(c.use(text, other), CZepUTFError) << &c - uses << ' ' << call;
      EXPECT_EQ(text.cachedKind(), CZepUTF8::kAnsi);
      EXPECT_EQ(text.Ansi().second, ansi);
      EXPECT_EQ(Text(text.Utf8()), "\xE2\x82\xAC");
    }
  }
}

TEST(CZepUTF8, IsAssignedToItself) {
  CZepUTF8 text(u"\u20AC", 1);
  CZepUTF8& same = text;
  text = same;
  EXPECT_EQ(Text(text.Utf8()), "\xE2\x82\xAC");
  text = std::move(same);
  EXPECT_EQ(Text(text.Utf8()), "\xE2\x82\xAC");
}

TEST(CZepUTF8, TextOfShiftCharactersAloneIsEmpty) {
  EXPECT_EQ(CZepUTF8("+", 1, kCodePageUtf7).Utf8().first, 0u);
}

TEST(CZepUTF8, PrintsAndReadsNarrowAndWideStreams) {
  CZepUTF8 text(u"caf\u00E9", 4);
  std::ostringstream narrow;
  text.Print(narrow);
  EXPECT_EQ(narrow.str(), "caf\xC3\xA9");
  std::basic_ostringstream<char16_t> wide;
  text.Print(wide);
  EXPECT_EQ(wide.str(), u"caf\u00E9");
  std::istringstream narrowIn("\xC3\xA9t\xC3\xA9 rest");
  text.Read(narrowIn);
  EXPECT_EQ(Text(text.Utf8()), "\xC3\xA9t\xC3\xA9");
  std::basic_istringstream<char16_t> wideIn(u"\u20AC\nrest");
  text.Read(wideIn);
  EXPECT_EQ(Text(text.Utf8()), "\xE2\x82\xAC");
}

TEST(CZepUTF8, AnsiGoesByTheSystemCodePage) {
  const SystemPage western(kCodePageWestern);
  CZepUTF8 text(u"\u20AC\u4E2D", 2);
  EXPECT_EQ(Text(text.Ansi()), "\x80?");
  EXPECT_EQ(Text(CZepUTF8("\x80", 1, platform::kCodePageSystem).Utf8()), "\xE2\x82\xAC");
}

}  // namespace
}  // namespace ZepFoundation
