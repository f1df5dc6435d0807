// The schedules of the documents "coming from ..." beside the other systems' forms of them: the same times come of
// both.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <map>
#include <set>
#include <sstream>

#include "platform/clock.h"
#include "platform/testing/temporary_folder.h"
#include "tests/document.h"
#include "tests/fake_time.h"
#include "tests/running_service.h"

namespace qx::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;

constexpr std::size_t kTimes = 8;
constexpr std::size_t kSchedules = 10;
constexpr const char* kZone = "Europe/Berlin";
constexpr const char* kFrom = "2026-12-20 00:00:00";
constexpr std::int64_t kMinutesADay = 1440;
constexpr std::int64_t kLongestSearch = 800;  // days

std::vector<Example> ExamplesIn(const std::string& name) {
  return ExamplesOf(RunningService::ReadFile(test_paths::Source() + "/docs/" + name));
}

// --- a crontab's line, by crontab(5) ---

struct CronLine {
  std::array<std::set<int>, 5> fields;  // minute, hour, day of the month, month, weekday with 0 for Sunday
  bool eitherDay = false;               // day and weekday are both given: one of them is enough
  std::string condition;                // a command that decides, or empty
  std::string command;
};

std::set<int> CronField(const std::string& text, int least, int most) {
  std::set<int> values;
  std::istringstream parts(text);
  for (std::string part; std::getline(parts, part, ',');) {
    const std::size_t slash = part.find('/');
    const int step = slash == std::string::npos ? 1 : std::stoi(part.substr(slash + 1));
    const std::string range = part.substr(0, slash);
    int first = least, last = most;
    if (range != "*") {
      const std::size_t dash = range.find('-');
      first = std::stoi(range.substr(0, dash));
      last = dash == std::string::npos ? first : std::stoi(range.substr(dash + 1));
    }
    for (int value = first; value <= last; value += step) values.insert(value);
  }
  return values;
}

CronLine ReadCronLine(const std::string& text) {
  CronLine line;
  std::istringstream in(text);
  std::array<std::string, 5> words;
  for (std::string& word : words) in >> word;
  constexpr std::array<std::pair<int, int>, 5> kRanges = {{{0, 59}, {0, 23}, {1, 31}, {1, 12}, {0, 7}}};
  for (std::size_t i = 0; i < 5; ++i) line.fields[i] = CronField(words[i], kRanges[i].first, kRanges[i].second);
  if (line.fields[4].contains(7)) line.fields[4].insert(0);
  line.eitherDay = words[2].front() != '*' && words[4].front() != '*';
  std::getline(in >> std::ws, line.command);
  for (std::size_t at; (at = line.command.find("\\%")) != std::string::npos;) line.command.erase(at, 1);
  if (const std::size_t at = line.command.rfind(" && "); at != std::string::npos) {
    line.condition = line.command.substr(0, at);
    line.command.erase(0, at + 4);
  }
  return line;
}

bool NamesDay(const CronLine& line, std::int64_t day) {
  const platform::CivilDate date = platform::CivilFromDays(day);
  if (!line.fields[3].contains(date.month)) return false;
  const bool ofMonth = line.fields[2].contains(date.day);
  const bool weekday = line.fields[4].contains(static_cast<int>((day + 4) % 7));
  return line.eitherDay ? ofMonth || weekday : ofMonth && weekday;
}

// --- times as texts "2026-12-24 23:00" by the local clock ---

class ComingFrom : public ::testing::Test {
 protected:

  std::string Output(const std::string& program, const std::vector<std::string>& words, int expected = 0) {
    const std::string file = m_directory + "/output";
    Child child(program, words, file,
                {"PATH=/usr/bin:/bin", "HOME=/nonexistent", std::string("TZ=") + kZone, "LC_ALL=C.UTF-8"});
    EXPECT_EQ(child.Wait(), expected) << RunningService::ReadFile(file);
    return RunningService::ReadFile(file);
  }

