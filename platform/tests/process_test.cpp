#include "platform/process.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/clock.h"
#include "platform/file.h"
#include "platform/testing/counting_launcher.h"
#include "platform/testing/fault.h"
#include "platform/testing/temporary_folder.h"
#include "platform/text.h"

namespace platform {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr std::uint32_t kPatience = 60000;

// Sets an environment variable for a scope.
class ScopedVariable {
 public:
  ScopedVariable(const char* name, const std::string& value) : m_name(name) {
    if (const char* before = std::getenv(name)) {
      m_had = true;
      m_before = before;
    }
    setenv(name, value.c_str(), 1);
  }
  ~ScopedVariable() {
    if (m_had) {
      setenv(m_name, m_before.c_str(), 1);
    } else {
      unsetenv(m_name);
    }
  }

 private:
  const char* m_name;
  bool m_had = false;
  std::string m_before;
};

class ProcessTest : public testing::Test {
 protected:
  void TearDown() override {
    EXPECT_TRUE(WaitForAllChildren(kPatience));
  }

  std::string Path(const std::string& name) const { return m_directory + "/" + name; }

  // A program that a shell reads; returns its path.
  std::string Script(const std::string& name, const std::string& body) const {
    return File(name, "#!/bin/sh\n" + body + "\n", 0755);
  }
  std::string File(const std::string& name, const std::string& text, mode_t mode) const {
    {
      std::ofstream file(Path(name), std::ios::binary);
      file << text;
    }
    EXPECT_EQ(chmod(Path(name).c_str(), mode), 0);
    return Path(name);
  }
  std::string Text(const std::string& name) const {
    std::ifstream file(Path(name), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  }

  static ErrorCode Start(const std::string& line) { return StartDetached(WideFromUtf8(line)); }
  // Starts a job and returns when it has ended.
  static void Run(const std::string& line) {
    EXPECT_EQ(Start(line), ERROR_SUCCESS) << line;
    EXPECT_TRUE(WaitForAllChildren(kPatience));
  }

  const TemporaryFolder m_temporary{"qx-process"};
  const std::string m_directory = m_temporary.Path();
};

std::vector<std::string> OpenDescriptors() {
  std::vector<std::string> open;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    open.push_back(entry.path().filename().string());
  }
  std::sort(open.begin(), open.end());
  return open;
}

TEST_F(ProcessTest, StartsAJobWithItsWordsAsTheyStand) {
  const std::string job = Script("job", "for w in \"$0\" \"$@\"; do printf '[%s]' \"$w\" >> '" + Path("out") + "'; done");
  Run(job + " {ID} \"/dir/job one.xml\" -x Pre=\"a b\" $HOME * ;touch `x`");
  EXPECT_EQ(Text("out"), "[" + job + "][{ID}][/dir/job one.xml][-x][Pre=a b][$HOME][*][;touch][`x`]");
}

TEST_F(ProcessTest, StartsAProgramWhosePathHasBlanksInQuotes) {
  const std::string job = Script("a job", "echo done > '" + Path("out") + "'");
  Run("\"" + job + "\" x");
  EXPECT_EQ(Text("out"), "done\n");
}

TEST_F(ProcessTest, TakesABackslashAsASeparatorOfTheProgramsPath) {
  Script("job", "printf '%s' \"$0\" > '" + Path("out") + "'");
  std::string line = Path("job");
  std::replace(line.begin(), line.end(), '/', '\\');
  Run(line);
  EXPECT_EQ(Text("out"), Path("job"));  // the shell gets the script by its kernel name
}

TEST_F(ProcessTest, SearchesAWordWithoutASeparatorOnThePath) {
  Script("qx-job-on-path", "echo found > '" + Path("out") + "'");
  EXPECT_EQ(Start("qx-job-on-path"), ERROR_FILE_NOT_FOUND);
  const ScopedVariable path("PATH", m_directory + ":" + std::getenv("PATH"));
  Run("qx-job-on-path");
  EXPECT_EQ(Text("out"), "found\n");
}

// The value of a line "NAME:\tVALUE" of a process's status file.
std::string StatusField(const std::string& status, const std::string& name) {
  const std::size_t at = status.find("\n" + name + ":\t");
  if (at == std::string::npos) return "missing";
  const std::size_t begin = at + name.size() + 3;
  return status.substr(begin, status.find('\n', begin) - begin);
}

// The jobs are single programs that copy what the kernel tells of them: a shell would show its own pipes and masks.
TEST_F(ProcessTest, GivesAJobASessionAndNullDevicesOfItsOwn) {
  int held[2];
  ASSERT_EQ(pipe(held), 0);  // inheritable, and not inherited
  const std::string heldLink = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(held[0])).string();
  sigset_t block, before;
  sigemptyset(&block);
  sigaddset(&block, SIGUSR1);
  sigaddset(&block, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &block, &before);
  const auto oldPipe = signal(SIGPIPE, SIG_IGN);
  Run("cp -dR --no-preserve=all /proc/self/fd " + Path("fds"));
  Run("cp --no-preserve=all /proc/self/status " + Path("status"));
  Run("cp --no-preserve=all /proc/self/stat " + Path("stat"));
  signal(SIGPIPE, oldPipe);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  close(held[0]);
  close(held[1]);

