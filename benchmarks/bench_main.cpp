// Runs the figures whose names begin with one of the words given, or all, and prints a row for each.
//
// usage: qx_bench [--json] [--list] [NAME...]
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <exception>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "benchmarks/figure.h"

namespace qx::bench {
namespace {

struct Row {
  double ours;
  double reference;
  double ratio;  // median of the rounds' ratios
};

Row Measure(const Figure& figure) {
  std::vector<double> ours, reference, ratios;
  for (int round = 0; round < figure.rounds; ++round) {
    ours.push_back(figure.ours());
    reference.push_back(figure.reference());
    ratios.push_back(ours.back() / reference.back());
  }
  return {Quantile(ours, 0.5), Quantile(reference, 0.5), Quantile(ratios, 0.5)};
}

bool Wanted(const std::string& name, const std::vector<std::string>& words) {
  return words.empty() || std::any_of(words.begin(), words.end(),
                                      [&](const std::string& word) { return name.compare(0, word.size(), word) == 0; });
}

int Run(int argc, char** argv) {
  bool json = false;
  bool list = false;
  std::vector<std::string> words;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--json") == 0) {
      json = true;
    } else if (std::strcmp(argv[i], "--list") == 0) {
      list = true;
    } else {
      words.emplace_back(argv[i]);
    }
  }
  std::vector<Figure> figures;
  for (const auto group :
       {NextWindowFigures, FoundationFigures, StartFigures, StoreFigures, LaunchFigures, ResidentFigures,
        BusFigures, ListFigures, NodeFigures, CalendarFigures, RecordFigures}) {
    for (Figure& figure : group()) figures.push_back(std::move(figure));
  }
  std::erase_if(figures, [&](const Figure& figure) { return !Wanted(figure.name, words); });
  if (figures.empty()) {
    std::fprintf(stderr, "qx_bench: no figure of that name\n");
    return 2;
  }
  nlohmann::json rows = nlohmann::json::array();
  if (!json && !list) {
    std::printf("%-46s %12s %12s %4s %8s %7s  %-7s %s\n", "figure", "ours", "yardstick", "", "ratio", "goal", "verdict",
                "yardstick is");
  }
  for (const Figure& figure : figures) {
    if (list) {
      std::printf("%s\n", figure.name.c_str());
      continue;
    }
    const Row row = Measure(figure);
    const char* verdict = row.ratio <= figure.goal ? "ok" : "short";
    if (json) {
      rows.push_back({{"name", figure.name}, {"ours", row.ours}, {"yardstick", row.reference}, {"unit", figure.unit},
                      {"ratio", row.ratio}, {"goal", figure.goal}, {"verdict", verdict}});
    } else {
      std::printf("%-46s %12.1f %12.1f %4s %8.3f %7.3f  %-7s %s\n", figure.name.c_str(), row.ours, row.reference,
                  figure.unit.c_str(), row.ratio, figure.goal, verdict, figure.yardstick.c_str());
      std::fflush(stdout);
    }
  }
  if (json) std::printf("%s\n", rows.dump(2).c_str());
  return 0;
}

}  // namespace
}  // namespace qx::bench

int main(int argc, char** argv) {
  try {
    return qx::bench::Run(argc, argv);
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "qx_bench: %s\n", failure.what());
    return 1;
  }
}
