// foundation/tests/service_log_test.cpp
#include "foundation/include/zfclog.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "foundation/testing/captured_log.h"
#include "foundation/tests/fixed_clock.h"
#include "platform/clock.h"
#include "platform/file.h"
#include "platform/registry.h"
#include "platform/testing/fault.h"
#include "platform/text.h"
#include "platform/thread.h"

namespace {

namespace fs = std::filesystem;
using platform::FaultPlan;
using platform::Operation;
using ZepFoundation::CapturedLogLine;
using ZepFoundation::CapturedServiceLog;
using ZepFoundation::FixedClock;
using ZepFoundation::ForLog;
using ZepFoundation::InitServiceLog;
using ZepFoundation::ServiceLog;
using ZepFoundation::ServiceLogIndex;
using ZepFoundation::ServiceLogLevel;
using ZepFoundation::ServiceLogLine;
using ZepFoundation::ServiceLogPath;

constexpr char16_t kInstallKey[] = u"SOFTWARE\\KORVANE\\QxSvc\\CurrentVersion\\VolumeManager";
constexpr char16_t kSchedulesKey[] = u"SOFTWARE\\KORVANE\\QxSvc\\CurrentVersion\\Schedules";
constexpr std::size_t kFull = 1048576;

class ServiceLogTest : public testing::Test {
 protected:
  ServiceLogTest() {
    char pattern[] = "/tmp/servicelogXXXXXX";
    m_root = mkdtemp(pattern);
    fs::create_directory(m_root / "logs");
    platform::PutEnvironment("TZ=UTC0");
    platform::TzSet();
    EXPECT_EQ(platform::OpenRegistryStore((m_root / "registry.db").string()), 0u);
    platform::InstallClockSource(&m_clock);
    ZepFoundation::SetServiceLogWriter(nullptr);
    ZepFoundation::ResetServiceLog();
  }
  ~ServiceLogTest() override {
    ZepFoundation::ResetServiceLog();
    platform::InstallClockSource(nullptr);
    platform::CloseRegistryStore();
    (void)platform::SetSystemCodePage(platform::kCodePageUtf8);
    fs::remove_all(m_root);
  }

  void SetInstallDir(const std::u16string& dir) {
    platform::RegistryKey key;
    ASSERT_EQ(CreateKey(platform::Hive::kLocalMachine, kInstallKey, platform::KEY_ALL_ACCESS, key), 0u);
    ASSERT_EQ(SetString(key, u"INSTALLDIR", dir), 0u);
    ASSERT_EQ(key.Close(), 0u);
  }
  void SetTraceLevel(std::uint32_t level) {
    platform::RegistryKey key;
    ASSERT_EQ(CreateKey(platform::Hive::kLocalMachine, kSchedulesKey, platform::KEY_ALL_ACCESS, key), 0u);
    ASSERT_EQ(SetDword(key, u"TraceLevel", level), 0u);
    ASSERT_EQ(key.Close(), 0u);
  }
  void Init() {
    SetInstallDir(platform::WideFromUtf8(m_root.string()) + u"\\");
    ASSERT_EQ(InitServiceLog(), 1);
  }

