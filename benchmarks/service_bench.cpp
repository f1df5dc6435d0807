// Figures of the real service on a private bus: how late a job starts, and how the start grows with the schedules.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "benchmarks/figure.h"
#include "client/scheduler_client.h"
#include "platform/clock.h"
#include "platform/file.h"
#include "platform/guid.h"
#include "platform/registry.h"
#include "platform/testing/private_bus.h"
#include "platform/text.h"

extern char** environ;

namespace qx::bench {
namespace {

namespace fs = std::filesystem;

constexpr std::int64_t kNanoseconds = 1'000'000'000;
constexpr std::int64_t kFarStart = 1704906000;  // a time of day; the schedules of the start figure run once a day

std::int64_t WallNanoseconds() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return now.tv_sec * kNanoseconds + now.tv_nsec;
}

pid_t Spawn(std::vector<std::string> words) {
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  pid_t process = -1;
  if (posix_spawn(&process, argv[0], nullptr, nullptr, argv.data(), environ) != 0) {
    throw std::runtime_error("can't start " + words[0]);
  }
  return process;
}

std::string ProgramBeside(const char* name) { return (fs::read_symlink("/proc/self/exe").parent_path() / name).string(); }

// A directory of its own, a bus and a registered service with its client.
class Service {
 public:
  Service() {
    char pattern[] = "/tmp/qx-bench-XXXXXX";
    if (mkdtemp(pattern) == nullptr) throw std::runtime_error("no temporary directory");
    m_directory = pattern;
    int status = 0;
    waitpid(Spawn({ProgramBeside("QxSchedService"), "--root", Root(), "-RegServer"}), &status, 0);
    if (status != 0) throw std::runtime_error("the service can't be registered");
  }
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;
  ~Service() {
    Stop();
    std::error_code ignored;
    fs::remove_all(m_directory, ignored);
  }

  [[nodiscard]] std::string Directory() const { return m_directory; }
  [[nodiscard]] std::string Root() const { return m_directory + "/root"; }
  SchedulerClient& Client() { return m_client; }

  // Starts the program and returns when it has answered its first call: the milliseconds between.
  double Start() {
    const double begin = SteadyNanoseconds();
    m_process = Spawn({ProgramBeside("QxSchedService"), "--root", Root(), "--bus", m_bus.Address(), "--foreground"});
    if (m_client.Connect(m_bus.ForClients()) != kStatusOk) throw std::runtime_error("no bus");
    ServiceProperties properties;
    const timespec pause{0, 1'000'000};
    while (m_client.Properties(properties) != kStatusOk) nanosleep(&pause, nullptr);
    return (SteadyNanoseconds() - begin) / 1e6;
  }
  void Stop() {
    if (m_process < 0) return;
    m_client.Disconnect();
    kill(m_process, SIGTERM);
    waitpid(m_process, nullptr, 0);
    m_process = -1;
  }

 private:
  std::string m_directory;
  platform::PrivateBus m_bus;
  SchedulerClient m_client;
  pid_t m_process = -1;
};

// --- launch lateness ---

// Where jobs write the moment of their start, and this program reads it.
class StampPipe {
 public:
  explicit StampPipe(std::string path) : m_path(std::move(path)) {
    if (mkfifo(m_path.c_str(), 0600) != 0) throw std::runtime_error("no pipe");
    m_descriptor = open(m_path.c_str(), O_RDWR | O_CLOEXEC);
  }
  ~StampPipe() { close(m_descriptor); }
  [[nodiscard]] const std::string& Path() const { return m_path; }
  [[nodiscard]] std::int64_t Read() const {
    char line[32] = "";
    if (read(m_descriptor, line, sizeof line - 1) <= 0) throw std::runtime_error("no stamp");
    return std::atoll(line);
  }

 private:
  std::string m_path;
  int m_descriptor;
};

SCHEDULE_OBJECT DailyAt(std::int64_t second, const std::string& directory, const std::string& command) {
  SCHEDULE_OBJECT schedule;
  schedule.bstrName = u"bench";
  schedule.bstrWrapperBinaryName = platform::WideFromUtf8(command);
  schedule.bstrXMLFilePathName = platform::WideFromUtf8(directory + "/");
  SCHEDULE_RULE& rules = schedule.stScheduleRules;
  rules.lStartTime = static_cast<std::int32_t>(second);
  rules.dwTimeDuration = 3600000;
  rules.bRepeatInterval = 1;
  rules.dwRepeatInterval = 1;
  return schedule;
}

class LatenessBench {
 public:
  LatenessBench() : m_stamps(m_service.Directory() + "/stamps") { m_service.Start(); }

