// A job beside the real service: what it inherits, and that it lives on when the service ends.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/running_service.h"

namespace qx::testing {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

// A named pipe that the test reads without missing the one who writes first.
class Mailbox {
 public:
  explicit Mailbox(std::string path) : m_path(std::move(path)) {
    EXPECT_EQ(mkfifo(m_path.c_str(), 0600), 0);
    m_descriptor = open(m_path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    EXPECT_GE(m_descriptor, 0);
  }
  Mailbox(const Mailbox&) = delete;
  Mailbox& operator=(const Mailbox&) = delete;
  ~Mailbox() { close(m_descriptor); }

  [[nodiscard]] const std::string& Path() const { return m_path; }
  // The next line, without its end; empty when none came in time.
  std::string Line() const {
    std::string line;
    pollfd written = {m_descriptor, POLLIN, 0};
    while (poll(&written, 1, static_cast<int>(kPatience)) == 1) {
      char c = 0;
      if (read(m_descriptor, &c, 1) != 1 || c == '\n') break;
      line += c;
    }
    return line;
  }
  void Write(const std::string& line) const {
    EXPECT_EQ(write(m_descriptor, (line + "\n").c_str(), line.size() + 1), static_cast<ssize_t>(line.size() + 1));
  }

 private:
  std::string m_path;
  int m_descriptor = -1;
};

class JobLife : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_FALSE(service.Bus().Address().empty()) << "no dbus-daemon"; }
  void StartAll() {
    ASSERT_NO_FATAL_FAILURE(service.Register());
    ASSERT_NO_FATAL_FAILURE(service.Start());
    ASSERT_NO_FATAL_FAILURE(service.Connect(client));
  }
  // Starts a job at once, by a schedule that has a far window.
  void RunNow(const std::string& script) {
    SCHEDULE_OBJECT schedule = service.Job("job", platform::NowSeconds() + 6 * 3600, script);
    schedule.bRunNow = 1;
    ScheduleGuid id;
    ASSERT_EQ(client.CreateSchedule(schedule, id), 0u) << client.LastError().text;
  }

  RunningService service;
  SchedulerClient client;
};

struct EndCase {
  const char* name;
  int signal;
  int exitCode;
};
void PrintTo(const EndCase& end, std::ostream* out) {
  *out << end.name;
}
class JobAtTheEnd : public JobLife, public ::testing::WithParamInterface<EndCase> {};

TEST_P(JobAtTheEnd, AJobOutlivesTheServiceThatStartedIt) {
  ASSERT_NO_FATAL_FAILURE(StartAll());
  const Mailbox fromJob(service.Jobs() + "/from"), toJob(service.Jobs() + "/to");
  ASSERT_NO_FATAL_FAILURE(RunNow("echo started > " + fromJob.Path() + "\nread word < " + toJob.Path() +
                                 "\necho \"got $word\" > " + fromJob.Path()));
  ASSERT_EQ(fromJob.Line(), "started") << service.Log();
  service.Process().Signal(GetParam().signal);
  EXPECT_EQ(service.Process().Wait(), GetParam().exitCode);
  toJob.Write("word");
  EXPECT_EQ(fromJob.Line(), "got word");
}
INSTANTIATE_TEST_SUITE_P(Of, JobAtTheEnd,
                         ::testing::Values(EndCase{"AStoppedService", SIGTERM, 0},
                                           EndCase{"AKilledService", SIGKILL, 128 + SIGKILL}),
                         [](const auto& which) { return which.param.name; });

// A terminal of the test's own; the service gets the other end as its output.
class Terminal {
 public:
  Terminal() {
    m_descriptor = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
    EXPECT_GE(m_descriptor, 0);
    EXPECT_EQ(grantpt(m_descriptor), 0);
    EXPECT_EQ(unlockpt(m_descriptor), 0);
    char name[64] = "";
    EXPECT_EQ(ptsname_r(m_descriptor, name, sizeof name), 0);
    m_path = name;
  }
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;
  ~Terminal() { close(m_descriptor); }

  [[nodiscard]] const std::string& Path() const { return m_path; }
  // Reads until the text has come; all that was read.
  std::string ReadUntil(const std::string& text) const {
    std::string all;
    pollfd written = {m_descriptor, POLLIN, 0};
    while (all.find(text) == all.npos && poll(&written, 1, static_cast<int>(kPatience)) == 1) {
      char buffer[256];
      const ssize_t size = read(m_descriptor, buffer, sizeof buffer);
      if (size <= 0) break;
      all.append(buffer, static_cast<std::size_t>(size));
    }
    return all;
  }

 private:
  int m_descriptor = -1;
  std::string m_path;
};

TEST_F(JobLife, AJobWritesToTheTerminalThatTheServiceWasStartedOn) {
  ASSERT_NO_FATAL_FAILURE(service.Register());
  const Terminal terminal;
  const Child onTerminal(test_paths::Programs() + "/QxSchedService",
                         {"--root", service.Root(), "--bus=" + service.Bus().Address(), "--foreground"},
                         terminal.Path(), service.Environment());
  ASSERT_TRUE(service.WaitForName());
  ASSERT_NO_FATAL_FAILURE(service.Connect(client));
  ASSERT_NO_FATAL_FAILURE(RunNow("read line || echo no input\necho from the job"));
  const std::string shown = terminal.ReadUntil("from the job");
  EXPECT_THAT(shown, HasSubstr("no input\r\nfrom the job"));
}

TEST_F(JobLife, AJobWritesNowhereWithoutATerminal) {
  ASSERT_NO_FATAL_FAILURE(StartAll());
  const Mailbox fromJob(service.Jobs() + "/from");
  ASSERT_NO_FATAL_FAILURE(RunNow("echo to the output\necho to the errors >&2\necho done > " + fromJob.Path()));
  ASSERT_EQ(fromJob.Line(), "done") << service.Log();
  EXPECT_EQ(service.Stop(), 0);
  EXPECT_EQ(service.Output(), "");
}

TEST_F(JobLife, AJobGetsTheServicesEnvironmentWithoutItsManagersAndNoDescriptor) {
  service.AddVariable("QX_TEST_KEPT=yes");
  service.AddVariable("WATCHDOG_USEC=60000000");
  ASSERT_NO_FATAL_FAILURE(StartAll());
  const Mailbox fromJob(service.Jobs() + "/from");
  // The shell's own descriptors begin above 2 as well: what the kernel tells of a single program is counted.
  ASSERT_NO_FATAL_FAILURE(RunNow("env > " + service.Jobs() + "/env\nls -l /proc/self/fd > " + service.Jobs() +
                                 "/fds\necho done > " + fromJob.Path()));
  ASSERT_EQ(fromJob.Line(), "done") << service.Log();
  const std::string environment = RunningService::ReadFile(service.Jobs() + "/env");
  EXPECT_THAT(environment, HasSubstr("QX_TEST_KEPT=yes\n"));
  EXPECT_THAT(environment, Not(HasSubstr("WATCHDOG_")));
  const std::string descriptors = RunningService::ReadFile(service.Jobs() + "/fds");
  EXPECT_THAT(descriptors, HasSubstr(" 0 -> /dev/null"));
  EXPECT_THAT(descriptors, HasSubstr(" 2 -> /dev/null"));
  EXPECT_THAT(descriptors, Not(HasSubstr("registry.db")));
  EXPECT_THAT(descriptors, Not(HasSubstr("socket:")));
  EXPECT_THAT(descriptors, Not(HasSubstr("anon_inode:")));
}

}  // namespace
}  // namespace qx::testing
