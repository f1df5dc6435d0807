#include "service/run_command.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "foundation/testing/captured_log.h"
#include "platform/process.h"
#include "platform/testing/fault.h"
#include "platform/testing/temporary_folder.h"
#include "platform/text.h"

namespace {

using platform::FaultPlan;
using platform::Operation;
using testing::ElementsAre;
using testing::StartsWith;
using Line = ZepFoundation::CapturedLogLine;

class RunCommand : public testing::Test {
 protected:
  void TearDown() override {
    EXPECT_TRUE(platform::WaitForAllChildren(60000));
  }
  // A script of one line; its path.
  std::string Script(const std::string& name, const std::string& body) const {
    const std::string path = m_folder + "/" + name;
    std::ofstream(path) << "#!/bin/sh\n" << body << "\n";
    EXPECT_EQ(chmod(path.c_str(), 0755), 0);
    return path;
  }
  static std::ptrdiff_t OpenDescriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), std::filesystem::directory_iterator());
  }

  ZepFoundation::CapturedServiceLog m_log;
  const platform::TemporaryFolder m_temporary{"qx-command"};
  const std::string m_folder = m_temporary.Path();
};

struct ExitCase {
  int line;
  const char* body;
  std::uint32_t exitCode;
};
const ExitCase kExits[] = {
    {__LINE__, "exit 0", 0},       {__LINE__, "exit 7", 7},        {__LINE__, "exit 255", 255},
    {__LINE__, "kill -9 $$", 137}, {__LINE__, "kill -15 $$", 143},
};

TEST_F(RunCommand, GivesTheStatusOfTheProcessOr128AndItsSignal) {
  for (const ExitCase& c : kExits) {
    std::uint32_t exitCode = 77;
    EXPECT_EQ(qx::RunCommand(Script("job", c.body), &exitCode), 0u) << c.line;
    EXPECT_EQ(exitCode, c.exitCode) << c.line;
  }
}

TEST_F(RunCommand, WaitsForTheEndAlsoWhenNobodyAsksForTheExitCode) {
  const std::string done = m_folder + "/done";
  const std::string gate = m_folder + "/gate";
  ASSERT_EQ(mkfifo(gate.c_str(), 0600), 0);
  // The helper opens the gate; until then the command can't have ended.
  ASSERT_EQ(platform::StartDetached(platform::WideFromUtf8(Script("opener", "echo > " + gate))), 0u);
  EXPECT_EQ(qx::RunCommand(Script("job", "read line < " + gate + "\necho > " + done + "\nexit 3")), 0u);
  EXPECT_TRUE(std::filesystem::exists(done));
}

TEST_F(RunCommand, LogsItsEntryAndItsExitAtLevelOne) {
  EXPECT_EQ(qx::RunCommand("true 50%"), 0u);
  EXPECT_THAT(m_log.lines(), ElementsAre(Line{1, "SchedulerService RunCommand, Enter true 50%"},
                                         Line{1, "SchedulerService RunCommand, Exit 0x0"}));
}

TEST_F(RunCommand, AnswersThatAProgramDoesNotExist) {
  std::uint32_t exitCode = 77;
  const std::string command = m_folder + "/absent a";
  EXPECT_EQ(qx::RunCommand(command, &exitCode), 0x80070002u);
  EXPECT_EQ(exitCode, 77u);
  EXPECT_THAT(
      m_log.lines(),
      ElementsAre(Line{1, "SchedulerService RunCommand, Enter " + command},
                  Line{1, "SchedulerService RunCommand, CreateProcessA failed. Command=" + command + ", 0x80070002"},
                  Line{1, "SchedulerService RunCommand, Exit 0x80070002"}));
}

TEST_F(RunCommand, StartsNothingForAnEmptyText) {
  EXPECT_EQ(qx::RunCommand(""), 0x80070002u);
}

TEST_F(RunCommand, CutsAHostileTextInItsLogLines) {
  const std::string command = m_folder + "/absent " + std::string(5000, '%');
  EXPECT_EQ(qx::RunCommand(command), 0x80070002u);
  ASSERT_EQ(m_log.lines().size(), 3u);
  EXPECT_THAT(m_log.texts()[1], StartsWith("SchedulerService RunCommand, CreateProcessA failed. Command=" + m_folder));
  EXPECT_EQ(m_log.texts()[2], "SchedulerService RunCommand, Exit 0x80070002");
}

struct FailingStep {
  int line;
  Operation step;
  const char* text;
};
const FailingStep kFailingSteps[] = {
    {__LINE__, Operation::kCreatePipe,
     "SchedulerService RunCommand, CreatePipe failed for stderr_read and stderr_write. 0x800705aa"},
    {__LINE__, Operation::kSetHandleInformation,
     "SchedulerService RunCommand, SetHandleInformation failed for stderr_read. 0x800705aa"},
    {__LINE__, Operation::kCreateProcess,
     "SchedulerService RunCommand, CreateProcessA failed. Command=true, 0x800705aa"},
    {__LINE__, Operation::kWaitForProcess, "SchedulerService RunCommand, WaitForSingleObject failed. 0x800705aa"},
    {__LINE__, Operation::kGetExitCodeProcess, "SchedulerService RunCommand, GetExitCodeProcess failed. 0x800705aa"},
};

TEST_F(RunCommand, EndsAtTheStepThatFailsAndClosesWhatItOpened) {
  ASSERT_EQ(qx::RunCommand("true"), 0u);  // whatever starts once has started
  const std::ptrdiff_t before = OpenDescriptors();
  for (const FailingStep& c : kFailingSteps) {
    m_log.Clear();
    std::uint32_t exitCode = 77;
    const FaultPlan plan = FaultPlan::FailCall(c.step, 1, 1450);
    EXPECT_EQ(qx::RunCommand("true", &exitCode), 0x800705AAu) << c.line;
    EXPECT_EQ(plan.hits(), 1) << c.line;
    EXPECT_EQ(exitCode, 77u) << c.line;
    EXPECT_THAT(m_log.lines(), ElementsAre(Line{1, "SchedulerService RunCommand, Enter true"}, Line{1, c.text},
                                           Line{1, "SchedulerService RunCommand, Exit 0x800705aa"}))
        << c.line;
  }
  ASSERT_TRUE(platform::WaitForAllChildren(60000));
  EXPECT_EQ(OpenDescriptors(), before);
}

TEST_F(RunCommand, PassesACodeThatIsNotAboveZeroAsItIs) {
  const FaultPlan plan = FaultPlan::FailCall(Operation::kCreateProcess, 1, 0x80004005u);
  EXPECT_EQ(qx::RunCommand("true"), 0x80004005u);
}

TEST_F(RunCommand, AsksForNoExitCodeWithoutAPlaceForIt) {
  const FaultPlan plan = FaultPlan::FailCall(Operation::kGetExitCodeProcess, 1, 6);
  EXPECT_EQ(qx::RunCommand("true"), 0u);
  EXPECT_EQ(plan.hits(), 0);
}

}  // namespace