  [[nodiscard]] fs::path LogFile(int index) const {
    return m_root / "logs" / ("SchedService" + std::to_string(index) + ".log");
  }
  [[nodiscard]] std::string Contents(int index) const {
    std::ifstream in(LogFile(index), std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  }
  void Fill(int index, std::size_t bytes) const {
    std::ofstream(LogFile(index), std::ios::binary) << std::string(bytes, '#');
  }
  // The header of a line that this thread writes now.
  static std::string Header() {
    std::string header;
    const ZepFoundation::LogArgument ids[] = {platform::CurrentProcessId(), platform::CurrentThreadId()};
    ZepFoundation::FormatLogText(header, 100, "Sun Jan  4 01:01:01 1970 (PID:%5ld, TID:%5ld): ", ids);
    return header;
  }
  [[nodiscard]] bool ByteLockIsHeld(int index) const {
    platform::File other;
    EXPECT_EQ(other.Open(LogFile(index).string(), platform::File::Access::kReadWrite,
                         platform::File::Disposition::kOpenExisting), 0u);
    return other.TryLockByte(0) == platform::ERROR_LOCK_VIOLATION;
  }

  // Each file's filler ends in the middle of a line; what follows is whole lines of WriteFromEightThreads(), none of them
  // twice. Their number.
  [[nodiscard]] std::size_t CheckLinesBehindTheFiller() const {
    std::set<std::string> seen;
    std::size_t lines = 0;
    for (int index : {0, 1, 2}) {
      std::string text = Contents(index);
      text.erase(0, text.find_first_not_of('#'));
      std::istringstream in(text);
      for (std::string one; std::getline(in, one); ++lines) CheckLine(one, seen);
    }
    return lines;
  }
  static void CheckLine(const std::string& line, std::set<std::string>& seen) {
    static const std::string tail = ":" + std::string(900, 'x') + ">\r";
    const std::size_t mark = line.find("): <");
    const std::string shown = line.substr(0, 120);
    ASSERT_NE(mark, std::string::npos) << shown;
    ASSERT_THAT(line.substr(0, mark), testing::MatchesRegex("Sun Jan  4 01:01:01 1970 \\(PID: *[0-9]+, TID: *[0-9]+"))
        << shown;
    const std::string number = line.substr(mark + 4, line.find(":x") - mark - 4);
    ASSERT_THAT(number, testing::MatchesRegex("[12]:[0-9]+:[0-9]+")) << shown;
    ASSERT_EQ(line.substr(mark + 4 + number.size()), tail) << shown;
    EXPECT_TRUE(seen.insert(number).second) << number;
  }

  fs::path m_root;
  FixedClock m_clock;
};

using InitServiceLogTest = ServiceLogTest;

TEST_F(InitServiceLogTest, GivesZeroWithoutTheInstallKeyAndLeavesTheStateZero) {
  EXPECT_EQ(InitServiceLog(), 0);
  EXPECT_EQ(ServiceLogLevel, 0u);
  EXPECT_EQ(ServiceLogIndex, 0u);
  EXPECT_EQ(ServiceLogPath(), "");
}

TEST_F(InitServiceLogTest, PutsTheFileIntoLogsUnderTheInstallDirectory) {
  SetInstallDir(u"/opt/qx\\");
  EXPECT_EQ(InitServiceLog(), 1);
  EXPECT_EQ(ServiceLogPath(), "/opt/qx\\logs\\SchedService0.log");
}

TEST_F(InitServiceLogTest, InsertsNothingWhereTheDirectoryEndsWithoutABackslash) {
  SetInstallDir(u"/opt/qx");
  EXPECT_EQ(InitServiceLog(), 1);
  EXPECT_EQ(ServiceLogPath(), "/opt/qxlogs\\SchedService0.log");
}

TEST_F(InitServiceLogTest, ReadsADirectoryOfMoreThanTheFirstBuffer) {
  const std::u16string dir = u"/" + std::u16string(199, u'd') + u"\\";  // 404 bytes, 256 reported at first
  SetInstallDir(dir);
  EXPECT_EQ(InitServiceLog(), 1);
  EXPECT_EQ(ServiceLogPath(), platform::Utf8FromWide(dir) + "logs\\SchedService0.log");
}

TEST_F(InitServiceLogTest, RefusesAPathThatItsBufferDoesNotHold) {
  const std::size_t rest = std::string("logs\\SchedService0.log").size();
  SetInstallDir(std::u16string(260 - rest, u'd'));
  EXPECT_EQ(InitServiceLog(), 0);
  EXPECT_EQ(ServiceLogPath(), "");
  SetInstallDir(std::u16string(259 - rest, u'd'));
  EXPECT_EQ(InitServiceLog(), 1);
  EXPECT_EQ(ServiceLogPath().size(), 259u);
}

TEST_F(InitServiceLogTest, TakesLevelThreeWithoutAKeyOrAValue) {
  Init();
  EXPECT_EQ(ServiceLogLevel, 3u);
  platform::RegistryKey key;
  ASSERT_EQ(CreateKey(platform::Hive::kLocalMachine, kSchedulesKey, platform::KEY_ALL_ACCESS, key), 0u);
  ASSERT_EQ(key.Close(), 0u);
  EXPECT_EQ(InitServiceLog(), 1);
  EXPECT_EQ(ServiceLogLevel, 3u);
}

TEST_F(InitServiceLogTest, TakesTheLevelFromTheRegistry) {
  SetTraceLevel(5);
  Init();
  EXPECT_EQ(ServiceLogLevel, 5u);
}

TEST_F(ServiceLogTest, WritesTheHeaderTheTextAndTheLineEnd) {
  Init();
  ServiceLog(3, u"Service will now sleep for %f seconds", 1.5);
  EXPECT_EQ(Contents(0), Header() + "Service will now sleep for 1.500000 seconds\r\n");
}

TEST_F(ServiceLogTest, AppendsToWhatIsThere) {
  Init();
  ServiceLog(1, u"one");
  ServiceLog(1, u"two");
  EXPECT_EQ(Contents(0), Header() + "one\r\n" + Header() + "two\r\n");
}

TEST_F(ServiceLogTest, LeavesNoHalfLineWhereTheFileCantGrow) {
  Init();
  ServiceLog(0, u"first");
  const std::string first = Contents(0);
  struct rlimit before {};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
  const auto formerly = ::signal(SIGXFSZ, SIG_IGN);
  struct rlimit tight = before;
  tight.rlim_cur = first.size() + 20;
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &tight), 0);
  ServiceLog(0, u"no room for it");
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &before), 0);
  ::signal(SIGXFSZ, formerly);
  EXPECT_EQ(Contents(0), first);
  ServiceLog(0, u"third");
  EXPECT_EQ(Contents(0), first + Header() + "third\r\n");
}

