// tests/soak/flatness.h: for tests: whether a process's memory and descriptors stay flat while it works.
//
// Threads: one.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "platform/testing/judges_memory.h"

namespace qx::testing {

class Flatness {
 public:
  // A new process.
  void Begin(int process) {
    m_process = process;
    m_samples.clear();
  }
  // When it has nothing to do.
  void Sample(double seconds) {
    const std::string proc = "/proc/" + std::to_string(m_process);
    std::ifstream status(proc + "/status");
    for (std::string line; std::getline(status, line);) {
      if (line.rfind("VmRSS:", 0) != 0) continue;
      std::error_code error;
      const auto descriptors = std::distance(std::filesystem::directory_iterator(proc + "/fd", error),
                                             std::filesystem::directory_iterator());
      if (!error) m_samples.push_back({seconds, std::atol(line.c_str() + 6), static_cast<long>(descriptors)});
    }
  }
  // What has grown from the second third of the process's life to the last one; empty: nothing, or too short a life.
  std::string End(double leastSeconds) {
    if (m_samples.empty()) return "";
    const double begin = m_samples.front().seconds;
    const double life = m_samples.back().seconds - begin;
    if (life < leastSeconds) return "";
    const Reading before = Least(begin + life / 3, begin + 2 * life / 3);
    const Reading behind = Least(begin + 2 * life / 3, begin + life);
    ++m_judged;
    m_longest = std::max(m_longest, life);
    const std::string over = " in the last third of " + std::to_string(static_cast<int>(life)) + " s, ";
    m_worstGrowthKb = std::max(m_worstGrowthKb, behind.residentKb - before.residentKb);
    // A sanitizer's process keeps freed memory, and nobody else can ask it what it holds.
    if (platform::kJudgesMemory && behind.residentKb > before.residentKb + before.residentKb / 20 + 512) {
      return std::to_string(behind.residentKb) + " KB resident" + over + std::to_string(before.residentKb) + " before";
    }
    if (behind.descriptors > before.descriptors) {
      return std::to_string(behind.descriptors) + " descriptors" + over + std::to_string(before.descriptors) +
             " before";
    }
    return "";
  }
  [[nodiscard]] int Judged() const { return m_judged; }
  [[nodiscard]] double LongestSeconds() const { return m_longest; }
  [[nodiscard]] long WorstGrowthKb() const { return m_worstGrowthKb; }

 private:
  struct Reading {
    double seconds = 0;
    long residentKb = 0;
    long descriptors = 0;
  };
  // The least of each: a moment of work shows in neither.
  [[nodiscard]] Reading Least(double from, double to) const {
    Reading least = {0, 1L << 40, 1L << 40};
    for (const Reading& sample : m_samples) {
      if (sample.seconds < from || sample.seconds > to) continue;
      least.residentKb = std::min(least.residentKb, sample.residentKb);
      least.descriptors = std::min(least.descriptors, sample.descriptors);
    }
    return least;
  }

  int m_process = 0;
  std::vector<Reading> m_samples;
  int m_judged = 0;
  double m_longest = 0;
  long m_worstGrowthKb = 0;
};

}  // namespace qx::testing
