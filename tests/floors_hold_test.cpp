// The floors of the house: a file includes from its own floor and from floors below, never upward; now comes from the
// clock's header alone.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tests/test_paths.h"

namespace {

namespace fs = std::filesystem;

struct SourceFile {
  fs::path path;  // relative to the project
  std::string floor;
  std::string text;
};

const std::vector<std::string> kFloors = {"platform", "foundation", "interface", "common",
                                          "service",  "replication", "daemon",   "client"};

// What each floor may include besides itself.
const std::map<std::string, std::set<std::string>> kBelow = {
    {"platform", {}},
    {"foundation", {"platform"}},
    {"interface", {"platform", "foundation"}},
    {"common", {"platform", "foundation", "interface"}},
    {"service", {"platform", "foundation", "interface", "common"}},
    {"replication", {"platform", "foundation", "interface", "common", "service"}},
    {"daemon", {"platform", "foundation", "interface", "common", "service", "replication"}},
    {"client", {"platform", "foundation", "interface", "common"}},
};

std::vector<SourceFile> AllSources() {
  std::vector<SourceFile> files;
  for (const std::string& floor : kFloors) {
    const fs::path top = fs::path(test_paths::Source()) / floor;
    if (!fs::exists(top)) continue;
    for (const auto& entry : fs::recursive_directory_iterator(top)) {
      const std::string extension = entry.path().extension().string();
      if (extension != ".h" && extension != ".cpp") continue;
      std::ifstream in(entry.path());
      std::stringstream text;
      text << in.rdbuf();
      files.push_back({fs::relative(entry.path(), test_paths::Source()), floor, text.str()});
    }
  }
  return files;
}

std::vector<std::string> IncludesOf(const std::string& text) {
  static const std::regex kInclude("^\\s*#\\s*include\\s*\"([^\"]+)\"", std::regex::multiline);
  std::vector<std::string> includes;
  for (std::sregex_iterator at(text.begin(), text.end(), kInclude), end; at != end; ++at) includes.push_back((*at)[1]);
  return includes;
}

bool IsTest(const fs::path& path) { return path.string().find("/tests/") != std::string::npos; }

}  // namespace

TEST(FloorsHold, NoFileIncludesUpward) {
  const std::vector<SourceFile> files = AllSources();
  ASSERT_GT(files.size(), 40u);
  std::size_t seen = 0;
  for (const SourceFile& file : files) {
    for (const std::string& include : IncludesOf(file.text)) {
      const std::string floor = include.substr(0, include.find('/'));
      if (!kBelow.contains(floor)) continue;
      ++seen;
      EXPECT_TRUE(floor == file.floor || kBelow.at(file.floor).contains(floor))
          << file.path << " includes " << include << ", which lies above it";
    }
  }
  EXPECT_GT(seen, 100u);
}

TEST(FloorsHold, EveryProjectIncludeNamesAFileThatExists) {
  for (const SourceFile& file : AllSources()) {
    for (const std::string& include : IncludesOf(file.text)) {
      if (!kBelow.contains(include.substr(0, include.find('/')))) continue;
      EXPECT_TRUE(fs::exists(fs::path(test_paths::Source()) / include)) << file.path << " includes " << include;
    }
  }
}

TEST(FloorsHold, NowComesFromTheClockAlone) {
  static const std::regex kNow("\\b(clock_gettime|gettimeofday|system_clock|time\\(nullptr\\)|time\\(NULL\\)|std::time\\()");
  for (const SourceFile& file : AllSources()) {
    if (IsTest(file.path) || file.path.filename() == "clock_posix.cpp") continue;
    EXPECT_FALSE(std::regex_search(file.text, kNow)) << file.path << " asks the system for the time";
  }
}

TEST(FloorsHold, NoHostSystemIsNamedAboveThePlatform) {
  static const std::regex kHost("#\\s*if(def)?\\s+.*(__linux__|_WIN32|__unix__|__APPLE__)");
  for (const SourceFile& file : AllSources()) {
    if (file.floor == "platform") continue;
    EXPECT_FALSE(std::regex_search(file.text, kHost)) << file.path;
  }
}
