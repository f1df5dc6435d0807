// Recorded results of MultiByteToWideChar and WideCharToMultiByte against the stand-ins.
//
// Left out: code page 1, since the system never asks for the OEM page. Where a row is marked as differing from the
// documentation the expectation is the documented one, in kDocumented.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <string>

#include "platform/text.h"
#include "tests/golden.h"

namespace platform {
namespace {

using nlohmann::json;

std::string BytesFromHex(const std::string& hex) {
  std::string bytes;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2)
    bytes.push_back(static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
  return bytes;
}

std::string HexFromBytes(std::string_view bytes) {
  std::string hex;
  for (const char c : bytes) {
    char digits[3];
    std::snprintf(digits, sizeof digits, "%02x", static_cast<unsigned char>(c));
    hex += digits;
  }
  return hex;
}

std::u16string UnitsFromHex(const std::string& hex) {
  std::u16string units;
  for (std::size_t i = 0; i + 3 < hex.size(); i += 5)
    units.push_back(static_cast<char16_t>(std::stoi(hex.substr(i, 4), nullptr, 16)));
  return units;
}

std::string HexFromUnits(std::u16string_view units) {
  std::string hex;
  for (const char16_t unit : units) {
    char digits[5];
    std::snprintf(digits, sizeof digits, "%04x", static_cast<unsigned>(unit));
    hex += (hex.empty() ? "" : " ") + std::string(digits);
  }
  return hex;
}

// Text of the file whose characters stand for bytes.
std::string BytesFromLatin1(const std::string& utf8) {
  std::string bytes;
  for (const char16_t unit : WideFromUtf8(utf8)) bytes.push_back(static_cast<char>(unit));
  return bytes;
}

// The recordings were made with code page 1252 as the system's.
class golden_text : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(SetSystemCodePage(kCodePageWestern), ERROR_SUCCESS); }
  void TearDown() override { ASSERT_EQ(SetSystemCodePage(kCodePageUtf8), ERROR_SUCCESS); }
};

constexpr int kBufferUnits = 64;

TEST_F(golden_text, NarrowTextBecomesTheRecordedUnits) {
  const json golden = LoadGolden("text.json");
  int rows = 0;
  for (const json& row : golden.at("to_wide")) {
    SCOPED_TRACE(row.dump());
    std::string expected = row.at("out");
    int count = row.at("result");
    if (row.contains("wine_differs")) {
      ASSERT_EQ(row.at("case"), "truncated 3-byte, 1 of 3") << "an unknown mark";
      expected = "0061 fffd 0062";
      count = 3;
    }
    const std::string in = BytesFromHex(row.at("in"));
    ErrorCode error = 99;
    EXPECT_EQ(
        MultiByteToWideChar(row.at("cp"), row.at("flags"), in.data(), static_cast<int>(in.size()), nullptr, 0, error),
        count);
    EXPECT_EQ(error, row.at("query_error").get<ErrorCode>());
    char16_t out[kBufferUnits];
    ASSERT_EQ(MultiByteToWideChar(row.at("cp"), row.at("flags"), in.data(), static_cast<int>(in.size()), out,
                                  kBufferUnits, error),
              count);
    EXPECT_EQ(error, row.at("last_error").get<ErrorCode>());
    EXPECT_EQ(HexFromUnits({out, static_cast<std::size_t>(count)}), expected);
    ++rows;
  }
  EXPECT_GT(rows, 100);
}

