// The man pages beside the programs: every command, option and key is told, nothing else is, and the examples are true.
//
// In a page `.\" file NAME` makes the next literal display a file of that name, `.\" run` has its lines that begin with
// "$ " carried out; what follows each is what it prints, with IDs and times to come of their own.
#include <gmock/gmock.h>

#include <regex>
#include <set>

#include "client/schedule_file.h"
#include "tests/running_service.h"

namespace {

namespace fs = std::filesystem;
using qx::testing::Child;
using qx::testing::RunningService;
using testing::IsEmpty;
using Words = std::set<std::string>;

std::string PageFile(const std::string& page) { return test_paths::Source() + "/docs/man/" + page; }

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}
std::vector<std::string> PageLines(const std::string& page) { return Lines(RunningService::ReadFile(PageFile(page))); }

std::vector<std::string> Split(const std::string& text) {
  std::istringstream in(text);
  return {std::istream_iterator<std::string>(in), {}};
}

// The words behind each Fl of a macro line, with their hyphen: "Fl n | -count" gives "-n" and "--count".
void CollectFlags(const std::string& line, Words& flags) {
  bool inFlag = false;
  for (const std::string& word : Split(line)) {
    if (word == "Fl" || word == ".Fl") {
      inFlag = true;
    } else if (word.size() == 2 && std::isupper(static_cast<unsigned char>(word[0])) != 0) {
      inFlag = false;  // another macro
    } else if (inFlag && word != "|" && word != ",") {
      flags.insert("-" + word);
    }
  }
}

// Runs a program of the build to its end; what it prints.
std::string OutputOf(const std::string& program, const std::vector<std::string>& words) {
  std::string pattern = testing::TempDir() + "qx-output-XXXXXX";
  const int file = mkstemp(pattern.data());
  close(file);
  Child child(test_paths::Programs() + "/" + program, words, pattern, {"TZ=UTC", "HOME=/nonexistent"});
  EXPECT_EQ(child.Wait(), 0) << program;
  std::string text = RunningService::ReadFile(pattern);
  fs::remove(pattern);
  return text;
}

// The options of a help text, without that for help itself.
Words OptionsOfHelp(const std::string& help) {
  static const std::regex kOption("^  (-[^ ,:]+)(?:,(--[^ :]+))?(?: .*)?$");
  Words options;
  for (const std::string& line : Lines(help)) {
    std::smatch found;
    if (!std::regex_match(line, found, kOption) || found[1] == "-h") continue;
    options.insert(found[1]);
    if (found[2].matched) options.insert(found[2]);
  }
  return options;
}

std::vector<std::string> CommandsOfHelp(const std::string& help) {
  std::vector<std::string> commands;
  bool inList = false;
  for (const std::string& line : Lines(help)) {
    if (line.starts_with("Subcommands:")) inList = true;
    if (inList && line.starts_with("  ") && line[2] != ' ') commands.push_back(Split(line)[0]);
  }
  return commands;
}

// Each command that takes arguments of its own, by its full name, with its options.
void CollectCommands(const std::vector<std::string>& words, std::map<std::string, Words>& commands) {
  std::vector<std::string> call = words;
  call.push_back("--help");
  const std::string help = OutputOf("qxsched", call);
  const std::vector<std::string> below = CommandsOfHelp(help);
  for (const std::string& command : below) {
    std::vector<std::string> deeper = words;
    deeper.push_back(command);
    CollectCommands(deeper, commands);
  }
  if (!below.empty()) return;
  std::string name;
  for (const std::string& word : words) name += (name.empty() ? "" : " ") + word;
  commands[name] = OptionsOfHelp(help);
}

TEST(ManPageOfTheCommandLine, TellsEveryCommandWithItsOptionsAndNoOther) {
  std::map<std::string, Words> program;
  CollectCommands({}, program);
  ASSERT_GT(program.size(), 20u);
  std::map<std::string, Words> page;
  std::string command;  // whose part the line stands in
  bool head = false;
  for (const std::string& line : PageLines("qxsched.1")) {
    if (line.starts_with(".Ss") || line.starts_with(".Sh")) command.clear();
    if (head && line.starts_with(".Ic ")) command = line.substr(4);
    head = line == ".It Xo";
    if (!command.empty() && line.starts_with(".")) CollectFlags(line, page[command]);
  }
  for (const auto& [name, options] : program) {
    EXPECT_TRUE(page.contains(name)) << "the page doesn't tell of: " << name;
    EXPECT_EQ(page[name], options) << name;
    page.erase(name);
  }
  for (const auto& [name, options] : page) ADD_FAILURE() << "the page tells of: " << name;
}