  // Milliseconds from the due second to the job's first instruction.
  double Ours() {
    const std::int64_t due = WallNanoseconds() / kNanoseconds + 2;
    SCHEDULE_OBJECT schedule = DailyAt(due, m_service.Directory(), ProgramBeside("qx_bench"));
    schedule.bstrParameters = platform::WideFromUtf8("--stamp " + m_stamps.Path());
    schedule.bstrXMLFilePathName = u"";  // the default directory, and no path on the command line
    ScheduleGuid id{};
    if (m_service.Client().CreateSchedule(schedule, id) != kStatusOk) throw std::runtime_error("not created");
    const std::int64_t stamp = m_stamps.Read();
    (void)m_service.Client().DeleteSchedule(id);
    return static_cast<double>(stamp - due * kNanoseconds) / 1e6;
  }

  // The same by an absolute timer of the kernel and a spawn.
  double Reference() {
    const std::int64_t due = WallNanoseconds() / kNanoseconds + 1;
    const timespec at{due, 0};
    clock_nanosleep(CLOCK_REALTIME, TIMER_ABSTIME, &at, nullptr);
    const pid_t job = Spawn({ProgramBeside("qx_bench"), "--stamp", m_stamps.Path()});
    const std::int64_t stamp = m_stamps.Read();
    waitpid(job, nullptr, 0);
    return static_cast<double>(stamp - due * kNanoseconds) / 1e6;
  }

 private:
  Service m_service;
  StampPipe m_stamps;
};

// --- start ---

// Puts `count` schedules into a state directory, each as the service itself would: a first one is created through it,
// the others are copies of its key and file.
void Fill(Service& service, int count) {
  ScheduleGuid first{};
  service.Start();
  const SCHEDULE_OBJECT schedule = DailyAt(kFarStart, service.Directory(), "/bin/true");
  if (service.Client().CreateSchedule(schedule, first) != kStatusOk) throw std::runtime_error("not created");
  service.Stop();

  const std::string firstId = platform::Utf8FromWide(platform::GuidText(first));
  std::ifstream in(service.Directory() + "/" + firstId + ".ini", std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  using platform::Hive;
  constexpr char16_t kKey[] = u"SOFTWARE\\KORVANE\\QxSvc\\CurrentVersion\\Schedules";
  if (platform::OpenRegistryStore(service.Root() + "/registry.db") != 0) throw std::runtime_error("no store");
  platform::RegistryKey schedules;
  (void)platform::OpenKey(Hive::kLocalMachine, kKey, platform::KEY_ALL_ACCESS, schedules);
  for (int i = 1; i < count; ++i) {
    ScheduleGuid id = first;
    id.Data1 += static_cast<std::uint32_t>(i);
    const std::u16string name = platform::GuidText(id);
    platform::RegistryKey from, to;
    (void)platform::OpenKey(schedules, platform::GuidText(first), platform::KEY_ALL_ACCESS, from);
    (void)platform::CreateKey(schedules, name, platform::KEY_ALL_ACCESS, to);
    std::u16string value;
    std::uint32_t type = 0;
    std::vector<std::byte> data;
    for (std::uint32_t v = 0; platform::EnumValue(from, v, value, type, data) == 0; ++v) {
      (void)platform::SetRawValue(to, value, type, data);
    }
    std::ofstream(service.Directory() + "/" + platform::Utf8FromWide(name) + ".ini", std::ios::binary) << text.str();
    // One commit for a thousand: a handle that wrote stays open until it is moved away.
    static std::vector<platform::RegistryKey> open;
    open.push_back(std::move(to));
    if (open.size() == 1000 || i + 1 == count) open.clear();
  }
  schedules.Close();
  (void)platform::CloseRegistryStore();
}

class StartBench {
 public:
  double Start(int count) {
    std::unique_ptr<Service>& service = count > 50000 ? m_large : m_small;
    if (!service) {
      service = std::make_unique<Service>();
      Fill(*service, count);
    }
    const double taken = service->Start();
    std::vector<ListRow> rows;
    if (service->Client().ListInfo(u"", 1, rows) != kStatusOk || rows.size() != 1) throw std::runtime_error("no list");
    service->Stop();
    return taken;
  }

 private:
  std::unique_ptr<Service> m_small;
  std::unique_ptr<Service> m_large;
};

}  // namespace

int StampMain(const char* path) {
  char line[32];
  const int length = std::snprintf(line, sizeof line, "%lld\n", static_cast<long long>(WallNanoseconds()));
  const int pipe = open(path, O_WRONLY | O_CLOEXEC);
  return pipe >= 0 && write(pipe, line, static_cast<std::size_t>(length)) == length ? 0 : 1;
}

std::vector<Figure> ServiceFigures() {
  const auto lateness = [] {
    static LatenessBench bench;
    return &bench;
  };
  const auto start = [] {
    static StartBench bench;
    return &bench;
  };
  return {
      {"launch-lateness", "an absolute timer and a spawn", "ms", 2.0, [lateness] { return lateness()->Ours(); },
       [lateness] { return lateness()->Reference(); }, 15},
      {"start/100k-schedules", "the start with 10k schedules", "ms", 12.0, [start] { return start()->Start(100000); },
       [start] { return start()->Start(10000); }},
  };
}

}  // namespace qx::bench
