#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "platform/process.h"
#include "platform/text.h"
#include "tests/golden.h"

namespace platform {
namespace {

using Json = nlohmann::json;

Json Rows() { return LoadGolden("cmdline.json").value("argv", Json::array()); }

std::vector<std::string> Words(const std::string& line) {
  std::vector<std::string> words;
  for (const std::u16string& word : SplitCommandLine(WideFromUtf8(line))) words.push_back(Utf8FromWide(word));
  return words;
}

TEST(golden_cmdline, SplitsEachLineIntoTheRecordedWords) {
  int used = 0;
  for (const Json& row : Rows()) {
    // The empty line stands for the running program there, which no job may be started by.
    if (row.value("argv0_is_module_path", false)) continue;
    ++used;
    EXPECT_EQ(Words(row["line"]), row["argv"].get<std::vector<std::string>>()) << row["line"];
    EXPECT_EQ(Words(row["line"]).size(), row["argc"].get<std::size_t>()) << row["line"];
  }
  EXPECT_GT(used, 0) << "no rows";
}

}  // namespace
}  // namespace platform
