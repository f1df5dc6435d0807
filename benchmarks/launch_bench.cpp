// Figures of the launch: how late a job starts, alone and with many due at once, against a bare spawn of the same job.
#include <sys/wait.h>
#include <time.h>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "benchmarks/bench_service.h"
#include "benchmarks/figure.h"
#include "platform/text.h"

namespace qx::bench {
namespace {

constexpr std::int64_t kFarStart = 1704906000;  // a time of day
constexpr int kSamplesARound = 10;
constexpr int kSamplesOfWorst = 200;
constexpr int kManySchedules = 100000;
constexpr std::size_t kLongParameters = 2200;  // characters; makes the service hold more than half a gigabyte
constexpr long kLoadedResidentKb = 500 * 1024;
constexpr int kLongestLeadSeconds = 120;

void SleepUntil(std::int64_t second) {
  const timespec at{second, 0};
  clock_nanosleep(CLOCK_REALTIME, TIMER_ABSTIME, &at, nullptr);
}

double LateMs(std::int64_t stamp, std::int64_t due) {
  return static_cast<double>(stamp - due * kNanosecondsPerSecond) / 1e6;
}

// The next second that leaves time to prepare.
std::int64_t NextDue() { return (WallNanoseconds() + kNanosecondsPerSecond / 5) / kNanosecondsPerSecond + 1; }

long ResidentKb(pid_t process) {
  std::ifstream status("/proc/" + std::to_string(process) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmRSS:", 0) == 0) return std::atol(line.c_str() + 6);
  }
  return 0;
}

// --- lateness ---

class Lateness {
 public:
  explicit Lateness(bool loaded) : m_stamps(m_service.Directory() + "/stamps") {
    if (loaded) {
      Fill(m_service, kManySchedules,
           DailyAt(FarFromNow(), m_service.Directory(), "/bin/true", std::string(kLongParameters, 'x')));
    }
    m_service.Start();
    if (loaded && ResidentKb(m_service.Process()) < kLoadedResidentKb) throw std::runtime_error("not that much resident");
  }

  // Milliseconds from the due second to the job's first instruction.
  double OneOfOurs() {
    const std::int64_t due = NextDue();
    SCHEDULE_OBJECT schedule = DailyAt(due, m_service.Directory(), ProgramBeside("qx_stamp"), m_stamps.Path());
    schedule.bstrXMLFilePathName = u"";  // the default directory, and no path on the command line
    ScheduleGuid id{};
    if (m_service.Client().CreateSchedule(schedule, id) != kStatusOk) throw std::runtime_error("not created");
    const std::int64_t stamp = m_stamps.ReadLast(1);
    (void)m_service.Client().DeleteSchedule(id);
    return LateMs(stamp, due);
  }

  // The median of a round of pairs, so that a burst of foreign work meets both: ours, and the same by an absolute timer
  // of the kernel and a spawn.
  double OursInPairs() {
    const std::size_t from = m_ours.size();
    MorePairs(kSamplesARound);
    return Quantile({m_ours.begin() + static_cast<std::ptrdiff_t>(from), m_ours.end()}, 0.5);
  }
  // Of the pairs of the last round.
  [[nodiscard]] double Reference() const { return Quantile({m_reference.end() - kSamplesARound, m_reference.end()}, 0.5); }

  // Of all pairs, after as many as the quantile needs not to be the worst one alone.
  double OursWorst() {
    MorePairs(kSamplesOfWorst - static_cast<int>(m_reference.size()));
    return Quantile(m_ours, 0.99);
  }
  [[nodiscard]] double ReferenceWorst() const { return Quantile(m_reference, 0.99); }

 private:
  static std::int64_t FarFromNow() { return WallNanoseconds() / kNanosecondsPerSecond + 6 * 3600; }

  void MorePairs(int count) {
    for (int i = 0; i < count; ++i) {
      m_ours.push_back(OneOfOurs());
      m_reference.push_back(OneReference());
    }
  }

  double OneReference() {
    const std::int64_t due = NextDue();
    SleepUntil(due);
    const pid_t job = Spawn({ProgramBeside("qx_stamp"), m_stamps.Path()}, Session::kNew);
    const std::int64_t stamp = m_stamps.ReadLast(1);
    waitpid(job, nullptr, 0);
    return LateMs(stamp, due);
  }

