// tests/running_service.h: for tests: the real program QxSchedService, on a bus and in a state directory of its own.
//
// Threads: one object from one thread.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "client/scheduler_client.h"
#include "common/bus_records.h"
#include "platform/bus.h"
#include "platform/clock.h"
#include "platform/testing/private_bus.h"
#include "platform/testing/temporary_folder.h"
#include "platform/text.h"
#include "tests/program_words.h"
#include "tests/test_paths.h"

namespace qx::testing {

// How long a test waits for what is bound to come, in milliseconds: a machine under load is slow.
inline constexpr std::uint32_t kPatience = 60000;

// How often a wait for the bus looks at the process too.
inline constexpr std::uint32_t kLookMs = 50;

// A process that a test started; killed and taken at destruction.
class Child {
 public:
  Child(const std::string& program, const std::vector<std::string>& arguments, const std::string& outputFile,
        const std::vector<std::string>& environment) {
    const ProgramWords words(program, arguments, environment);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, outputFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    EXPECT_EQ(posix_spawn(&m_process, program.c_str(), &actions, nullptr, words.Argv(), words.Envp()), 0) << program;
    posix_spawn_file_actions_destroy(&actions);
    m_descriptor = static_cast<int>(syscall(SYS_pidfd_open, m_process, 0));
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child() {
    if (!m_exit) {
      Signal(SIGKILL);
      (void)Wait();
    }
    close(m_descriptor);
  }

  [[nodiscard]] pid_t Id() const { return m_process; }
  [[nodiscard]] bool HasEnded() const {
    pollfd ended = {m_descriptor, POLLIN, 0};
    return m_exit || poll(&ended, 1, 0) == 1;
  }
  void Signal(int signal) const { (void)syscall(SYS_pidfd_send_signal, m_descriptor, signal, nullptr, 0); }
  // The exit code, 128 + N after signal N; -1 when it didn't end in time.
  int Wait() {
    if (m_exit) return *m_exit;
    pollfd ended = {m_descriptor, POLLIN, 0};
    if (poll(&ended, 1, static_cast<int>(kPatience)) != 1) return -1;
    int status = 0;
    (void)waitpid(m_process, &status, 0);
    m_exit = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
    return *m_exit;
  }

 private:
  pid_t m_process = -1;
  int m_descriptor = -1;
  std::optional<int> m_exit;
};

// An event as it came.
struct Event {
  std::string name;
  ScheduleGuid id{};
  std::int32_t window = 0;
};

// Keeps the events.
class EventLog : public ISchedulerServiceEvents {
 public:
  void Schedule_Add(const ScheduleGuid& id) override { events.push_back({"Schedule_Add", id, 0}); }
  void Schedule_Modify(const ScheduleGuid& id) override { events.push_back({"Schedule_Modify", id, 0}); }
  void Schedule_Delete(const ScheduleGuid& id) override { events.push_back({"Schedule_Delete", id, 0}); }
  void NextTimeWindow_Modify(const ScheduleGuid& id, std::int32_t window) override {
    events.push_back({"NextTimeWindow_Modify", id, window});
  }
  void SystemTime_Change(std::int32_t count, const std::vector<std::u16string>&,
                         const std::vector<std::int32_t>&) override {
    events.push_back({"SystemTime_Change", {}, count});
  }
  std::deque<Event> events;
};

// A state directory, a bus, and the program on both.
class RunningService {
 public:
  //   busConfiguration  a file of the bus daemon's; empty: that of a session bus
  explicit RunningService(const std::string& busConfiguration = {}) : m_bus(busConfiguration) {
    std::filesystem::create_directory(Jobs());
  }
  RunningService(const RunningService&) = delete;
  RunningService& operator=(const RunningService&) = delete;
  ~RunningService() {
    m_service.reset();
  }

  // The directory of all that follows; the state directory, and one for the files of jobs.
  [[nodiscard]] const std::string& Directory() const { return m_directory; }
  [[nodiscard]] std::string Root() const { return m_directory + "/state"; }
  [[nodiscard]] std::string Jobs() const { return m_directory + "/jobs"; }
  platform::PrivateBus& Bus() { return m_bus; }
  Child& Process() { return *m_service; }
  [[nodiscard]] bool IsStarted() const { return m_service != nullptr; }

  // A variable that the program gets from now on.
  void AddVariable(const std::string& assignment) { m_variables.push_back(assignment); }
  // All variables that it gets from now on beside the usual ones.
  void SetVariables(std::vector<std::string> assignments) { m_variables = std::move(assignments); }
  // Where the program lies from now on; empty for the build's own.
  void SetPrograms(std::string directory) { m_programs = std::move(directory); }

  // A program with arguments that starts the program in its own place, as "ip netns exec NAME" does; empty for none.
  void SetLauncher(std::vector<std::string> words) { m_launcher = std::move(words); }

  // Runs the program to its end; its exit code.
  int Run(std::vector<std::string> arguments) { return MakeChild(std::move(arguments))->Wait(); }
  // Registers; by default as a plain local server.
  void Register(const std::string& word = "-RegServer") { ASSERT_EQ(Run({word}), 0) << Output(); }
  // Starts the program and waits until it answers on the bus.
  void Start(std::vector<std::string> arguments = {"--foreground"}) {
    Launch(std::move(arguments));
    ASSERT_TRUE(WaitForName()) << Output();
  }
  // The same without waiting.
  void Launch(std::vector<std::string> arguments) {
    m_service.reset();
    m_service = MakeChild(std::move(arguments));
  }
  // Ends it by the stop control; its exit code.
  int Stop() {
    m_service->Signal(SIGTERM);
    return m_service->Wait();
  }

