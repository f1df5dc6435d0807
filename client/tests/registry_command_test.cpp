#include "client/cli_registry.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <span>
#include <sstream>
#include <string>

#include "platform/registry.h"
#include "platform/testing/fault.h"
#include "platform/testing/temporary_folder.h"

namespace qx {
namespace {

using nlohmann::json;
using platform::Hive;
using ::testing::HasSubstr;
using ::testing::StartsWith;

class RegCommand : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(platform::OpenRegistryStore(m_folder / "registry.db"), 0u);
  }
  void TearDown() override {
    EXPECT_EQ(platform::CloseRegistryStore(), 0u);
  }

  int List(std::string_view key, bool asJson = true) {
    Clear();
    return RegList(key, asJson, m_out, m_err);
  }
  int Set(std::string_view key, std::string_view name, std::string_view data, std::string_view type = "REG_SZ") {
    Clear();
    return RegSet(key, name, data, type, m_err);
  }
  int Delete(std::string_view key, const std::optional<std::string>& name = std::nullopt) {
    Clear();
    return RegDelete(key, name, m_err);
  }
  void Clear() {
    m_out.str("");
    m_err.str("");
  }
  // The one value of HKCU\Software\V, as --json shows it.
  json OnlyValue() {
    EXPECT_EQ(List("HKCU\\Software\\V"), 0) << m_err.str();
    const json all = json::parse(m_out.str());
    EXPECT_EQ(all["values"].size(), 1u);
    return all["values"].at(0);
  }
  static void SetRaw(std::u16string_view name, std::uint32_t type, const std::string& bytes) {
    platform::RegistryKey key;
    ASSERT_EQ(platform::CreateKey(Hive::kCurrentUser, u"Software\\V", platform::KEY_ALL_ACCESS, key), 0u);
    ASSERT_EQ(platform::SetRawValue(key, name, type, std::as_bytes(std::span(bytes))), 0u);
    ASSERT_EQ(key.Close(), 0u);
  }

  const platform::TemporaryFolder m_temporary{"qxcmd"};
  const std::filesystem::path m_folder = m_temporary.Path();
  std::ostringstream m_out;
  std::ostringstream m_err;
};

TEST_F(RegCommand, ListsKeysAsBareNamesAndValuesWithTheirTypes) {
  ASSERT_EQ(Set("HKLM\\SOFTWARE\\A\\Sub", "x", "y"), 0);
  ASSERT_EQ(Set("hklm\\software\\a", "Text", "caf\xC3\xA9"), 0);
  ASSERT_EQ(Set("HKLM\\SOFTWARE\\A", "Number", "0x10", "reg_dword"), 0);
  ASSERT_EQ(List("HKEY_LOCAL_MACHINE\\SOFTWARE\\A"), 0);
  EXPECT_EQ(m_out.str(),
            "{\"keys\":[\"Sub\"],\"values\":[{\"name\":\"Number\",\"type\":\"REG_DWORD\",\"data\":16},"
            "{\"name\":\"Text\",\"type\":\"REG_SZ\",\"data\":\"caf\xC3\xA9\"}]}\n");
  EXPECT_EQ(m_err.str(), "");
}

// The service may delete a schedule's key while the keys are listed, and set values.
TEST_F(RegCommand, ListsWhatStaysWhileAnotherProcessDeletes) {
  const std::string database = m_folder / "registry.db";
  for (const platform::Operation when : {platform::Operation::kRegEnumKey, platform::Operation::kRegEnumValue}) {
    for (const char* name : {"A", "B", "C", "D"}) {
      ASSERT_EQ(Set("HKCU\\Software\\List\\" + std::string(name), "", "x"), 0);
      ASSERT_EQ(Set("HKCU\\Software\\List", name, "x"), 0);
    }
    int asked = 0;
    const platform::FaultPlan plan =
        platform::FaultPlan::Ask([&](int, platform::Operation operation, std::string_view) {
          if (operation == when && ++asked == 2) {
            sqlite3* db = nullptr;
            EXPECT_EQ(sqlite3_open(database.c_str(), &db), SQLITE_OK);
            EXPECT_EQ(sqlite3_exec(db, "DELETE FROM keys WHERE fold=x'0041'; DELETE FROM vals WHERE fold=x'0041'",
                                   nullptr, nullptr, nullptr),
                      SQLITE_OK);
            sqlite3_close(db);
          }
          return platform::ErrorCode{platform::ERROR_SUCCESS};
        });
    ASSERT_EQ(List("HKCU\\Software\\List"), 0);
    const json listing = json::parse(m_out.str());
    std::set<std::string> keys;
    for (const json& key : listing["keys"]) keys.insert(key);
    std::set<std::string> values;
    for (const json& value : listing["values"]) values.insert(value["name"]);
    for (const char* name : {"B", "C", "D"}) {
      EXPECT_TRUE(keys.contains(name)) << name;
      EXPECT_TRUE(values.contains(name)) << name;
    }
  }
}

