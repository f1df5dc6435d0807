// The debugstream's files: each filter against a recorded file, and eight threads over files that roll over.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "foundation/tests/trace_store.h"
#include "tests/test_paths.h"

namespace {

namespace fs = std::filesystem;
using ZepFoundation::DebugTrace;
using ZepFoundation::FixedClock;

constexpr std::uint32_t kFilters = 32;  // bits 0 to 4

std::string ContentsOf(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

void ReplaceAll(std::string& text, const std::string& what, const std::string& by) {
  for (std::size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += by.size()) {
    text.replace(at, what.size(), by);
  }
}

class TraceFiles : public ZepFoundation::WithTraceStore {
 protected:
  TraceFiles() { fs::create_directory(m_root / "trace"); }

  void Configure(std::uint32_t flags, std::uint32_t kibibytes) {
    ZepFoundation::ResetDebugTrace();
    WithTraceStore::Configure(flags, kibibytes, TraceFile());
  }
  [[nodiscard]] fs::path TraceFile() const { return m_root / "trace" / "trace.log"; }
};

TEST_F(TraceFiles, AreAsRecordedForEveryFilter) {
  for (std::uint32_t filter = 0; filter < kFilters; ++filter) {
    char name[] = "filter_00.txt";
    name[7] = static_cast<char>('0' + filter / 10);
    name[8] = static_cast<char>('0' + filter % 10);
    const fs::path recorded = fs::path(test_paths::Data()) / "formats" / "trace" / name;
    ASSERT_TRUE(fs::exists(recorded)) << recorded;
    std::string expected = ContentsOf(recorded);
    ReplaceAll(expected, "{TIME}", FixedClock::kShown);
    ReplaceAll(expected, "{PROCESS}", Process());

    fs::remove(TraceFile());
    Configure(filter, 1024);
    DebugTrace(4, 0, "Schedule.cpp", 42) << "SS "
                                         << "ZEP_E_POINTER" << '\n'
                                         << std::flush << "@@@";
    DebugTrace(4, 1, nullptr, 0) << "SS "
                                 << "no line is told" << '\n'
                                 << std::flush << "@@@";
    DebugTrace(4, 2, "SchedPersist.cpp", 7) << "SS "
                                            << "size=" << 5 << '\n'
                                            << std::flush << "@@@";
    DebugTrace(4, 3, "DayOfWeek.cpp", 2147483648u) << "SS "
                                                   << "day=" << 6 << "week=" << 4 << '\n'
                                                   << std::flush << "@@@";
    EXPECT_EQ(ContentsOf(TraceFile()), expected) << name;
    EXPECT_EQ(fs::exists(TraceFile()), (filter & 0x1E) != 0) << name << ": a file is made for a record only";
  }
}

// A message may stand between the parts of another thread's header; one that is one piece stays one.
TEST_F(TraceFiles, TearLoseAndDoubleNoMessageWhileEightThreadsRollThemOver) {
  constexpr int kThreads = 8;
  constexpr int kRecords = 150;
  const std::string filler(60, 'q');
  Configure(0x1F, 1);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t, &filler] {
      for (int n = 0; n < kRecords; ++n) {
        const std::string message = "<" + std::to_string(t) + ":" + std::to_string(n) + ":" + filler + ">";
        QX_TRACE(ZepFoundation::kTraceError, message);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  DebugTrace(4, 0, nullptr, 0) << "@@@";
  ZepFoundation::ResetDebugTrace();

  std::map<std::string, int> seen;
  std::size_t files = 0;
  std::size_t levels = 0;
  for (const auto& entry : fs::directory_iterator(m_root / "trace")) {
    ++files;
    const std::string text = ContentsOf(entry.path());
    for (std::size_t at = 0; (at = text.find("[ERROR]   ", at)) != std::string::npos; ++at) ++levels;
    for (std::size_t at = 0; (at = text.find('<', at)) != std::string::npos;) {
      const std::size_t end = text.find('>', at);
      ASSERT_NE(end, std::string::npos) << entry.path() << ": " << text.substr(at, 80);
      const std::string message = text.substr(at + 1, end - at - 1);
      ASSERT_THAT(message, testing::MatchesRegex("[0-7]:[0-9]+:q+")) << entry.path();
      ASSERT_TRUE(message.ends_with(":" + filler)) << message;
      ++seen[message];
      at = end;
    }
  }
  EXPECT_GT(files, 50u);
  EXPECT_EQ(levels, std::size_t{kThreads * kRecords} + 1);
  EXPECT_EQ(seen.size(), std::size_t{kThreads * kRecords});
  for (const auto& [message, count] : seen) EXPECT_EQ(count, 1) << message;
}

}  // namespace
