#include "platform/event_log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace platform {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

TEST(EventLog, HandsItsEventsToTheInstalledSink) {
  std::vector<LoggedEvent> seen;
  InstallEventSink([&](const LoggedEvent& event) { seen.push_back(event); });
  ReportEvent(u"Service", EventKindOf(0x68110002), 0x68110002, u"");
  ReportEvent(u"S\u00e4rvice", EventKindOf(0xE8110001), 0xE8110001, std::u16string_view(u"why\0not", 7));
  InstallEventSink(nullptr);
  EXPECT_THAT(seen, ElementsAre(LoggedEvent{"Service", EventKind::kInformation, 0x68110002, ""},
                                LoggedEvent{"S\xC3\xA4rvice", EventKind::kError, 0xE8110001, "why"}));
}

TEST(EventLog, WritesTheNumberInFrontOfTheText) {
  EXPECT_EQ(EventLine({"s", EventKind::kInformation, 0x68110002, ""}), "event 0x68110002");
  EXPECT_EQ(EventLine({"s", EventKind::kError, 0, "why"}), "why");
  EXPECT_EQ(EventLine({"s", EventKind::kError, 0x1, "50% done %s"}), "event 0x00000001: 50% done %s");
}

TEST(EventLog, ReadsTheKindFromTheTopBits) {
  EXPECT_EQ(EventKindOf(0x28110002), EventKind::kInformation);
  EXPECT_EQ(EventKindOf(0xA8110002), EventKind::kWarning);
  EXPECT_EQ(EventKindOf(0xE8110003), EventKind::kError);
}

// What comes to a socket of the system's when `act` has run, in a process whose /run/systemd and /dev are its own: the
// real ones can't be put elsewhere. "skip" where nobody may have such a process.
std::string HeardAt(const char* folder, const char* below, const char* socketName, void (*act)()) {
  int result[2];
  if (pipe(result) != 0) return "skip";
  const pid_t process = fork();
  if (process == 0) {
    const auto finish = [&](const char* text, std::size_t size) {
      (void)!write(result[1], text, size);
      _exit(0);
    };
    const int spaces = geteuid() == 0 ? CLONE_NEWNS : CLONE_NEWNS | CLONE_NEWUSER;
    if (unshare(spaces) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("none", folder, "tmpfs", 0, nullptr) != 0) {
      finish("skip", 4);
    }
    if (*below != '\0') (void)mkdir(below, 0755);
    const int heard = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::string(socketName).copy(address.sun_path, sizeof address.sun_path - 1);
    if (bind(heard, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) finish("no socket", 9);
    (void)alarm(60);  // an event that waits for its reader would wait for ever
    act();
    char text[4096];
    const ssize_t size = recv(heard, text, sizeof text, MSG_DONTWAIT);
    finish(text, size > 0 ? static_cast<std::size_t>(size) : 0);
  }
  close(result[1]);
  std::string text(4096, '\0');
  const ssize_t size = read(result[0], text.data(), text.size());
  text.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
  close(result[0]);
  (void)waitpid(process, nullptr, 0);
  return text;
}

void ReportOne() { ReportEvent(u"Korvane Scheduler Service", EventKindOf(0xE8110003), 0xE8110003, u"why"); }

TEST(EventLog, GoesToTheJournalWithItsNumber) {
  if (access("/run/systemd", F_OK) != 0) GTEST_SKIP() << "no /run/systemd: JOURNAL NOT CHECKED";
  const std::string heard =
      HeardAt("/run/systemd", "/run/systemd/journal", "/run/systemd/journal/socket", &ReportOne);
  if (heard == "skip") GTEST_SKIP() << "no namespace of its own: JOURNAL NOT CHECKED";
  for (const char* field : {"MESSAGE=event 0xE8110003: why\n", "PRIORITY=3\n", "EVENT_ID=3893428227\n",
                            "SYSLOG_IDENTIFIER=Korvane Scheduler Service\n"}) {
    EXPECT_THAT(heard, HasSubstr(field));
  }
}

TEST(EventLog, OfSeveralLinesGoesToTheJournalWithItsSize) {
  if (access("/run/systemd", F_OK) != 0) GTEST_SKIP() << "no /run/systemd: JOURNAL NOT CHECKED";
  const std::string heard =
      HeardAt("/run/systemd", "/run/systemd/journal", "/run/systemd/journal/socket",
              [] { ReportEvent(u"s", EventKind::kError, 0, u"one\nPRIORITY=0"); });
  if (heard == "skip") GTEST_SKIP() << "no namespace of its own: JOURNAL NOT CHECKED";
  const std::string size("\x0e\0\0\0\0\0\0\0", 8);
  EXPECT_THAT(heard, testing::StartsWith("MESSAGE\n" + size + "one\nPRIORITY=0\nPRIORITY=3\n"));
}

TEST(EventLog, GoesToSyslogWhereNoJournalIs) {
  if (access("/run/systemd/journal/socket", F_OK) == 0) GTEST_SKIP() << "a journal is here: SYSLOG NOT CHECKED";
  const std::string heard = HeardAt("/dev", "", "/dev/log", &ReportOne);
  if (heard == "skip") GTEST_SKIP() << "no namespace of its own: SYSLOG NOT CHECKED";
  EXPECT_THAT(heard, testing::StartsWith("<27>"));  // daemon, error
  EXPECT_THAT(heard, HasSubstr("Korvane Scheduler Service: event 0xE8110003: why"));
}

TEST(EventLog, DoesNotWaitForAJournalThatReadsNothing) {
  if (access("/run/systemd", F_OK) != 0) GTEST_SKIP() << "no /run/systemd: JOURNAL NOT CHECKED";
  const std::string heard =
      HeardAt("/run/systemd", "/run/systemd/journal", "/run/systemd/journal/socket", [] {
        for (int i = 0; i < 5000; ++i) ReportOne();
      });
  if (heard == "skip") GTEST_SKIP() << "no namespace of its own: JOURNAL NOT CHECKED";
  EXPECT_THAT(heard, HasSubstr("EVENT_ID=3893428227\n"));
}

}  // namespace
}  // namespace platform