TEST_F(RegCommand, ReachesTheClassesRootTheSameWay) {
  ASSERT_EQ(Set("HKCR\\AppID\\{1}", "", "default"), 0);
  ASSERT_EQ(List("HKCR\\AppID"), 0);
  EXPECT_EQ(m_out.str(), "{\"keys\":[\"{1}\"],\"values\":[]}\n");
}

TEST_F(RegCommand, SetsEveryTypeAndShowsItAgain) {
  struct Case {
    int line;
    const char* type;
    const char* data;
    json shown;
  };
  const Case cases[] = {
      {__LINE__, "REG_SZ", "", ""},
      {__LINE__, "REG_SZ", "line\nbreak", "line\nbreak"},
      {__LINE__, "REG_SZ", "\xF0\x9F\x98\x80", "\xF0\x9F\x98\x80"},
      {__LINE__, "REG_EXPAND_SZ", "%A%\\b", "%A%\\b"},
      {__LINE__, "REG_MULTI_SZ", "one\ntwo", json::array({"one", "two"})},
      {__LINE__, "REG_MULTI_SZ", "one\n", json::array({"one"})},
      {__LINE__, "REG_MULTI_SZ", "", json::array()},
      {__LINE__, "REG_DWORD", "4294967295", 4294967295u},
      {__LINE__, "REG_DWORD", "0", 0},
      {__LINE__, "REG_DWORD", "0XfF", 255},
      {__LINE__, "REG_BINARY", "00fF7a", "00ff7a"},
      {__LINE__, "REG_BINARY", "", ""},
  };
  for (const Case& c : cases) {
    ASSERT_EQ(Set("HKCU\\Software\\V", "v", c.data, c.type), 0) << c.line << m_err.str();
    const json expected = {{"name", "v"}, {"type", c.type}, {"data", c.shown}};
    EXPECT_EQ(OnlyValue(), expected) << c.line;
  }
}

TEST_F(RegCommand, GetsOneValueByItsDataAlone) {
  struct Case {
    const char* type;
    const char* data;
    const char* shown;
    const char* json;
  };
  const Case cases[] = {
      {"REG_SZ", "a\\b \xC3\xA9", "a\\b \xC3\xA9\n", R"({"name":"v","type":"REG_SZ","data":"a\\b \u00e9"})"},
      {"REG_DWORD", "0x10", "16\n", R"({"name":"v","type":"REG_DWORD","data":16})"},
      {"REG_BINARY", "00fF", "00ff\n", R"({"name":"v","type":"REG_BINARY","data":"00ff"})"},
      {"REG_MULTI_SZ", "one\ntwo", "one\ntwo\n", R"({"name":"v","type":"REG_MULTI_SZ","data":["one","two"]})"},
  };
  for (const Case& c : cases) {
    ASSERT_EQ(Set("HKCU\\Software\\V", "v", c.data, c.type), 0) << c.type;
    Clear();
    EXPECT_EQ(RegGet("HKCU\\Software\\V", "V", false, m_out, m_err), 0) << c.type;
    EXPECT_EQ(m_out.str(), c.shown);
    Clear();
    EXPECT_EQ(RegGet("HKCU\\Software\\V", "v", true, m_out, m_err), 0) << c.type;
    json expected = json::parse(c.json);
    json shown = json::parse(m_out.str());
    EXPECT_EQ(shown["type"], expected["type"]);
    EXPECT_EQ(shown["data"], expected["data"]);
  }
  SetRaw(u"v", platform::REG_SZ, "a");
  Clear();
  EXPECT_EQ(RegGet("HKCU\\Software\\V", "v", false, m_out, m_err), 0);
  EXPECT_THAT(m_err.str(), HasSubstr("damaged: its bytes are 61"));
}

TEST_F(RegCommand, FailsToGetWhatIsMissing) {
  ASSERT_EQ(Set("HKCU\\Software\\V", "v", "x"), 0);
  Clear();
  EXPECT_EQ(RegGet("HKCU\\Software\\V", "w", false, m_out, m_err), 3);
  EXPECT_EQ(m_out.str(), "");
  EXPECT_THAT(m_err.str(), HasSubstr("no such key or value"));
  EXPECT_EQ(RegGet("HKCU\\Software\\None", "v", false, m_out, m_err), 3);
}

