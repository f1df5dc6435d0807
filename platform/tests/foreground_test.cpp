#include "platform/foreground.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "platform/testing/fault.h"
#include "platform/testing/temporary_folder.h"

namespace {

using platform::OutputPager;
using platform::RunInForeground;

class Foreground : public testing::Test {
 protected:
  [[nodiscard]] std::string Path(const std::string& name) const { return m_directory + "/" + name; }
  [[nodiscard]] std::string Read(const std::string& name) const {
    std::ifstream in(Path(name));
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  }
  const platform::TemporaryFolder m_temporary{"qx-foreground"};
  const std::string m_directory = m_temporary.Path();
};

TEST_F(Foreground, GivesTheExitCodeOfTheProgram) {
  const std::pair<const char*, std::uint32_t> cases[] = {
      {"exit 0", 0}, {"exit 7", 7}, {"kill -TERM $$", 128 + SIGTERM}};
  for (const auto& [script, expected] : cases) {
    std::uint32_t code = 99;
    EXPECT_EQ(RunInForeground({"sh", "-c", script}, code), 0u) << script;
    EXPECT_EQ(code, expected) << script;
  }
}

// As a program inherits it from one that cares for no child. An editor that was left by its code changes nothing.
TEST_F(Foreground, GivesTheExitCodeWhereTheEndsOfChildrenWereIgnored) {
  const auto before = ::signal(SIGCHLD, SIG_IGN);
  std::uint32_t code = 99;
  EXPECT_EQ(RunInForeground({"sh", "-c", "exit 7"}, code), 0u);
  EXPECT_EQ(code, 7u);
  ::signal(SIGCHLD, before);
}

TEST_F(Foreground, SaysThatThereIsNoSuchProgram) {
  std::uint32_t code = 99;
  EXPECT_EQ(RunInForeground({"/nonexistent/editor"}, code), platform::ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(RunInForeground({""}, code), platform::ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(RunInForeground({}, code), platform::ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(code, 99u);
}

TEST_F(Foreground, FailsWhenNoProcessCanBeStarted) {
  platform::FaultPlan plan =
      platform::FaultPlan::FailCall(platform::Operation::kCreateProcess, 1, platform::ERROR_NO_PROC_SLOTS);
  std::uint32_t code = 0;
  EXPECT_EQ(RunInForeground({"true"}, code), platform::ERROR_NO_PROC_SLOTS);
}

// The interrupt from the keyboard reaches every process of the terminal: here the program sends it to both.
TEST_F(Foreground, LeavesAnInterruptToTheProgram) {
  const auto before = ::signal(SIGINT, SIG_DFL);  // a shell starts what runs in its background with it ignored
  std::uint32_t code = 0;
  EXPECT_EQ(RunInForeground({"sh", "-c", "kill -INT $PPID; kill -INT $$; exit 3"}, code), 0u);
  EXPECT_EQ(code, 128u + SIGINT);
  ::signal(SIGINT, before);
}

TEST_F(Foreground, SendsTheOutputThroughAPager) {
  OutputPager pager;
  ASSERT_EQ(pager.Start({"sh", "-c", "cat > '" + Path("seen") + "'; echo \"$QX_ADDED\" >> '" + Path("seen") + "'"},
                        {"QX_ADDED=yes"}),
            0u);
  EXPECT_EQ(pager.Start({"cat"}, {}), platform::ERROR_BUSY);
  ASSERT_EQ(::write(STDOUT_FILENO, "one\n", 4), 4);
  pager.Finish();
  EXPECT_FALSE(pager.IsRunning());
  EXPECT_EQ(Read("seen"), "one\nyes\n");
}

TEST_F(Foreground, KeepsTheOutputWhenThereIsNoPager) {
  OutputPager pager;
  EXPECT_EQ(pager.Start({"/nonexistent/pager"}, {}), platform::ERROR_FILE_NOT_FOUND);
  EXPECT_FALSE(pager.IsRunning());
  platform::FaultPlan plan =
      platform::FaultPlan::FailCall(platform::Operation::kCreatePipe, 1, platform::ERROR_TOO_MANY_OPEN_FILES);
  EXPECT_EQ(pager.Start({"cat"}, {}), platform::ERROR_TOO_MANY_OPEN_FILES);
  EXPECT_EQ(::write(STDOUT_FILENO, "", 0), 0);
}

TEST_F(Foreground, LetsWritesFailWhenThePagerHasEnded) {
  struct sigaction before = {};
  sigaction(SIGPIPE, nullptr, &before);
  OutputPager pager;
  ASSERT_EQ(pager.Start({"true"}, {}), 0u);
  ssize_t written = 0;
  while (written >= 0) written = ::write(STDOUT_FILENO, "x", 1);  // until the program has ended
  EXPECT_EQ(errno, EPIPE);
  pager.Finish();
  sigaction(SIGPIPE, &before, nullptr);
}

}  // namespace
