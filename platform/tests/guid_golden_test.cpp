// Recorded results of CLSIDFromString, StringFromGUID2 and CoCreateGuid against the stand-ins.
//
// Left out: the columns of IIDFromString, which the system never calls.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>

#include "platform/guid.h"
#include "platform/text.h"
#include "tests/golden.h"

namespace platform {
namespace {

using nlohmann::json;

std::string Hex(const GUID& guid) {
  unsigned char bytes[sizeof(GUID)];
  std::memcpy(bytes, &guid, sizeof bytes);
  std::string hex;
  for (const unsigned char byte : bytes) {
    char digits[3];
    std::snprintf(digits, sizeof digits, "%02x", byte);
    hex += digits;
  }
  return hex;
}

TEST(golden_guid, ReadsTheRecordedTextsAndLeavesTheRecordedBytes) {
  const json golden = LoadGolden("guid.json");
  int rows = 0;
  for (const json& row : golden.at("from_string")) {
    SCOPED_TRACE(row.dump());
    ASSERT_FALSE(row.contains("wine_differs")) << "an unknown mark";
    GUID guid{0xCCCCCCCC, 0xCCCC, 0xCCCC, {0xCC, 0xCC, 0xCC, 0xCC, 0xCC, 0xCC, 0xCC, 0xCC}};
    const std::uint32_t result = ClsidFromString(WideFromUtf8(row.at("text").get<std::string>()), guid);
    EXPECT_EQ(result, std::stoul(row.at("clsid_hr").get<std::string>(), nullptr, 16));
    EXPECT_EQ(Hex(guid), row.at("clsid_bytes").get<std::string>());
    ++rows;
  }
  EXPECT_GT(rows, 30);
}

TEST(golden_guid, WritesTheTextOnlyIntoABufferOfThirtyNine) {
  const json golden = LoadGolden("guid.json");
  constexpr GUID kGuid = GuidConstant(u"{1A2B3C4D-5E6F-7A8B-9C0D-E1F2000102AB}");
  int rows = 0;
  for (const json& row : golden.at("to_string")) {
    SCOPED_TRACE(row.dump());
    std::u16string buffer(128, u'#');
    const int result = StringFromGuid2(kGuid, buffer.data(), row.at("size"));
    EXPECT_EQ(result, row.at("result").get<int>());
    const std::u16string expected = WideFromUtf8(row.at("buffer").get<std::string>());
    EXPECT_EQ(buffer.substr(0, expected.size()), expected);
    if (result != 0) {
      EXPECT_EQ(buffer[expected.size()], u'\0');
    }
    EXPECT_EQ(buffer.substr(40), std::u16string(88, u'#'));
    ++rows;
  }
  EXPECT_GT(rows, 6);
}

TEST(golden_guid, MakesRandomIdentifiersOfVersionFour) {
  const json golden = LoadGolden("guid.json");
  int rows = 0;
  for (const json& row : golden.at("create")) {
    SCOPED_TRACE(row.dump());
    GUID guid;
    EXPECT_EQ(CreateGuid(guid), std::stoul(row.at("hr").get<std::string>(), nullptr, 16));
    EXPECT_EQ(guid.Data3 >> 12, row.at("version_nibble").get<int>());
    EXPECT_EQ(guid.Data4[0] >> 6, row.at("variant_bits").get<int>());
    ++rows;
  }
  EXPECT_GE(rows, 5);
}

}  // namespace
}  // namespace platform
