// tests/soak/soak_settings.h: for tests: how long the soak takes and what its choices are made from.
//
//   SOAK_MINUTES  fractions allowed; 1 without it
//   SOAK_SEED     repeats the choices of a run; the machine's own timing doesn't repeat
#pragma once

#include <cstdint>
#include <cstdlib>
#include <random>

namespace qx::testing {

inline double SoakSeconds() {
  const char* const minutes = std::getenv("SOAK_MINUTES");
  const double given = minutes != nullptr ? std::atof(minutes) : 0;
  return 60 * (given > 0 ? given : 1);
}

inline std::uint32_t SoakSeed() {
  const char* const seed = std::getenv("SOAK_SEED");
  static const std::uint32_t value =
      seed != nullptr ? static_cast<std::uint32_t>(std::strtoul(seed, nullptr, 10)) : std::random_device()();
  return value;
}

class Dice {
 public:
  explicit Dice(std::uint32_t seed) : m_random(seed) {}
  // From 0 to bound - 1.
  std::int64_t Below(std::int64_t bound) {
    return static_cast<std::int64_t>(m_random() % static_cast<std::uint64_t>(bound));
  }
  std::int64_t Between(std::int64_t low, std::int64_t high) { return low + Below(high - low + 1); }
  bool OneIn(std::int64_t count) { return Below(count) == 0; }

 private:
  std::mt19937_64 m_random;
};

}  // namespace qx::testing
