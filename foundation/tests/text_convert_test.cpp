#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "foundation/include/zfctext.h"
#include "foundation/tests/system_page.h"
#include "platform/testing/fault.h"
#include "platform/text.h"

namespace ZepFoundation {
namespace {

using platform::FaultPlan;
using platform::Operation;

// Calls a conversion, checks the count against the text, and frees with the runtime's free().
template <class Out, class In>
std::basic_string<Out> Converted(int (*convert)(Out**, const In*), const In* in) {
  Out* out = nullptr;
  const int count = convert(&out, in);
  EXPECT_GE(count, 0);
  if (out == nullptr) return {};
  std::basic_string<Out> text(out);
  EXPECT_EQ(static_cast<std::size_t>(count), text.size());
  std::free(out);
  return text;
}

TEST(PlainConversions, ConvertBetweenTheThreeForms) {
  EXPECT_EQ(Converted(ZepUtf8ToWcs, "caf\xC3\xA9"), u"caf\u00E9");
  EXPECT_EQ(Converted(ZepWcsToUtf8, u"caf\u00E9 \U0001F600"), "caf\xC3\xA9 \xF0\x9F\x98\x80");
  const SystemPage western(platform::kCodePageWestern);
  EXPECT_EQ(Converted(ZepMbsToUtf8, "caf\xE9\x80"), "caf\xC3\xA9\xE2\x82\xAC");
  EXPECT_EQ(Converted(ZepUtf8ToMbs, "caf\xC3\xA9\xE2\x82\xAC"), "caf\xE9\x80");
  EXPECT_EQ(Converted(ZepMbsToWcs, "\x80"), u"\u20AC");
  EXPECT_EQ(Converted(ZepWcsToMbs, u"\u20AC"), "\x80");
}

TEST(PlainConversions, GoThroughUtf8AsTheSystemCodePageWithoutCutting) {
  EXPECT_EQ(Converted(ZepUtf8ToMbs, "\xE4\xB8\xAD\xE4\xB8\xAD"), "\xE4\xB8\xAD\xE4\xB8\xAD");
  EXPECT_EQ(Converted(ZepWcsToMbs, u"\u4E2D\u4E2D"), "\xE4\xB8\xAD\xE4\xB8\xAD");
  EXPECT_EQ(Converted(ZepMbsToWcs, "\xE4\xB8\xAD"), u"\u4E2D");
}

TEST(PlainConversions, ANullInputReturnsMinusOneAndLeavesTheOutputPointer) {
  char16_t wideText[] = u"x";
  char narrowText[] = "x";
  char16_t* wide = wideText;
  char* narrow = narrowText;
  EXPECT_EQ(ZepUtf8ToWcs(&wide, nullptr), -1);
  EXPECT_EQ(ZepMbsToWcs(&wide, nullptr), -1);
  EXPECT_EQ(wide, wideText);
  EXPECT_EQ(ZepWcsToUtf8(&narrow, nullptr), -1);
  EXPECT_EQ(ZepMbsToUtf8(&narrow, nullptr), -1);
  EXPECT_EQ(ZepUtf8ToMbs(&narrow, nullptr), -1);
  EXPECT_EQ(ZepWcsToMbs(&narrow, nullptr), -1);
  EXPECT_EQ(narrow, narrowText);
}

TEST(PlainConversions, ANullOutputReturnsMinusOne) {
  EXPECT_EQ(ZepUtf8ToWcs(nullptr, "a"), -1);
  EXPECT_EQ(ZepWcsToUtf8(nullptr, u"a"), -1);
  EXPECT_EQ(ZepMbsToUtf8(nullptr, "a"), -1);
  EXPECT_EQ(ZepUtf8ToMbs(nullptr, "a"), -1);
  EXPECT_EQ(ZepMbsToWcs(nullptr, "a"), -1);
  EXPECT_EQ(ZepWcsToMbs(nullptr, u"a"), -1);
}

struct CodeCase {
  platform::ErrorCode code;
  int result;
};
const CodeCase kCodes[] = {{122, -2}, {1113, -3}, {87, -1}, {1004, -1}, {5, -1}};

TEST(PlainConversions, APlatformErrorBecomesANegativeCodeWithTheOutputNull) {
  for (const CodeCase& c : kCodes) {
    for (const int call : {1, 2}) {
      SCOPED_TRACE(testing::Message() << c.code << " in call " << call);
      const FaultPlan plan = FaultPlan::FailCall(Operation::kConvertText, call, c.code);
      char16_t text[] = u"x";
      char16_t* out = text;
      EXPECT_EQ(ZepUtf8ToWcs(&out, "a"), c.result);
      EXPECT_EQ(out, nullptr);
    }
    for (const int call : {1, 2}) {
      SCOPED_TRACE(testing::Message() << c.code << " in call " << call);
      const FaultPlan plan = FaultPlan::FailCall(Operation::kConvertText, call, c.code);
      char text[] = "x";
      char* out = text;
      EXPECT_EQ(ZepWcsToUtf8(&out, u"a"), c.result);
      EXPECT_EQ(out, nullptr);
    }
  }
}

template <class Out, class In>
void ExpectNoMemory(int (*convert)(Out**, const In*), const In* in, int allocations) {
  for (int n = 1; n <= allocations; ++n) {
    SCOPED_TRACE(n);
    const FaultPlan plan = FaultPlan::FailCall(Operation::kAllocate, n, platform::ERROR_OUTOFMEMORY);
    Out unchanged{};
    Out* out = &unchanged;
    EXPECT_EQ(convert(&out, in), -2);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(plan.hits(), 1);
  }
}

TEST(PlainConversions, ExhaustedMemoryIsMinusTwoAtEveryAllocation) {
  ExpectNoMemory(ZepUtf8ToWcs, "a", 1);
  ExpectNoMemory(ZepWcsToUtf8, u"a", 1);
  ExpectNoMemory(ZepMbsToUtf8, "a", 2);
  ExpectNoMemory(ZepUtf8ToMbs, "a", 2);
  ExpectNoMemory(ZepMbsToWcs, "a", 3);
  ExpectNoMemory(ZepWcsToMbs, u"a", 3);
}

TEST(PlainConversions, WhatTheRuntimeRefusesIsMinusOne) {
  char text[] = "x";
  char* out = text;
  EXPECT_EQ(ZepMbsToUtf8(&out, "a\xFF"), -1);
  EXPECT_EQ(out, nullptr);
  const SystemPage western(platform::kCodePageWestern);
  out = text;
  EXPECT_EQ(ZepUtf8ToMbs(&out, "\xE4\xB8\xAD"), -1);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(ZepWcsToMbs(&out, u"\u0100"), -1);  // no best fit here
  EXPECT_EQ(out, nullptr);
}

TEST(PlainConversions, EmptyTextIsATextForTheDirectOnesAndAnErrorForUtf8ToMbs) {
  char16_t* wide = nullptr;
  EXPECT_EQ(ZepUtf8ToWcs(&wide, ""), 0);
  ASSERT_NE(wide, nullptr);
  EXPECT_EQ(wide[0], u'\0');
  ZepFreeString(wide);
  char* narrow = nullptr;
  EXPECT_EQ(ZepMbsToUtf8(&narrow, ""), 0);
  ASSERT_NE(narrow, nullptr);
  EXPECT_STREQ(narrow, "");
  ZepFreeString(narrow);
  EXPECT_EQ(ZepUtf8ToMbs(&narrow, ""), -1);
  EXPECT_EQ(narrow, nullptr);
  EXPECT_EQ(ZepMbsToWcs(&wide, ""), 0);
  EXPECT_EQ(wide, nullptr);
  EXPECT_EQ(ZepWcsToMbs(&narrow, u""), 0);
  EXPECT_EQ(narrow, nullptr);
}

TEST(PlainConversions, AsciiIsBelow128) {
  EXPECT_TRUE(ZepIsStringAscii(""));
  EXPECT_TRUE(ZepIsStringAscii("abc\x7F"));
  EXPECT_FALSE(ZepIsStringAscii("abc\x80"));
  EXPECT_FALSE(
      ZepIsStringAscii("\xFF"
                       "abc"));
  EXPECT_TRUE(ZepIsStringAscii(nullptr));
}

TEST(StringDuplicates, CopyTextAndPassNullThrough) {
  char16_t* wide = ZepDuplicateWideString(u"caf\u00E9");
  ASSERT_NE(wide, nullptr);
  EXPECT_EQ(std::u16string(wide), u"caf\u00E9");
  ZepFreeString(wide);
  char* narrow = ZepDuplicateString("abc");
  EXPECT_STREQ(narrow, "abc");
  ZepFreeString(narrow);
  EXPECT_EQ(ZepDuplicateWideString(nullptr), nullptr);
  EXPECT_EQ(ZepDuplicateString(nullptr), nullptr);
  ZepFreeString(nullptr);
  const FaultPlan plan = FaultPlan::FailCall(Operation::kAllocate, 1, platform::ERROR_OUTOFMEMORY);
  EXPECT_EQ(ZepDuplicateWideString(u"abc"), nullptr);
}

}  // namespace
}  // namespace ZepFoundation
