#include <gtest/gtest.h>

#include <limits>
#include <sstream>
#include <tuple>

#include "foundation/include/zfcbytes.h"
#include "foundation/include/zfctimespan.h"

namespace ZepFoundation {
namespace {

constexpr std::uint64_t kDay = 86400000;

std::string Text(const WTimeSpan& span) {
  char text[64];
  span.Print(text);
  return text;
}

TEST(TimeSpan, IsAPositiveZeroWhenNew) {
  EXPECT_EQ(WTimeSpan().GetMagnitude(), 0u);
  EXPECT_FALSE(WTimeSpan().IsNegative());
}

TEST(TimeSpan, SplitsItsMagnitude) {
  const WTimeSpan span(3 * kDay + 4 * 3600000 + 5 * 60000 + 6 * 1000 + 7, true);
  int d = 0, h = 0, m = 0, s = 0, ms = 0;
  span.GetSpan(&d, &h, &m, &s, &ms);
  EXPECT_EQ(std::tie(d, h, m, s, ms), std::make_tuple(3, 4, 5, 6, 7));
  EXPECT_EQ(span.GetDayPortion(), 3);
  EXPECT_EQ(span.GetHourPortion(), 4);
  EXPECT_EQ(span.GetMinutePortion(), 5);
  EXPECT_EQ(span.GetSecondPortion(), 6);
  EXPECT_EQ(span.GetMilliSecondPortion(), 7);
  span.GetSpan(nullptr, nullptr, nullptr, nullptr, nullptr);
}

TEST(TimeSpan, CountsYearsOf365AndAQuarterDays) {
  EXPECT_EQ(WTimeSpan(31557600000 - 1, false).GetTotalYears(), 0u);
  EXPECT_EQ(WTimeSpan(31557600000, false).GetTotalYears(), 1u);
  EXPECT_EQ(WTimeSpan(31557600000 * 400, true).GetTotalYears(), 400u);
}

struct SumCase {
  std::int64_t a, b;
  std::uint64_t magnitude;
  bool negative;
};
const SumCase kSums[] = {
    {5, 7, 12, false}, {-5, -7, 12, true}, {7, -5, 2, false}, {5, -7, 2, true}, {-7, 5, 2, true},
    {-5, 7, 2, false}, {5, -5, 0, false},  {-5, 5, 0, true},  {5, 0, 5, false},
};
WTimeSpan Signed(std::int64_t v) { return {static_cast<std::uint64_t>(v < 0 ? -v : v), v < 0}; }
TEST(TimeSpan, AddsAndSubtractsBySigns) {
  for (const SumCase& c : kSums) {
    const WTimeSpan sum = Signed(c.a) + Signed(c.b);
    EXPECT_EQ(sum.GetMagnitude(), c.magnitude) << c.a << " " << c.b;
    EXPECT_EQ(sum.IsNegative(), c.negative) << c.a << " " << c.b;
    if (c.b == 0) continue;  // the opposite of zero has another sign
    const WTimeSpan difference = Signed(c.a) - Signed(-c.b);
    EXPECT_EQ(difference.GetMagnitude(), c.magnitude) << c.a << " " << c.b;
    EXPECT_EQ(difference.IsNegative(), c.negative) << c.a << " " << c.b;
    WTimeSpan stepped = Signed(c.a);
    stepped.IncrementMilliSeconds(static_cast<int>(c.b));
    EXPECT_EQ(stepped.GetMagnitude(), c.magnitude) << c.a << " " << c.b;
    EXPECT_EQ(stepped.IsNegative(), c.negative) << c.a << " " << c.b;
  }
}

TEST(TimeSpan, KeepsItsSignAtZero) {
  WTimeSpan span(5, true);
  span += WTimeSpan(5, false);
  EXPECT_EQ(span.GetMagnitude(), 0u);
  EXPECT_TRUE(span.IsNegative());
  span.IncrementMilliSeconds(0);
  EXPECT_TRUE(span.IsNegative());
}

TEST(TimeSpan, TakesTheSmallestIncrement) {
  WTimeSpan span;
  span.IncrementMilliSeconds(std::numeric_limits<int>::min());
  EXPECT_EQ(span.GetMagnitude(), 2147483648u);
  EXPECT_TRUE(span.IsNegative());
}

TEST(TimeSpan, OrdersBySignAndThenByMagnitude) {
  EXPECT_TRUE(Signed(-1) < Signed(1));
  EXPECT_FALSE(Signed(1) < Signed(-1));
  EXPECT_TRUE(Signed(1) < Signed(2));
  EXPECT_FALSE(Signed(2) < Signed(2));
  EXPECT_TRUE(Signed(-2) < Signed(-1));
  EXPECT_FALSE(Signed(-1) < Signed(-2));
  EXPECT_TRUE(WTimeSpan(0, true) < WTimeSpan(0, false));
}

TEST(TimeSpan, PrintsWithoutPaddingAsText) {
  EXPECT_EQ(Text(WTimeSpan(kDay + 3600000 + 2 * 60000 + 3004, false)), "+1:1:2:3.4");
  EXPECT_EQ(Text(WTimeSpan(0, true)), "-0:0:0:0.0");
}

TEST(TimeSpan, PrintsPaddedToAStreamAndRestoresTheFill) {
  std::ostringstream out;
  out.fill('*');
  WTimeSpan(kDay + 3600000 + 2 * 60000 + 3004, true).Print(out);
  EXPECT_EQ(out.str(), "-1:1:02:03.004");
  EXPECT_EQ(out.fill(), '*');
}

TEST(TimeSpan, ReadsTheFormItPrints) {
  WTimeSpan span;
  std::istringstream in("-1:1:02:03.004");
  span.Read(in);
  EXPECT_EQ(Text(span), "-1:1:2:3.4");
  std::istringstream broken("+1:x");
  span.Read(broken);
  EXPECT_EQ(Text(span), "-1:1:2:3.4");
}

TEST(TimeSpan, IsAMagnitudeAndAByteInABinaryStream) {
  bostrstream out(CByteOrder::kBigEndian);
  WTimeSpan(0x0102030405060708, true).BinaryOut(out);
  EXPECT_EQ(out.view(), std::string("\1\2\3\4\5\6\7\x08\1"));
  bistrstream in(out.view().data(), 9, CByteOrder::kBigEndian);
  WTimeSpan span;
  span.BinaryIn(in);
  EXPECT_EQ(span.GetMagnitude(), 0x0102030405060708u);
  EXPECT_TRUE(span.IsNegative());
  bistrstream cut(out.view().data(), 8, CByteOrder::kBigEndian);
  WTimeSpan untouched(7, false);
  untouched.BinaryIn(cut);
  EXPECT_TRUE(cut.fail());
  EXPECT_EQ(untouched.GetMagnitude(), 7u);
}

}  // namespace
}  // namespace ZepFoundation
