// The figure of the recorder: how late a job starts with qxsched record listening, against a service to which nobody
// listens. Both services live through the whole figure, each on a bus of its own, and start a job every other second,
// the one on even seconds, the other on odd ones: what else the machine does meets both.
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "benchmarks/bench_service.h"
#include "benchmarks/figure.h"

namespace qx::bench {
namespace {

constexpr int kSamplesARound = 10;
constexpr int kRounds = 12;
constexpr std::uint32_t kEverySeconds = 2;

class Watched {
 public:
  explicit Watched(bool recorded) : m_stamps(m_service.Directory() + "/stamps") {
    m_service.Start();
    if (recorded) Record();
    // All launches are those of one window; it lasts longer than the figure.
    std::int64_t start = WallNanoseconds() / kNanosecondsPerSecond + 3;
    if ((start % kEverySeconds == 0) != recorded) ++start;
    SCHEDULE_OBJECT schedule = DailyAt(start, m_service.Directory(), ProgramBeside("qx_stamp"), m_stamps.Path());
    schedule.bstrXMLFilePathName = u"";  // the default directory, and no path on the command line
    schedule.stScheduleRules.dwTimeDuration = 3 * 3600 * 1000;
    schedule.stScheduleRules.bRestartInterval = 1;
    schedule.stScheduleRules.dwRestartInterval = kEverySeconds * 1000;
    ScheduleGuid id{};
    if (m_service.Client().CreateSchedule(schedule, id) != kStatusOk) throw std::runtime_error("not created");
    for (int i = 0; i < kSamplesARound; ++i) (void)m_stamps.ReadNext();  // what a start brings with it is over
  }
  Watched(const Watched&) = delete;
  Watched& operator=(const Watched&) = delete;
  ~Watched() {
    if (m_recorder < 0) return;
    kill(m_recorder, SIGTERM);
    waitpid(m_recorder, nullptr, 0);
  }

  // Milliseconds from the due second to the job's first instruction, the median of a round.
  double Round() {
    std::vector<double> round;
    for (int i = 0; i < kSamplesARound; ++i) {
      round.push_back(static_cast<double>(m_stamps.ReadNext() % kNanosecondsPerSecond) / 1e6);
    }
    return Quantile(round, 0.5);
  }

 private:
  void Record() {
    const std::string metrics = m_service.Directory() + "/qxsched.prom";
    m_recorder = Spawn({ProgramBeside("qxsched"), "--quiet", "--root", m_service.Root(), "--bus",
                        m_service.BusAddress(), "record", "--metrics", metrics});
    // It hears the service when its counts say so.
    for (int i = 0; i < 600 && Text(metrics).find("qxsched_service_up 1") == std::string::npos; ++i) usleep(100'000);
    if (Text(metrics).find("qxsched_service_up 1") == std::string::npos) throw std::runtime_error("no recorder");
  }
  static std::string Text(const std::string& file) {
    std::ifstream in(file);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  }

  Service m_service;
  StampPipe m_stamps;
  pid_t m_recorder = -1;
};

Watched& Recorded() {
  static Watched bench(true);
  return bench;
}
Watched& Alone() {
  static Watched bench(false);
  return bench;
}

}  // namespace

std::vector<Figure> RecordFigures() {
  return {{"record/launch-lateness", "the same without a recorder", "ms", 1.05,
           [] { return (Alone(), Recorded().Round()); }, [] { return Alone().Round(); }, kRounds}};
}

}  // namespace qx::bench
