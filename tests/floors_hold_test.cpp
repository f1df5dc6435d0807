// The floors of the house: a file includes from its own floor and from floors below, never upward; now comes from the
// clock's header alone.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
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

std::vector<SourceFile> ReadSources() {
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
      files.push_back({entry.path().lexically_relative(test_paths::Source()), floor, text.str()});
    }
  }
  return files;
}

const std::vector<SourceFile>& AllSources() {
  static const std::vector<SourceFile> files = ReadSources();
  return files;
}

void SkipSpaces(std::string_view& text) { text.remove_prefix(std::min(text.find_first_not_of(" \t"), text.size())); }

// Takes a word and the spaces behind it off the front.
bool Take(std::string_view& text, std::string_view word) {
  if (!text.starts_with(word)) return false;
  text.remove_prefix(word.size());
  SkipSpaces(text);
  return true;
}

// What stands behind the # of each directive of the preprocessor, spaces left out.
std::vector<std::string_view> DirectivesOf(std::string_view text) {
  std::vector<std::string_view> directives;
  for (std::size_t hash = text.find('#'); hash != std::string_view::npos; hash = text.find('#', hash + 1)) {
    const std::size_t before = text.find_last_not_of(" \t", hash - 1);
    if (hash != 0 && before != std::string_view::npos && text[before] != '\n') continue;
    std::string_view line = text.substr(hash + 1, text.find('\n', hash) - hash - 1);
    SkipSpaces(line);
    directives.push_back(line);
  }
  return directives;
}

std::vector<std::string> IncludesOf(std::string_view text) {
  std::vector<std::string> includes;
  for (std::string_view line : DirectivesOf(text)) {
    if (Take(line, "include") && Take(line, "\"")) includes.emplace_back(line.substr(0, line.find('"')));
  }
  return includes;
}

bool IsInAWord(char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_'; }

// Whether the text has the name, and not as the end of a longer one.
bool Names(std::string_view text, std::string_view name) {
  for (std::size_t at = text.find(name); at != std::string_view::npos; at = text.find(name, at + 1)) {
    if (at == 0 || !IsInAWord(text[at - 1])) return true;
  }
  return false;
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
  for (const SourceFile& file : AllSources()) {
    if (IsTest(file.path) || file.path.filename() == "clock_posix.cpp") continue;
    for (const char* now :
         {"clock_gettime", "gettimeofday", "system_clock", "time(nullptr)", "time(NULL)", "std::time("}) {
      EXPECT_FALSE(Names(file.text, now)) << file.path << " asks the system for the time: " << now;
    }
  }
}

TEST(FloorsHold, NoHostSystemIsNamedAboveThePlatform) {
  for (const SourceFile& file : AllSources()) {
    if (file.floor == "platform") continue;
    for (const std::string_view line : DirectivesOf(file.text)) {
      if (!line.starts_with("if") && !line.starts_with("elif")) continue;
      for (const char* host : {"__linux__", "_WIN32", "__unix__", "__APPLE__"}) {
        EXPECT_EQ(line.find(host), std::string_view::npos) << file.path << ": #" << line;
      }
    }
  }
}

// What the tests above read by.
TEST(FloorsHold, DirectivesAndNamesAreFoundWhereverTheyStand) {
  EXPECT_THAT(
      IncludesOf("#include \"a/b.h\"\n  #  include\t\"c.h\" // d\n#include <e>\nx #include \"f.h\"\n\n#include\"g.h\""),
      ::testing::ElementsAre("a/b.h", "c.h", "g.h"));
  EXPECT_THAT(DirectivesOf("# if A\n#\n // #if B\n\t#elif C"), ::testing::ElementsAre("if A", "", "elif C"));
  EXPECT_TRUE(Names("x = time(NULL);", "time(NULL)"));
  EXPECT_TRUE(Names("my_time(NULL) + time(NULL)", "time(NULL)"));
  EXPECT_FALSE(Names("mktime(NULL)", "time(NULL)"));
}