TEST_F(ServiceLogTest, KeepsNoFileOpenBetweenLines) {
  Init();
  ServiceLog(1, u"one");
  EXPECT_FALSE(ByteLockIsHeld(0));
  fs::remove(LogFile(0));
  ServiceLog(1, u"two");
  EXPECT_EQ(Contents(0), Header() + "two\r\n");
}

TEST_F(ServiceLogTest, WritesTextInTheSystemCodePage) {
  Init();
  ServiceLog(1, u"caf\u00e9 %s", u"\u20ac");
  EXPECT_EQ(Contents(0), Header() + "caf\xc3\xa9 \xe2\x82\xac\r\n");
  fs::remove(LogFile(0));
  ASSERT_EQ(platform::SetSystemCodePage(platform::kCodePageWestern), 0u);
  ServiceLog(1, u"caf\u00e9 %s", u"\u20ac");
  EXPECT_EQ(Contents(0), Header() + "caf\xe9 \x80\r\n");
}

TEST_F(ServiceLogTest, PutsOneMoreLineIntoAFileOneByteShortOfTheLimit) {
  Init();
  Fill(0, kFull - 1);
  ServiceLog(1, u"last");
  EXPECT_EQ(fs::file_size(LogFile(0)), kFull - 1 + Header().size() + 6);
  EXPECT_FALSE(fs::exists(LogFile(1)));
  EXPECT_EQ(ServiceLogIndex, 0u);
}

TEST_F(ServiceLogTest, GoesToTheNextFileAtTheLimitAndEmptiesIt) {
  Init();
  Fill(0, kFull);
  Fill(1, 5000);
  ServiceLog(1, u"next");
  EXPECT_EQ(fs::file_size(LogFile(0)), kFull);
  EXPECT_EQ(Contents(1), Header() + "next\r\n");
  EXPECT_EQ(ServiceLogIndex, 1u);
  EXPECT_THAT(ServiceLogPath(), testing::EndsWith("logs\\SchedService1.log"));
}

TEST_F(ServiceLogTest, CreatesAMissingNextFile) {
  Init();
  Fill(0, kFull);
  ServiceLog(1, u"next");
  EXPECT_EQ(Contents(1), Header() + "next\r\n");
}

TEST_F(ServiceLogTest, GoesOnWithTheFirstFileAfterTheThird) {
  Init();
  for (int index : {0, 1, 2}) {
    Fill(index, kFull);
    ServiceLog(1, u"ring");
    EXPECT_EQ(Contents((index + 1) % 3), Header() + "ring\r\n") << index;
  }
  EXPECT_EQ(ServiceLogIndex, 0u);
}

