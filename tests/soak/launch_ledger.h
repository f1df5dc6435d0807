// tests/soak/launch_ledger.h: for tests: which starts of jobs were due, reckoned beside the service, and which there
// were.
//
// A version of a schedule (what one creation or modification gave it) has a tag of its own, which its job tells with
// the moment of its start. Versions hold for stretches of time; within these each window has to be launched once,
// unless it was skipped by a rule: the service wasn't there or was loading (Disturb), or it said so in its log (Told).
// Where it is unknown what holds (a call that never ended), windows may be launched or not. Never may one be launched
// twice, nor anything be launched where there is no window.
//
// Moments are microseconds since 1970, windows seconds. Threads: one.
#pragma once

#include <cstdint>
#include <limits>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace qx::testing {

using Micros = std::int64_t;
inline constexpr Micros kMicrosOfSecond = 1'000'000;
inline constexpr Micros kEndOfTime = std::numeric_limits<Micros>::max() / 4;

// Windows of one day: first, first + step, ..., up to and with `last`. A step of 0: the first alone.
struct WindowSeries {
  std::int64_t first = 0;
  std::int64_t step = 0;
  std::int64_t last = 0;

  // The latest window that isn't behind `second`; -1 for none.
  [[nodiscard]] std::int64_t LatestAt(std::int64_t second) const;
  friend bool operator==(const WindowSeries&, const WindowSeries&) = default;
};

class LaunchLedger {
 public:
  struct Counts {
    std::uint64_t launched = 0;     // windows that had to be and were
    std::uint64_t uncertain = 0;    // launched where that was left open
    std::uint64_t toldSkipped = 0;  // skipped with a line in the log
    std::uint64_t disturbed = 0;    // skipped without one while the service wasn't there or was loading
    std::uint64_t runsAtOnce = 0;
    std::uint64_t worstLateMs = 0;
  };

  // A version may begin to run: the call that makes it was begun.
  void Born(const std::string& tag, const WindowSeries& series, Micros at);
  // It may also run by these windows.
  void MayBe(const std::string& tag, const WindowSeries& series);
  // It is certain to hold from now on, under that ID.
  void Holds(const std::string& tag, const std::string& id, const WindowSeries& series, Micros at);
  // No longer certain; it may still run.
  void Doubt(const std::string& tag, Micros at);
  // It is certain to run no more.
  void Gone(const std::string& tag, Micros at);
  // One start beside the windows. `certain`: it has to be there.
  void RunAtOnce(const std::string& tag, Micros from, Micros to, bool certain);

  void Disturb(Micros from, Micros to) { m_disturbances.emplace_back(from, to); }
  // No line of the log can be expected.
  void Blind(Micros from, Micros to) { m_blind.emplace_back(from, to); }

  // What was seen.
  void Launched(const std::string& id, const std::string& tag, Micros at);
  void Told(const std::string& id, std::int64_t second) { m_told[id].push_back(second); }

  // All that is against the rules up to `until`, one sentence each; may be asked again.
  [[nodiscard]] std::vector<std::string> Judge(Micros until, Counts& counts) const;

 private:
  struct Stretch {
    Micros from = 0;
    Micros to = kEndOfTime;
    WindowSeries series;
  };
  struct Run {
    Micros from = 0;
    Micros to = 0;
    bool certain = false;
  };
  struct Version {
    std::string id;  // empty: unknown
    Micros born = 0;
    Micros gone = kEndOfTime;
    std::vector<WindowSeries> possible;
    std::vector<Stretch> stretches;
    std::vector<Run> runs;
    std::vector<std::pair<Micros, std::string>> launches;  // with the ID that the job got
  };
  using Intervals = std::vector<std::pair<Micros, Micros>>;

  void JudgeVersion(const std::string& tag, const Version& version, Micros until, Counts& counts,
                    std::vector<std::string>& faults) const;
  [[nodiscard]] bool WasTold(const std::string& id, std::int64_t window) const;

  std::map<std::string, Version> m_versions;
  std::map<std::string, std::vector<std::int64_t>> m_told;
  Intervals m_disturbances;
  Intervals m_blind;
  std::vector<std::string> m_strangers;
};

}  // namespace qx::testing