  for (const char* descriptor : {"fds/0", "fds/1", "fds/2"}) {
    EXPECT_EQ(std::filesystem::read_symlink(Path(descriptor)), "/dev/null") << descriptor;
  }
  for (const auto& entry : std::filesystem::directory_iterator(Path("fds"))) {
    EXPECT_NE(std::filesystem::read_symlink(entry.path()).string(), heldLink);
  }
  // Number, name, state, parent, group, session: the leader of its session.
  std::istringstream stat(Text("stat"));
  std::string number, name, state, parent, group, session;
  stat >> number >> name >> state >> parent >> group >> session;
  EXPECT_FALSE(number.empty());
  EXPECT_EQ(number, session);
  const std::string status = Text("status");
  EXPECT_EQ(StatusField(status, "SigBlk"), "0000000000000000");
  // The C library keeps two signals of its own (32 and 33) out of everybody's reach.
  EXPECT_EQ(std::stoull(StatusField(status, "SigIgn"), nullptr, 16) & ~0x180000000ull, 0u);
}

TEST_F(ProcessTest, LeavesTheOutputOpenWhereJobsShareIt) {
  testing::internal::CaptureStdout();
  SetJobOutputInherited(true);
  const std::string echo = Script("echo", "echo from the job");
  Run(echo);
  SetJobOutputInherited(false);
  Run(echo);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "from the job\n");
}

TEST_F(ProcessTest, HidesTheServiceManagersVariablesFromAJob) {
  const ScopedVariable notify("NOTIFY_SOCKET", "@x");
  const ScopedVariable watchdog("WATCHDOG_USEC", "1");
  const ScopedVariable watchdogPid("WATCHDOG_PID", "2");
  const ScopedVariable other("QX_TEST_KEPT", "yes");
  Run(Script("job", "env > '" + Path("out") + "'; pwd > '" + Path("pwd") + "'"));
  EXPECT_THAT(Text("out"), HasSubstr("QX_TEST_KEPT=yes\n"));
  EXPECT_THAT(Text("out"), Not(HasSubstr("NOTIFY_SOCKET")));
  EXPECT_THAT(Text("out"), Not(HasSubstr("WATCHDOG_")));
  EXPECT_EQ(Text("pwd"), std::filesystem::current_path().string() + "\n");
}