TEST_F(ServiceLogTest, StartsAgainAtTheFirstFileAfterARestart) {
  Init();
  Fill(0, kFull);
  ServiceLog(1, u"next");
  ASSERT_EQ(ServiceLogIndex, 1u);
  Fill(0, 10);
  ASSERT_EQ(InitServiceLog(), 1);
  ServiceLog(1, u"again");
  EXPECT_EQ(Contents(0), std::string(10, '#') + Header() + "again\r\n");
}

TEST_F(ServiceLogTest, WritesNothingAboveTheLevel) {
  SetTraceLevel(3);
  Init();
  ServiceLog(4, u"Entered CreateSchedule");
  EXPECT_FALSE(fs::exists(LogFile(0)));
  ServiceLog(3, u"progress");
  EXPECT_EQ(Contents(0), Header() + "progress\r\n");
}

TEST_F(ServiceLogTest, WritesEverythingAtLevelSixOrMore) {
  for (std::uint32_t traceLevel : {6u, 7u, 0xFFFFFFFFu}) {
    SetTraceLevel(traceLevel);
    Init();
    fs::remove(LogFile(0));
    std::string expected;
    for (std::uint32_t level = 0; level <= 6; ++level) {
      ServiceLog(level, u"level %d", level);
      expected += Header() + "level " + std::to_string(level) + "\r\n";
    }
    EXPECT_EQ(Contents(0), expected);
  }
}

TEST_F(ServiceLogTest, ExpandsAConversionInAnArgumentASecondTime) {
  Init();
  ServiceLog(1, u"%s and %d", u"%d%%", 7);
  // First "%d%% and 7"; then %d meets the first argument, a text.
  EXPECT_EQ(Contents(0), Header() + "%d%%% and 7\r\n");
  fs::remove(LogFile(0));
  ServiceLog(1, u"%s", u"[%s]");  // wide text read as narrow: its first byte
  EXPECT_EQ(Contents(0), Header() + "[[]\r\n");
  fs::remove(LogFile(0));
  ServiceLog(1, u"%s", u"%q%x%s%n%5");  // missing arguments print nothing
  EXPECT_EQ(Contents(0), Header() + "q%q%x%s%n%5\r\n");
}

TEST_F(ServiceLogTest, LosesAPercentSignThatTheFirstPassLeft) {
  Init();
  ServiceLog(1, u"100%%");
  EXPECT_EQ(Contents(0), Header() + "100\r\n");
}

TEST_F(ServiceLogTest, EndsItsTextAtAZeroCharacter) {
  Init();
  ServiceLog(1, u"one%ctwo", 0);
  EXPECT_EQ(Contents(0), Header() + "one\r\n");
}

TEST_F(ServiceLogTest, WritesTheHeaderAloneForAnEmptyText) {
  Init();
  ServiceLog(1, u"");
  EXPECT_EQ(Contents(0), Header());
}

TEST_F(ServiceLogTest, DropsAFirstExpansionBeyondTheBuffer) {
  Init();
  ServiceLog(1, u"%s", std::u16string(1024, u'x'));
  EXPECT_FALSE(fs::exists(LogFile(0)));
  ServiceLog(1, u"%s", std::u16string(512, u'\u00e9'));  // 1024 bytes and a terminator
  EXPECT_FALSE(fs::exists(LogFile(0)));
  ServiceLog(1, u"%s", std::u16string(1023, u'x'));
  EXPECT_EQ(Contents(0), Header() + std::string(1023, 'x') + "\r\n");
}

TEST_F(ServiceLogTest, WritesASecondExpansionOfExactlyTheBuffersSize) {
  Init();
  ServiceLog(1, u"%s", u"%1024s");
  EXPECT_EQ(Contents(0), Header() + std::string(1023, ' ') + "%\r\n");
  EXPECT_FALSE(ByteLockIsHeld(0));
}