// The flags that stand as heads in the lists of a page's section.
Words HeadFlags(const std::string& page, const std::string& section) {
  Words flags;
  bool in = false;
  for (const std::string& line : PageLines(page)) {
    if (line.starts_with(".Ss") || line.starts_with(".Sh")) in = line == section;
    if (in && line.starts_with(".It Fl")) CollectFlags(line.substr(3), flags);
  }
  return flags;
}

TEST(ManPageOfTheCommandLine, TellsTheOptionsOfEveryCommand) {
  Words page = HeadFlags("qxsched.1", ".Ss Options of every command");
  EXPECT_EQ(page.erase("-h") + page.erase("--help"), 2u);
  EXPECT_EQ(page, OptionsOfHelp(OutputOf("qxsched", {"--help"})));
}

TEST(ManPageOfTheService, TellsEveryWordAndOptionAndNoOther) {
  Words program;
  for (const std::string& line : Lines(OutputOf("QxSchedService", {"--help"}))) {
    if (line.starts_with("  -")) program.insert(Split(line)[0]);
  }
  ASSERT_GT(program.size(), 8u);
  EXPECT_EQ(HeadFlags("QxSchedService.8", ".Sh DESCRIPTION"), program);
}

// The keys of a table, as the reader of schedule files names them for one that it doesn't know.
Words KeysOf(const std::string& text, const std::string& unknown) {
  const platform::Zone zone = platform::Zone::FromTz("UTC0");
  const qx::ScheduleFile file = qx::ParseScheduleFile(text, {zone, 1'700'000'000});
  for (const qx::Finding& finding : file.findings) {
    if (finding.key != unknown) continue;
    std::string list = finding.allowed;
    std::replace(list.begin(), list.end(), ',', ' ');
    const std::vector<std::string> words = Split(list);
    return {words.begin(), words.end()};
  }
  ADD_FAILURE() << "no finding for " << unknown;
  return {};
}

TEST(ManPageOfTheScheduleFile, TellsEveryKeyOfEachTableAndNoOther) {
  Words top = KeysOf("unknown = 1\n", "unknown");
  for (const char* table : {"job", "window", "days"}) EXPECT_EQ(top.erase(table), 1u);
  const std::pair<std::string, Words> kTables[] = {
      {".Ss The schedule", top},
      {".Ss Table job", KeysOf("[job]\nunknown = 1\n", "job.unknown")},
      {".Ss Table window", KeysOf("[window]\nunknown = 1\n", "window.unknown")},
      {".Ss Table days", KeysOf("[days]\nunknown = 1\n", "days.unknown")},
  };
  for (const auto& [section, keys] : kTables) {
    Words told;
    bool in = false;
    for (const std::string& line : PageLines("qxsched-schedule.5")) {
      if (line.starts_with(".Ss") || line.starts_with(".Sh")) in = line == section;
      if (!in || !line.starts_with(".It Cm ")) continue;
      for (const std::string& word : Split(line.substr(7))) {
        if (word != ",") told.insert(word);
      }
    }
    EXPECT_EQ(told, keys) << section;
  }
  const std::string page = RunningService::ReadFile(PageFile("qxsched-schedule.5"));
  EXPECT_EQ(KeysOf("[days]\nrepeat = { unknown = 1 }\n", "days.repeat.unknown"), (Words{"every", "anchor"}));
  EXPECT_NE(page.find("{ every = DAYS, anchor = DATE }"), std::string::npos);
}

class ManPages : public testing::TestWithParam<const char*> {};

TEST_P(ManPages, AreFreeOfFaultsByTheFormattersWord) {
  constexpr const char* kLint = "/usr/bin/mandoc";
  ASSERT_TRUE(fs::exists(kLint)) << "mandoc isn't installed";
  const std::string output = testing::TempDir() + "qx-lint-" + GetParam();
  Child child(kLint, {"-Tlint", PageFile(GetParam())}, output, {"PATH=/usr/bin:/bin"});
  (void)child.Wait();
  std::string findings;
  for (const std::string& line : Lines(RunningService::ReadFile(output))) {
    // About the pages that this machine has, not about this one.
    if (line.find("referenced manual not found") != std::string::npos) continue;
    if (line.find("outdated mandoc.db") != std::string::npos) continue;
    findings += line + "\n";
  }
  EXPECT_EQ(findings, "");
  fs::remove(output);
}

// Blanks and line ends folded; IDs, and times that depend on the present, without their value.
std::string Comparable(const std::string& text) {
  static const std::regex kId("\\{[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}\\}");
  static const std::regex kNext("next [0-9]{4}-[0-9]{2}-[0-9]{2} [0-9:]{8} [+-][0-9]{4}");
  std::string folded;
  for (const std::string& word : Split(text)) folded += (folded.empty() ? "" : " ") + word;
  return std::regex_replace(std::regex_replace(folded, kId, "{ID}"), kNext, "next TIME");
}

// A line of a literal display as it is shown.
std::string Shown(std::string line) {
  for (const auto& [from, to] : {std::pair("\\&", ""), std::pair("\\-", "-"), std::pair("\\e", "\\")}) {
    for (std::size_t at = line.find(from); at != std::string::npos; at = line.find(from, at + 1)) {
      line.replace(at, 2, to);
    }
  }
  return line;
}

TEST_P(ManPages, HaveExamplesThatAreTrue) {
  RunningService service;
  service.SetLauncher({"/usr/bin/env", "TZ=Europe/Berlin"});
  ASSERT_NO_FATAL_FAILURE(service.Register());
  ASSERT_NO_FATAL_FAILURE(service.Start());
  const std::string folder = service.Jobs();
  fs::create_directory(folder + "/bin");
  std::ofstream(folder + "/bin/qxsched") << "#!/bin/sh\nexec " << test_paths::Programs() << "/qxsched --root "
                                         << service.Root() << " --bus '" << service.Bus().Address() << "' \"$@\"\n";
  fs::permissions(folder + "/bin/qxsched", fs::perms::owner_all);

  std::string command, expected;
  int carriedOut = 0;
  const auto carryOut = [&] {
    if (command.empty()) return;
    const std::string output = folder + "/output";
    std::vector<std::string> environment = service.Environment();
    environment.erase(environment.begin(), environment.begin() + 2);  // zone and path
    environment.push_back("TZ=Europe/Berlin");
    environment.push_back("PATH=" + folder + "/bin:/usr/bin:/bin");
    Child child("/bin/sh", {"-c", "cd '" + folder + "' && " + command}, output, environment);
    EXPECT_NE(child.Wait(), -1) << command;
    EXPECT_EQ(Comparable(RunningService::ReadFile(output)), Comparable(expected)) << GetParam() << ": " << command;
    ++carriedOut;
    command.clear();
    expected.clear();
  };
  std::string mark;
  std::ofstream file;
  bool literal = false;
  for (const std::string& line : PageLines(GetParam())) {
    if (line.starts_with(".\\\" file ") || line == ".\\\" run") {
      mark = line.substr(4);
    } else if (line.starts_with(".Bd -literal")) {
      literal = true;
      if (mark.starts_with("file ")) file.open(folder + "/" + mark.substr(5));
    } else if (line == ".Ed") {
      carryOut();
      file.close();
      literal = false;
      mark.clear();
    } else if (literal && mark == "run") {
      if (line.starts_with("$ ")) {
        carryOut();
        command = Shown(line.substr(2));
      } else {
        expected += Shown(line) + "\n";
      }
    } else if (literal && file.is_open()) {
      file << Shown(line) << "\n";
    }
  }
  if (std::string(GetParam()) != "QxSchedService.8") {
    EXPECT_GT(carriedOut, 1);
  }
}

INSTANTIATE_TEST_SUITE_P(All, ManPages,
                         testing::Values("qxsched.1", "qxsched-schedule.5", "qxsched-clock-change.7", "QxSchedService.8"),
                         [](const testing::TestParamInfo<const char*>& page) {
                           std::string name;
                           for (const char c : std::string(page.param)) {
                             if (std::isalnum(static_cast<unsigned char>(c)) != 0) name += c;
                           }
                           return name;
                         });

}  // namespace
