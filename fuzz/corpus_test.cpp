// Every file of fuzz/corpus is run through its target; a broken promise ends this program.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "fuzz/fuzz_target.h"
#include "tests/test_paths.h"

#define QX_FUZZ_ENTRY(name) int Fuzz_##name(const std::uint8_t* data, std::size_t size);
#include "fuzz_entries.inc"
#undef QX_FUZZ_ENTRY

namespace {

namespace fs = std::filesystem;

struct Target {
  const char* name;
  int (*run)(const std::uint8_t*, std::size_t);
};
constexpr Target kTargets[] = {
#define QX_FUZZ_ENTRY(name) {#name, Fuzz_##name},
#include "fuzz_entries.inc"
#undef QX_FUZZ_ENTRY
};

const fs::path kCorpus = fs::path(test_paths::Source()) / "fuzz" / "corpus";

std::vector<fs::path> FilesOf(const std::string& target) {
  std::vector<fs::path> files;
  if (fs::is_directory(kCorpus / target)) {
    for (const auto& entry : fs::directory_iterator(kCorpus / target)) files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

// Named in the list of tests.
void PrintTo(const Target& target, std::ostream* out) { *out << target.name; }

class FuzzCorpus : public testing::TestWithParam<Target> {};

TEST_P(FuzzCorpus, IsReplayedFileByFile) {
  qx::fuzz::FixSurroundings();
  const std::vector<fs::path> files = FilesOf(GetParam().name);
  ASSERT_FALSE(files.empty()) << "no file in " << kCorpus / GetParam().name;
  for (const fs::path& file : files) {
    std::ifstream in(file, std::ios::binary);
    ASSERT_TRUE(in) << file;
    const std::vector<char> bytes{std::istreambuf_iterator<char>(in), {}};
    SCOPED_TRACE(file.filename().string());
    // A copy of exactly the size: a read behind it is seen.
    const std::vector<std::uint8_t> exact(bytes.begin(), bytes.end());
    EXPECT_EQ(GetParam().run(exact.data(), exact.size()), 0);
  }
}

INSTANTIATE_TEST_SUITE_P(Targets, FuzzCorpus, testing::ValuesIn(kTargets),
                         [](const testing::TestParamInfo<Target>& target) { return std::string(target.param.name); });

TEST(FuzzCorpusFolders, BelongToATargetEach) {
  for (const auto& entry : fs::directory_iterator(kCorpus)) {
    const std::string source = entry.path().filename().string() + "_fuzz.cpp";
    EXPECT_TRUE(fs::exists(kCorpus.parent_path() / source)) << entry.path() << " has no " << source;
  }
}

TEST(FuzzTargets, TakeAnEmptyInput) {
  qx::fuzz::FixSurroundings();
  const std::uint8_t nothing = 0;
  for (const Target& target : kTargets) EXPECT_EQ(target.run(&nothing, 0), 0) << target.name;
}

}  // namespace
