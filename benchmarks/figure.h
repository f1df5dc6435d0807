// benchmarks/figure.h: a figure is a measured ratio of our way to a yardstick, both timed in turn in the same run.
//
// Ratios, not times: the machine's speed cancels out. Nothing here is a test; a verdict is information.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace qx::bench {

struct Figure {
  std::string name;
  std::string yardstick;              // what is measured against, in words
  std::string unit;                   // of both values, "ns" or "ms"
  double goal;                        // the greatest ratio that is "ok"
  std::function<double()> ours;       // one round, in `unit`
  std::function<double()> reference;  // one round of the yardstick
  int rounds = 5;
};

// Figures that take no preparation, and those that start real services.
std::vector<Figure> NextWindowFigures();
std::vector<Figure> FoundationFigures();
std::vector<Figure> ServiceFigures();

// The job of the lateness figure: writes the nanoseconds of its start into a pipe.
int StampMain(const char* path);

// Nanoseconds of the steady clock.
double SteadyNanoseconds();

// Keeps the compiler from leaving a computation out.
template <typename T>
inline void Keep(const T& value) {
  asm volatile("" : : "r,m"(value) : "memory");
}

}  // namespace qx::bench
