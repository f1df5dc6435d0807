// The recorded rows of the time functions.
#include <gtest/gtest.h>

#include <bit>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "platform/clock.h"
#include "tests/golden.h"

namespace platform {
namespace {

using Json = nlohmann::json;

class golden_time : public ::testing::Test {
 protected:
  void SetUp() override {
    m_file = LoadGolden("time.json");
    ASSERT_FALSE(m_file.empty());
  }

  const Json& Rows(const char* table) {
    static const Json none = Json::array();
    const auto found = m_file.find(table);
    EXPECT_TRUE(found != m_file.end() && !found->empty()) << table << " has no rows";
    return found == m_file.end() ? none : *found;
  }

 private:
  Json m_file;
};

FILETIME FileTimeOf(const Json& text) { return FileTimeFromTicks(std::stoull(text.get<std::string>())); }

SYSTEMTIME SystemTimeOf(const Json& a) {
  return {a[0], a[1], a[2], a[3], a[4], a[5], a[6], a[7]};
}

double DateOf(const Json& row) { return std::bit_cast<double>(std::stoull(row["date_bits"].get<std::string>(), nullptr, 16)); }

constexpr std::uint16_t kFill = 0xCCCC;
constexpr SYSTEMTIME kFilled{kFill, kFill, kFill, kFill, kFill, kFill, kFill, kFill};

void PrintTo(const SYSTEMTIME& st, std::string* text) {
  *text = ::testing::PrintToString(std::vector<int>{st.wYear, st.wMonth, st.wDayOfWeek, st.wDay, st.wHour, st.wMinute,
                                                    st.wSecond, st.wMilliseconds});
}

void ExpectSame(const SYSTEMTIME& actual, const SYSTEMTIME& expected, const Json& row) {
  std::string a, e;
  PrintTo(actual, &a);
  PrintTo(expected, &e);
  EXPECT_EQ(a, e) << row.dump();
}

TEST_F(golden_time, FileTimeToSystemTime) {
  for (const Json& row : Rows("filetime_to_systemtime")) {
    SYSTEMTIME out = kFilled;
    EXPECT_EQ(FileTimeToSystemTime(FileTimeOf(row["filetime"]), out), row["result"] == 1) << row.dump();
    ExpectSame(out, SystemTimeOf(row["systemtime"]), row);
  }
}

TEST_F(golden_time, SystemTimeToFileTime) {
  for (const Json& row : Rows("systemtime_to_filetime")) {
    FILETIME out{0xCCCCCCCC, 0xCCCCCCCC};
    const bool result = SystemTimeToFileTime(SystemTimeOf(row["systemtime"]), out);
    if (row.contains("wine_differs")) {  // each of these marks expects a refusal
      EXPECT_FALSE(result) << row.dump();
      EXPECT_EQ(out, (FILETIME{0xCCCCCCCC, 0xCCCCCCCC})) << row.dump();
    } else {
      EXPECT_EQ(result, row["result"] == 1) << row.dump();
      EXPECT_EQ(std::to_string(TicksFromFileTime(out)), row["filetime"].get<std::string>()) << row.dump();
    }
  }
}

TEST_F(golden_time, VariantTimeToSystemTime) {
  for (const Json& row : Rows("varianttime_to_systemtime")) {
    SYSTEMTIME out = kFilled;
    const double date = DateOf(row);
    const bool result = VariantTimeToSystemTime(date, out);
    if (row.contains("wine_differs")) {  // rounding to the next second must not leave the range
      EXPECT_TRUE(result) << row.dump();
      ExpectSame(out, {9999, 12, 5, 31, 23, 59, 59, 0}, row);
    } else if (date != date) {  // not a number: documented nowhere, so refused and nothing written
      EXPECT_FALSE(result);
      ExpectSame(out, kFilled, row);
    } else {
      EXPECT_EQ(result, row["result"] == 1) << row.dump();
      ExpectSame(out, SystemTimeOf(row["systemtime"]), row);
    }
  }
}

TEST_F(golden_time, SystemTimeToVariantTime) {
  for (const Json& row : Rows("systemtime_to_varianttime")) {
    double out = 4444.25;
    const bool result = SystemTimeToVariantTime(SystemTimeOf(row["systemtime"]), out);
    if (row.contains("wine_differs")) {  // each of these marks expects a refusal: an invalid month
      EXPECT_FALSE(result) << row.dump();
      EXPECT_EQ(out, 4444.25) << row.dump();
    } else {
      EXPECT_EQ(result, row["result"] == 1) << row.dump();
      EXPECT_EQ(std::bit_cast<std::uint64_t>(out), std::bit_cast<std::uint64_t>(DateOf(row))) << row.dump() << " " << out;
    }
  }
}

TEST_F(golden_time, TimeText) {
  int compared = 0;
  for (const Json& row : Rows("time_format")) {
    if (row.contains("size")) continue;  // buffer sizes: our text has no buffer of the caller
    const SYSTEMTIME st = SystemTimeOf(row["systemtime"]);
    if (st.wMilliseconds > 999) continue;  // no milliseconds in our call
    std::string text = "unset";
    EXPECT_EQ(TimeText(st.wHour, st.wMinute, st.wSecond, text), row["result"] != 0) << row.dump();
    EXPECT_EQ(text, row["text"].get<std::string>()) << row.dump();
    EXPECT_EQ(text, row["text_a"].get<std::string>()) << row.dump();
    ++compared;
  }
  EXPECT_GT(compared, 5);
}

TEST_F(golden_time, CompareFileTime) {
  for (const Json& row : Rows("compare_filetime")) {
    EXPECT_EQ(CompareFileTime(FileTimeOf(row["a"]), FileTimeOf(row["b"])), row["result"].get<int>()) << row.dump();
  }
}

}  // namespace
}  // namespace platform