TEST_F(golden_text, WideTextBecomesTheRecordedBytes) {
  const json golden = LoadGolden("text.json");
  int rows = 0;
  for (const json& row : golden.at("to_narrow")) {
    SCOPED_TRACE(row.dump());
    const CodePage codePage = row.at("cp");
    const std::uint32_t flags = row.at("flags");
    int count = row.at("result");
    ErrorCode code = row.at("last_error");
    if (row.contains("wine_differs") || (codePage == kCodePageWestern && flags == WC_ERR_INVALID_CHARS)) {
      // The flag belongs to other code pages by the documentation; a marked row of the errors table says so of 1252.
      ASSERT_EQ(row.at("case"), "ascii") << "an unknown mark";
      count = 0;
      code = ERROR_INVALID_FLAGS;
    }
    const std::u16string in = UnitsFromHex(row.at("in"));
    const int recordedDefault = row.at("used_default");
    ErrorCode error = 99;
    bool used = false;
    bool* const asked = recordedDefault == -1 ? nullptr : &used;
    EXPECT_EQ(
        WideCharToMultiByte(codePage, flags, in.data(), static_cast<int>(in.size()), nullptr, 0, nullptr, asked, error),
        count);
    EXPECT_EQ(error, code);
    char out[kBufferUnits];
    used = false;
    ASSERT_EQ(WideCharToMultiByte(codePage, flags, in.data(), static_cast<int>(in.size()), out, kBufferUnits, nullptr,
                                  asked, error),
              count);
    EXPECT_EQ(error, code);
    if (count != 0) {
      EXPECT_EQ(HexFromBytes({out, static_cast<std::size_t>(count)}), row.at("out").get<std::string>());
      if (asked != nullptr) {
        EXPECT_EQ(used, recordedDefault == 1);
      }
    }
    ++rows;
  }
  EXPECT_GT(rows, 100);
}

struct Documented {
  int result;
  ErrorCode error;
};
// What the documentation says of the marked rows of the errors table, by their case.
const std::map<std::string, Documented> kDocumented = {
    {"pair does not fit", {0, ERROR_INSUFFICIENT_BUFFER}},
    {"MB_COMPOSITE utf-8", {0, ERROR_INVALID_FLAGS}},
    {"PRECOMPOSED|COMPOSITE 1252", {0, ERROR_INVALID_FLAGS}},
    {"default char with utf-8", {0, ERROR_INVALID_PARAMETER}},
    {"used-default flag with utf-8", {0, ERROR_INVALID_PARAMETER}},
    {"WC_ERR_INVALID_CHARS 1252", {0, ERROR_INVALID_FLAGS}},
};

TEST_F(golden_text, WrongParametersAndSizesGiveTheRecordedErrors) {
  const json golden = LoadGolden("text.json");
  int rows = 0;
  for (const json& row : golden.at("errors")) {
    SCOPED_TRACE(row.dump());
    const std::string name = row.at("case");
    if (row.at("cp") == 1) continue;  // the OEM page: never asked for
    int result = row.at("result");
    ErrorCode code = row.at("last_error");
    const bool differs = row.contains("wine_differs");
    if (differs) {
      ASSERT_TRUE(kDocumented.contains(name)) << "an unknown mark";
      result = kDocumented.at(name).result;
      code = kDocumented.at(name).error;
    }
    const bool isNull = row.at("in").is_null();
    const int length = row.at("in_len");
    const int size = row.at("out_size");
    const bool nullOutput = name == "null output with size";
    ErrorCode error = 99;
    if (row.at("call") == "MultiByteToWideChar") {
      const std::string in = isNull ? "" : BytesFromLatin1(row.at("in"));
      std::u16string out(8, 0xCCCC);
      EXPECT_EQ(MultiByteToWideChar(row.at("cp"), row.at("flags"), isNull ? nullptr : in.c_str(), length,
                                    nullOutput ? nullptr : out.data(), size, error),
                result);
      const std::u16string expected = UnitsFromHex(row.at("out"));
      if (!differs) {
        EXPECT_EQ(HexFromUnits(out.substr(0, expected.size())), HexFromUnits(expected));
      }
    } else {
      const std::u16string in = isNull ? u"" : WideFromUtf8(row.at("in").get<std::string>());
      std::string out(8, '\xCC');
      const int recordedDefault = row.at("used_default");
      bool used = false;
      const char star = '*';
      const bool ownDefault = name.find("default char") != std::string::npos;
      const bool asks = recordedDefault != -1;
      EXPECT_EQ(WideCharToMultiByte(row.at("cp"), row.at("flags"), isNull ? nullptr : in.c_str(), length,
                                    nullOutput ? nullptr : out.data(), size, ownDefault ? &star : nullptr,
                                    asks ? &used : nullptr, error),
                result);
      const std::string expected = BytesFromHex(row.at("out"));
      if (!differs) {
        EXPECT_EQ(HexFromBytes(out.substr(0, expected.size())), HexFromBytes(expected));
        if (asks) {
          EXPECT_EQ(used, recordedDefault == 1);
        }
      }
    }
    if (result == 0) {
      EXPECT_EQ(error, code);
    }
    ++rows;
  }
  EXPECT_GT(rows, 25);
}

}  // namespace
}  // namespace platform
