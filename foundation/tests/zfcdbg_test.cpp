#include "foundation/include/zfcdbg.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "foundation/testing/captured_trace.h"
#include "foundation/tests/trace_store.h"
#include "platform/testing/fault.h"

namespace {

namespace fs = std::filesystem;
using platform::FaultPlan;
using platform::Operation;
using ZepFoundation::CapturedTrace;
using ZepFoundation::CapturedTraceRecord;
using ZepFoundation::DebugTrace;
using ZepFoundation::DebugTraceEnabled;
using ZepFoundation::FixedClock;
using ZepFoundation::kTraceDebug;
using ZepFoundation::kTraceError;
using ZepFoundation::kTraceInform;
using ZepFoundation::kTraceWarning;

constexpr std::uint32_t kEverything = 0x1E;  // the four levels, full header
constexpr std::uint32_t kShort = 0x1F;
constexpr const char* kHeaderTime = FixedClock::kShown;

class DebugStream : public ZepFoundation::WithTraceStore {
 protected:
  void Configure(std::uint32_t flags, std::uint32_t kibibytes = 1024, const char* name = "trace.log") {
    WithTraceStore::Configure(flags, kibibytes, *name == 0 ? fs::path() : m_root / name);
  }
  [[nodiscard]] std::string Contents(const char* name = "trace.log") const { return WithTraceStore::Contents(name); }
  [[nodiscard]] bool Exists(const char* name) const { return fs::exists(m_root / name); }
};

TEST_F(DebugStream, WritesNothingWhereNothingIsConfigured) {
  int evaluated = 0;
  QX_TRACE(kTraceError, "text" << ++evaluated);
  DebugTrace(4, kTraceError, "a.cpp", 7) << "SS text\n" << std::flush << "@@@";
  EXPECT_EQ(evaluated, 0);
  EXPECT_EQ(std::distance(fs::directory_iterator(m_root), {}),
            std::count_if(fs::directory_iterator(m_root), {}, [](const fs::directory_entry& e) {
              return e.path().filename().string().starts_with("registry.db");
            }));
}

TEST_F(DebugStream, WritesTheFullHeaderAndTheMessage) {
  Configure(kEverything);
  DebugTrace(4, kTraceError, "a.cpp", 7) << "SS " << "refused " << 5 << '\n' << std::flush << "@@@";
  EXPECT_EQ(Contents(), Process() + " " + Process() + " " + kHeaderTime + " a.cpp (7) : [ERROR]   SS refused 5\n");
}

TEST_F(DebugStream, WritesTheShortHeaderWhereBitZeroIsSet) {
  Configure(kShort);
  DebugTrace(4, kTraceError, "a.cpp", 7) << "SS text\n" << std::flush << "@@@";
  EXPECT_EQ(Contents(), std::string(kHeaderTime) + " : [ERROR]   SS text\n");
}

TEST_F(DebugStream, LeavesOutFileAndLineWhereOneIsMissing) {
  Configure(kEverything);
  DebugTrace(4, kTraceError, nullptr, 7) << "a\n" << "@@@";
  DebugTrace(4, kTraceError, "a.cpp", 0) << "b\n" << "@@@";
  const std::string header = Process() + " " + Process() + " " + kHeaderTime + " : [ERROR]   ";
  EXPECT_EQ(Contents(), header + "a\n" + header + "b\n");
}

TEST_F(DebugStream, NamesEachLevel) {
  Configure(0xFFFFFFFFu);
  std::string expected;
  const struct {
    std::uint16_t level;
    const char* word;
  } levels[] = {{0, "[ERROR]   "}, {1, "[WARNING] "}, {2, "[INFORM]  "}, {3, "[DEBUG]   "}, {4, "[UNKNOWN] "}};
  for (const auto& [level, word] : levels) {
    DebugTrace(4, level, nullptr, 0) << "x\n" << "@@@";
    expected += std::string(kHeaderTime) + " : " + word + "x\n";
  }
  EXPECT_EQ(Contents(), expected);
}

TEST_F(DebugStream, LetsThroughOnlyTheLevelsOfTheFilter) {
  Configure(0x4 | 0x1);  // warning, short header
  int evaluated = 0;
  for (std::uint16_t level = 0; level < 6; ++level) QX_TRACE(level, "level " << ++evaluated);
  DebugTrace(4, kTraceDebug, nullptr, 0) << "SS hidden\n" << std::flush << "@@@";
  EXPECT_EQ(evaluated, 1);
  EXPECT_EQ(Contents(), std::string(kHeaderTime) + " : [WARNING] SS level 1\n");
  EXPECT_TRUE(DebugTraceEnabled(kTraceWarning));
  EXPECT_FALSE(DebugTraceEnabled(kTraceInform));
  EXPECT_FALSE(DebugTraceEnabled(0xFFFF));
}

TEST_F(DebugStream, OpensNoFileWithoutAPath) {
  Configure(kShort, 1024, "");
  const FaultPlan plan = FaultPlan::FailCall(Operation::kCreateFile, 1, platform::ERROR_ACCESS_DENIED);
  QX_TRACE(kTraceError, std::string(3000, 'x'));
  EXPECT_EQ(plan.hits(), 0);
}

TEST_F(DebugStream, KeepsARecordPendingUntilTheMarker) {
  Configure(kShort);
  std::ostream& out = DebugTrace(4, kTraceError, nullptr, 0);
  out << "SS text\n" << std::flush;
  EXPECT_EQ(Contents(), "");
  out << "@@@";
  EXPECT_EQ(Contents(), std::string(kHeaderTime) + " : [ERROR]   SS text\n");
}

TEST_F(DebugStream, DropsAChunkThatEndsInTheMarkerWhole) {
  Configure(kShort);
  DebugTrace(4, kTraceError, nullptr, 0) << "kept" << "dropped@@@";
  EXPECT_EQ(Contents(), std::string(kHeaderTime) + " : [ERROR]   kept");
}

TEST_F(DebugStream, CutsAMarkerThatCameInSingleCharacters) {
  Configure(kShort);
  DebugTrace(4, kTraceError, nullptr, 0) << "kept" << '@' << '@' << '@' << "next";
  EXPECT_EQ(Contents(), std::string(kHeaderTime) + " : [ERROR]   kept");
}

TEST_F(DebugStream, WritesWhatIsPendingWhenTheNextChunkDoesNotFit) {
  Configure(kShort);
  const std::string header = std::string(kHeaderTime) + " : [ERROR]   ";
  std::ostream& out = DebugTrace(4, kTraceError, nullptr, 0);
  out << std::string(1023 - header.size(), 'a');
  EXPECT_EQ(Contents(), "");
  out << std::string(1, 'b');
  EXPECT_EQ(Contents(), header + std::string(1023 - header.size(), 'a'));
  out << "@@@";
  EXPECT_EQ(Contents(), header + std::string(1023 - header.size(), 'a') + "b");
}

TEST_F(DebugStream, WritesAChunkOfTheBuffersSizeAtOnce) {
  Configure(kShort);
  const std::string header = std::string(kHeaderTime) + " : [ERROR]   ";
  std::ostream& out = DebugTrace(4, kTraceError, nullptr, 0);
  out << std::string(1024, 'a');
  EXPECT_EQ(Contents(), header + std::string(1024, 'a'));
  out << std::string(5000, 'b') << "@@@";
  EXPECT_EQ(Contents(), header + std::string(1024, 'a') + std::string(5000, 'b'));
}

TEST_F(DebugStream, WritesASingleCharacterOnAFullBufferAtOnce) {
  Configure(kShort);
  const std::string header = std::string(kHeaderTime) + " : [ERROR]   ";
  std::ostream& out = DebugTrace(4, kTraceError, nullptr, 0);
  for (std::size_t n = header.size(); n < 1024; ++n) out.put('a');
  EXPECT_EQ(Contents(), "");
  out.put('b');
  EXPECT_EQ(Contents(), header + std::string(1024 - header.size(), 'a') + "b");
}

TEST_F(DebugStream, AppendsToTheFileThatIsThere) {
  std::ofstream(m_root / "trace.log") << "before\n";
  Configure(kShort);
  QX_TRACE(kTraceError, "after");
  EXPECT_EQ(Contents(), "before\n" + std::string(kHeaderTime) + " : [ERROR]   SS after\n");
}

TEST_F(DebugStream, AppendsBehindWhatOthersWriteToTheFileMeanwhile) {
  const std::string header = std::string(kHeaderTime) + " : [ERROR]   ";
  Configure(kShort);
  QX_TRACE(kTraceError, "one");
  std::ofstream(m_root / "trace.log", std::ios::app) << "of another process\n";
  QX_TRACE(kTraceError, "two");
  EXPECT_EQ(Contents(), header + "SS one\nof another process\n" + header + "SS two\n");
}

TEST_F(DebugStream, RollsOverAfterEveryRecordWithASizeOfZero) {
  Configure(kShort, 0);
  QX_TRACE(kTraceError, "one");
  QX_TRACE(kTraceError, "two");
  EXPECT_EQ(Contents("trace_4_1_1970_1.log"), std::string(kHeaderTime) + " : [ERROR]   SS one\n");
  EXPECT_EQ(Contents("trace_4_1_1970_2.log"), std::string(kHeaderTime) + " : [ERROR]   SS two\n");
  EXPECT_EQ(Contents(), "");
}

TEST_F(DebugStream, RollsOverAtTheConfiguredSizeAndPassesTakenNames) {
  std::ofstream(m_root / "trace.log") << std::string(1000, '#');
  std::ofstream(m_root / "trace_4_1_1970_1.log") << "taken";
  Configure(kShort, 1);
  QX_TRACE(kTraceError, "one");  // 1000 and this record are above 1024
  EXPECT_EQ(Contents("trace_4_1_1970_1.log"), "taken");
  EXPECT_EQ(Contents("trace_4_1_1970_2.log"), std::string(1000, '#') + kHeaderTime + " : [ERROR]   SS one\n");
  QX_TRACE(kTraceError, "two");
  EXPECT_EQ(Contents(), std::string(kHeaderTime) + " : [ERROR]   SS two\n");
}

TEST_F(DebugStream, WritesOnlyErrorsWithTheLongHeaderUnderFilterTwo) {
  Configure(2);
  for (std::uint16_t level = 0; level < 4; ++level) DebugTrace(4, level, "a.cpp", 7) << "SS text\n" << std::flush << "@@@";
  EXPECT_EQ(Contents(), Process() + " " + Process() + " " + kHeaderTime + " a.cpp (7) : [ERROR]   SS text\n");
}

TEST_F(DebugStream, WritesOnlyErrorsWithTheShortHeaderUnderFilterThree) {
  Configure(3);
  for (std::uint16_t level = 0; level < 4; ++level) DebugTrace(4, level, "a.cpp", 7) << "SS text\n" << std::flush << "@@@";
  EXPECT_EQ(Contents(), std::string(kHeaderTime) + " : [ERROR]   SS text\n");
}

TEST_F(DebugStream, RollsOverAtTheRecordThatReachesTheLimitAndCountsOn) {
  const std::string record = std::string(kHeaderTime) + " : [ERROR]   SS x\n";
  std::ofstream(m_root / "trace.log") << std::string(1023 - record.size(), '#');
  Configure(kShort, 1);
  QX_TRACE(kTraceError, "x");  // 1023 bytes now
  EXPECT_FALSE(Exists("trace_4_1_1970_1.log"));
  QX_TRACE(kTraceError, "x");
  EXPECT_TRUE(Exists("trace_4_1_1970_1.log"));
  EXPECT_EQ(Contents(), "");
  for (std::size_t bytes = 0; bytes < 1024; bytes += record.size()) QX_TRACE(kTraceError, "x");
  EXPECT_TRUE(Exists("trace_4_1_1970_2.log"));
  EXPECT_FALSE(Exists("trace_4_1_1970_3.log"));
  EXPECT_EQ(Contents(), "");
}

TEST_F(DebugStream, NumbersAPathWithoutAPointAtItsEnd) {
  Configure(kShort, 0, "trace");
  QX_TRACE(kTraceError, "one");
  EXPECT_TRUE(Exists("trace_4_1_1970_1"));
}

TEST_F(DebugStream, TriesTheFileAgainAtTheNextStatement) {
  Configure(kShort);
  {
    const FaultPlan plan =
        FaultPlan::FailCall(Operation::kCreateFile, 1, platform::ERROR_ACCESS_DENIED, platform::kFromThenOn);
    QX_TRACE(kTraceError, "lost");
    EXPECT_GT(plan.hits(), 0);
  }
  QX_TRACE(kTraceError, "kept");
  EXPECT_EQ(Contents(), std::string(kHeaderTime) + " : [ERROR]   SS kept\n");
}

TEST_F(DebugStream, DoesNothingMoreForAStatementThatCouldNotOpenTheFile) {
  Configure(kShort);
  {
    const FaultPlan plan = FaultPlan::FailCall(Operation::kCreateFile, 1, platform::ERROR_ACCESS_DENIED);
    QX_TRACE(kTraceError, "lost");
    EXPECT_EQ(plan.hits(), 1);
  }
  EXPECT_FALSE(Exists("trace.log"));
  QX_TRACE(kTraceError, "kept");
  EXPECT_EQ(Contents(), std::string(kHeaderTime) + " : [ERROR]   SS kept\n");
}

TEST_F(DebugStream, DoesNothingMoreForAStatementThatCouldNotBeginTheFileAnew) {
  Configure(kShort, 0);
  const std::string header = std::string(kHeaderTime) + " : [ERROR]   ";
  {
    std::ostream& out = DebugTrace(4, kTraceError, nullptr, 0);
    // The probe for a free name is the first opening.
    const FaultPlan plan = FaultPlan::FailCall(Operation::kCreateFile, 2, platform::ERROR_ACCESS_DENIED);
    out << std::string(1023, 'a') << std::string(10, 'b') << "@@@";
    EXPECT_EQ(plan.hits(), 1);
  }
  EXPECT_EQ(Contents("trace_4_1_1970_1.log"), header);
  EXPECT_FALSE(Exists("trace.log"));
  fs::remove(m_root / "trace_4_1_1970_1.log");
  QX_TRACE(kTraceError, "kept");
  EXPECT_EQ(Contents("trace_4_1_1970_1.log"), header + "SS kept\n");  // a file that is opened anew counts from 1
}

TEST_F(DebugStream, CarriesNoFormattingIntoTheNextStatement) {
  Configure(kEverything);
  DebugTrace(4, kTraceError, "a.cpp", 10) << std::hex << 255 << '\n' << "@@@";
  DebugTrace(4, kTraceError, "a.cpp", 10) << 255 << '\n' << "@@@";
  const std::string header = Process() + " " + Process() + " " + kHeaderTime + " a.cpp (10) : [ERROR]   ";
  EXPECT_EQ(Contents(), header + "ff\n" + header + "255\n");
}

TEST_F(DebugStream, LosesNoCharacterOfEightThreads) {
  Configure(kShort, 0xFFFFF);
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([] {
      for (int n = 0; n < 200; ++n) QX_TRACE(kTraceError, std::string(10, 'q'));
    });
  }
  for (std::thread& thread : threads) thread.join();
  DebugTrace(4, kTraceError, nullptr, 0) << "@@@";
  const std::string text = Contents();
  EXPECT_EQ(std::count(text.begin(), text.end(), 'q'), 8 * 200 * 10);
}

