// Launch lateness and burst of cron, atd and systemd's timers beside ours, on the same minutes and with the same job.
//
// usage: qx_other_schedulers PLACE [MINUTES [JOBS [BURST [ROUNDS]]]]     by benchmarks/other_schedulers.sh
//   PLACE    a directory whose cron.d is mounted on /etc/cron.d and whose spool on /var/spool/cron, so that nothing
//            of the machine's own is met; cron takes part if there is spool/crontabs, at if there is spool/atjobs,
//            systemd if there is units
//   MINUTES  of lateness, each with JOBS jobs of each scheduler; then each in turn has BURST jobs on a minute
//            of its own, ROUNDS times
// cron's and at's moments are minutes, and so are all others here. Each starts its job as its users write it: cron and
// at through a shell, ours and systemd's without one. Timers are asked for at their finest accuracy.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "benchmarks/bench_service.h"
#include "benchmarks/figure.h"
#include "platform/text.h"

namespace {

namespace fs = std::filesystem;
using qx::bench::kNanosecondsPerSecond;
using qx::bench::ProgramBeside;
using qx::bench::Quantile;
using qx::bench::Spawn;
using qx::bench::StampPipe;
using qx::bench::WallNanoseconds;

constexpr char kCron[] = "/usr/sbin/cron";
constexpr char kAtd[] = "/usr/sbin/atd";
constexpr char kAt[] = "/usr/bin/at";
constexpr char kSystemd[] = "/lib/systemd/systemd";

constexpr std::int64_t kMinute = 60;  // seconds
constexpr std::int64_t kWaited = 55;  // seconds behind the due minute until which starts are counted
constexpr std::int64_t kLead = 10;    // seconds from the beginning of the preparation to the first minute at least
constexpr std::int64_t kJobsPreparedASecond = 20;  // on a busy machine, of each scheduler

std::int64_t NowSeconds() {
  return WallNanoseconds() / kNanosecondsPerSecond;
}

void SleepUntil(std::int64_t second) {
  const timespec at{second, 0};
  while (clock_nanosleep(CLOCK_REALTIME, TIMER_ABSTIME, &at, nullptr) == EINTR) {
  }
}

std::string LocalTime(std::int64_t second, const char* form) {
  const std::time_t at = second;
  tm local{};
  localtime_r(&at, &local);
  char text[64];
  return {text, std::strftime(text, sizeof text, form, &local)};
}

// A child that ends with this object; dead if it ended before.
class Daemon {
 public:
  explicit Daemon(const std::vector<std::string>& words) : m_process(Spawn(words, qx::bench::Session::kNew)) {}
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;
  ~Daemon() {
    if (!IsRunning()) return;
    kill(m_process, SIGTERM);
    waitpid(m_process, nullptr, 0);
  }
  bool IsRunning() {
    if (m_process > 0 && waitpid(m_process, nullptr, WNOHANG) == m_process) m_process = -1;
    return m_process > 0;
  }

 private:
  pid_t m_process;
};

// One that is measured: takes all jobs of the run, then starts them.
class Scheduler {
 public:
  Scheduler(std::string name, const std::string& place)
      : m_name(std::move(name)), m_stamps(place + "/stamps-" + m_name) {}
  Scheduler(const Scheduler&) = delete;
  Scheduler& operator=(const Scheduler&) = delete;
  virtual ~Scheduler() = default;

  [[nodiscard]] const std::string& Name() const { return m_name; }
  // Takes one job a moment; starts the daemon.
  virtual void Take(const std::vector<std::int64_t>& moments) = 0;
  [[nodiscard]] virtual bool IsRunning() = 0;

  // Milliseconds from the due second to each start, in order; fewer than `count` when not all came in time.
  std::vector<double> Started(std::size_t count, std::int64_t due) {
    std::vector<double> late;
    while (late.size() < count) {
      pollfd readable = {m_stamps.Descriptor(), POLLIN, 0};
      const std::int64_t left = due + kWaited - NowSeconds();
      if (poll(&readable, 1, static_cast<int>(std::max<std::int64_t>(left, 0) * 1000)) <= 0) break;
      const double milliseconds = static_cast<double>(m_stamps.ReadNext() - due * kNanosecondsPerSecond) / 1e6;
      if (milliseconds >= 0) late.push_back(milliseconds);  // else one that an earlier minute waited for in vain
    }
    std::sort(late.begin(), late.end());
    return late;
  }

 protected:
  [[nodiscard]] const std::string& Pipe() const { return m_stamps.Path(); }
  [[nodiscard]] std::string Job() const { return ProgramBeside("qx_stamp") + " " + Pipe(); }

