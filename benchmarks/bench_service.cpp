#include "benchmarks/bench_service.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>

#include "benchmarks/figure.h"
#include "platform/guid.h"
#include "platform/registry.h"
#include "platform/text.h"

extern char** environ;

namespace qx::bench {
namespace {

namespace fs = std::filesystem;

constexpr char16_t kSchedulesKey[] = u"SOFTWARE\\KORVANE\\QxSvc\\CurrentVersion\\Schedules";
constexpr std::size_t kKeysPerCommit = 1000;
constexpr int kPipeBytes = 1 << 20;  // so that no job waits for the reader

void Demand(bool good, const char* what) {
  if (!good) throw std::runtime_error(what);
}

std::string ReadText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

struct StoredValue {
  std::u16string name;
  std::uint32_t type = 0;
  std::vector<std::byte> data;
};

std::vector<StoredValue> ValuesOf(const platform::RegistryKey& schedules, const std::u16string& name) {
  platform::RegistryKey key;
  Demand(platform::OpenKey(schedules, name, platform::KEY_READ, key) == 0, "the first schedule has no key");
  std::vector<StoredValue> values;
  StoredValue value;
  for (std::uint32_t i = 0; platform::EnumValue(key, i, value.name, value.type, value.data) == 0; ++i) {
    values.push_back(value);
  }
  return values;
}

}  // namespace

std::int64_t WallNanoseconds() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return now.tv_sec * kNanosecondsPerSecond + now.tv_nsec;
}

pid_t Spawn(std::vector<std::string> words, Session session) {
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  if (session == Session::kNew) posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID);
  pid_t process = -1;
  const int error = posix_spawn(&process, argv[0], nullptr, &attributes, argv.data(), environ);
  posix_spawnattr_destroy(&attributes);
  if (error != 0) throw std::runtime_error("can't start " + words[0]);
  return process;
}

std::string ProgramBeside(const char* name) {
  return (fs::read_symlink("/proc/self/exe").parent_path() / name).string();
}

SCHEDULE_OBJECT DailyAt(std::int64_t second, const std::string& directory, const std::string& command,
                        const std::string& parameters) {
  SCHEDULE_OBJECT schedule;
  schedule.bstrName = u"bench";
  schedule.bstrWrapperBinaryName = platform::WideFromUtf8(command);
  schedule.bstrXMLFilePathName = platform::WideFromUtf8(directory + "/");
  schedule.bstrParameters = platform::WideFromUtf8(parameters);
  SCHEDULE_RULE& rules = schedule.stScheduleRules;
  rules.lStartTime = static_cast<std::int32_t>(second);
  rules.dwTimeDuration = 3600000;
  rules.bRepeatInterval = 1;
  rules.dwRepeatInterval = 1;
  return schedule;
}

Service::Service() {
  const char* const temporary = std::getenv("TMPDIR");
  std::string pattern = std::string(temporary != nullptr ? temporary : "/tmp") + "/qx-bench-XXXXXX";
  Demand(mkdtemp(pattern.data()) != nullptr, "no temporary directory");
  m_directory = pattern;
  int status = 0;
  waitpid(Spawn({ProgramBeside("QxSchedService"), "--root", Root(), "-RegServer"}), &status, 0);
  Demand(status == 0, "the service can't be registered");
}

Service::~Service() {
  Stop();
  std::error_code ignored;
  fs::remove_all(m_directory, ignored);
}

double Service::Start() {
  const double begin = SteadyNanoseconds();
  m_process = Spawn({ProgramBeside("QxSchedService"), "--root", Root(), "--bus", m_bus.Address(), "--foreground"});
  Demand(m_client.Connect(m_bus.ForClients()) == kStatusOk, "no bus");
  ServiceProperties properties;
  const timespec pause{0, 1'000'000};
  while (m_client.Properties(properties) != kStatusOk) {
    nanosleep(&pause, nullptr);
    if (waitpid(m_process, nullptr, WNOHANG) == m_process) {
      m_process = -1;
      throw std::runtime_error("the service ended at its start");
    }
  }
  return (SteadyNanoseconds() - begin) / 1e6;
}

