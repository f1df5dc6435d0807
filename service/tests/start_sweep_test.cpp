// Every platform call that the program's own thread makes between its start and its end fails. Each life is a process of
// its own, so that nothing of one is left in the next.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "platform/event_log.h"
#include "service/service_module.h"
#include "service/service_registration.h"
#include "service/tests/sweep_fixture.h"

namespace qx::testing {
namespace {

using platform::Operation;

// Asks the process to end, as a service manager does, once the module says that it has come to its work.
class StopAtWork final : public ZepFoundation::ServiceLogWriter {
 public:
  void Write(std::uint32_t, std::string_view text) override {
    if (!text.starts_with("CServiceModule::SetProcessRef") || m_asked.exchange(true)) return;
    (void)::kill(::getpid(), SIGTERM);
  }

 private:
  std::atomic<bool> m_asked = false;  // every thread writes
};

class StartSweep : public ServiceSweep {
 protected:
  void SetUp() override {
    ServiceSweep::SetUp();
    ASSERT_EQ(RegisterServer(true), platform::ERROR_SUCCESS);
    KeepStores();
  }
  // A life of the module in a child. What its own thread calls is told through `calls`.
  [[noreturn]] void Live(int calls) {
    ::alarm(60);
    const int err = ::open((m_folder + "/err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    (void)::dup2(err, STDERR_FILENO);
    m_calls = calls;
    platform::InstallClockSource(nullptr);
    platform::InstallEventSink([](const platform::LoggedEvent&) {});
    static StopAtWork stop;
    ZepFoundation::SetServiceLogWriter(&stop);
    ServiceOptions options;
    options.root = m_folder;
    options.foreground = true;
    options.busAddress = "unix:path=" + m_folder + "/no-bus";
    CServiceModule* const module = new CServiceModule(std::move(options));  // threads may use it to the end
    const int code = module->Main();
    std::fflush(nullptr);
    ::_exit(code);
  }
  void Carry() {
    int ends[2] = {};
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    const pid_t child = ::fork();
    if (child == 0) Live(ends[1]);
    ::close(ends[1]);
    std::vector<std::uint16_t> asked;
    for (std::uint16_t operation = 0; ::read(ends[0], &operation, sizeof operation) == sizeof operation;) {
      asked.push_back(operation);
    }
    ::close(ends[0]);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    m_exit = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    // The plan of this process counts what the child's one answered.
    for (const std::uint16_t operation : asked) (void)platform::FaultAt(static_cast<Operation>(operation));
  }
  // What the program said, without its lines about the bus.
  std::string Told() const {
    std::istringstream lines(FileText(m_folder + "/err"));
    std::string told;
    for (std::string line; std::getline(lines, line);) {
      if (line.find("No connection to the bus") == std::string::npos) told += line + "\n";
    }
    return told;
  }

  int m_calls = -1;  // in a child
  int m_exit = 0;
};

TEST_F(StartSweep, TheProgramWorksOrSaysWhyNotAndTouchesNoSchedule) {
  const std::thread::id self = std::this_thread::get_id();
  const auto prepare = [&] {
    if (!platform::IsRegistryStoreOpen()) {
      ASSERT_EQ(platform::OpenRegistryStore(m_folder + "/registry.db"), platform::ERROR_SUCCESS);
    }
    Reset(false);
    ASSERT_EQ(platform::CloseRegistryStore(), platform::ERROR_SUCCESS);
  };
  (void)platform::RunSweep({
      .name = "start and stop of the service, its own thread",
      .prepare = prepare,
      .operation = [&] { Carry(); },
      .judge =
          [&](const Fault* fault) {
            EXPECT_LT(m_exit, 128) << "ended by signal " << m_exit - 128;
            if (fault == nullptr) {
              EXPECT_EQ(m_exit, 0);
            }
            if (m_exit != 0) {
              EXPECT_NE(Told(), "");
            }
            ASSERT_EQ(platform::OpenRegistryStore(m_folder + "/registry.db"), platform::ERROR_SUCCESS);
            EXPECT_TRUE(ReadStoredState(m_folder) == m_before);
            ASSERT_EQ(platform::CloseRegistryStore(), platform::ERROR_SUCCESS);
            if (fault != nullptr && fault->mode == platform::kOnce) {
              Carry();
              EXPECT_EQ(m_exit, 0) << "the next start";
            }
            ASSERT_EQ(platform::OpenRegistryStore(m_folder + "/registry.db"), platform::ERROR_SUCCESS);
          },
      .codes =
          [](Operation operation) {
            std::vector<platform::ErrorCode> codes = platform::FittingCodes(operation);
            if (codes.size() > 1) codes.resize(1);
            return codes;
          },
      .isOwn =
          [this, self](Operation operation) {
            if (std::this_thread::get_id() != self) return false;
            if (m_calls >= 0) {
              const auto number = static_cast<std::uint16_t>(operation);
              (void)!::write(m_calls, &number, sizeof number);
            }
            return true;
          },
      .explain = [&] { return "exit " + std::to_string(m_exit) + "\n" + FileText(m_folder + "/err"); },
  });
}

}  // namespace
}  // namespace qx::testing
