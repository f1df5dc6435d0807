#include "benchmarks/figure.h"

#include <chrono>

namespace qx::bench {

double SteadyNanoseconds() {
  return std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

}  // namespace qx::bench