  Service m_service;
  StampPipe m_stamps;
  std::vector<double> m_ours;
  std::vector<double> m_reference;
};

Lateness& Plain() {
  static Lateness bench(false);
  return bench;
}
Lateness& Loaded() {
  static Lateness bench(true);
  return bench;
}

// Pairs of one launch beside many schedules and one without them.
class LatenessBeside {
 public:
  double Ours() {
    m_alone.clear();
    std::vector<double> beside;
    for (int i = 0; i < kSamplesARound; ++i) {
      beside.push_back(Loaded().OneOfOurs());
      m_alone.push_back(Plain().OneOfOurs());
    }
    return Quantile(beside, 0.5);
  }
  [[nodiscard]] double Reference() const { return Quantile(m_alone, 0.5); }

 private:
  std::vector<double> m_alone;
};
LatenessBeside& Beside() {
  static LatenessBeside bench;
  return bench;
}

// --- many at once ---

std::string ReadText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

class Burst {
 public:
  explicit Burst(int count) : m_count(count), m_stamps(m_service.Directory() + "/stamps") {
    SCHEDULE_OBJECT schedule = DailyAt(kFarStart, m_service.Directory(), ProgramBeside("qx_stamp"), m_stamps.Path());
    schedule.bstrXMLFilePathName = platform::WideFromUtf8(m_service.Directory() + "/");
    // The job takes one word: the path of the XML file would be another.
    m_files = Fill(m_service, count, schedule);
    m_text = ReadText(m_files.front());
  }

  // Milliseconds from the due second to the last start.
  double Ours() {
    while (true) {
      const std::int64_t due = WallNanoseconds() / kNanosecondsPerSecond + m_leadSeconds;
      SetStart(due);
      m_service.Start();
      // A start that ends behind the second has skipped it.
      if (WallNanoseconds() < due * kNanosecondsPerSecond) {
        const double taken = LateMs(m_stamps.ReadLast(static_cast<std::size_t>(m_count)), due);
        m_service.Stop();
        return taken;
      }
      m_service.Stop();
      m_leadSeconds *= 2;
      if (m_leadSeconds > kLongestLeadSeconds) throw std::runtime_error("the start took too long");
    }
  }

  double Reference() {
    const std::int64_t due = NextDue();
    std::int64_t last = 0;
    std::thread reader([&] { last = m_stamps.ReadLast(static_cast<std::size_t>(m_count)); });
    const std::string program = ProgramBeside("qx_stamp");
    SleepUntil(due);
    std::vector<pid_t> jobs;
    for (int i = 0; i < m_count; ++i) jobs.push_back(Spawn({program, m_service.Directory() + "/", m_stamps.Path()}, Session::kNew));
    reader.join();
    for (const pid_t job : jobs) waitpid(job, nullptr, 0);
    return LateMs(last, due);
  }

 private:
  // Moves all windows of a stopped service.
  void SetStart(std::int64_t due) {
    std::string text = m_text;
    for (const auto& [key, second] : {std::pair<std::string, std::int64_t>{"m_StartTime=", due}, {"m_EndTime=", due + 3600}}) {
      const std::size_t at = text.find(key) + key.size();
      text.replace(at, text.find('\r', at) - at, std::to_string(second));
    }
    for (const std::string& file : m_files) std::ofstream(file, std::ios::binary) << text;
  }

  int m_count;
  int m_leadSeconds = 4;  // from the writing of the files to the due second
  Service m_service;
  StampPipe m_stamps;
  std::vector<std::string> m_files;
  std::string m_text;
};

Burst& Of(int count) {
  static std::unique_ptr<Burst> few, many;
  std::unique_ptr<Burst>& burst = count == 200 ? few : many;
  if (!burst) burst = std::make_unique<Burst>(count);
  return *burst;
}

}  // namespace

std::vector<Figure> LaunchFigures() {
  constexpr char kTimer[] = "an absolute timer and a spawn in a new session";
  return {
      {"launch/lateness-median", kTimer, "ms", 1.5, [] { return Plain().OursInPairs(); },
       [] { return Plain().Reference(); }, 10},
      {"launch/lateness-p99", kTimer, "ms", 2.0, [] { return Plain().OursWorst(); },
       [] { return Plain().ReferenceWorst(); }, 1},
      {"launch/lateness-100k-500mb", "the median without them", "ms", 1.2, [] { return Beside().Ours(); },
       [] { return Beside().Reference(); }, 10},
      {"launch/200-due", "a bare loop of posix_spawn, new sessions", "ms", 1.25, [] { return Of(200).Ours(); },
       [] { return Of(200).Reference(); }, 15},  // short rounds
      {"launch/10000-due", "a bare loop of posix_spawn, new sessions", "ms", 1.25, [] { return Of(10000).Ours(); },
       [] { return Of(10000).Reference(); }},
  };
}

}  // namespace qx::bench
