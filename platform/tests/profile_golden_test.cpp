// The private-profile calls against recorded tables: every row, and the exact bytes that the writes leave.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <sys/stat.h>

#include "platform/file.h"
#include "platform/profile.h"
#include "platform/testing/temporary_folder.h"
#include "platform/text.h"
#include "tests/golden.h"

namespace platform {
namespace {

using nlohmann::json;

// Bytes of a file as a recorded text of Latin-1 shows them.
std::string FileBytes(const json& latin1) {
  std::string out;
  for (const char16_t c : WideFromUtf8(latin1.get<std::string>())) out += static_cast<char>(c);
  return out;
}

std::u16string Wide(const json& text) { return WideFromUtf8(text.get<std::string>()); }

std::string Hex(const std::string& bytes) {
  std::string out;
  for (const unsigned char c : bytes) {
    constexpr char kDigits[] = "0123456789abcdef";
    out += kDigits[c >> 4];
    out += kDigits[c & 15];
  }
  return out;
}

// A text, or the null pointer for a recorded null.
struct Text {
  explicit Text(const json& value) {
    if (!value.is_null()) text = Wide(value);
  }
  operator std::u16string_view() const { return text ? std::u16string_view(*text) : std::u16string_view(); }
  [[nodiscard]] const char16_t* pointer() const { return text ? text->c_str() : nullptr; }
  std::optional<std::u16string> text;
};

class golden_profile : public testing::Test {
 protected:
  void SetUp() override {
    m_golden = LoadGolden("profile.json");
    ASSERT_FALSE(m_golden.empty());
    ASSERT_EQ(SetSystemCodePage(kCodePageWestern), ERROR_SUCCESS);
    m_file = m_directory + "/t.ini";
    m_path = WideFromUtf8(m_file);
  }
  void TearDown() override {
    EXPECT_EQ(SetSystemCodePage(kCodePageUtf8), ERROR_SUCCESS);
  }

  const json& Rows(const char* table, std::size_t count) {
    const json& rows = m_golden.at(table);
    EXPECT_EQ(rows.size(), count) << table;
    return rows;
  }
  void Put(const std::string& bytes) const { std::ofstream(m_file, std::ios::binary | std::ios::trunc) << bytes; }
  [[nodiscard]] std::optional<std::string> Get() const {
    std::ifstream in(m_file, std::ios::binary);
    if (!in) return std::nullopt;
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
  }
  std::u16string Ask(std::u16string_view key, std::uint32_t size = 100) const {
    std::u16string buffer(size, u'#');
    std::uint32_t length = 0;
    EXPECT_EQ(GetProfileString(m_path, u"S", key, u"DEF", buffer, length), ERROR_SUCCESS);
    EXPECT_EQ(buffer[length], u'\0');
    return buffer.substr(0, length);
  }

