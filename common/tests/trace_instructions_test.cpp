// Instructions of a trace statement that nobody asked for, counted by valgrind in one run of trace_instructions_probe.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>

#include "platform/testing/temporary_folder.h"
#include "tests/test_paths.h"

namespace {

namespace fs = std::filesystem;

constexpr int kRounds = 1000;  // those of the probe
// Its stretches.
constexpr const char* kStretches[] = {"CountNothing", "CountSuppressed", "CountEnabled",
                                      "CountWindow",  "CountInWindowSuppressed", "CountInWindowEnabled"};

struct Counted {
  std::map<std::string, std::int64_t> instructions;  // by stretch
  std::string printed;
};

// One run of the probe: the tool writes a file for each stretch, which names it and has its sum.
const Counted& TheRun() {
  static const Counted counted = [] {
    Counted result;
    const platform::TemporaryFolder temporary("qxtrace");
    const fs::path folder = temporary.Path();
    std::string command = std::string(QX_VALGRIND) + " --tool=callgrind";
    for (const std::string stretch : kStretches) command += " --zero-before=" + stretch + " --dump-after=" + stretch;
    command += " --callgrind-out-file=" + (folder / "counts").string() + " " + test_paths::Programs() +
               "/trace_instructions_probe > " + (folder / "printed").string() + " 2> " + (folder / "errors").string();
    const int status = std::system(command.c_str());
    std::ifstream errors(folder / "errors");
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << command << '\n' << errors.rdbuf();
    std::getline(std::ifstream(folder / "printed"), result.printed);
    for (const auto& entry : fs::directory_iterator(folder)) {
      constexpr std::string_view kTrigger = "desc: Trigger: --dump-after=";
      std::ifstream in(entry.path());
      std::string line, stretch;
      while (std::getline(in, line)) {
        if (line.starts_with(kTrigger)) stretch = line.substr(kTrigger.size());
        if (line.starts_with("summary: ") && !stretch.empty()) result.instructions[stretch] = std::stoll(line.substr(9));
      }
    }
    return result;
  }();
  return counted;
}

// Instructions of one round; fails the test where the stretch wasn't counted.
double PerRound(const std::string& stretch) {
  const auto found = TheRun().instructions.find(stretch);
  if (found == TheRun().instructions.end()) {
    ADD_FAILURE() << stretch << " wasn't counted";
    return -1;
  }
  return static_cast<double>(found->second) / kRounds;
}

// The load of the flags, the test of a bit, the jump, and what the compiler needs to get there.
constexpr double kMostOfASuppressedStatement = 6;
// A question whether a time lies in a window is one window query and the correction of its reference; had its four
// statements formatted anything, it would be many.
constexpr double kMostOfAQuestion = 3;

TEST(TraceInstructions, AreAHandfulForASuppressedStatement) {
  const double cost = PerRound("CountSuppressed") - PerRound("CountNothing");
  RecordProperty("instructions", std::to_string(cost));
  EXPECT_GT(cost, 0);
  EXPECT_LE(cost, kMostOfASuppressedStatement);
}

TEST(TraceInstructions, AreFarAboveThatBoundWhereTheStatementIsEnabled) {
  EXPECT_EQ(TheRun().printed, "1000 rounds, 5000 records");
  EXPECT_GT(PerRound("CountEnabled") - PerRound("CountNothing"), 20 * kMostOfASuppressedStatement);
}

TEST(TraceInstructions, OnTheWayOfAWindowQueryAreThoseOfTheQuery) {
  const double question = PerRound("CountInWindowSuppressed");
  const double query = PerRound("CountWindow");
  RecordProperty("question", std::to_string(question));
  RecordProperty("query", std::to_string(query));
  EXPECT_LE(question, kMostOfAQuestion * query);
}

TEST(TraceInstructions, OnTheWayOfAWindowQueryBreakThatBoundWhereTheTraceIsEnabled) {
  EXPECT_GT(PerRound("CountInWindowEnabled"), kMostOfAQuestion * PerRound("CountWindow"));
}

}  // namespace
