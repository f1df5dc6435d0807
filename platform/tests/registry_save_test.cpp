#include "platform/registry_save.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <span>
#include <string>

#include "platform/file.h"
#include "platform/testing/fault.h"
#include "platform/testing/temporary_folder.h"

namespace platform {
namespace {

using nlohmann::json;

class RegistrySave : public ::testing::Test {
 protected:
  void SetUp() override {
    m_file = m_folder / "saved.json";
    ASSERT_EQ(OpenRegistryStore((m_folder / "registry.db").string()), 0u);
    ASSERT_EQ(CreateKey(Hive::kCurrentUser, u"A", KEY_ALL_ACCESS, m_key), 0u);
  }
  void TearDown() override {
    m_key = RegistryKey();
    (void)CloseRegistryStore();
  }
  void SetRaw(std::u16string_view name, std::uint32_t type, std::string_view bytes) {
    ASSERT_EQ(SetRawValue(m_key, name, type, std::as_bytes(std::span(bytes))), 0u);
  }
  std::string Saved() {
    EXPECT_EQ(SaveKey(m_key, m_file), 0u);
    std::string text;
    EXPECT_EQ(ReadWholeFile(m_file, text), 0u);
    std::filesystem::remove(m_file);
    return text;
  }

  const TemporaryFolder m_temporary{"qxsave"};
  const std::filesystem::path m_folder = m_temporary.Path();
  std::string m_file;
  RegistryKey m_key;
};

TEST_F(RegistrySave, WritesAnEmptyKey) {
  EXPECT_EQ(Saved(), "{\"keys\":[],\"values\":[]}\n");
}

TEST_F(RegistrySave, WritesKeysInsideEachOther) {
  RegistryKey below;
  ASSERT_EQ(CreateKey(m_key, u"B\\C", KEY_ALL_ACCESS, below), 0u);
  ASSERT_EQ(SetDword(below, u"n", 5), 0u);
  ASSERT_EQ(CreateKey(m_key, u"D", KEY_ALL_ACCESS, below), 0u);
  EXPECT_EQ(Saved(),
            "{\"keys\":[{\"name\":\"B\",\"keys\":[{\"name\":\"C\",\"keys\":[],\"values\":[{\"name\":\"n\",\"type\":"
            "\"REG_DWORD\",\"data\":5}]}],\"values\":[]},{\"name\":\"D\",\"keys\":[],\"values\":[]}],\"values\":[]}\n");
}

TEST_F(RegistrySave, WritesEachTypeAndWhatItCannotShowWhole) {
  using namespace std::string_view_literals;
  struct Case {
    int line;
    std::uint32_t type;
    std::string_view bytes;
    const char* shown;
  };
  const Case cases[] = {
      {__LINE__, REG_SZ, "a\0\0\0"sv, R"({"type":"REG_SZ","data":"a"})"},
      {__LINE__, REG_SZ, ""sv, R"({"type":"REG_SZ","data":"","raw":""})"},
      {__LINE__, REG_SZ, "a\0"sv, R"({"type":"REG_SZ","data":"a","raw":"6100"})"},
      {__LINE__, REG_SZ, "a\0\0"sv, R"({"type":"REG_SZ","data":"a","raw":"610000"})"},
      {__LINE__, REG_SZ, "a\0\0\0b\0\0\0"sv, R"({"type":"REG_SZ","data":"a","raw":"6100000062000000"})"},
      {__LINE__, REG_SZ, "\0\xd8\0\0"sv, "{\"type\":\"REG_SZ\",\"data\":\"\\ufffd\",\"raw\":\"00d80000\"}"},
      {__LINE__, REG_SZ, "\"\0\\\0\n\0\0\0"sv, R"({"type":"REG_SZ","data":"\"\\\n"})"},
      {__LINE__, REG_EXPAND_SZ, "a\0\0\0"sv, R"({"type":"REG_EXPAND_SZ","data":"a"})"},
      {__LINE__, REG_MULTI_SZ, "a\0\0\0b\0\0\0\0\0"sv, R"({"type":"REG_MULTI_SZ","data":["a","b"]})"},
      {__LINE__, REG_MULTI_SZ, "\0\0\0\0"sv, R"({"type":"REG_MULTI_SZ","data":[]})"},
      {__LINE__, REG_MULTI_SZ, "a\0\0\0"sv, R"({"type":"REG_MULTI_SZ","data":["a"],"raw":"61000000"})"},
      {__LINE__, REG_DWORD, "\1\2\0\0"sv, R"({"type":"REG_DWORD","data":513})"},
      {__LINE__, REG_DWORD, "\1\2"sv, R"({"type":"REG_DWORD","data":"0102","raw":"0102"})"},
      {__LINE__, REG_BINARY, "\1\xff"sv, R"({"type":"REG_BINARY","data":"01ff"})"},
      {__LINE__, 11, "\1"sv, R"({"type":"11","data":"01"})"},
  };
  for (const Case& c : cases) {
    SetRaw(u"v", c.type, c.bytes);
    json expected = json::parse(c.shown);
    expected["name"] = "v";
    EXPECT_EQ(json::parse(Saved())["values"][0], expected) << c.line;
  }
}

TEST_F(RegistrySave, LeavesAFileThatIsThereAsItIs) {
  ASSERT_EQ(ReplaceWholeFile(m_file, "mine", Durable::kNo), 0u);
  EXPECT_EQ(SaveKey(m_key, m_file), ERROR_ALREADY_EXISTS);
  EXPECT_EQ(SaveKey(m_key, m_folder), ERROR_ALREADY_EXISTS);
  std::string text;
  ASSERT_EQ(ReadWholeFile(m_file, text), 0u);
  EXPECT_EQ(text, "mine");
}

TEST_F(RegistrySave, LeavesNoFileWhicheverCallFails) {
  RegistryKey below;
  ASSERT_EQ(CreateKey(m_key, u"B", KEY_ALL_ACCESS, below), 0u);
  ASSERT_EQ(SetDword(below, u"n", 5), 0u);
  ASSERT_EQ(below.Close(), 0u);
  int failed = 0;
  for (int n = 1;; ++n) {
    FaultPlan plan = FaultPlan::FailAnyCall(n, ERROR_DISK_FULL);
    const ErrorCode code = SaveKey(m_key, m_file);
    plan.Remove();
    if (plan.hits() == 0) {
      EXPECT_EQ(code, 0u);
      break;
    }
    if (code == ERROR_SUCCESS) {  // a call whose failure has no consequence: the file is whole
      std::string text;
      ASSERT_EQ(ReadWholeFile(m_file, text), 0u);
      EXPECT_TRUE(json::accept(text)) << "call " << n;
    } else {
      ++failed;
      EXPECT_EQ(code, ERROR_DISK_FULL) << "call " << n;
      EXPECT_FALSE(std::filesystem::exists(m_file)) << "call " << n;
    }
    std::filesystem::remove(m_file);
  }
  EXPECT_GT(failed, 3);
}

TEST_F(RegistrySave, NeedsAnOpenKeyAndADirectory) {
  EXPECT_EQ(SaveKey(RegistryKey(), m_file), ERROR_INVALID_HANDLE);
  EXPECT_EQ(SaveKey(m_key, (m_folder / "none" / "saved.json").string()), ERROR_PATH_NOT_FOUND);
}

}  // namespace
}  // namespace platform
