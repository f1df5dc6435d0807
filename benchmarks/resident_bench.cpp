// Figures of a service that holds many schedules and has nothing to do: what it takes, and that it sleeps.
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "benchmarks/bench_service.h"
#include "benchmarks/figure.h"
#include "platform/registry.h"

namespace qx::bench {
namespace {

namespace fs = std::filesystem;

constexpr std::int64_t kFarStart = 1704906000;  // a time of day
constexpr int kMany = 100000;
constexpr unsigned kIdleSeconds = 60;
constexpr unsigned kSettleSeconds = 2;
constexpr int kUserTicksField = 11;  // of /proc/PID/stat behind the name; the next one counts the kernel's

double ResidentBytes(pid_t process) {
  std::ifstream file("/proc/" + std::to_string(process) + "/statm");
  double total = 0;
  double resident = 0;
  file >> total >> resident;
  return resident * static_cast<double>(sysconf(_SC_PAGESIZE));
}

// Context switches and processor ticks of all threads so far.
std::uint64_t Activity(pid_t process) {
  std::uint64_t count = 0;
  for (const auto& thread : fs::directory_iterator("/proc/" + std::to_string(process) + "/task")) {
    std::ifstream status(thread.path() / "status");
    for (std::string line; std::getline(status, line);) {
      const std::size_t colon = line.find("_ctxt_switches:");
      if (colon != std::string::npos) count += std::strtoull(line.c_str() + line.find(':') + 1, nullptr, 10);
    }
    std::ifstream stat(thread.path() / "stat");
    std::string text;
    std::getline(stat, text);
    std::istringstream fields(text.substr(text.rfind(')') + 2));
    std::string skipped;
    for (int i = 0; i < kUserTicksField; ++i) fields >> skipped;
    std::uint64_t user = 0;
    std::uint64_t system = 0;
    fields >> user >> system;
    count += user + system;
  }
  return count;
}

double Idle() {
  Service service;
  Fill(service, kMany, DailyAt(WallNanoseconds() / kNanosecondsPerSecond + 6 * 3600, service.Directory(), "/bin/true"));
  service.Start();
  service.Client().Disconnect();  // a client's going is told to the service
  sleep(kSettleSeconds);
  const std::uint64_t before = Activity(service.Process());
  sleep(kIdleSeconds);
  return static_cast<double>(Activity(service.Process()) - before);
}

class Memory {
 public:
  Memory() {
    m_service.Start();
    m_empty = ResidentBytes(m_service.Process());
    m_service.Stop();
    const double values = ValueBytes();
    const std::vector<std::string> files =
        Fill(m_service, kMany, DailyAt(kFarStart, m_service.Directory(), "/bin/true"));
    m_stored = ValueBytes() - values;
    for (const std::string& file : files) m_stored += static_cast<double>(fs::file_size(file));
  }

  double Growth() {
    m_service.Start();
    const double resident = ResidentBytes(m_service.Process());
    m_service.Stop();
    return (resident - m_empty) / kMany;
  }
  [[nodiscard]] double Stored() const { return m_stored / kMany; }

 private:
  // Names and data of the values of all schedules, without what the database needs to find them.
  double ValueBytes() {
    if (platform::OpenRegistryStore(m_service.Root() + "/registry.db") != 0) throw std::runtime_error("no store");
    double bytes = 0;
    {
      platform::RegistryKey schedules;
      (void)platform::OpenKey(platform::Hive::kLocalMachine, u"SOFTWARE\\KORVANE\\QxSvc\\CurrentVersion\\Schedules",
                              platform::KEY_READ, schedules);
      std::u16string keyName, name;
      for (std::uint32_t k = 0; platform::EnumKey(schedules, k, keyName) == 0; ++k) {
        platform::RegistryKey key;
        (void)platform::OpenKey(schedules, keyName, platform::KEY_READ, key);
        std::uint32_t type = 0;
        std::vector<std::byte> data;
        bytes += static_cast<double>(2 * keyName.size());
        for (std::uint32_t v = 0; platform::EnumValue(key, v, name, type, data) == 0; ++v) {
          bytes += static_cast<double>(2 * name.size() + data.size());
        }
      }
    }
    (void)platform::CloseRegistryStore();
    return bytes;
  }

  Service m_service;
  double m_empty = 0;
  double m_stored = 0;
};

Memory& Of() {
  static Memory memory;
  return memory;
}

}  // namespace

std::vector<Figure> ResidentFigures() {
  return {
      {"resident/100k-growth", "bytes stored of a schedule", "B", 2.0, [] { return Of().Growth(); },
       [] { return Of().Stored(); }, 3},
      {"resident/100k-idle-60s", "none: switches and ticks are counted", "", 0, Idle, [] { return 1.0; }, 1},
  };
}

}  // namespace qx::bench