 private:
  std::string m_name;
  StampPipe m_stamps;
};

class Ours : public Scheduler {
 public:
  explicit Ours(const std::string& place) : Scheduler("ours", place) {}
  void Take(const std::vector<std::int64_t>& moments) override {
    m_service.Start();
    for (const std::int64_t due : moments) {
      SCHEDULE_OBJECT schedule = qx::bench::DailyAt(due, m_service.Directory(), ProgramBeside("qx_stamp"), Pipe());
      schedule.bstrXMLFilePathName = u"";  // the default directory, and no path on the command line
      ScheduleGuid id{};
      if (m_service.Client().CreateSchedule(schedule, id) != kStatusOk) throw std::runtime_error("not created");
    }
  }
  bool IsRunning() override { return m_service.IsRunning(); }

 private:
  qx::bench::Service m_service;
};

class Cron : public Scheduler {
 public:
  explicit Cron(const std::string& place) : Scheduler("cron", place), m_table(place + "/cron.d/bench") {}
  void Take(const std::vector<std::int64_t>& moments) override {
    std::ofstream table(m_table);
    table << "MAILTO=\"\"\n";
    for (const std::int64_t due : moments) table << LocalTime(due, "%M %H %d %m * root ") << Job() << "\n";
    table.close();
    m_daemon = std::make_unique<Daemon>(std::vector<std::string>{kCron, "-f"});
  }
  bool IsRunning() override { return m_daemon->IsRunning(); }

 private:
  std::string m_table;
  std::unique_ptr<Daemon> m_daemon;
};

class Atd : public Scheduler {
 public:
  explicit Atd(const std::string& place) : Scheduler("atd", place) {}
  void Take(const std::vector<std::int64_t>& moments) override {
    for (const std::int64_t due : moments) {
      const std::string add = std::string(kAt) + " -t " + LocalTime(due, "%Y%m%d%H%M") + " 2>/dev/null";
      FILE* const job = popen(add.c_str(), "w");
      if (job == nullptr) throw std::runtime_error("at can't be started");
      std::fprintf(job, "%s\n", Job().c_str());
      if (pclose(job) != 0) throw std::runtime_error("at refused a job");
    }
    m_daemon = std::make_unique<Daemon>(std::vector<std::string>{kAtd, "-f"});
  }
  bool IsRunning() override { return m_daemon->IsRunning(); }

 private:
  std::unique_ptr<Daemon> m_daemon;
};

// A user manager of the run's own, which takes no part in the machine's.
class SystemdTimers : public Scheduler {
 public:
  explicit SystemdTimers(const std::string& place) : Scheduler("systemd-timers", place), m_units(place + "/units") {}
  void Take(const std::vector<std::int64_t>& moments) override {
    const std::string alone = "[Unit]\nDefaultDependencies=no\n";
    std::ofstream target(m_units + "/bench.target");
    target << alone;
    std::ofstream(m_units + "/job@.service")
        << alone << "[Service]\nType=oneshot\nStandardOutput=null\nStandardError=null\nExecStart=" << Job() << "\n";
    for (std::size_t i = 0; i < moments.size(); ++i) {
      const std::string number = std::to_string(i);
      target << "Wants=job-" << number << ".timer\n";
      std::ofstream(m_units + "/job-" + number + ".timer")
          << alone << "[Timer]\nOnCalendar=" << LocalTime(moments[i], "%Y-%m-%d %H:%M:%S")
          << "\nAccuracySec=1us\nUnit=job@" << number << ".service\n";
    }
    target.close();
    m_daemon = std::make_unique<Daemon>(
        std::vector<std::string>{kSystemd, "--user", "--unit=bench.target", "--log-target=console", "--log-level=err"});
  }
  bool IsRunning() override { return m_daemon->IsRunning(); }