TEST_F(ServiceLogTest, WritesTheHeaderAloneAndHoldsTheByteAfterALongSecondExpansion) {
  Init();
  ServiceLog(1, u"%s", u"%1025s");
  EXPECT_EQ(Contents(0), Header());
  EXPECT_TRUE(ByteLockIsHeld(0));
  ServiceLog(4, u"filtered before the lock");
  std::promise<void> waits;
  FaultPlan plan = FaultPlan::Ask([&](int, Operation operation, std::string_view detail) -> platform::ErrorCode {
    if (operation == Operation::kLockFile && detail == "wait") waits.set_value();
    return platform::ERROR_SUCCESS;
  });
  std::thread later([] { ServiceLog(1, u"waits"); });
  EXPECT_EQ(waits.get_future().wait_for(std::chrono::minutes(1)), std::future_status::ready);
  plan.Remove();
  EXPECT_EQ(Contents(0), Header());
  ZepFoundation::ResetServiceLog();  // gives the byte up
  later.join();
  EXPECT_THAT(Contents(0), testing::EndsWith("): waits\r\n"));
}

TEST_F(ServiceLogTest, SaysOnStandardOutputThatTheFileCantBeCreated) {
  testing::internal::CaptureStdout();
  ServiceLog(0, u"before the start");
  ServiceLog(1, u"filtered");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Could not create the log file.\n");
  Init();
  fs::remove_all(m_root / "logs");
  testing::internal::CaptureStdout();
  ServiceLog(1, u"no directory");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Could not create the log file.\n");
}

TEST_F(ServiceLogTest, HoldsNobodyUpWhereStandardOutputIsFullAndNobodyReadsIt) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  std::fflush(stdout);
  const int output = dup(STDOUT_FILENO);
  dup2(ends[1], STDOUT_FILENO);
  // What is told is there at once: nothing of it is left for the process's end, which would wait for the reader.
  ServiceLog(0, u"before the start");
  EXPECT_EQ(fcntl(ends[0], F_SETFL, O_NONBLOCK), 0);
  char told[100] = {};
  EXPECT_EQ(read(ends[0], told, sizeof told), 31);
  const std::string room(static_cast<std::size_t>(fcntl(ends[1], F_GETPIPE_SZ)), ' ');
  EXPECT_EQ(write(ends[1], room.data(), room.size()), static_cast<ssize_t>(room.size()));
  for (int i = 0; i < 1000; ++i) ServiceLog(0, u"before the start");  // eight times what the C library holds back
  dup2(output, STDOUT_FILENO);
  for (const int descriptor : {output, ends[0], ends[1]}) close(descriptor);
}

struct FaultCase {
  Operation operation;
  int call;
  const char* file0;  // what a failing call leaves
};
TEST_F(ServiceLogTest, EndsWithoutALineWhereAFileCallFails) {
  for (const FaultCase& c : {FaultCase{Operation::kGetFileSize, 1, ""}, FaultCase{Operation::kLockFile, 1, ""},
                             FaultCase{Operation::kSetFilePointer, 1, ""}, FaultCase{Operation::kWriteFile, 1, ""}}) {
    Init();
    fs::remove(LogFile(0));
    FaultPlan plan = FaultPlan::FailCall(c.operation, c.call, platform::ERROR_IO_DEVICE);
    ServiceLog(1, u"lost");
    plan.Remove();
    EXPECT_EQ(plan.hits(), 1) << platform::OperationName(c.operation);
    EXPECT_EQ(Contents(0), c.file0);
    EXPECT_FALSE(ByteLockIsHeld(0));
    ServiceLog(1, u"kept");
    EXPECT_EQ(Contents(0), Header() + "kept\r\n") << platform::OperationName(c.operation);
  }
}

