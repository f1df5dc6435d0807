#include "platform/event_log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <future>
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

// Events of a process whose journal and syslog daemon are sockets of the test's, each there from its Listen() on.
class EventLogSocket : public ::testing::Test {
 protected:
  EventLogSocket() {
    std::string pattern = ::testing::TempDir() + "qx-event-log-XXXXXX";
    EXPECT_NE(mkdtemp(pattern.data()), nullptr);
    m_folder = pattern;
    m_before = InstallEventLogSockets({m_folder + "/journal", m_folder + "/syslog"});
  }
  ~EventLogSocket() override {
    (void)InstallEventLogSockets(m_before);
    Close(m_journal);
    Close(m_syslog);
    std::filesystem::remove_all(m_folder);
  }

  void ListenAsJournal() { Listen("/journal", m_journal); }
  void ListenAsSyslog() { Listen("/syslog", m_syslog); }
  // The next datagram that has come, empty when none has.
  static std::string Heard(int listening) {
    std::string text(4096, '\0');
    const ssize_t size = recv(listening, text.data(), text.size(), MSG_DONTWAIT);
    text.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
    return text;
  }
  static void Close(int& listening) {
    if (listening >= 0) close(listening);
    listening = -1;
  }
  static void ReportOne() {
    ReportEvent(u"Korvane Scheduler Service", EventKindOf(0xE8110003), 0xE8110003, u"why");
  }

  std::string m_folder;
  EventLogSockets m_before;
  int m_journal = -1;
  int m_syslog = -1;

 private:
  void Listen(const std::string& name, int& out) {
    out = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    ASSERT_LT(m_folder.size() + name.size(), sizeof address.sun_path);
    (m_folder + name).copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(bind(out, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0) << m_folder << name;
  }
};

TEST_F(EventLogSocket, IsTheSystemsOwnUnlessATestHasInstalledOthers) {
  EXPECT_EQ(m_before.journal, "/run/systemd/journal/socket");
  EXPECT_EQ(m_before.syslog, "/dev/log");
}

TEST_F(EventLogSocket, OfTheJournalTakesAnEventWithItsNumber) {
  ListenAsJournal();
  ListenAsSyslog();
  ReportOne();
  const std::string heard = Heard(m_journal);
  for (const char* field : {"MESSAGE=event 0xE8110003: why\n", "PRIORITY=3\n", "EVENT_ID=3893428227\n",
                            "SYSLOG_IDENTIFIER=Korvane Scheduler Service\n"}) {
    EXPECT_THAT(heard, HasSubstr(field));
  }
  EXPECT_EQ(Heard(m_journal), "");
  EXPECT_EQ(Heard(m_syslog), "");
}

TEST_F(EventLogSocket, OfTheJournalTakesSeveralLinesWithTheirSize) {
  ListenAsJournal();
  ReportEvent(u"s", EventKind::kError, 0, u"one\nPRIORITY=0");
  const std::string size("\x0e\0\0\0\0\0\0\0", 8);
  EXPECT_THAT(Heard(m_journal), testing::StartsWith("MESSAGE\n" + size + "one\nPRIORITY=0\nPRIORITY=3\n"));
}

TEST_F(EventLogSocket, OfSyslogTakesAnEventWhereNoJournalIs) {
  ListenAsSyslog();
  const auto expectOne = [&] {
    const std::string heard = Heard(m_syslog);
    EXPECT_THAT(heard, testing::StartsWith("<27>"));  // daemon, error
    EXPECT_THAT(heard, HasSubstr("Korvane Scheduler Service: event 0xE8110003: why"));
  };
  ReportOne();  // no such file
  expectOne();
  ListenAsJournal();
  Close(m_journal);
  ReportOne();  // a file that nobody listens at any more
  expectOne();
  ASSERT_EQ(InstallEventLogSockets({m_folder + "/journal/socket", m_folder + "/syslog"}).journal,
            m_folder + "/journal");
  ReportOne();  // a file where a folder should be
  expectOne();
}

TEST_F(EventLogSocket, ThatReadsNothingIsNotWaitedFor) {
  constexpr int kEvents = 5000;
  ListenAsJournal();
  ListenAsSyslog();
  std::future<void> reported = std::async(std::launch::async, [] {
    for (int i = 0; i < kEvents; ++i) ReportOne();
  });
  const bool waits = reported.wait_for(std::chrono::minutes(1)) != std::future_status::ready;
  EXPECT_FALSE(waits);
  if (waits) return Close(m_journal);  // which ends the wait
  int heard = 0;
  for (std::string text; !(text = Heard(m_journal)).empty(); ++heard) {
    EXPECT_THAT(text, HasSubstr("EVENT_ID=3893428227\n"));
  }
  EXPECT_GT(heard, 0);
  EXPECT_LT(heard, kEvents) << "its queue was never full";
  EXPECT_EQ(Heard(m_syslog), "") << "what a full queue misses isn't told elsewhere";
}

}  // namespace
}  // namespace platform