  // What comes of a schedule file.
  std::vector<std::string> OfSchedule(const Example& example) {
    const std::string file = m_directory + "/" + example.file;
    std::ofstream(file) << example.text;
    std::istringstream lines(
        Output(test_paths::Programs() + "/qxsched",
               {"--no-legend", "next", file, "--from", "2026-12-20T00:00", "-n", std::to_string(kTimes)}));
    std::vector<std::string> times;
    for (std::string line; std::getline(lines, line);) times.push_back(line.substr(0, 16));
    return times;
  }

  // Whether a shell's command succeeds at a time by the local clock.
  bool Holds(const std::string& condition, const std::string& time) {
    Child child("/bin/sh", {"-c", condition}, m_directory + "/condition",
                {"PATH=/usr/bin:/bin", std::string("TZ=") + kZone, "FAKETIME=@" + time + ":00",
                 "LD_PRELOAD=" + FakeTimeLibrary(false)});
    return child.Wait() == 0;
  }

  std::vector<std::string> OfCron(const CronLine& line) {
    std::vector<std::string> times;
    const std::int64_t first = platform::DaysFromCivil(2026, 12, 20);
    for (std::int64_t day = first; day < first + kLongestSearch && times.size() < kTimes; ++day) {
      if (!NamesDay(line, day)) continue;
      const platform::CivilDate date = platform::CivilFromDays(day);
      for (std::int64_t minute = 0; minute < kMinutesADay && times.size() < kTimes; ++minute) {
        const int hour = static_cast<int>(minute / 60);
        if (!line.fields[1].contains(hour) || !line.fields[0].contains(static_cast<int>(minute % 60))) continue;
        char text[32];
        std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d", static_cast<int>(date.year), date.month, date.day,
                      hour, static_cast<int>(minute % 60));
        if (line.condition.empty() || Holds(line.condition, text)) times.emplace_back(text);
      }
    }
    return times;
  }

  std::vector<std::string> OfTimer(const std::string& unit) {
    std::vector<std::string> times;
    std::string condition;
    std::istringstream lines(unit);
    for (std::string line; std::getline(lines, line);) {
      const std::size_t equals = line.find('=');
      if (equals == std::string::npos) continue;
      const std::string key = line.substr(0, equals), value = line.substr(equals + 1);
      if (key == "ExecCondition") condition = value;
      if (key != "OnCalendar") continue;
      std::istringstream answer(Output(
          "/usr/bin/systemd-analyze",
          {"calendar", "--iterations=" + std::to_string(4 * kTimes), std::string("--base-time=") + kFrom, value}));
      for (std::string row; std::getline(answer, row);) {
        const std::size_t colon = row.find(": ");
        if (row.find("Next elapse") == std::string::npos && row.find("Iter. #") == std::string::npos) continue;
        if (row.size() > colon + 22 && row[colon + 5] == ' ') times.push_back(row.substr(colon + 6, 16));
      }
    }
    for (std::size_t at; (at = condition.find("%%")) != std::string::npos;) condition.erase(at, 1);
    if (!condition.empty()) std::erase_if(times, [&](const std::string& time) { return !Holds(condition, time); });
    std::sort(times.begin(), times.end());
    times.resize(std::min(times.size(), kTimes));
    return times;
  }

  // Each schedule of a document with its other forms.
  struct Pair {
    Example schedule;
    std::vector<Example> forms;
  };
  static std::map<std::string, Pair> PairsOf(const std::string& document, const std::string& kind) {
    std::map<std::string, Pair> pairs;
    for (const Example& example : ExamplesIn(document)) {
      if (example.kind == "toml") {
        pairs[example.file.substr(0, example.file.find('.'))].schedule = example;
      } else if (example.kind == kind) {
        pairs[example.file.substr(0, example.file.find('.'))].forms.push_back(example);
      }
    }
    EXPECT_THAT(pairs, SizeIs(kSchedules)) << document;
    return pairs;
  }

  const platform::TemporaryFolder m_temporary{"qx-coming"};
  const std::string m_directory = m_temporary.Path();
};