TEST_F(RegCommand, RefusesBadDataAndSaysWhatIsAllowed) {
  struct Case {
    int line;
    const char* key;
    const char* type;
    const char* data;
    const char* message;
  };
  const std::string longName = "HKCU\\Software\\" + std::string(256, 'n');
  const Case cases[] = {
      {__LINE__, "HKCU\\Software\\N", "REG_DWORD", "4294967296", "0 to 4294967295"},
      {__LINE__, "HKCU\\Software\\N", "REG_DWORD", "-1", "0 to 4294967295"},
      {__LINE__, "HKCU\\Software\\N", "REG_DWORD", "", "0 to 4294967295"},
      {__LINE__, "HKCU\\Software\\N", "REG_DWORD", "0x", "0 to 4294967295"},
      {__LINE__, "HKCU\\Software\\N", "REG_DWORD", "0x-1", "0 to 4294967295"},
      {__LINE__, "HKCU\\Software\\N", "REG_DWORD", "12 ", "0 to 4294967295"},
      {__LINE__, "HKCU\\Software\\N", "REG_BINARY", "0", "pairs of hexadecimal digits"},
      {__LINE__, "HKCU\\Software\\N", "REG_BINARY", "0g", "pairs of hexadecimal digits"},
      {__LINE__, "HKCU\\Software\\N", "REG_BINARY", "-1", "pairs of hexadecimal digits"},
      {__LINE__, "HKCU\\Software\\N", "REG_MULTI_SZ", "a\n\nb", "one text a line"},
      {__LINE__, "HKCU\\Software\\N", "REG_SZ", "\xFF", "UTF-8"},
      {__LINE__, "HKCU\\Software\\N", "REG_SZ", "\xC3", "UTF-8"},
      {__LINE__, "HKCU\\Software\\N", "REG_SZ", "\xC0\x80", "UTF-8"},
      {__LINE__, "HKCU\\Software\\N", "REG_SZ", "\xED\xA0\x80", "UTF-8"},
      {__LINE__, "HKCU\\Software\\N", "REG_QWORD", "1", "REG_SZ, REG_EXPAND_SZ, REG_MULTI_SZ, REG_DWORD or REG_BINARY"},
      {__LINE__, "SOFTWARE\\N", "REG_SZ", "x", "HKLM, HKCR, HKCU, HKU or HKCC"},
      {__LINE__, "HKCU\\\\Software\\N", "REG_SZ", "x", "backslash in front"},
      {__LINE__, "HKLM\\N", "REG_SZ", "x", "directly below HKLM"},
      {__LINE__, longName.c_str(), "REG_SZ", "x", "1 to 255 characters"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(Set(c.key, "v", c.data, c.type), 2) << c.line;
    EXPECT_THAT(m_err.str(), StartsWith("qxsched: ")) << c.line;
    EXPECT_THAT(m_err.str(), HasSubstr(c.message)) << c.line;
    EXPECT_EQ(List("HKCU\\Software\\N"), 3) << c.line << ": nothing was made";
  }
}

TEST_F(RegCommand, ShowsTheBytesOfDamagedValues) {
  using namespace std::string_literals;
  struct Case {
    int line;
    std::uint32_t type;
    std::string bytes;
    const char* typeName;
    json data;
    const char* raw;  // null: shown whole
  };
  const Case cases[] = {
      {__LINE__, platform::REG_SZ, "a\0b\0\0\0"s, "REG_SZ", "ab", nullptr},
      {__LINE__, platform::REG_SZ, "a\0b\0"s, "REG_SZ", "ab", "61006200"},
      {__LINE__, platform::REG_SZ, "a\0\0\0b"s, "REG_SZ", "a", "6100000062"},
      {__LINE__, platform::REG_SZ, ""s, "REG_SZ", "", ""},
      {__LINE__, platform::REG_SZ, "a\0\0\0b\0\0\0"s, "REG_SZ", "a", "6100000062000000"},
      {__LINE__, platform::REG_EXPAND_SZ, "\0\xD8\0\0"s, "REG_EXPAND_SZ", "\xEF\xBF\xBD", "00d80000"},
      {__LINE__, platform::REG_MULTI_SZ, "a\0\0\0"s, "REG_MULTI_SZ", json::array({"a"}), "61000000"},
      {__LINE__, platform::REG_MULTI_SZ, "a\0\0\0b\0\0\0\0\0"s, "REG_MULTI_SZ", json::array({"a", "b"}), nullptr},
      {__LINE__, platform::REG_MULTI_SZ, "\0\0"s, "REG_MULTI_SZ", json::array(), "0000"},
      {__LINE__, platform::REG_DWORD, "\1\2"s, "REG_DWORD", "0102", "0102"},
      {__LINE__, 77, "\1"s, "77", "01", nullptr},
  };
  for (const Case& c : cases) {
    SetRaw(u"v", c.type, c.bytes);
    json expected = {{"name", "v"}, {"type", c.typeName}, {"data", c.data}};
    if (c.raw != nullptr) expected["raw"] = c.raw;
    EXPECT_EQ(OnlyValue(), expected) << c.line;
  }
}

TEST_F(RegCommand, PrintsPlainLinesThatCantDriveATerminal) {
  ASSERT_EQ(Set("HKCU\\Software\\V\\Sub", "", "x"), 0);
  ASSERT_EQ(Set("HKCU\\Software\\V", "", "a\tb\n\x1B[31m\\"), 0);
  ASSERT_EQ(Set("HKCU\\Software\\V", "list", "a b\nc", "REG_MULTI_SZ"), 0);
  ASSERT_EQ(Set("HKCU\\Software\\V", "n", "7", "REG_DWORD"), 0);
  SetRaw(u"odd", platform::REG_SZ, "a");
  ASSERT_EQ(List("HKCU\\Software\\V", false), 0);
  EXPECT_EQ(m_out.str(),
            "Sub\\\n"
            "(default)\tREG_SZ\ta\\tb\\n\\x1b[31m\\\\\n"
            "list\tREG_MULTI_SZ\t\"a b\" \"c\"\n"
            "n\tREG_DWORD\t7\n"
            "odd\tREG_SZ\t\t(damaged: 61)\n");
}

TEST_F(RegCommand, FailsOnAKeyThatIsMissing) {
  EXPECT_EQ(List("HKLM\\SOFTWARE\\None"), 3);
  EXPECT_EQ(m_out.str(), "");
  EXPECT_EQ(m_err.str(), "qxsched: \"HKLM\\\\SOFTWARE\\\\None\": error 2: no such key or value\n");
  EXPECT_EQ(Delete("HKLM\\SOFTWARE\\None"), 3);
  EXPECT_EQ(Delete("HKLM\\SOFTWARE", "none"), 3);
}

TEST_F(RegCommand, DeletesAValueOrAKeyWithAllBelowIt) {
  ASSERT_EQ(Set("HKCU\\Software\\V\\Sub\\Deep", "x", "1"), 0);
  ASSERT_EQ(Set("HKCU\\Software\\V", "x", "1"), 0);
  ASSERT_EQ(Delete("HKCU\\Software\\V", "X"), 0);
  ASSERT_EQ(List("HKCU\\Software\\V"), 0);
  EXPECT_EQ(m_out.str(), "{\"keys\":[\"Sub\"],\"values\":[]}\n");
  ASSERT_EQ(Delete("HKCU\\Software\\V"), 0);
  EXPECT_EQ(List("HKCU\\Software\\V"), 3);
  EXPECT_EQ(Delete("HKCU"), 4) << "a root stays";
  for (const char* key : {"HKLM\\SOFTWARE", "HKLM\\SYSTEM\\", "HKU\\.DEFAULT"}) {
    EXPECT_EQ(Delete(key), 4) << key << " can't be made again";
    EXPECT_EQ(List(key), 0) << key;
  }
}

TEST_F(RegCommand, ReportsAStoreThatFails) {
  for (const auto operation :
       {platform::Operation::kRegCreateKey, platform::Operation::kRegSetValue, platform::Operation::kRegCloseKey}) {
    const auto plan = platform::FaultPlan::FailCall(operation, 1, platform::ERROR_DISK_FULL);
    EXPECT_EQ(Set("HKCU\\Software\\V", "v", "x"), 1) << platform::OperationName(operation);
    EXPECT_THAT(m_err.str(), HasSubstr("error 112: the disk is full")) << platform::OperationName(operation);
  }
  ASSERT_EQ(Set("HKCU\\Software\\V", "v", "x"), 0);
  for (const auto operation :
       {platform::Operation::kRegOpenKey, platform::Operation::kRegEnumKey, platform::Operation::kRegEnumValue}) {
    const auto plan = platform::FaultPlan::FailCall(operation, 1, platform::ERROR_REGISTRY_IO_FAILED);
    EXPECT_EQ(List("HKCU\\Software\\V"), 1) << platform::OperationName(operation);
    EXPECT_THAT(m_err.str(), HasSubstr("error 1016: ")) << platform::OperationName(operation);
    EXPECT_EQ(m_out.str(), "") << platform::OperationName(operation);
  }
  for (const auto operation :
       {platform::Operation::kRegOpenKey, platform::Operation::kRegDeleteValue, platform::Operation::kRegCloseKey}) {
    const auto plan = platform::FaultPlan::FailCall(operation, 1, platform::ERROR_DISK_FULL);
    EXPECT_EQ(Delete("HKCU\\Software\\V", "v"), 1) << platform::OperationName(operation);
  }
  const auto plan = platform::FaultPlan::FailCall(platform::Operation::kRegDeleteKey, 1, platform::ERROR_BUSY);
  EXPECT_EQ(Delete("HKCU\\Software\\V"), 1);
  EXPECT_THAT(m_err.str(), HasSubstr("error 170: "));
}

}  // namespace
}  // namespace qx
