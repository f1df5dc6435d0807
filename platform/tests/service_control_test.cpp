#include "platform/service_control.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/event.h"
#include "platform/file.h"
#include "platform/testing/fault.h"
#include "platform/testing/temporary_folder.h"

namespace platform {
namespace {

using testing::ElementsAre;

// A manager that listens: a datagram socket in a directory of its own, named by NOTIFY_SOCKET.
class FakeManager {
 public:
  FakeManager() {
    m_socket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, m_path.c_str(), sizeof address.sun_path - 1);
    EXPECT_EQ(bind(m_socket, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    setenv("NOTIFY_SOCKET", m_path.c_str(), 1);
  }
  ~FakeManager() {
    unsetenv("NOTIFY_SOCKET");
    close(m_socket);
  }
  std::string Next() const {
    char buffer[512];
    const ssize_t size = recv(m_socket, buffer, sizeof buffer, MSG_DONTWAIT);
    return size < 0 ? "nothing" : std::string(buffer, static_cast<std::size_t>(size));
  }

 private:
  const TemporaryFolder m_temporary{"qx-notify"};
  const std::string m_path = m_temporary.Path() + "/s";
  int m_socket = -1;
};

TEST(ServiceState, IsToldToTheManager) {
  const FakeManager manager;
  EXPECT_TRUE(HasServiceManager());
  EXPECT_EQ(ReportServiceState(ServiceState::kStartPending, "loading"), ERROR_SUCCESS);
  EXPECT_EQ(manager.Next(), "STATUS=loading");
  EXPECT_EQ(ReportServiceState(ServiceState::kRunning, "3 schedules\nREADY=0"), ERROR_SUCCESS);
  EXPECT_EQ(manager.Next(), "READY=1\nSTATUS=3 schedules");
  EXPECT_EQ(ReportServiceStatus("4 schedules\nSTOPPING=1"), ERROR_SUCCESS);
  EXPECT_EQ(manager.Next(), "STATUS=4 schedules");
  EXPECT_EQ(ReportServiceState(ServiceState::kStopPending, "ending"), ERROR_SUCCESS);
  EXPECT_EQ(manager.Next(), "STOPPING=1\nSTATUS=ending");
  EXPECT_EQ(ReportServiceState(ServiceState::kStopped, "ended"), ERROR_SUCCESS);
  EXPECT_EQ(manager.Next(), "STATUS=ended");
}

TEST(ServiceState, NeedsNoManager) {
  unsetenv("NOTIFY_SOCKET");
  EXPECT_FALSE(HasServiceManager());
  EXPECT_EQ(ReportServiceState(ServiceState::kRunning, "x"), ERROR_SUCCESS);
  setenv("NOTIFY_SOCKET", "", 1);
  EXPECT_FALSE(HasServiceManager());
  setenv("NOTIFY_SOCKET", "/nonexistent/socket", 1);
  EXPECT_EQ(ReportServiceState(ServiceState::kRunning, "x"), ERROR_FILE_NOT_FOUND);
  unsetenv("NOTIFY_SOCKET");
}

// Collects controls; each one sets an event.
class Controls {
 public:
  Controls() { EXPECT_EQ(arrived.Create(1), ERROR_SUCCESS); }
  ServiceControlHandler::Handler Collector() {
    return [this](std::uint32_t control) {
      last = control;
      ++count;
      arrived.Set(0);
    };
  }
  void Await() {
    WaitResult result;
    EXPECT_EQ(arrived.Wait(kWaitForever, result), ERROR_SUCCESS);
  }
  EventSet arrived;
  std::atomic<std::uint32_t> last{0};
  std::atomic<int> count{0};
};

TEST(ServiceControlHandler, TakesTheTwoSignalsAsTheStopControl) {
  Controls controls;
  ServiceControlHandler handler;
  ASSERT_EQ(handler.Start(controls.Collector()), ERROR_SUCCESS);
  for (const int signalNumber : {SIGTERM, SIGINT}) {
    controls.last = 0;
    ASSERT_EQ(kill(getpid(), signalNumber), 0);
    controls.Await();
    EXPECT_EQ(controls.last, kServiceControlStop);
  }
  EXPECT_EQ(controls.count, 2);
}

TEST(ServiceControlHandler, HandsOnInjectedControlsAndSurvivesAHandlerThatThrows) {
  Controls controls;
  ServiceControlHandler handler;
  const auto collect = controls.Collector();
  ASSERT_EQ(handler.Start([&](std::uint32_t control) {
              collect(control);
              throw std::runtime_error("x");
            }),
            ERROR_SUCCESS);
  for (const std::uint32_t control : {kServiceControlInterrogate, 130u}) {
    handler.Inject(control);
    controls.Await();
    EXPECT_EQ(controls.last, control);
  }
}

TEST(ServiceControlHandler, GivesTheSignalMaskBack) {
  sigset_t before, after;
  pthread_sigmask(SIG_SETMASK, nullptr, &before);
  {
    Controls controls;
    ServiceControlHandler handler;
    ASSERT_EQ(handler.Start(controls.Collector()), ERROR_SUCCESS);
    EXPECT_EQ(handler.Start(controls.Collector()), ERROR_BUSY);
    sigset_t during;
    pthread_sigmask(SIG_SETMASK, nullptr, &during);
    EXPECT_EQ(sigismember(&during, SIGTERM), 1);
  }
  pthread_sigmask(SIG_SETMASK, nullptr, &after);
  EXPECT_EQ(sigismember(&after, SIGTERM), sigismember(&before, SIGTERM));
}

TEST(ServiceControlHandler, FailsToStartWithTheInjectedCodeOrWithoutAHandler) {
  ServiceControlHandler handler;
  EXPECT_EQ(handler.Start(nullptr), ERROR_INVALID_PARAMETER);
  const FaultPlan plan = FaultPlan::FailCall(Operation::kRegisterServiceHandler, 1, 1063);
  EXPECT_EQ(handler.Start([](std::uint32_t) {}), 1063u);
  handler.Inject(1);  // nobody is there
}

TEST(SendStopControl, ReachesTheHandlerOfTheProcess) {
  EventSet stopped;
  ASSERT_EQ(stopped.Create(1), ERROR_SUCCESS);
  ServiceControlHandler controls;
  ASSERT_EQ(controls.Start([&](std::uint32_t control) {
    if (control == kServiceControlStop) stopped.Set(0);
  }),
            ERROR_SUCCESS);
  const TemporaryFolder folder{"qx-stop"};
  SetStateDirectory(folder.Path());
  EXPECT_EQ(SendStopControl(static_cast<std::uint32_t>(getpid())), ERROR_FILE_NOT_FOUND) << "nobody ever worked on it";
  File lock;
  ASSERT_EQ(LockStateDirectory(lock), ERROR_SUCCESS);
  EXPECT_EQ(SendStopControl(static_cast<std::uint32_t>(getpid())), ERROR_SUCCESS);
  SetStateDirectory({});
  WaitResult result;
  ASSERT_EQ(stopped.Wait(60000, result), ERROR_SUCCESS);
  EXPECT_EQ(result.kind, WaitResult::Kind::kEvent);
}

TEST(SendStopControl, LeavesAProcessAloneThatDoesntWorkOnTheStateDirectory) {
  const TemporaryFolder folder{"qx-stop"};
  SetStateDirectory(folder.Path());
  {
    File lock;
    ASSERT_EQ(LockStateDirectory(lock), ERROR_SUCCESS);
  }
  // Else the process ends here.
  EXPECT_EQ(SendStopControl(static_cast<std::uint32_t>(getpid())), ERROR_FILE_NOT_FOUND);
  SetStateDirectory({});
}

TEST(SendStopControl, RefusesWhatIsNoSingleProcess) {
  EXPECT_EQ(SendStopControl(0), ERROR_INVALID_PARAMETER);
  EXPECT_EQ(SendStopControl(0x7FFFFFFF), ERROR_INVALID_PARAMETER) << "more than a host has";
  EXPECT_EQ(SendStopControl(0xFFFFFFFFu), ERROR_INVALID_PARAMETER);
}

TEST(SendStopControl, TellsThatTheProcessMayNotBeReached) {
  const FaultPlan plan = FaultPlan::FailCall(Operation::kOpenService, 1, ERROR_ACCESS_DENIED);
  EXPECT_EQ(SendStopControl(static_cast<std::uint32_t>(getpid())), ERROR_ACCESS_DENIED);  // else the process ends here
}

}  // namespace
}  // namespace platform