TEST_F(ProcessTest, GivesAJobTheZoneOfTheProcessAlsoWhileAnotherIsRead) {
  const ScopedVariable zone("TZ", "Europe/Berlin");
  const std::string pipe = Path("zone");
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  std::thread reader([&] { (void)Zone::FromTz(":" + pipe); });
  // Opens when the other end is open: the C library reads the zone that TZ names meanwhile.
  const int feed = open(pipe.c_str(), O_WRONLY | O_CLOEXEC);
  EXPECT_GE(feed, 0);
  std::future<void> job = std::async(std::launch::async, [&] { Run(Script("env", "echo \"$TZ\" > " + Path("out"))); });
  // It may wait for the reading's end, which is here.
  (void)job.wait_for(std::chrono::milliseconds(100));
  close(feed);
  job.get();
  reader.join();
  EXPECT_EQ(Text("out"), "Europe/Berlin\n");
}

TEST_F(ProcessTest, KeepsAVariableOfThisProcessAloneFromAJob) {
  const auto inAJob = [&](const std::string& name) {
    Run(Script("job", "env > '" + Path("out") + "'"));
    return Text("out").find("\n" + name) != std::string::npos || Text("out").starts_with(name);
  };
  SetForThisProcess("QX_TEST_OWN", "1");
  EXPECT_STREQ(std::getenv("QX_TEST_OWN"), "1");
  EXPECT_FALSE(inAJob("QX_TEST_OWN="));
  SetForThisProcess("QX_TEST_OWN", "2");
  EXPECT_STREQ(std::getenv("QX_TEST_OWN"), "2");
  EXPECT_FALSE(inAJob("QX_TEST_OWN="));
  {
    const ScopedVariable given("QX_TEST_OWN", "of somebody else");
    EXPECT_TRUE(inAJob("QX_TEST_OWN=of somebody else\n"));
    SetForThisProcess("QX_TEST_OWN", "3");
    EXPECT_TRUE(inAJob("QX_TEST_OWN=of somebody else\n"));
    SetForThisProcess("QX_TEST_OWN", "of somebody else");
    EXPECT_TRUE(inAJob("QX_TEST_OWN=of somebody else\n"));
  }
  unsetenv("QX_TEST_OWN");
}

struct RefusedLine {
  std::string line;
  ErrorCode code;
};

TEST_F(ProcessTest, RefusesWhatIsNoProgramAndLeavesNothingBehind) {
  const std::vector<std::string> before = OpenDescriptors();
  const RefusedLine kCases[] = {
      {"", ERROR_FILE_NOT_FOUND},
      {" echo", ERROR_FILE_NOT_FOUND},
      {"\"\" echo", ERROR_FILE_NOT_FOUND},
      {"no-such-program-anywhere a", ERROR_FILE_NOT_FOUND},
      {Path("missing") + " a", ERROR_FILE_NOT_FOUND},
      {File("plain", "text", 0644) + "/x", ERROR_PATH_NOT_FOUND},
      {m_directory, ERROR_ACCESS_DENIED},
      {File("data", "#!/bin/sh\n", 0644), ERROR_ACCESS_DENIED},
      {File("empty", "", 0755), ERROR_BAD_EXE_FORMAT},
      {File("unmarked", "echo x\n", 0755), ERROR_BAD_EXE_FORMAT},
  };
  for (const RefusedLine& c : kCases) {
    EXPECT_EQ(Start(c.line), c.code) << c.line;
    std::uint32_t exitCode = 77;
    EXPECT_EQ(RunAndWait(c.line, exitCode), c.code) << c.line;
    EXPECT_EQ(exitCode, 77u);
  }
  EXPECT_EQ(LiveChildren(), 0u);
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
  EXPECT_EQ(OpenDescriptors(), before);
}

TEST_F(ProcessTest, NeverHandsAFileWithoutAMarkToAShellThatItFindsOnThePath) {
  File("qx-unmarked", "touch '" + Path("out") + "'\n", 0755);
  const ScopedVariable path("PATH", m_directory + ":" + std::getenv("PATH"));
  EXPECT_EQ(Start("qx-unmarked"), ERROR_BAD_EXE_FORMAT);
  EXPECT_FALSE(std::filesystem::exists(Path("out")));
}