 private:
  std::string m_units;
  std::unique_ptr<Daemon> m_daemon;
};

struct Plan {
  std::size_t minutes = 3;
  std::size_t jobs = 1;  // a minute
  std::size_t burst = 200;
  std::size_t rounds = 1;
};

struct Result {
  std::vector<double> late;                  // of all minutes
  std::vector<double> first, last, between;  // of each burst, milliseconds
  std::size_t started = 0;                   // of all bursts
};

std::string Ratio(double ours, double theirs) {
  char text[32];
  std::snprintf(text, sizeof text, "%.3f", ours / theirs);
  return text;
}

void Print(const Plan& plan, const std::vector<std::unique_ptr<Scheduler>>& all, const std::vector<Result>& results) {
  const Result& ours = results.front();
  std::printf("\nMilliseconds behind the due minute; minutes: %zu, jobs of each a minute: %zu\n\n", plan.minutes,
              plan.jobs);
  std::printf(
      "| Scheduler | Started | Median | Longest | Ours / theirs (median) | (longest) |\n|---|---|---|---|---|---|\n");
  for (std::size_t i = 0; i < all.size(); ++i) {
    const std::vector<double>& late = results[i].late;
    std::printf("| %s | %zu of %zu |", all[i]->Name().c_str(), late.size(), plan.minutes * plan.jobs);
    if (late.empty() || ours.late.empty()) {
      std::printf(" - | - | - | - |\n");
      continue;
    }
    const double median = Quantile(late, 0.5), longest = Quantile(late, 1);
    std::printf(" %.1f | %.1f | %s | %s |\n", median, longest, Ratio(Quantile(ours.late, 0.5), median).c_str(),
                Ratio(Quantile(ours.late, 1), longest).c_str());
  }
  std::printf(
      "\nMilliseconds behind the minute on which many are due; at once: %zu, minutes of each: %zu (medians)\n\n",
      plan.burst, plan.rounds);
  std::printf(
      "| Scheduler | Started | First start | Last start | First to last | Ours / theirs (last) | (first to last) |\n"
      "|---|---|---|---|---|---|---|\n");
  for (std::size_t i = 0; i < all.size(); ++i) {
    const Result& one = results[i];
    std::printf("| %s | %zu of %zu |", all[i]->Name().c_str(), one.started, plan.burst * plan.rounds);
    if (one.last.empty() || ours.last.empty()) {
      std::printf(" - | - | - | - | - |\n");
      continue;
    }
    const double last = Quantile(one.last, 0.5), between = Quantile(one.between, 0.5);
    std::printf(" %.1f | %.1f | %.1f | %s | %s |\n", Quantile(one.first, 0.5), last, between,
                Ratio(Quantile(ours.last, 0.5), last).c_str(), Ratio(Quantile(ours.between, 0.5), between).c_str());
  }
}

int Run(const std::string& place, const Plan& plan) {
  std::vector<std::unique_ptr<Scheduler>> all;
  all.push_back(std::make_unique<Ours>(place));
  if (fs::exists(place + "/spool/crontabs")) all.push_back(std::make_unique<Cron>(place));
  if (fs::exists(place + "/spool/atjobs")) all.push_back(std::make_unique<Atd>(place));
  if (fs::exists(place + "/units")) all.push_back(std::make_unique<SystemdTimers>(place));

  const auto jobs = static_cast<std::int64_t>(plan.minutes * plan.jobs + plan.burst * plan.rounds);
  const auto lead = kLead + static_cast<std::int64_t>(all.size()) * jobs / kJobsPreparedASecond;
  const std::int64_t first = (NowSeconds() + lead) / kMinute * kMinute + kMinute;
  const auto minute = [&](std::size_t number) { return first + static_cast<std::int64_t>(number) * kMinute; };
  const auto burstOf = [&](std::size_t round, std::size_t i) { return minute(plan.minutes + round * all.size() + i); };
  for (std::size_t i = 0; i < all.size(); ++i) {
    std::vector<std::int64_t> moments;
    for (std::size_t m = 0; m < plan.minutes; ++m) moments.insert(moments.end(), plan.jobs, minute(m));
    for (std::size_t round = 0; round < plan.rounds; ++round)
      moments.insert(moments.end(), plan.burst, burstOf(round, i));
    all[i]->Take(moments);
  }
  if (NowSeconds() >= first) throw std::runtime_error("the preparation took longer than to the first minute");
  std::fprintf(stderr, "%zu minutes from %s on\n", plan.minutes + plan.rounds * all.size(),
               LocalTime(first, "%H:%M").c_str());

  std::vector<Result> results(all.size());
  for (std::size_t m = 0; m < plan.minutes; ++m) {
    SleepUntil(minute(m));
    for (std::size_t i = 0; i < all.size(); ++i) {
      const std::vector<double> late = all[i]->Started(plan.jobs, minute(m));
      results[i].late.insert(results[i].late.end(), late.begin(), late.end());
    }
  }
  for (std::size_t round = 0; round < plan.rounds; ++round) {
    for (std::size_t i = 0; i < all.size(); ++i) {
      const std::int64_t due = burstOf(round, i);
      SleepUntil(due);
      const std::vector<double> late = all[i]->Started(plan.burst, due);
      results[i].started += late.size();
      if (late.size() != plan.burst) continue;  // its last start isn't known
      results[i].first.push_back(late.front());
      results[i].last.push_back(late.back());
      results[i].between.push_back(late.back() - late.front());
    }
  }
  Print(plan, all, results);
  for (const std::unique_ptr<Scheduler>& one : all) {
    if (!one->IsRunning()) std::printf("%s had ended before the run did\n", one->Name().c_str());
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string place = argc > 1 ? argv[1] : "";
  std::error_code none;
  if (!fs::equivalent(place + "/cron.d", "/etc/cron.d", none) ||
      !fs::equivalent(place + "/spool", "/var/spool/cron", none)) {
    std::fprintf(stderr, "qx_other_schedulers: to be started by benchmarks/other_schedulers.sh\n");
    return 2;
  }
  Plan plan;
  std::size_t* const numbers[] = {&plan.minutes, &plan.jobs, &plan.burst, &plan.rounds};
  for (int i = 2; i < std::min(argc, 6); ++i) {
    *numbers[i - 2] = std::strtoul(argv[i], nullptr, 10);
    if (*numbers[i - 2] == 0) {
      std::fprintf(stderr, "qx_other_schedulers: not a number above 0: %s\n", argv[i]);
      return 2;
    }
  }
  try {
    return Run(place, plan);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "qx_other_schedulers: %s\n", error.what());
    return 1;
  }
}