  // What the program last wrote to its output and error streams.
  [[nodiscard]] std::string Output() const { return ReadFile(OutputFile()); }
  // The service log, all files.
  [[nodiscard]] std::string Log() const {
    std::string text;
    for (int i = 0; i < 3; ++i) text += ReadFile(Root() + "/logs/SchedService" + std::to_string(i) + ".log");
    return text;
  }
  static std::string ReadFile(const std::string& name) {
    std::ifstream in(name, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  }

  // What every program of a test gets.
  std::vector<std::string> Environment() const {
    std::vector<std::string> environment = {"TZ=UTC", "PATH=/usr/bin:/bin", "HOME=/nonexistent"};
    for (const char* name : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS", "TMPDIR"}) {
      if (const char* const value = std::getenv(name)) environment.push_back(std::string(name) + "=" + value);
    }
    environment.insert(environment.end(), m_variables.begin(), m_variables.end());
    return environment;
  }

  // A client that is connected, with its events kept.
  void Connect(SchedulerClient& client) {
    ASSERT_EQ(client.Connect(m_bus.ForClients()), 0u) << client.LastError().text;
  }

  // Waits for the next event of that name; the events before it are dropped.
  static std::optional<Event> WaitFor(SchedulerClient& client, EventLog& log, std::string_view name) {
    const std::uint32_t begun = platform::TickCount();
    while (true) {
      while (!log.events.empty()) {
        const Event event = log.events.front();
        log.events.pop_front();
        if (event.name == name) return event;
      }
      const std::uint32_t passed = platform::TickCount() - begun;
      if (passed >= kPatience || client.WaitForEvents(kPatience - passed) == 0) return std::nullopt;
    }
  }

  // Waits until the service has its name on the bus; false when it ended before.
  bool WaitForName() {
    platform::BusConnection watcher;
    if (watcher.Open(m_bus.ForClients()) != platform::ERROR_SUCCESS) return false;
    bool owned = false;
    const auto rc = watcher.Subscribe("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                      "NameOwnerChanged", [&](platform::MessageReader& signal) {
                                        std::string_view name, before, after;
                                        (void)signal.ReadString(name);
                                        (void)signal.ReadString(before);
                                        (void)signal.ReadString(after);
                                        if (name == kBusName && !after.empty()) owned = true;
                                      });
    if (rc != platform::ERROR_SUCCESS) return false;
    platform::MessageWriter call;
    platform::MessageReader reply;
    platform::BusError error;
    if (watcher.NewCall("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "NameHasOwner",
                        call) != platform::ERROR_SUCCESS) {
      return false;
    }
    call.AppendString(kBusName);
    if (watcher.Call(std::move(call), reply, error) != platform::ERROR_SUCCESS) return false;
    (void)reply.ReadBool(owned);
    const std::uint32_t begun = platform::TickCount();
    while (!owned && watcher.IsOpen()) {
      while (watcher.Process()) {
      }
      const std::uint32_t passed = platform::TickCount() - begun;
      if (owned || passed >= kPatience || (m_service && m_service->HasEnded())) break;
      (void)watcher.WaitForWork(kLookMs);
    }
    return owned;
  }

  // A record that is valid and runs `script` by the shell each day, first at `start` (seconds since 1970).
  SCHEDULE_OBJECT Job(const std::string& name, std::int64_t start, const std::string& script = "") const {
    const std::string file = Jobs() + "/" + name + ".sh";
    std::ofstream(file) << script << "\n";
    SCHEDULE_OBJECT schedule;
    schedule.bstrName = platform::WideFromUtf8(name);
    schedule.bstrDescription = u"made by a test";
    schedule.bstrApplication = u"test";
    schedule.bstrObjectID = u"object-1";
    schedule.dwTaskOpCode = 4;
    schedule.bstrWrapperBinaryName = u"/bin/sh";
    schedule.bstrXMLFilePathName = platform::WideFromUtf8(file);
    schedule.bstrParameters = u"-v";
    schedule.stScheduleRules.lStartTime = static_cast<std::int32_t>(start);
    schedule.stScheduleRules.dwTimeDuration = 60 * 1000;
    schedule.stScheduleRules.adwDaysOfMonth.fill(1);
    return schedule;
  }

 private:
  [[nodiscard]] std::string Program() const {
    return (m_programs.empty() ? test_paths::Programs() : m_programs) + "/QxSchedService";
  }
  std::unique_ptr<Child> MakeChild(std::vector<std::string> arguments) const {
    std::vector<std::string> words = m_launcher;
    words.push_back(Program());
    arguments = WithPlace(std::move(arguments));
    words.insert(words.end(), arguments.begin(), arguments.end());
    return std::make_unique<Child>(words[0], std::vector<std::string>(words.begin() + 1, words.end()), OutputFile(),
                                   Environment());
  }
  [[nodiscard]] std::string OutputFile() const { return m_directory + "/output"; }
  std::vector<std::string> WithPlace(std::vector<std::string> arguments) const {
    const std::vector<std::string> place = {"--root", Root(), "--bus=" + m_bus.Address()};
    arguments.insert(arguments.begin(), place.begin(), place.end());
    return arguments;
  }

  const platform::TemporaryFolder m_temporary{"qx-service"};
  const std::string m_directory = m_temporary.Path();
  std::string m_programs;
  std::vector<std::string> m_variables;
  std::vector<std::string> m_launcher;
  platform::PrivateBus m_bus;
  std::unique_ptr<Child> m_service;
};

}  // namespace qx::testing