TEST_F(ProcessTest, IsReapedByAThreadOfANameOfItsOwn) {
  std::thread([] { Run("true"); }).join();
  std::vector<std::string> names;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::string name;
    std::ifstream file(task.path() / "comm");
    if (std::getline(file, name)) names.push_back(name);
  }
  EXPECT_THAT(names, Contains("reaper"));
}

TEST_F(ProcessTest, LeavesNoZombieAndNoDescriptorAfterManyLaunches) {
  Run("true");  // the reaper runs from here on
  const std::vector<std::string> before = OpenDescriptors();
  for (int i = 0; i < 200; ++i) ASSERT_EQ(Start("true"), ERROR_SUCCESS);
  EXPECT_TRUE(WaitForAllChildren(kPatience));
  EXPECT_EQ(LiveChildren(), 0u);
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
  EXPECT_EQ(OpenDescriptors(), before);
}

TEST_F(ProcessTest, GivesTheExitCodeOfACommand) {
  std::uint32_t exitCode = 77;
  EXPECT_EQ(RunAndWait(Script("seven", "exit 7"), exitCode), ERROR_SUCCESS);
  EXPECT_EQ(exitCode, 7u);
  EXPECT_EQ(RunAndWait(Script("zero", "exit 0"), exitCode), ERROR_SUCCESS);
  EXPECT_EQ(exitCode, 0u);
  EXPECT_EQ(RunAndWait(Script("killed", "kill -15 $$"), exitCode), ERROR_SUCCESS);
  EXPECT_EQ(exitCode, 143u);
}

// As a program inherits it from one that cares for no child.
TEST_F(ProcessTest, GivesTheExitCodeWhereTheEndsOfChildrenWereIgnored) {
  const auto before = signal(SIGCHLD, SIG_IGN);
  std::uint32_t exitCode = 99;
  EXPECT_EQ(RunAndWait(Script("seven", "exit 7"), exitCode), ERROR_SUCCESS);
  EXPECT_EQ(exitCode, 7u);
  signal(SIGCHLD, before);
}

TEST_F(ProcessTest, GivesEachOfManyWaitersItsOwnExitCode) {
  std::vector<std::thread> waiters;
  std::vector<std::uint32_t> codes(8, 0);
  const std::string job = Script("job", "exit $1");
  for (std::size_t i = 0; i < codes.size(); ++i) {
    waiters.emplace_back([&, i] { EXPECT_EQ(RunAndWait(job + " " + std::to_string(i + 10), codes[i]), ERROR_SUCCESS); });
  }
  for (std::thread& waiter : waiters) waiter.join();
  EXPECT_THAT(codes, ElementsAre(10, 11, 12, 13, 14, 15, 16, 17));
}

