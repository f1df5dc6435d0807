#include "tests/soak/launch_ledger.h"

#include <algorithm>
#include <set>

namespace qx::testing {
namespace {

// Jobs tell their moment themselves: on a busy machine that comes late.
constexpr Micros kPatienceForJob = 6 * kMicrosOfSecond;
// A window this near to the edge of a stretch is left open.
constexpr Micros kEdge = 1'500'000;
// How long behind a window its launch may be hindered by what happens then, and its skipping be told.
constexpr Micros kHindered = 3 * kMicrosOfSecond;
constexpr std::int64_t kToldWithinSeconds = 10;

bool Meets(const std::vector<std::pair<Micros, Micros>>& intervals, Micros from, Micros to) {
  return std::any_of(intervals.begin(), intervals.end(),
                     [&](const auto& interval) { return interval.first <= to && interval.second >= from; });
}

std::string Second(Micros at) {
  std::string micros = std::to_string(at % kMicrosOfSecond);
  return std::to_string(at / kMicrosOfSecond) + "." + std::string(6 - micros.size(), '0') + micros;
}

}  // namespace

std::int64_t WindowSeries::LatestAt(std::int64_t second) const {
  if (second < first) return -1;
  if (step == 0) return first;
  return first + (std::min(second, last) - first) / step * step;
}

void LaunchLedger::Born(const std::string& tag, const WindowSeries& series, Micros at) {
  Version& version = m_versions[tag];
  version.born = at;
  version.possible = {series};
}

void LaunchLedger::MayBe(const std::string& tag, const WindowSeries& series) {
  m_versions.at(tag).possible.push_back(series);
}

void LaunchLedger::Holds(const std::string& tag, const std::string& id, const WindowSeries& series, Micros at) {
  Version& version = m_versions.at(tag);
  version.id = id;
  version.gone = kEndOfTime;
  if (std::find(version.possible.begin(), version.possible.end(), series) == version.possible.end()) {
    version.possible.push_back(series);
  }
  version.stretches.push_back({at, kEndOfTime, series});
}

void LaunchLedger::Doubt(const std::string& tag, Micros at) {
  for (Stretch& stretch : m_versions.at(tag).stretches) stretch.to = std::min(stretch.to, at);
}

void LaunchLedger::Gone(const std::string& tag, Micros at) {
  Doubt(tag, at);
  Version& version = m_versions.at(tag);
  version.gone = std::min(version.gone, at);
}

void LaunchLedger::RunAtOnce(const std::string& tag, Micros from, Micros to, bool certain) {
  m_versions.at(tag).runs.push_back({from, to, certain});
}

void LaunchLedger::Launched(const std::string& id, const std::string& tag, Micros at) {
  const auto version = m_versions.find(tag);
  if (version == m_versions.end()) {
    m_strangers.push_back(id + " was started at " + Second(at) + " with the unknown tag " + tag);
  } else {
    version->second.launches.emplace_back(at, id);
  }
}

bool LaunchLedger::WasTold(const std::string& id, std::int64_t window) const {
  const auto told = m_told.find(id);
  return told != m_told.end() && std::any_of(told->second.begin(), told->second.end(), [&](std::int64_t second) {
           return second >= window && second <= window + kToldWithinSeconds;
         });
}

void LaunchLedger::JudgeVersion(const std::string& tag, const Version& version, Micros until, Counts& counts,
                                std::vector<std::string>& faults) const {
  const std::string who = version.id + " (" + tag + ")";
  std::vector<std::pair<Micros, std::string>> launches = version.launches;
  std::sort(launches.begin(), launches.end());
  for (const auto& [at, id] : launches) {
    if (!version.id.empty() && id != version.id) faults.push_back(who + " was started under the ID " + id);
  }
  const auto windowOf = [&](Micros at) {
    std::int64_t window = -1;
    for (const WindowSeries& series : version.possible) {
      window = std::max(window, series.LatestAt(at / kMicrosOfSecond));
    }
    return window < 0 || at - window * kMicrosOfSecond > kPatienceForJob ? -1 : window;
  };
  for (const Run& run : version.runs) {
    // Of the launches in question one that stands for no window of its own; where the run is certain, else the first.
    auto taken = launches.end();
    std::set<std::int64_t> windows;
    for (auto launch = launches.begin(); launch != launches.end(); ++launch) {
      const std::int64_t window = windowOf(launch->first);
      const bool ownWindow = window >= 0 && windows.insert(window).second;
      if (launch->first < run.from || launch->first > run.to + kPatienceForJob) continue;
      if (!ownWindow) {
        taken = launch;
        break;
      }
      if (run.certain && taken == launches.end()) taken = launch;
    }
    if (taken != launches.end()) {
      launches.erase(taken);
      ++counts.runsAtOnce;
    } else if (run.certain && run.to + kPatienceForJob < until) {
      faults.push_back(who + " was to run at once at " + Second(run.from) + " and didn't");
    }
  }
  std::map<std::int64_t, Micros> launchOf;  // window, start
  for (const auto& [at, id] : launches) {
    const std::int64_t window = windowOf(at);
    if (window < 0) {
      faults.push_back(who + " was started at " + Second(at) + ", where there is no window");
    } else if (const auto [before, isNew] = launchOf.emplace(window, at); !isNew) {
      faults.push_back(who + " was started for " + std::to_string(window) + " twice: at " + Second(before->second) +
                       " and at " + Second(at));
    } else if (at < version.born || at > version.gone + kPatienceForJob) {
      faults.push_back(who + " was started at " + Second(at) + ", when it wasn't there");
    }
  }
  std::size_t settled = 0;
  for (const Stretch& stretch : version.stretches) {
    const Micros begin = stretch.from + kEdge;
    const Micros end = std::min(stretch.to - kEdge, until - kPatienceForJob - kToldWithinSeconds * kMicrosOfSecond);
    for (std::int64_t window = stretch.series.first; window <= stretch.series.last;
         window += std::max<std::int64_t>(stretch.series.step, 1)) {
      const Micros due = window * kMicrosOfSecond;
      if (due >= begin && due <= end) {
        if (const auto launch = launchOf.find(window); launch != launchOf.end()) {
          ++counts.launched;
          ++settled;
          if (!Meets(m_disturbances, due - kEdge, due + kHindered)) {
            counts.worstLateMs =
                std::max(counts.worstLateMs, static_cast<std::uint64_t>((launch->second - due) / 1000));
          }
        } else if (Meets(m_disturbances, due - kEdge, due + kHindered)) {
          ++counts.disturbed;
        } else if (WasTold(version.id, window)) {
          ++counts.toldSkipped;
        } else if (Meets(m_blind, due, due + kToldWithinSeconds * kMicrosOfSecond)) {
          ++counts.disturbed;
        } else {
          faults.push_back(who + " was due at " + std::to_string(window) +
                           " and was neither started nor skipped by a rule");
        }
      }
      if (stretch.series.step == 0) break;
    }
  }
  counts.uncertain += launchOf.size() - settled;
}

std::vector<std::string> LaunchLedger::Judge(Micros until, Counts& counts) const {
  counts = {};
  std::vector<std::string> faults = m_strangers;
  for (const auto& [tag, version] : m_versions) JudgeVersion(tag, version, until, counts, faults);
  return faults;
}

}  // namespace qx::testing
