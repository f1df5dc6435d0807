// Recorded results of wcstombs and mbstowcs against the stand-ins; the runtimes that were asked agree in every row.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>

#include "platform/text.h"
#include "tests/golden.h"

namespace platform {
namespace {

using nlohmann::json;

std::string Hex(const void* data, std::size_t size) {
  std::string hex;
  for (std::size_t i = 0; i < size; ++i) {
    char digits[3];
    std::snprintf(digits, sizeof digits, "%02x", static_cast<const unsigned char*>(data)[i]);
    hex += digits;
  }
  return hex;
}

RuntimeLocale LocaleOf(const json& row) {
  return row.at("asked_locale") == "C" ? RuntimeLocale::kC : RuntimeLocale::kSystem;
}

class golden_mbs : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(SetSystemCodePage(kCodePageWestern), ERROR_SUCCESS); }
  void TearDown() override { ASSERT_EQ(SetSystemCodePage(kCodePageUtf8), ERROR_SUCCESS); }
};

TEST_F(golden_mbs, WcstombsGivesTheRecordedCountsBytesAndErrors) {
  const json golden = LoadGolden("mbs.json");
  int rows = 0;
  for (const json& row : golden.at("wcstombs")) {
    SCOPED_TRACE(row.dump());
    ASSERT_FALSE(row.contains("wine_differs")) << "an unknown mark";
    const std::u16string in = WideFromUtf8(row.at("in").get<std::string>());
    int error = 99;
    EXPECT_EQ(static_cast<long long>(Wcstombs(nullptr, in.c_str(), 0, error, LocaleOf(row))),
              row.at("query").get<long long>());
    EXPECT_EQ(error, row.at("query_errno").get<int>());
    char buffer[8];
    std::memset(buffer, 0xCC, sizeof buffer);
    EXPECT_EQ(static_cast<long long>(Wcstombs(buffer, in.c_str(), sizeof buffer, error, LocaleOf(row))),
              row.at("result").get<long long>());
    EXPECT_EQ(error, row.at("errno").get<int>());
    EXPECT_EQ(Hex(buffer, sizeof buffer), row.at("buffer").get<std::string>());
    ++rows;
  }
  EXPECT_GT(rows, 25);
}

TEST_F(golden_mbs, MbstowcsGivesTheRecordedCountsUnitsAndErrors) {
  const json golden = LoadGolden("mbs.json");
  int rows = 0;
  for (const json& row : golden.at("mbstowcs")) {
    SCOPED_TRACE(row.dump());
    ASSERT_FALSE(row.contains("wine_differs")) << "an unknown mark";
    std::string in;
    for (const char16_t unit : WideFromUtf8(row.at("in").get<std::string>())) in.push_back(static_cast<char>(unit));
    int error = 99;
    EXPECT_EQ(static_cast<long long>(Mbstowcs(nullptr, in.c_str(), 0, error, LocaleOf(row))),
              row.at("query").get<long long>());
    EXPECT_EQ(error, row.at("query_errno").get<int>());
    char16_t buffer[8];
    std::memset(buffer, 0xCC, sizeof buffer);
    EXPECT_EQ(static_cast<long long>(Mbstowcs(buffer, in.c_str(), std::size(buffer), error, LocaleOf(row))),
              row.at("result").get<long long>());
    EXPECT_EQ(error, row.at("errno").get<int>());
    EXPECT_EQ(Hex(buffer, sizeof buffer), row.at("buffer").get<std::string>());
    ++rows;
  }
  EXPECT_GT(rows, 20);
}

}  // namespace
}  // namespace platform
