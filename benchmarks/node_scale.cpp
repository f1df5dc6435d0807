// The cost of one creation against the number of nodes: 1, 4, 16 and 64 real services, each in a network namespace of
// its own, beside the one that is asked.
//
// usage: qx_node_scale [ROUNDS]     as root, where the host allows namespaces; ends with 77 elsewhere
// The rounds take the numbers in turn; medians are fitted by a straight line. The figure is the time of 64 nodes
// against four times that of 16: 1 for a cost that grows linearly, less where a part of it is spent once.
#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "benchmarks/figure.h"
#include "tests/node_cluster.h"

namespace {

using qx::testing::Mechanism;
using qx::testing::NodeCluster;

constexpr std::array<int, 4> kCounts = {1, 4, 16, 64};  // nodes beside the one that is asked
constexpr double kGoal = 1.1;
constexpr double kNanosecondsPerMillisecond = 1e6;

// Milliseconds of one creation on that many nodes; negative when one of them didn't do it.
double TimeOne(qx::SchedulerClient& client, const SCHEDULE_OBJECT& schedule, int count) {
  NodeNames names = {u"localhost"};
  for (int i = 1; i <= count; ++i) names.push_back(platform::WideFromUtf8(NodeCluster::Address(i)));
  const auto size = static_cast<std::uint32_t>(names.size());
  NodeResults results(size, 1);
  ScheduleGuid id;
  const double begun = qx::bench::SteadyNanoseconds();
  const Status status = client.CreateScheduleOnNodes(schedule, id, size, names, results);
  const double passed = (qx::bench::SteadyNanoseconds() - begun) / kNanosecondsPerMillisecond;
  const bool done = status == 0 && std::count(results.begin(), results.end(), 0) == static_cast<int>(size);
  NodeResults deleted(size, 1);
  const bool gone = client.DeleteScheduleOnNodes(id, size, names, deleted) == 0;
  return done && gone ? passed : -1;
}

struct Line {
  double start = 0, slope = 0;
};
Line Fit(const std::array<double, kCounts.size()>& times) {
  double n = 0, sumX = 0, sumY = 0, sumXX = 0, sumXY = 0;
  for (std::size_t i = 0; i < kCounts.size(); ++i) {
    n += 1;
    sumX += kCounts[i];
    sumY += times[i];
    sumXX += static_cast<double>(kCounts[i]) * kCounts[i];
    sumXY += kCounts[i] * times[i];
  }
  const double slope = (n * sumXY - sumX * sumY) / (n * sumXX - sumX * sumX);
  return {(sumY - slope * sumX) / n, slope};
}

int Run(int rounds) {
  if (const std::string why = NodeCluster::WhyNot(Mechanism::kNtlm); !why.empty()) {
    std::fprintf(stderr, "qx_node_scale: no real nodes here: %s\n", why.c_str());
    return 77;
  }
  NodeCluster cluster(kCounts.back() + 1, Mechanism::kNtlm);
  cluster.ShareSecret();
  cluster.StartAll();
  qx::SchedulerClient client;
  cluster[0].Connect(client);
  if (::testing::Test::HasFailure()) return 1;
  const SCHEDULE_OBJECT schedule = cluster[0].Job("job", platform::NowSeconds() / 86400 * 86400 + 30 * 86400);
  // Each service makes its key pair at its first use: not counted.
  if (TimeOne(client, schedule, kCounts.back()) < 0) return 1;
  std::array<std::vector<double>, kCounts.size()> times;
  for (int round = 0; round < rounds; ++round) {
    for (std::size_t i = 0; i < kCounts.size(); ++i) {
      times[i].push_back(TimeOne(client, schedule, kCounts[i]));
      if (times[i].back() < 0) {
        std::fprintf(stderr, "qx_node_scale: a node didn't do it\n");
        return 1;
      }
    }
  }
  std::array<double, kCounts.size()> medians{};
  for (std::size_t i = 0; i < kCounts.size(); ++i) medians[i] = qx::bench::Quantile(times[i], 0.5);
  const Line line = Fit(medians);
  std::printf("%6s %12s %12s %12s\n", "nodes", "ms", "ms a node", "by the line");
  for (std::size_t i = 0; i < kCounts.size(); ++i) {
    std::printf("%6d %12.2f %12.2f %12.2f\n", kCounts[i], medians[i], medians[i] / kCounts[i],
                line.start + line.slope * kCounts[i]);
  }
  const double ratio = medians[3] / medians[2] / (static_cast<double>(kCounts[3]) / kCounts[2]);
  std::printf("slope %.3f ms a node, %.2f ms once; 64 nodes against four times 16: %.3f, goal %.1f, %s\n", line.slope,
              line.start, ratio, kGoal, ratio <= kGoal ? "ok" : "short");
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  ::testing::InitGoogleTest();
  const int rounds = argc > 1 ? std::atoi(argv[1]) : 15;
  return Run(std::max(rounds, 1));
}
