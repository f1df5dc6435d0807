#include "platform/text.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "platform/testing/fault.h"

namespace platform {
namespace {

class SystemPage {
 public:
  explicit SystemPage(CodePage page) { EXPECT_EQ(SetSystemCodePage(page), ERROR_SUCCESS); }
  ~SystemPage() { EXPECT_EQ(SetSystemCodePage(kCodePageUtf8), ERROR_SUCCESS); }
};

TEST(Text, SystemCodePageIsUtf8UnlessSet) {
  EXPECT_EQ(SystemCodePage(), kCodePageUtf8);
  EXPECT_EQ(SetSystemCodePage(437), ERROR_INVALID_PARAMETER);
  EXPECT_EQ(SystemCodePage(), kCodePageUtf8);
  const SystemPage western(kCodePageWestern);
  EXPECT_EQ(WideFromSystem("\x80"), u"\u20AC");
  EXPECT_EQ(SystemFromWide(u"\u20AC\u0100\u4E2D"),
            "\x80"
            "A?");
}

TEST(Text, SystemTextIsUtf8ByDefault) {
  EXPECT_EQ(WideFromSystem("\xE2\x82\xAC"), u"\u20AC");
  EXPECT_EQ(SystemFromWide(u"\u20AC"), "\xE2\x82\xAC");
}

struct Utf8Case {
  int line;
  std::string_view bytes;
  std::u16string_view units;
  bool valid;
};
const Utf8Case kUtf8Cases[] = {
    {__LINE__, "", u"", true},
    {__LINE__, {"a\0b", 3}, {u"a\0b", 3}, true},
    {__LINE__, "\x7F", u"\x7F", true},
    {__LINE__, "\xC2\x80", u"\u0080", true},
    {__LINE__, "\xDF\xBF", u"\u07FF", true},
    {__LINE__, "\xE0\xA0\x80", u"\u0800", true},
    {__LINE__, "\xED\x9F\xBF", u"\uD7FF", true},
    {__LINE__, "\xEE\x80\x80", u"\uE000", true},
    {__LINE__, "\xEF\xBF\xBF", u"\uFFFF", true},
    {__LINE__, "\xF0\x90\x80\x80", u"\U00010000", true},
    {__LINE__, "\xF4\x8F\xBF\xBF", u"\U0010FFFF", true},
    {__LINE__, "\xF4\x90\x80\x80", u"\uFFFD\uFFFD\uFFFD", false},  // above the last character
    {__LINE__, "\xE0\x9F\xBF", u"\uFFFD\uFFFD", false},            // overlong
    {__LINE__, "\xC3", u"\uFFFD", false},
    {__LINE__, "\xC3\xC3\xA9", u"\uFFFD\u00E9", false},
    {__LINE__,
     "\xE2"
     "b",
     u"\uFFFDb", false},  // the letter behind a cut sequence stays
    {__LINE__, "\xF0\x9F\x98", u"\uFFFD", false},
};

TEST(Text, ReadsUtf8AndReplacesWhatIsIllFormed) {
  for (const Utf8Case& c : kUtf8Cases) {
    SCOPED_TRACE(c.line);
    EXPECT_EQ(WideFromUtf8(c.bytes), c.units);
    EXPECT_EQ(IsValidUtf8(c.bytes), c.valid);
    if (c.valid) {
      EXPECT_EQ(Utf8FromWide(c.units), c.bytes);
    }
  }
}

TEST(Text, LoneSurrogatesBecomeTheReplacementCharacter) {
  const char16_t units[] = {u'a', 0xD83D, u'b', 0xDE00, 0xD83D};
  EXPECT_EQ(Utf8FromWide({units, 5}),
            "a\xEF\xBF\xBD"
            "b\xEF\xBF\xBD\xEF\xBF\xBD");
}

TEST(Text, EveryCharacterSurvivesTheWayThroughUtf8AndUtf7) {
  ErrorCode error = ERROR_SUCCESS;
  for (char32_t c = 0; c < 0x110000; c += c < 0x3000 ? 1 : 61) {
    if (c >= 0xD800 && c < 0xE000) continue;
    std::u16string wide;
    if (c >= 0x10000) wide.push_back(static_cast<char16_t>(0xD7C0 + (c >> 10)));
    wide.push_back(static_cast<char16_t>(c >= 0x10000 ? 0xDC00 | (c & 0x3FF) : c));
    const std::string utf8 = Utf8FromWide(wide);
    ASSERT_TRUE(IsValidUtf8(utf8)) << std::hex << static_cast<unsigned>(c);
    ASSERT_EQ(WideFromUtf8(utf8), wide) << std::hex << static_cast<unsigned>(c);
    char seven[32];
    const int bytes = WideCharToMultiByte(kCodePageUtf7, 0, wide.data(), static_cast<int>(wide.size()), seven,
                                          sizeof seven, nullptr, nullptr, error);
    char16_t back[8];
    const int units = MultiByteToWideChar(kCodePageUtf7, 0, seven, bytes, back, 8, error);
    ASSERT_EQ(std::u16string(back, static_cast<std::size_t>(units)), wide) << std::hex << static_cast<unsigned>(c);
  }
}

TEST(Text, EveryByteOfTheWesternPageSurvivesTheWayThroughWideText) {
  const SystemPage western(kCodePageWestern);
  for (int byte = 0; byte < 256; ++byte) {
    const std::string narrow(1, static_cast<char>(byte));
    EXPECT_EQ(SystemFromWide(WideFromSystem(narrow)), narrow) << byte;
  }
}

TEST(Text, RandomBytesAndUnitsNeverLeaveTheBuffers) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE(testing::Message() << "seed " << seed);
  std::mt19937 random(seed);
  const CodePage pages[] = {kCodePageSystem, kCodePageWestern, kCodePageUtf7, kCodePageUtf8};
  for (int round = 0; round < 4000; ++round) {
    const std::size_t size = random() % 24 + 1;
    std::vector<char> bytes(size);
    std::vector<char16_t> units(size);
    for (char& b : bytes) b = static_cast<char>(random() % 3 == 0 ? "+-A/"[random() % 4] : random());
    for (char16_t& u : units) u = static_cast<char16_t>(random() % 3 == 0 ? 0xD800 + random() % 0x800 : random());
    const CodePage page = pages[round % 4];
    ErrorCode error = ERROR_SUCCESS;
    const int needUnits = MultiByteToWideChar(page, 0, bytes.data(), static_cast<int>(size), nullptr, 0, error);
    const int needBytes =
        WideCharToMultiByte(page, 0, units.data(), static_cast<int>(size), nullptr, 0, nullptr, nullptr, error);
    ASSERT_GT(needBytes, 0);
    for (int short_ = 0; short_ < 3; ++short_) {
      if (needUnits > short_) {
        std::vector<char16_t> out(static_cast<std::size_t>(needUnits - short_));
        const int got =
            MultiByteToWideChar(page, 0, bytes.data(), static_cast<int>(size), out.data(), needUnits - short_, error);
        EXPECT_EQ(got, short_ == 0 ? needUnits : 0);
        EXPECT_EQ(error, short_ == 0 ? ERROR_SUCCESS : ERROR_INSUFFICIENT_BUFFER);
      }
      if (needBytes > short_) {
        std::vector<char> out(static_cast<std::size_t>(needBytes - short_));
        const int got = WideCharToMultiByte(page, 0, units.data(), static_cast<int>(size), out.data(),
                                            needBytes - short_, nullptr, nullptr, error);
        EXPECT_EQ(got, short_ == 0 ? needBytes : 0);
        EXPECT_EQ(error, short_ == 0 ? ERROR_SUCCESS : ERROR_INSUFFICIENT_BUFFER);
      }
    }
  }
}

TEST(Text, UsedDefaultUnderUtf8AsTheSystemPageMeansALoneSurrogate) {
  char out[16];
  bool used = true;
  ErrorCode error = 99;
  EXPECT_EQ(WideCharToMultiByte(kCodePageSystem, 0, u"\u4E2D", -1, out, sizeof out, nullptr, &used, error), 4);
  EXPECT_FALSE(used);
  const char16_t lone[] = {0xD83D, 0};
  EXPECT_EQ(WideCharToMultiByte(kCodePageSystem, 0, lone, -1, out, sizeof out, nullptr, &used, error), 4);
  EXPECT_TRUE(used);
  EXPECT_STREQ(out, "\xEF\xBF\xBD");
  EXPECT_EQ(error, ERROR_SUCCESS);
}

TEST(Text, UsedDefaultStaysUntouchedByAFailure) {
  char out[1];
  bool used = true;
  ErrorCode error = 0;
  EXPECT_EQ(WideCharToMultiByte(kCodePageWestern, 0, u"ab", 2, out, 1, nullptr, &used, error), 0);
  EXPECT_EQ(error, ERROR_INSUFFICIENT_BUFFER);
  EXPECT_TRUE(used);
}

TEST(Text, ConversionsFailAtTheFaultSeamButTheConveniencesDoNotAsk) {
  FaultPlan plan = FaultPlan::FailCall(Operation::kConvertText, 1, ERROR_NO_UNICODE_TRANSLATION, kFromThenOn);
  ErrorCode error = 0;
  EXPECT_EQ(MultiByteToWideChar(kCodePageUtf8, 0, "a", 1, nullptr, 0, error), 0);
  EXPECT_EQ(error, ERROR_NO_UNICODE_TRANSLATION);
  EXPECT_EQ(WideCharToMultiByte(kCodePageUtf8, 0, u"a", 1, nullptr, 0, nullptr, nullptr, error), 0);
  EXPECT_EQ(error, ERROR_NO_UNICODE_TRANSLATION);
  EXPECT_EQ(WideFromUtf8("a"), u"a");
  EXPECT_EQ(SystemFromWide(u"a"), "a");
  EXPECT_EQ(plan.hits(), 2);
}

TEST(Text, MultibyteFunctionsWorkInTheSystemPage) {
  int error = 99;
  char bytes[8];
  EXPECT_EQ(Wcstombs(bytes, u"\u20AC", sizeof bytes, error), 3u);
  EXPECT_STREQ(bytes, "\xE2\x82\xAC");
  EXPECT_EQ(Wcstombs(nullptr, u"a\U0001F600", 0, error), 5u);
  EXPECT_EQ(Wcstombs(bytes, u"a\U0001F600", 4, error), 1u);  // whole characters only
  char16_t units[8];
  EXPECT_EQ(Mbstowcs(units, "\xF0\x9F\x98\x80", 8, error), 2u);
  EXPECT_EQ(std::u16string(units), u"\U0001F600");
  EXPECT_EQ(error, 0);
  EXPECT_EQ(Mbstowcs(units, "a\x80", 8, error), kRuntimeFailure);
  EXPECT_EQ(error, kRuntimeIllegalSequence);
  const char16_t lone[] = {0xDE00, 0};
  EXPECT_EQ(Wcstombs(nullptr, lone, 0, error), kRuntimeFailure);
  EXPECT_EQ(error, kRuntimeIllegalSequence);
}

struct CaseCase {
  int line;
  char16_t upper;
  char16_t lower;
};
const CaseCase kCasePairs[] = {
    {__LINE__, u'A', u'a'},           {__LINE__, u'Z', u'z'},           {__LINE__, u'\u00C9', u'\u00E9'},
    {__LINE__, u'\u0100', u'\u0101'}, {__LINE__, u'\u0178', u'\u00FF'}, {__LINE__, u'\u0416', u'\u0436'},
    {__LINE__, u'\u03A3', u'\u03C3'}, {__LINE__, u'\uFF21', u'\uFF41'},
};

TEST(Text, CaseMappingIsTheSimpleOneOfUnicode) {
  for (const CaseCase& c : kCasePairs) {
    SCOPED_TRACE(c.line);
    EXPECT_EQ(ToUpperSimple(c.lower), c.upper);
    EXPECT_EQ(ToUpperSimple(c.upper), c.upper);
    if (c.upper != c.lower) {
      EXPECT_EQ(ToLowerSimple(c.upper), c.lower);
    }
  }
  for (const char16_t same : {u'1', u'[', u'`', u'{', u'@', u'\u00DF', u'\u4E2D', char16_t{0xD83D}, char16_t{0xFFFF}}) {
    EXPECT_EQ(ToUpperSimple(same), same);
    EXPECT_EQ(ToLowerSimple(same), same);
  }
}

TEST(Text, CaseMappingIsStableOverAllUnits) {
  for (int unit = 0; unit < 0x10000; ++unit) {
    const auto u = static_cast<char16_t>(unit);
    ASSERT_EQ(ToUpperSimple(ToUpperSimple(u)), ToUpperSimple(u)) << std::hex << unit;
    ASSERT_EQ(ToLowerSimple(ToLowerSimple(u)), ToLowerSimple(u)) << std::hex << unit;
  }
}

}  // namespace
}  // namespace platform
