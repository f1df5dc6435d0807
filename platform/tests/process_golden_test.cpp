#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <string>

#include "platform/file.h"
#include "platform/process.h"
#include "platform/testing/temporary_folder.h"
#include "platform/text.h"
#include "tests/golden.h"

namespace platform {
namespace {

using Json = nlohmann::json;

constexpr std::uint32_t kRowPatience = 60000;

// A directory with a blank in its name, on PATH in place of the recorded current directory, with the recorded programs.
class golden_process : public testing::Test {
 protected:
  void SetUp() override {
    m_file = LoadGolden("process.json");
    ASSERT_FALSE(m_file.empty());

    for (const char* name : {"wrapper.exe", "wrapper", "no ext"}) {
      Program(name, "#!/bin/sh\nprintf '%s\\n' \"$@\" > '" + m_directory + "/words'\nexit 42\n");
    }
    Program("job.bat", "#!/bin/sh\nexit 7\n");
    Program("cmd", "#!/bin/sh\nexit $(($3 & 255))\n");
    Program("cmd.exe", "#!/bin/sh\nexit $(($3 & 255))\n");
    Program("empty.exe", "");
    std::filesystem::create_directories(m_directory + "/drives/c/windows");
    SetStateDirectory(m_directory);
    m_path = std::getenv("PATH");
    setenv("PATH", m_directory.c_str(), 1);
    m_before = std::filesystem::current_path();
    std::filesystem::current_path(m_directory);
  }
  void TearDown() override {
    EXPECT_TRUE(WaitForAllChildren(kRowPatience));
    std::filesystem::current_path(m_before);
    setenv("PATH", m_path.c_str(), 1);
    SetStateDirectory("");
  }

  void Program(const std::string& name, const std::string& text) const {
    {
      std::ofstream file(m_directory + "/" + name, std::ios::binary);
      file << text;
    }
    ASSERT_EQ(chmod((m_directory + "/" + name).c_str(), 0755), 0);
  }

  std::string Line(const Json& row) const {
    std::string line = row["command_line"];
    for (std::size_t at = line.find("<dir>"); at != std::string::npos; at = line.find("<dir>")) {
      line.replace(at, 5, m_directory);
    }
    return line;
  }

  const Json& Rows(const char* table) const {
    static const Json none = Json::array();
    const auto found = m_file.find(table);
    EXPECT_TRUE(found != m_file.end() && !found->empty()) << table << " has no rows";
    return found == m_file.end() ? none : *found;
  }

  void Expect(const Json& row) const {
    std::uint32_t exitCode = 0;
    const ErrorCode rc = RunAndWait(Line(row), exitCode);
    if (row["result"] == 1) {
      EXPECT_EQ(rc, ERROR_SUCCESS) << row["case"];
      EXPECT_EQ(exitCode & 0xFF, row["exit_code"].get<std::uint32_t>() & 0xFF) << row["case"];  // 8 bits on this host
    } else if (row.contains("note")) {
      EXPECT_NE(rc, ERROR_SUCCESS) << row["case"];
    } else {
      EXPECT_EQ(rc, row["last_error"].get<ErrorCode>()) << row["case"];
    }
  }

  Json m_file;
  const TemporaryFolder m_temporary{"qx golden"};
  const std::string m_directory = m_temporary.Path();
  std::string m_path;
  std::filesystem::path m_before;
};

TEST_F(golden_process, StartsAndRefusesTheRecordedLines) {
  for (const Json& row : Rows("launch")) {
    // An unquoted path is cut at its first blank here, always: no guessing which part is the program.
    if (row["case"] == "path with a blank, not quoted") continue;
    Expect(row);
  }
}

TEST_F(golden_process, RefusesAnUnquotedPathWithABlank) {
  std::uint32_t exitCode = 0;
  EXPECT_EQ(RunAndWait(m_directory + "/wrapper.exe {ID}", exitCode), ERROR_FILE_NOT_FOUND);
}

TEST_F(golden_process, RunsTheRecordedCommands) {
  for (const Json& row : Rows("run_command")) {
    // A shell's own command is a program of its own on most hosts; the PATH of this test has none.
    Expect(row);
  }
}

TEST_F(golden_process, HandsTheJobTheRecordedWords) {
  std::uint32_t exitCode = 0;
  ASSERT_EQ(RunAndWait(Line(Rows("launch")[0]), exitCode), ERROR_SUCCESS);
  std::ifstream words(m_directory + "/words");
  std::string text((std::istreambuf_iterator<char>(words)), std::istreambuf_iterator<char>());
  EXPECT_EQ(text, "{ID}\nC:\\dir\\job.xml\n-x\nPre=a.bat\nPost=b.bat\n");
}

}  // namespace
}  // namespace platform
