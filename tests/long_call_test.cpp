// The whole service while one call takes its time: it waits for another node that takes the connection and says
// nothing.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <chrono>
#include <future>

#include "platform/registry.h"
#include "platform/security.h"
#include "tests/line_reader.h"
#include "tests/running_service.h"

namespace qx::testing {
namespace {

// A node that is there and answers nothing.
class SilentNode {
 public:
  SilentNode() {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    m_listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(bind(m_listener, reinterpret_cast<sockaddr*>(&address), size), 0);
    EXPECT_EQ(listen(m_listener, 1), 0);
    EXPECT_EQ(getsockname(m_listener, reinterpret_cast<sockaddr*>(&address), &size), 0);
    m_port = ntohs(address.sin_port);
  }
  SilentNode(const SilentNode&) = delete;
  SilentNode& operator=(const SilentNode&) = delete;
  ~SilentNode() {
    HangUp();
    close(m_listener);
  }
  [[nodiscard]] std::uint16_t Port() const { return m_port; }
  // Waits until somebody has connected and said the first word.
  bool TakeCaller() {
    if (!HasInput(m_listener)) return false;
    m_caller = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
    return m_caller >= 0 && HasInput(m_caller);
  }
  void HangUp() {
    if (m_caller >= 0) close(m_caller);
    m_caller = -1;
  }

 private:
  static bool HasInput(int descriptor) {
    pollfd ready = {descriptor, POLLIN, 0};
    return poll(&ready, 1, static_cast<int>(kPatience)) == 1;
  }
  int m_listener = -1;
  int m_caller = -1;
  std::uint16_t m_port = 0;
};

class LongCall : public ::testing::Test {
 protected:
  // A service with an account and a secret, so that it speaks to nodes, on the silent node's port.
  void SetUp() override {
    ASSERT_FALSE(m_service.Bus().Address().empty()) << "no dbus-daemon";
    m_service.AddVariable("KRB5_CONFIG=/dev/null");
    m_service.AddVariable("KRB5CCNAME=MEMORY:none");
    m_service.Register("-Service");
    ASSERT_EQ(platform::OpenRegistryStore(m_service.Root() + "/registry.db"), 0u);
    Edit(u"SYSTEM\\CurrentControlSet\\Services\\QxSchedService",
         [](platform::RegistryKey& key) { return platform::SetString(key, u"ObjectName", u"cluster"); });
    Edit(u"SOFTWARE\\KORVANE\\QxSvc\\CurrentVersion\\Schedules",
         [this](platform::RegistryKey& key) { return platform::SetDword(key, u"DefaultPort", m_node.Port()); });
    ASSERT_EQ(platform::CloseRegistryStore(), 0u);
    const std::string secret = m_service.Root() + "/nodes.key";
    std::filesystem::remove(secret);
    ASSERT_EQ(platform::MakeCredentialsFile(secret, "CLUSTER", "qxsvc"), 0u);
    m_service.Start();
    m_service.Connect(m_client);
    m_service.Connect(m_listener);
    std::uint32_t cookie = 0;
    ASSERT_EQ(m_listener.Advise(m_events, cookie), 0u);
  }
  template <class Change>
  static void Edit(std::u16string_view path, Change change) {
    platform::RegistryKey key;
    ASSERT_EQ(platform::OpenKey(platform::Hive::kLocalMachine, path, platform::KEY_ALL_ACCESS, key), 0u);
    ASSERT_EQ(change(key), 0u);
    ASSERT_EQ(key.Close(), 0u);
  }

  SilentNode m_node;
  RunningService m_service;
  SchedulerClient m_client;
  SchedulerClient m_listener;
  std::shared_ptr<EventLog> m_events = std::make_shared<EventLog>();
};

TEST_F(LongCall, JobsThatFallDueStartWhileItLastsAndAreToldBehindIt) {
  LineReader jobs(m_service.Jobs() + "/lines");
  const std::int64_t due = platform::NowSeconds() + 6;
  ScheduleGuid first{}, second{};
  const std::string script = "date +%s > " + jobs.Name();
  ASSERT_EQ(m_client.CreateSchedule(m_service.Job("first", due, script), first), 0u);
  ASSERT_EQ(m_client.CreateSchedule(m_service.Job("second", due + 1, script), second), 0u);

  NodeResults results = {77, 77};
  std::future<Status> call = std::async(std::launch::async, [&] {
    return m_client.PerformOperationOnNodes(u"/bin/true", 2, {u"localhost", u"127.0.0.1"}, results);
  });
  ASSERT_TRUE(m_node.TakeCaller()) << m_service.Log();  // from here on the call waits for an answer
  const auto isPending = [&] { return call.wait_for(std::chrono::seconds(0)) == std::future_status::timeout; };
  ASSERT_TRUE(isPending());
  ASSERT_LT(platform::NowSeconds(), due) << "the machine is too slow for this test";
  for (const std::int64_t at : {due, due + 1}) {
    const std::string line = jobs.WaitFor("");
    ASSERT_NE(line, "") << m_service.Log();
    EXPECT_TRUE(isPending());
    EXPECT_GE(std::stoll(line), at);
    EXPECT_LE(std::stoll(line), at + 5);  // its second, and what a machine under load takes to start a shell
  }
  m_node.HangUp();
  EXPECT_EQ(call.get(), 1u);
  EXPECT_EQ(results, (NodeResults{1, 1}));
  // What was to be told waited for the apartment, in order.
  for (const auto& [id, at] : {std::pair(first, due), std::pair(second, due + 1)}) {
    const std::optional<Event> event = RunningService::WaitFor(m_listener, *m_events, "NextTimeWindow_Modify");
    ASSERT_TRUE(event.has_value());
    EXPECT_EQ(platform::GuidText(event->id), platform::GuidText(id));
    EXPECT_EQ(event->window, at + 86400);
  }
  EXPECT_EQ(m_service.Stop(), 0) << m_service.Output();
}

}  // namespace
}  // namespace qx::testing