TEST_F(ServiceLogTest, EndsWithoutALineWhereTheNextFileCantBeOpened) {
  for (int call : {3, 4}) {  // open, probe, truncate, create
    Init();
    Fill(0, kFull);
    fs::remove(LogFile(1));
    testing::internal::CaptureStdout();
    FaultPlan plan = FaultPlan::FailCall(Operation::kCreateFile, call, platform::ERROR_ACCESS_DENIED);
    ServiceLog(1, u"lost");
    plan.Remove();
    EXPECT_EQ(plan.hits(), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_FALSE(fs::exists(LogFile(1)));
    EXPECT_EQ(ServiceLogIndex, 1u);
  }
}

TEST_F(ServiceLogTest, EndsWithoutALineWhereTheNextFileCantBeLocked) {
  Init();
  Fill(0, kFull);
  Fill(1, 10);
  FaultPlan plan = FaultPlan::FailCall(Operation::kLockFile, 1, platform::ERROR_IO_DEVICE);
  ServiceLog(1, u"lost");
  plan.Remove();
  EXPECT_EQ(Contents(1), std::string(10, '#'));
}

TEST_F(ServiceLogTest, RemembersTheLinePartWrittenLast) {
  Init();
  ServiceLog(1, u"value %x", 255);
  EXPECT_EQ(ServiceLogLine(), "value ff");
}

// Eight threads write lines of about 1000 bytes, "<process:thread:number:xxx>".
constexpr int kThreads = 8;
constexpr std::size_t kLongText = 900;
void WriteFromEightThreads(int process, int linesOfAThread) {
  const std::u16string filler(kLongText, u'x');
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([process, linesOfAThread, t, &filler] {
      for (int n = 0; n < linesOfAThread; ++n) ServiceLog(1, u"<%d:%d:%d:%s>", process, t, n, filler);
    });
  }
  for (std::thread& thread : threads) thread.join();
}

TEST_F(ServiceLogTest, TearsAndDoublesNoLineWhileEightThreadsRotate) {
  SetTraceLevel(3);
  Init();
  for (int index : {0, 1, 2}) Fill(index, kFull - 4000);
  WriteFromEightThreads(1, 600);
  EXPECT_GT(CheckLinesBehindTheFiller(), 100u);
}

TEST_F(ServiceLogTest, TearsAndDoublesNoLineWhileTwoProcessesRotate) {
  SetTraceLevel(3);
  Init();
  for (int index : {0, 1, 2}) Fill(index, kFull - 4000);
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    WriteFromEightThreads(2, 400);
    ::_exit(0);
  }
  WriteFromEightThreads(1, 400);
  int status = -1;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_GT(CheckLinesBehindTheFiller(), 100u);
}

TEST_F(ServiceLogTest, GivesEveryLevelToAnInstalledWriterInPlaceOfTheFile) {
  Init();
  {
    CapturedServiceLog log;
    ServiceLog(6, u"ChildSocketThread: closing the socket");
    ServiceLog(0, u"%s %x", u"id", 0x80040200u);
    EXPECT_EQ(log.lines(), (std::vector<CapturedLogLine>{{6, "ChildSocketThread: closing the socket"}, {0, "id 80040200"}}));
    EXPECT_TRUE(log.Has(0, "id 80040200"));
    EXPECT_EQ(log.texts(3), (std::vector<std::string>{"id 80040200"}));
  }
  EXPECT_FALSE(fs::exists(LogFile(0)));
  ServiceLog(1, u"to the file again");
  EXPECT_EQ(Contents(0), Header() + "to the file again\r\n");
}

TEST_F(ServiceLogTest, LetsNothingReachStandardOutputUnderTheNullWriter) {
  ZepFoundation::SetServiceLogWriter(ZepFoundation::NullServiceLogWriter());
  testing::internal::CaptureStdout();
  ServiceLog(0, u"before the start");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  ZepFoundation::SetServiceLogWriter(nullptr);
}

class ForLogTest : public testing::Test {
 protected:
  ~ForLogTest() override { (void)platform::SetSystemCodePage(platform::kCodePageUtf8); }
};