TEST_F(ProcessTest, TakesChildrenThatEndWhileOthersStartOrFailToStart) {
  std::vector<std::thread> threads;
  std::atomic<int> wrong{0};
  for (std::uint32_t thread = 0; thread < 4; ++thread) {
    threads.emplace_back([thread, &wrong] {
      for (std::uint32_t i = 0; i < 25; ++i) {
        std::uint32_t exitCode = 0;
        const std::uint32_t expected = 10 * thread + i % 10;
        if (StartDetached(u"/bin/true") != ERROR_SUCCESS) ++wrong;
        if (StartDetached(u"/nowhere/program") == ERROR_SUCCESS) ++wrong;
        if (RunAndWait("/bin/sh -c \"exit " + std::to_string(expected) + "\"", exitCode) != ERROR_SUCCESS) ++wrong;
        if (exitCode != expected) ++wrong;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
  EXPECT_TRUE(WaitForAllChildren(kPatience));
  EXPECT_EQ(LiveChildren(), 0u);
}

TEST_F(ProcessTest, KeepsTheExitCodeUntilSomebodyAsks) {
  ChildProcess child;
  std::uint32_t exitCode = 77;
  EXPECT_EQ(child.Wait(), ERROR_INVALID_HANDLE);
  ASSERT_EQ(child.Start(Script("nine", "exit 9")), ERROR_SUCCESS);
  EXPECT_TRUE(WaitForAllChildren(kPatience));
  EXPECT_EQ(child.ExitCode(exitCode), ERROR_INVALID_HANDLE);
  EXPECT_EQ(exitCode, 77u);
  ChildProcess moved = std::move(child);
  EXPECT_EQ(moved.Wait(), ERROR_SUCCESS);
  EXPECT_EQ(moved.ExitCode(exitCode), ERROR_SUCCESS);
  EXPECT_EQ(exitCode, 9u);
}

TEST_F(ProcessTest, FailsAtEachStepWithTheInjectedCode) {
  const Operation kSteps[] = {Operation::kCreateProcess, Operation::kWaitForProcess, Operation::kGetExitCodeProcess};
  for (const Operation step : kSteps) {
    const FaultPlan plan = FaultPlan::FailCall(step, 1, 1450);
    std::uint32_t exitCode = 77;
    EXPECT_EQ(RunAndWait("true", exitCode), 1450u) << OperationName(step);
    EXPECT_EQ(exitCode, 77u);
  }
  const FaultPlan plan = FaultPlan::FailCall(Operation::kCreateProcess, 1, 8);
  EXPECT_EQ(StartDetached(u"true"), 8u);
}

TEST_F(ProcessTest, HandsDetachedJobsToAnInstalledStarterAndNothingElse) {
  std::vector<std::string> lines;
  {
    CountingLauncher launcher([&](std::u16string_view line) {
      lines.push_back(Utf8FromWide(line));
      return lines.size() == 2 ? ERROR_ACCESS_DENIED : ERROR_SUCCESS;
    });
    EXPECT_EQ(Start(Path("missing") + " a"), ERROR_SUCCESS);
    EXPECT_EQ(Start("b"), ERROR_ACCESS_DENIED);
    std::uint32_t exitCode = 77;
    EXPECT_EQ(RunAndWait(Script("five", "exit 5"), exitCode), ERROR_SUCCESS);
    EXPECT_EQ(exitCode, 5u);
    const FaultPlan plan = FaultPlan::FailCall(Operation::kCreateProcess, 1, 8);
    EXPECT_EQ(Start("c"), 8u);
    EXPECT_EQ(launcher.count(), 2u);
  }
  EXPECT_THAT(lines, ElementsAre(Path("missing") + " a", "b"));
  EXPECT_EQ(Start(Path("missing") + " a"), ERROR_FILE_NOT_FOUND);
}

TEST(AnonymousPipe, FailsAtEachStepWithTheInjectedCodeAndClosesItsEnds) {
  const std::vector<std::string> before = OpenDescriptors();
  {
    AnonymousPipe ends;
    EXPECT_EQ(ends.ClearInheritOfReadEnd(), ERROR_INVALID_HANDLE);
    {
      const FaultPlan plan = FaultPlan::FailCall(Operation::kCreatePipe, 1, 4);
      EXPECT_EQ(ends.Create(), 4u);
    }
    EXPECT_EQ(ends.Create(), ERROR_SUCCESS);
    EXPECT_EQ(OpenDescriptors().size(), before.size() + 2);
    {
      const FaultPlan plan = FaultPlan::FailCall(Operation::kSetHandleInformation, 1, 6);
      EXPECT_EQ(ends.ClearInheritOfReadEnd(), 6u);
    }
    EXPECT_EQ(ends.ClearInheritOfReadEnd(), ERROR_SUCCESS);
    AnonymousPipe moved = std::move(ends);
    EXPECT_EQ(ends.ClearInheritOfReadEnd(), ERROR_INVALID_HANDLE);
  }
  EXPECT_EQ(OpenDescriptors(), before);
}

TEST(SplitCommandLine, EndsAtANulAndGivesNoWordOfAnEmptyLine) {
  EXPECT_THAT(SplitCommandLine(std::u16string_view(u"a b\0c", 5)), ElementsAre(u"a", u"b"));
  EXPECT_THAT(SplitCommandLine(u""), IsEmpty());
}

}  // namespace
}  // namespace platform