void Service::Stop() {
  if (m_process < 0) return;
  m_client.Disconnect();
  kill(m_process, SIGTERM);
  waitpid(m_process, nullptr, 0);
  m_process = -1;
}

std::vector<std::string> Fill(Service& service, int count, const SCHEDULE_OBJECT& schedule) {
  ScheduleGuid first{};
  service.Start();
  Demand(service.Client().CreateSchedule(schedule, first) == kStatusOk, "not created");
  service.Stop();

  const auto file = [&](std::u16string_view name) {
    return service.Directory() + "/" + platform::Utf8FromWide(name) + ".ini";
  };
  const std::u16string firstName = platform::GuidText(first);
  const std::string text = ReadText(file(firstName));
  Demand(!text.empty(), "the first schedule has no file");
  Demand(platform::OpenRegistryStore(service.Root() + "/registry.db") == 0, "no store");
  platform::RegistryKey schedules;
  Demand(platform::OpenKey(platform::Hive::kLocalMachine, kSchedulesKey, platform::KEY_ALL_ACCESS, schedules) == 0,
         "no schedules");
  const std::vector<StoredValue> values = ValuesOf(schedules, firstName);
  std::mt19937_64 random(20260101);
  std::vector<std::string> files = {file(firstName)};
  std::vector<platform::RegistryKey> open;  // a handle that wrote commits when it closes
  for (int i = 1; i < count; ++i) {
    ScheduleGuid id = first;
    id.Data1 = static_cast<std::uint32_t>(random());
    id.Data2 = static_cast<std::uint16_t>(i);
    id.Data3 = static_cast<std::uint16_t>(i >> 16);
    const std::u16string name = platform::GuidText(id);
    platform::RegistryKey key;
    Demand(platform::CreateKey(schedules, name, platform::KEY_ALL_ACCESS, key) == 0, "no key");
    for (const StoredValue& value : values) {
      Demand(platform::SetRawValue(key, value.name, value.type, value.data) == 0, "no value");
    }
    files.push_back(file(name));
    std::ofstream(files.back(), std::ios::binary) << text;
    open.push_back(std::move(key));
    if (open.size() == kKeysPerCommit) open.clear();
  }
  open.clear();
  schedules.Close();
  Demand(platform::CloseRegistryStore() == 0, "not committed");
  std::sort(files.begin(), files.end());
  return files;
}

StampPipe::StampPipe(std::string path) : m_path(std::move(path)) {
  Demand(mkfifo(m_path.c_str(), 0600) == 0, "no pipe");
  m_descriptor = open(m_path.c_str(), O_RDWR | O_CLOEXEC);
  (void)fcntl(m_descriptor, F_SETPIPE_SZ, kPipeBytes);
}

StampPipe::~StampPipe() { close(m_descriptor); }

std::int64_t StampPipe::ReadLast(std::size_t count) const {
  std::int64_t last = 0;
  std::int64_t number = 0;
  char bytes[65536];
  while (count > 0) {
    const ssize_t got = read(m_descriptor, bytes, sizeof bytes);
    Demand(got > 0, "no stamp");
    for (ssize_t i = 0; i < got; ++i) {
      if (bytes[i] != '\n') {
        number = number * 10 + (bytes[i] - '0');
        continue;
      }
      last = std::max(last, number);
      number = 0;
      --count;
    }
  }
  return last;
}

std::int64_t StampPipe::ReadNext() const {
  std::int64_t number = 0;
  for (char byte = '0'; byte != '\n';) {
    Demand(read(m_descriptor, &byte, 1) == 1, "no stamp");
    if (byte != '\n') number = number * 10 + (byte - '0');
  }
  return number;
}

}  // namespace qx::bench