struct ForLogCase {
  int line;
  platform::CodePage page;
  std::u16string in;
  std::u16string out;
};
TEST_F(ForLogTest, DoublesPercentSignsBlanksControlCharactersAndCutsAtThreeHundredBytes) {
  const auto n = [](std::size_t count, const std::u16string& text) {
    std::u16string out;
    for (std::size_t i = 0; i < count; ++i) out += text;
    return out;
  };
  const ForLogCase cases[] = {
      {__LINE__, platform::kCodePageUtf8, u"", u""},
      {__LINE__, platform::kCodePageUtf8, u"plain", u"plain"},
      {__LINE__, platform::kCodePageUtf8, u"50% of %s", u"50%% of %%s"},
      {__LINE__, platform::kCodePageUtf8, n(300, u"a"), n(300, u"a")},
      {__LINE__, platform::kCodePageUtf8, n(301, u"a"), n(300, u"a")},
      {__LINE__, platform::kCodePageUtf8, n(151, u"%"), n(300, u"%")},
      {__LINE__, platform::kCodePageUtf8, u"a" + n(150, u"%"), u"a" + n(298, u"%")},
      {__LINE__, platform::kCodePageUtf8, n(151, u"\u00e9"), n(150, u"\u00e9")},
      {__LINE__, platform::kCodePageUtf8, n(101, u"\u4e2d"), n(100, u"\u4e2d")},
      {__LINE__, platform::kCodePageUtf8, n(76, u"\U0001F600"), n(75, u"\U0001F600")},
      {__LINE__, platform::kCodePageUtf8, u"ab" + n(75, u"\U0001F600"), u"ab" + n(74, u"\U0001F600")},
      {__LINE__, platform::kCodePageUtf8, n(101, std::u16string(1, char16_t(0xD800))), n(100, std::u16string(1, char16_t(0xD800)))},
      {__LINE__, platform::kCodePageUtf8, u"\r\n\t\u001b[31m\u007f" + std::u16string(1, u'\0') + u"\u0085\u009f\u00a0",
       u"    [31m    \u00a0"},
      {__LINE__, platform::kCodePageUtf8, n(301, u"\n"), n(300, u" ")},
      {__LINE__, platform::kCodePageUtf8, n(150, u"%") + u"\n", n(300, u"%")},
      {__LINE__, platform::kCodePageWestern, n(301, u"\u00e9"), n(300, u"\u00e9")},
      {__LINE__, platform::kCodePageWestern, n(301, u"\u4e2d"), n(300, u"\u4e2d")},
      // The best fit of that page for two other percent signs is the plain one.
      {__LINE__, platform::kCodePageWestern, u"5\uff05s \u066ad", u"5\uff05\uff05s \u066a\u066ad"},
      {__LINE__, platform::kCodePageWestern, u"a" + n(150, u"\uff05"), u"a" + n(298, u"\uff05")},
      {__LINE__, platform::kCodePageUtf8, u"5\uff05s \u066ad", u"5\uff05s \u066ad"},
  };
  for (const ForLogCase& c : cases) {
    ASSERT_EQ(platform::SetSystemCodePage(c.page), 0u);
    EXPECT_EQ(ForLog(c.in), c.out) << "line " << c.line;
    EXPECT_LE(platform::SystemFromWide(ForLog(c.in)).size(), 300u) << "line " << c.line;
  }
}

TEST_F(ForLogTest, BringsTextFromOutsideThroughBothExpansionsUnchanged) {
  CapturedServiceLog log;
  ServiceLog(2, u"Successful Schedule Creation: %s", ForLog(u"%s 100% %1025d %%"));
  EXPECT_EQ(log.lines(), (std::vector<CapturedLogLine>{{2, "Successful Schedule Creation: %s 100% %1025d %%"}}));
}

TEST_F(ForLogTest, LetsNoSignThatTheCodePageWritesAsAPercentSignBeginAConversion) {
  ASSERT_EQ(platform::SetSystemCodePage(platform::kCodePageWestern), 0u);
  CapturedServiceLog log;
  ServiceLog(2, u"Successful Schedule Creation: %s", ForLog(u"\uff051025s \u066ax"));
  EXPECT_EQ(log.lines(), (std::vector<CapturedLogLine>{{2, "Successful Schedule Creation: %1025s %x"}}));
}

TEST_F(ForLogTest, LetsNobodyOutsideBeginALineOfTheLog) {
  CapturedServiceLog log;
  ServiceLog(1, u"Did not find <OpData> in XML : %s", ForLog(u"<x/>\r\nSun Nov 22 (PID:    1, TID:    1): forged"));
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(log.lines()[0].text, "Did not find <OpData> in XML : <x/>  Sun Nov 22 (PID:    1, TID:    1): forged");
}

}  // namespace