// Lets another thread go on in the middle of each header.
class YieldingClock final : public platform::ClockSource {
 public:
  YieldingClock() { platform::InstallClockSource(this); }
  ~YieldingClock() { platform::InstallClockSource(nullptr); }
  std::int64_t WallNanoseconds() override {
    std::this_thread::yield();
    return FixedClock().WallNanoseconds();
  }
  std::uint64_t SteadyMilliseconds() override { return 0; }
  bool ConsumeWait(std::uint64_t) override { return true; }
};

TEST_F(DebugStream, TearsNoHeaderOfEightThreads) {
  constexpr int kThreads = 8;
  constexpr int kHeaders = 200;
  Configure(kEverything, 0xFFFFF);
  const YieldingClock clock;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([] {
      for (int n = 0; n < kHeaders; ++n) DebugTrace(4, kTraceError, "a.cpp", 7);
    });
  }
  for (std::thread& thread : threads) thread.join();
  DebugTrace(4, kTraceError, "a.cpp", 7) << "@@@";
  const std::string header = Process() + " " + Process() + " " + kHeaderTime + " a.cpp (7) : [ERROR]   ";
  const std::string text = Contents();
  ASSERT_EQ(text.size(), header.size() * (kThreads * kHeaders + 1));
  for (std::size_t at = 0; at < text.size(); at += header.size()) ASSERT_EQ(text.substr(at, header.size()), header);
}

TEST_F(DebugStream, GivesRecordsToACaptureInPlaceOfTheFile) {
  Configure(0x2 | 0x1);
  {
    CapturedTrace trace;
    QX_TRACE(kTraceDebug, "value " << 5);
    QX_TRACE(kTraceError, "refused");
    EXPECT_EQ(trace.records(), (std::vector<CapturedTraceRecord>{{kTraceDebug, "value 5"}, {kTraceError, "refused"}}));
    EXPECT_TRUE(trace.Has(kTraceError, "refused"));
    EXPECT_FALSE(Exists("trace.log"));
  }
  EXPECT_FALSE(DebugTraceEnabled(kTraceDebug));
  QX_TRACE(kTraceError, "to the file again");
  EXPECT_EQ(Contents(), std::string(kHeaderTime) + " : [ERROR]   SS to the file again\n");
}

}  // namespace