  json m_golden;
  const TemporaryFolder m_temporary{"profile_golden"};
  const std::string m_directory = m_temporary.Path();
  std::string m_file;
  std::u16string m_path;
};

TEST_F(golden_profile, ReadsIntegersAsRecorded) {
  for (const json& row : Rows("int", 49)) {
    Put("[S]\r\nk=" + FileBytes(row["value"]) + "\r\n");
    std::int32_t value = 0;
    EXPECT_EQ(GetProfileInt(m_path, u"S", u"k", 777, value), ERROR_SUCCESS);
    EXPECT_EQ(value, row["result_signed"].get<std::int32_t>()) << row;
    EXPECT_EQ(static_cast<std::uint32_t>(value), row["result_unsigned"].get<std::uint32_t>()) << row;
  }
}

TEST_F(golden_profile, AnswersForMissingIntegersAsRecorded) {
  Put("[S]\r\nk=5\r\nn\r\ne=\r\n");
  for (const json& row : Rows("int_missing", 12)) {
    std::int32_t value = -1;
    EXPECT_EQ(GetProfileInt(m_path, Text(row["section"]), Text(row["key"]), row["default"], value),
              row["last_error"].get<ErrorCode>());
    EXPECT_EQ(value, row["result_signed"].get<std::int32_t>()) << row;
  }
}

TEST_F(golden_profile, ReadsStringValuesAsRecorded) {
  for (const json& row : Rows("string_value", 28)) {
    Put("[S]\r\nk=" + FileBytes(row["value"]) + "\r\n");
    EXPECT_EQ(Ask(u"k"), Wide(row["text"])) << row;
    EXPECT_EQ(Ask(u"k").size(), row["result"].get<std::size_t>()) << row;
  }
}

TEST_F(golden_profile, ReadsLinesAsRecorded) {
  for (const json& row : Rows("string_line", 15)) {
    Put("[S]\r\n" + FileBytes(row["line"]) + "\r\n");
    EXPECT_EQ(Ask(u"k"), Wide(row["text"])) << row;
  }
}

TEST_F(golden_profile, ReadsWholeFilesAsRecorded) {
  int differing = 0;
  for (const json& row : Rows("string_file", 20)) {
    Put(FileBytes(row["file"]));
    // Only files in the system code page and in UTF-16LE are known: behind another mark no header is seen.
    const bool differs = row.contains("wine_differs");
    differing += differs;
    EXPECT_EQ(Ask(u"k"), differs ? u"DEF" : Wide(row["text"])) << row;
  }
  EXPECT_EQ(differing, 2);
}

TEST_F(golden_profile, FillsTheBufferOfAStringAsRecorded) {
  Put("[S]\r\nk=abcdefghij\r\nq=\"abcdefghij\"\r\n");
  for (const json& row : Rows("string_size", 11)) {
    std::u16string buffer(16, u'#');
    const std::size_t size = row["size"];
    std::uint32_t length = 99;
    const std::u16string key = Wide(row["key"]).substr(0, 1);
    EXPECT_EQ(GetProfileString(m_path, u"S", key, u"DEF", std::span(buffer).first(size), length), ERROR_SUCCESS);
    EXPECT_EQ(length, row["result"].get<std::uint32_t>()) << row;
    EXPECT_EQ(buffer, Wide(row["buffer"])) << row;
  }
}

TEST_F(golden_profile, GivesDefaultsAsRecorded) {
  Put("[S]\r\nb=TRUEandmore\r\n");
  for (const json& row : Rows("string_default", 11)) {
    Text fallback(row["default"]);
    std::u16string key = u"missing";
    std::u16string path = m_path;
    // Two rows tell their circumstances behind the default's text.
    const std::u16string text = fallback.text.value_or(u"");
    if (text.starts_with(u"FALSE; value is TRUEandmore")) key = u"b", fallback.text = u"FALSE";
    if (text == u"DEF; file missing") path += u".none", fallback.text = u"DEF";
    std::u16string buffer(16, u'#');
    std::uint32_t length = 99;
    const std::size_t size = row["size"];
    EXPECT_EQ(GetProfileString(path, u"S", key, fallback, std::span(buffer).first(size), length),
              row.value("last_error", 0u))
        << row;
    EXPECT_EQ(length, row["result"].get<std::uint32_t>()) << row;
    EXPECT_EQ(buffer, Wide(row["buffer"])) << row;
  }
}

TEST_F(golden_profile, CutsLongValuesAsRecorded) {
  std::string value;
  for (int i = 0; i < 300; ++i) value += static_cast<char>('a' + i % 26);
  Put("[S]\r\nk=" + value + "\r\n");
  for (const json& row : Rows("string_longvalue", 2)) {
    const std::u16string text = Ask(u"k", row["size"]);
    EXPECT_EQ(text.size(), row["length"].get<std::size_t>());
    EXPECT_EQ(text.substr(text.size() - 5), Wide(row["tail"]));
  }
}

TEST_F(golden_profile, ReadsSectionsAsRecorded) {
  for (const json& row : Rows("section", 13)) {
    std::filesystem::remove(m_file);
    if (row.contains("file")) Put(FileBytes(row["file"]));
    std::u16string buffer(200, u'#');
    ProfileSectionText text;
    EXPECT_EQ(GetProfileSection(m_path, u"S", buffer, text), row["last_error"].get<ErrorCode>()) << row;
    EXPECT_EQ(text.length, row["result"].get<std::uint32_t>()) << row;
    const std::u16string shown = Wide(row["buffer"]);
    EXPECT_EQ(buffer.substr(0, shown.size()), shown) << row;
  }
}

TEST_F(golden_profile, CutsSectionsAsRecorded) {
  Put("[S]\r\na=11\r\nb=22\r\nc=33\r\n");
  int differing = 0;
  for (const json& row : Rows("section_cut", 15)) {
    const std::uint32_t size = row["size"];
    std::u16string buffer(24, u'#');
    ProfileSectionText text;
    EXPECT_EQ(GetProfileSection(m_path, u"S", std::span(buffer).first(size), text), ERROR_SUCCESS);
    if (row.contains("wine_differs")) {  // the length doesn't wrap, and nothing is written behind an empty buffer
      ++differing;
      EXPECT_EQ(text.length, 0u) << row;
      EXPECT_EQ(buffer, std::u16string(size, u'\0') + std::u16string(24 - size, u'#')) << row;
      continue;
    }
    EXPECT_EQ(text.length, row["result"].get<std::uint32_t>()) << row;
    EXPECT_EQ(buffer, Wide(row["buffer"])) << row;
    const std::uint32_t kComplete[] = {0, 0, 0, 0, 0, 0, 1, 1, 1, 1, 1, 2, 2, 2, 2, 2, 3, 3, 3};
    EXPECT_EQ(text.completeLines, kComplete[size]) << row;
  }
  EXPECT_EQ(differing, 2);
}

TEST_F(golden_profile, CutsTheSectionOfARuleArrayAsRecorded) {
  std::string file = "[S]\r\n";
  for (int i = 1; i <= 120; ++i) {
    file += (i <= 10 ? "Item0" : "Item") + std::to_string(i) + "=" + std::to_string(i * 7) + "\r\n";
  }
  Put(file);
  for (const json& row : Rows("section_1024", 1)) {
    std::u16string buffer(1028, u'#');
    ProfileSectionText text;
    EXPECT_EQ(GetProfileSection(m_path, u"S", std::span(buffer).first(row["size"]), text), ERROR_SUCCESS);
    EXPECT_EQ(text.length, row["result"].get<std::uint32_t>());
    EXPECT_EQ(buffer.substr(1010), Wide(row["tail_from_1010"]));
    EXPECT_EQ(text.completeLines + 1, row["strings"].get<std::uint32_t>());
  }
}

// What a marked row is to leave in place of the recorded bytes.
struct Differing {
  const char* name;
  bool refused;
  const char* after;
};
const Differing kDiffering[] = {
    {"delete key, missing file", false, ""},
    {"empty key", true, "[S]\r\na=1\r\nb=2\r\n[T]\r\nc=3\r\n"},
    {"empty section", true, "[S]\r\na=1\r\nb=2\r\n[T]\r\nc=3\r\n"},
    {"into UTF-8 BOM file", false, "\xEF\xBB\xBF[S]\r\na=1\r\n[S]\r\nb=\xE9\r\n"},
};

const Differing* DifferingRow(const json& row) {
  for (const Differing& differing : kDiffering) {
    if (row["case"] == differing.name) return &differing;
  }
  return nullptr;
}

ErrorCode CarryOut(const std::u16string& path, const json& write) {
  const Text section(write[0]);
  const Text key(write[1]);
  const Text value(write[2]);
  if (write[3] == "W") return WriteProfileString(path, section, key, value.pointer());
  const std::string narrowValue = SystemFromWide(value);
  return WriteProfileStringNarrow(SystemFromWide(path), SystemFromWide(section), SystemFromWide(key),
                                  value.text ? narrowValue.c_str() : nullptr);
}

TEST_F(golden_profile, LeavesTheRecordedBytesAfterWrites) {
  std::size_t differing = 0;
  for (const bool inBatch : {false, true}) {
    for (const json& row : Rows("write", 45)) {
      std::filesystem::remove(m_file);
      if (!row["start"].is_null()) Put(FileBytes(row["start"]));
      const Differing* other = row.contains("wine_differs") ? DifferingRow(row) : nullptr;
      ASSERT_EQ(row.contains("wine_differs"), other != nullptr) << row;
      differing += other != nullptr;
      std::optional<ProfileBatch> batch;
      if (inBatch) batch.emplace(m_path, ProfileBatch::kSave);
      for (const json& write : row["writes"]) {
        const ErrorCode rc = CarryOut(m_path, write);
        EXPECT_EQ(rc, other != nullptr && other->refused ? ERROR_INVALID_PARAMETER : ERROR_SUCCESS) << row;
      }
      if (inBatch && (other == nullptr || !other->refused)) {
        EXPECT_EQ(CommitProfiles(), ERROR_SUCCESS) << row;
      }
      const std::string expected = other != nullptr ? Hex(other->after) : row["after_hex"].get<std::string>();
      ASSERT_TRUE(Get().has_value()) << row;
      EXPECT_EQ(Hex(*Get()), expected) << row << (inBatch ? " in a batch" : "");
    }
  }
  EXPECT_EQ(differing, 2 * std::size(kDiffering));
}

TEST_F(golden_profile, RefusesPathsAsRecorded) {
  Put("[S]\r\na=1\r\n");
  ASSERT_EQ(chmod(m_file.c_str(), 0444), 0);
  for (const json& row : Rows("write_errors", 4)) {
    std::u16string path;
    if (row["case"] == "directory missing") path = WideFromUtf8(m_directory + "/none/t.ini");
    if (row["case"] == "path is a directory") path = WideFromUtf8(m_directory);
    if (row["case"] == "read-only file") path = m_path;
    const ErrorCode expected = row.contains("wine_differs") ? ERROR_ACCESS_DENIED : row["last_error"].get<ErrorCode>();
    EXPECT_EQ(WriteProfileString(path, u"S", u"a", u"2"), expected) << row;
  }
  EXPECT_EQ(Get(), "[S]\r\na=1\r\n");
}

TEST_F(golden_profile, SeesChangesBehindItsBackAsRecorded) {
  for (const json& row : Rows("cache", 2)) {
    ASSERT_EQ(WriteProfileString(m_path, u"S", u"k", u"1"), ERROR_SUCCESS);
    if (row["case"] == "file deleted") {
      std::filesystem::remove(m_file);
    } else {
      Put("[S]\r\nk=2222\r\n");
    }
    std::u16string buffer(20, u'#');
    std::uint32_t length = 0;
    (void)GetProfileString(m_path, u"S", u"k", u"gone", buffer, length);
    EXPECT_EQ(buffer.substr(0, length), Wide(row["read"])) << row;
  }
}

}  // namespace
}  // namespace platform