TEST_F(ComingFrom, CronsLinesComeAtTheSameTimes) {
  ASSERT_NE(FakeTimeLibrary(false), "") << "no clock for conditions (Debian package libfaketime)";
  for (const auto& [name, pair] : PairsOf("coming-from-cron.md", "cron")) {
    SCOPED_TRACE(name);
    const std::vector<std::string> ours = OfSchedule(pair.schedule);
    EXPECT_THAT(ours, Not(IsEmpty()));
    EXPECT_THAT(pair.forms, Not(IsEmpty()));
    for (const Example& form : pair.forms) {
      const CronLine line = ReadCronLine(form.text);
      EXPECT_NE(pair.schedule.text.find("wrapper = \"" + line.command + "\""), std::string::npos) << line.command;
      if (form.differs) {
        EXPECT_THAT(OfCron(line), Not(ElementsAreArray(ours))) << form.text;
      } else {
        EXPECT_THAT(OfCron(line), ElementsAreArray(ours)) << form.text;
      }
    }
  }
}

TEST_F(ComingFrom, TimersElapseAtTheSameTimes) {
  ASSERT_TRUE(fs::exists("/usr/bin/systemd-analyze")) << "it isn't installed (Debian package systemd)";
  ASSERT_NE(FakeTimeLibrary(false), "") << "no clock for conditions (Debian package libfaketime)";
  for (const auto& [name, pair] : PairsOf("coming-from-systemd-timers.md", "ini")) {
    SCOPED_TRACE(name);
    const std::vector<std::string> ours = OfSchedule(pair.schedule);
    EXPECT_THAT(ours, Not(IsEmpty()));
    EXPECT_THAT(pair.forms, Not(IsEmpty()));
    for (const Example& form : pair.forms) {
      if (form.differs) {
        EXPECT_THAT(OfTimer(form.text), Not(ElementsAreArray(ours))) << form.text;
      } else {
        EXPECT_THAT(OfTimer(form.text), ElementsAreArray(ours)) << form.text;
      }
    }
  }
}

// The third system's commands can't be run; the schedules beside them are those that were compared with the other two.
TEST_F(ComingFrom, TheSchedulesAreTheSameInAllDocuments) {
  const auto texts = [](const std::string& document) {
    std::map<std::string, std::string> schedules;
    for (const Example& example : ExamplesIn(document)) {
      if (example.kind == "toml") schedules[example.file] = example.text;
    }
    return schedules;
  };
  const auto cron = texts("coming-from-cron.md");
  EXPECT_THAT(cron, SizeIs(kSchedules));
  EXPECT_EQ(texts("coming-from-systemd-timers.md"), cron);
  EXPECT_EQ(texts("coming-from-schtasks.md"), cron);
  const std::vector<Example> examples = ExamplesIn("coming-from-schtasks.md");
  EXPECT_EQ(std::count_if(examples.begin(), examples.end(), [](const Example& e) { return e.kind == "bat"; }),
            static_cast<std::ptrdiff_t>(kSchedules));
}

// The reckoning itself.
TEST_F(ComingFrom, ACrontabsFieldsAreRead) {
  EXPECT_EQ(CronField("*/15", 0, 59), (std::set<int>{0, 15, 30, 45}));
  EXPECT_EQ(CronField("1,3-5", 0, 7), (std::set<int>{1, 3, 4, 5}));
  EXPECT_EQ(CronField("10-20/5", 0, 59), (std::set<int>{10, 15, 20}));
  const std::int64_t friday = platform::DaysFromCivil(2027, 1, 8);
  EXPECT_TRUE(NamesDay(ReadCronLine("0 22 25-31 * 5 x"), friday)) << "one of both is enough";
  EXPECT_FALSE(NamesDay(ReadCronLine("0 22 25-31 * * x"), friday));
  EXPECT_TRUE(NamesDay(ReadCronLine("0 22 */7 * 5 x"), friday)) << "a star asks for both";
  EXPECT_FALSE(NamesDay(ReadCronLine("0 22 */7 * 5 x"), friday + 7 - 1));
  EXPECT_TRUE(NamesDay(ReadCronLine("0 22 * * 7 x"), friday + 2));
}

}  // namespace
}  // namespace qx::testing
