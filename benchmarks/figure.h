// benchmarks/figure.h: a figure is a measured ratio of our way to a yardstick, both timed in turn in the same run.
//
// Ratios, not times: the machine's speed cancels out. Nothing here is a test; a verdict is information.
#pragma once

#include <algorithm>
#include <cstddef>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace qx::bench {

struct Figure {
  std::string name;
  std::string yardstick;              // what is measured against, in words
  std::string unit;                   // of both values, such as "ns" or "ms"
  double goal;                        // the greatest ratio that is "ok"
  std::function<double()> ours;       // one round, in `unit`
  std::function<double()> reference;  // one round of the yardstick
  int rounds = 5;
};

// Figures that take no preparation, and those that start real services.
std::vector<Figure> NextWindowFigures();
std::vector<Figure> FoundationFigures();
std::vector<Figure> LaunchFigures();
std::vector<Figure> ListFigures();
std::vector<Figure> StartFigures();
std::vector<Figure> StoreFigures();
std::vector<Figure> ResidentFigures();
std::vector<Figure> BusFigures();
std::vector<Figure> NodeFigures();
std::vector<Figure> CalendarFigures();
std::vector<Figure> RecordFigures();

// Nanoseconds of the steady clock.
double SteadyNanoseconds();

// The value below which `part` of the values lie; 0.5: the median.
inline double Quantile(std::vector<double> values, double part) {
  const auto at = std::min(static_cast<std::size_t>(part * static_cast<double>(values.size())), values.size() - 1);
  std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(at), values.end());
  return values[at];
}

// Keeps the compiler from leaving a computation out.
template <typename T>
inline void Keep(const T& value) {
  asm volatile("" : : "r,m"(value) : "memory");
}

}  // namespace qx::bench
