// Every example of the documents is run, and shows what the document says.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <set>

#include "platform/testing/temporary_folder.h"
#include "tests/document.h"
#include "tests/fake_time.h"
#include "tests/running_service.h"

namespace qx::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

// Those whose examples are run.
constexpr const char* kDocuments[] = {"README.md",
                                      "docs/qxsched.md",
                                      "docs/troubleshooting.md",
                                      "docs/tutorial.md",
                                      "docs/coming-from-cron.md",
                                      "docs/coming-from-systemd-timers.md",
                                      "docs/coming-from-schtasks.md"};
constexpr const char* kHome = "/home/kim";
constexpr const char* kDocumentPatience = "240";  // seconds for all examples of a document

std::string DocumentText(const std::string& name) {
  return RunningService::ReadFile(test_paths::Source() + "/" + name);
}

std::string Quoted(const std::string& text) {
  std::string quoted = "'";
  for (const char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

// Another system's form of a schedule.
bool IsForeign(const Example& example) {
  return example.kind == "cron" || example.kind == "ini" || example.kind == "bat";
}

struct Ran {
  std::string output;
  int exit = -1;
};

// Runs a document's examples in one shell.
class Shell {
 public:
  Shell() {
    fs::create_directory(m_directory + "/work");
  }
  Shell(const Shell&) = delete;
  Shell& operator=(const Shell&) = delete;

  // Commands in their order; the results follow Run(). Each sees the exit code of the one before.
  void Add(const std::string& commands) { Put("(exit \"${last:-0}\")\n", commands); }
  // Hidden commands and those without output tell which of them failed.
  void AddStrict(const std::string& commands) {
    m_script += "trap '[ -n \"$failed\" ] || failed=$BASH_COMMAND' ERR\n";
    Put("", commands);
    m_script += "trap - ERR\n";
  }
  // A file, with the places that a reader has.
  void AddFile(const Example& example) {
    const std::string text = Replaced(example.text, kHome, m_directory + "/work");
    AddStrict("printf %s " + Quoted(text) + " >" + Quoted(example.file) +
              (example.kind == "toml" ? "\ncommand qxsched --quiet check " : "\nchmod +x ") + Quoted(example.file));
  }

  // In a place of its own for the journal, with a journal in it.
  void WantJournal() { m_journal = true; }

  // False when it didn't end in time.
  bool Run() {
    const std::string script = m_directory + "/script";
    // All that was started ends with the shell.
    std::ofstream(script) << "exec >" << Quoted(Output("prelude")) << " 2>&1\n. "
                          << Quoted(test_paths::Data() + "/documents/prelude.sh") << "\n"
                          << m_script << "kill $(jobs -p) 2>/dev/null\nwait\nexit 0\n";
    std::vector<std::string> environment = {"PATH=/usr/bin:/bin", "QX_PROGRAMS=" + test_paths::Programs(),
                                            "QX_WORK=" + m_directory + "/work", "QX_FAKETIME=" + FakeTimeLibrary(true),
                                            "QX_SOURCE=" + test_paths::Source()};
    if (m_journal) environment.push_back("QX_JOURNAL=yes");
    for (const char* name : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS", "TMPDIR"}) {
      if (const char* const value = std::getenv(name)) environment.push_back(std::string(name) + "=" + value);
    }
    // It ends all processes of the shell's group when the time is over, so that none outlives the test.
    std::vector<std::string> words = {"-k", "5", kDocumentPatience};
    if (m_journal) words.insert(words.end(), {"unshare", "--mount"});
    words.insert(words.end(), {"/bin/bash", script});
    Child shell("/usr/bin/timeout", words, m_directory + "/shell", environment);
    int exit = -1;
    while (exit == -1) exit = shell.Wait();  // whose patience is less than timeout's
    return exit == 0;
  }

  [[nodiscard]] Ran Result(std::size_t number) const {
    Ran ran;
    ran.output = Plain(RunningService::ReadFile(Output(std::to_string(number))));
    const std::string code = RunningService::ReadFile(Output(std::to_string(number)) + ".code");
    if (!code.empty()) ran.exit = std::atoi(code.c_str());
    if (ran.exit != 0 && code.size() > 2) ran.output += "failed: " + code.substr(2);
    return ran;
  }
  [[nodiscard]] std::string Prelude() const {
    return RunningService::ReadFile(Output("prelude")) + RunningService::ReadFile(m_directory + "/shell") +
           RunningService::ReadFile(m_directory + "/work/.service");
  }

 private:
  [[nodiscard]] std::string Output(const std::string& name) const { return m_directory + "/" + name + ".out"; }
  void Put(const std::string& before, const std::string& commands) {
    const std::string file = Output(std::to_string(m_count++));
    m_script += "exec >" + Quoted(file) + " 2>&1 </dev/null\nfailed=\n" + before + "eval " + Quoted(commands) +
                "\nlast=$? code=$last\n[ -z \"$failed\" ] || code=\"1 $failed\"\necho \"$code\" >" +
                Quoted(file + ".code") + "\n";
  }
  static std::string Replaced(std::string text, const std::string& what, const std::string& by) {
    for (std::size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += by.size()) {
      text.replace(at, what.size(), by);
    }
    return text;
  }
  // Places as a reader has them.
  [[nodiscard]] std::string Plain(const std::string& text) const {
    return Replaced(Replaced(text, m_directory + "/work/state", "/var/lib/qxsvc"), m_directory + "/work", kHome);
  }

  const platform::TemporaryFolder m_temporary{"qx-document"};
  const std::string m_directory = m_temporary.Path();
  std::string m_script;
  std::size_t m_count = 0;
  bool m_journal = false;
};

class Document : public ::testing::TestWithParam<const char*> {};

INSTANTIATE_TEST_SUITE_P(Of, Document, ::testing::ValuesIn(kDocuments), [](const auto& name) {
  std::string text = name.param;
  for (char& c : text) {
    if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
  }
  return text;
});

TEST_P(Document, ShowsWhatIsTrue) {
  ASSERT_NE(FakeTimeLibrary(true), "") << "no clock for examples (Debian package libfaketime)";
  const std::string markdown = DocumentText(GetParam());
  ASSERT_NE(markdown, "");
  struct Step {
    std::size_t line;
    std::string text;
    bool compare;
    std::string shown;
  };
  std::vector<Step> steps;
  Shell shell;
  if (markdown.find("journalctl ") != std::string::npos) {
    if (geteuid() != 0 || !fs::exists("/lib/systemd/systemd-journald") || !fs::exists("/etc/machine-id")) {
      GTEST_SKIP() << "no journal can be made here (root, Debian package systemd): NO EXAMPLE OF " << GetParam()
                   << " IS RUN";
    }
    shell.WantJournal();
  }
  const std::vector<Example> examples = ExamplesOf(markdown);
  for (const Example& example : examples) {
    if (example.file.empty() || IsForeign(example)) continue;
    steps.push_back({example.line, example.text, false, ""});
    shell.AddFile(example);
  }
  for (const Example& example : examples) {
    if (!example.notRun.empty() || !example.file.empty()) continue;
    if (example.kind == "console") {
      const std::vector<Command> commands = CommandsOf(example);
      EXPECT_FALSE(commands.empty()) << GetParam() << ":" << example.line << ": a transcript without a command";
      for (const Command& command : commands) {
        steps.push_back({command.line, command.text, true, command.output});
        shell.Add(command.text);
      }
    } else if (example.kind == "sh" || example.kind == "run") {
      steps.push_back({example.line, example.text, false, ""});
      shell.AddStrict(example.text);
    }
  }
  ASSERT_FALSE(steps.empty());
  ASSERT_TRUE(shell.Run()) << "it doesn't end: " << shell.Prelude();
  OutputMatcher matcher;
  std::map<std::size_t, std::string> came;
  for (std::size_t i = 0; i < steps.size(); ++i) {
    const Step& step = steps[i];
    const Ran ran = shell.Result(i);
    const std::string place = std::string(GetParam()) + ":" + std::to_string(step.line) + ": " + step.text + "\n";
    if (ran.exit < 0) {
      ADD_FAILURE() << place << "wasn't run: " << shell.Prelude();
      return;
    }
    if (step.compare) {
      came[step.line] = ran.output;
      EXPECT_TRUE(matcher.Matches(step.shown, ran.output)) << place << "shown:\n"
                                                           << step.shown << "came:\n"
                                                           << ran.output;
    } else {
      EXPECT_EQ(ran.exit, 0) << place << ran.output << shell.Prelude();
    }
  }
  // The document as it would be with what came, for those who write it.
  if (const char* const folder = std::getenv("QX_DOCUMENTS")) {
    std::istringstream in(markdown);
    std::ofstream out(std::string(folder) + "/" + fs::path(GetParam()).filename().string());
    std::size_t number = 0;
    bool within = false, skip = false;
    for (std::string line; std::getline(in, line);) {
      ++number;
      if (line.starts_with("```")) within = skip = false;
      if (line.starts_with("```console")) within = true;
      if (within && line.starts_with("$ ")) skip = false;
      if (!skip || line.starts_with("> ")) out << line << "\n";
      if (const auto at = came.find(number); at != came.end()) {
        skip = true;
        out << at->second;
      }
    }
  }
}

// Examples that no test above runs say why.
TEST(Documents, LeaveNoExampleOut) {
  const std::set<std::string> run(std::begin(kDocuments), std::end(kDocuments));
  std::vector<std::string> silent;
  for (const auto& entry : fs::recursive_directory_iterator(test_paths::Source() + "/docs")) {
    const std::string name = fs::relative(entry.path(), test_paths::Source()).string();
    if (entry.path().extension() != ".md" || run.contains(name)) continue;
    for (const Example& example : ExamplesOf(DocumentText(name))) {
      const bool runs =
          example.kind == "sh" || example.kind == "console" || example.kind == "toml" || example.kind == "run";
      if (runs && example.notRun.empty()) silent.push_back(name + ":" + std::to_string(example.line));
    }
  }
  EXPECT_THAT(silent, IsEmpty());
  // A block without a word would escape all this.
  for (const std::string& name : run) {
    for (const Example& example : ExamplesOf(DocumentText(name))) {
      EXPECT_FALSE(example.kind.empty()) << name << ":" << example.line;
    }
  }
}

TEST(DocumentReader, FindsExamplesAndTheirCommands) {
  const auto examples = ExamplesOf(
      "text\n```sh\na\nb\n```\n<!-- not run: it sleeps -->\n```console\n$ one\n> two\nout\n"
      "> kept\n$ three\n```\n<!-- run\nhidden\n-->\n```toml f.toml\nx = 1\n```\n");
  ASSERT_EQ(examples.size(), 4u);
  EXPECT_EQ(examples[0].kind, "sh");
  EXPECT_EQ(examples[0].line, 3u);
  EXPECT_EQ(examples[0].text, "a\nb\n");
  EXPECT_EQ(examples[1].notRun, "it sleeps ");
  EXPECT_EQ(examples[2].kind, "run");
  EXPECT_EQ(examples[3].file, "f.toml");
  const auto commands = CommandsOf(examples[1]);
  ASSERT_EQ(commands.size(), 2u);
  EXPECT_EQ(commands[0].text, "one\ntwo");
  EXPECT_EQ(commands[0].output, "out\n> kept\n");
  EXPECT_EQ(commands[1].line, 12u);
}

TEST(DocumentReader, TakesAnotherIdForItselfAndNothingElse) {
  const std::string id = "{AB120000-0000-4001-8000-000000000000}", other = "{CD120000-0000-4001-8000-000000000000}";
  const struct {
    int line;
    const char* shown;
    std::string came;
    bool same;
  } cases[] = {
      {__LINE__, "a {AB120000-0000-4001-8000-000000000000}\n", "a " + other + "\n", true},
      {__LINE__, "a {AB120000-0000-4001-8000-000000000000}\n", "b " + other + "\n", false},
      {__LINE__, "{AB120000-0000-4001-8000-000000000000}{AB120000-0000-4001-8000-000000000000}\n", other + id, false},
      {__LINE__, "{AB120000-0000-4001-8000-000000000000}{AB120000-0000-4001-8000-000000000001}\n", other + other,
       false},
      {__LINE__, "at 01:30:00\n", "at 01:30:01\n", true},
      {__LINE__, "at 01:30:00\n", "at 01:31:00\n", false},
      {__LINE__, "at 01:30:07\n", "at 09:11:02\n", true},
      {__LINE__, "at 01:30:07\n", "at 9:11:02\n", false},
      {__LINE__, "one ... three\n", "one two three\n", true},
      {__LINE__, "one ... three\n", "one two four\n", false},
      {__LINE__, "one\n...\nfour\n", "one\ntwo\nthree\nfour\n", true},
      {__LINE__, "one\n...\nfour\n", "one\ntwo\n", false},
      {__LINE__, "one\n", "one\ntwo\n", false},
      {__LINE__, "one\ntwo\n", "one\n", false},
      {__LINE__, "/b/AB120000-0000-4001-8000-000000000000-20270101-010101.toml\n",
       "/b/CD120000-0000-4001-8000-000000000000-20280202-020202.toml\n", true},
      {__LINE__, "/b-20270101-010101-2.toml\n", "/b-20280202-020202.toml\n", true},
      {__LINE__, "/b-20270101-010101-2.toml\n", "/b-20280202-020202-x.toml\n", false},
      {__LINE__, "", "", true},
      {__LINE__, "", "x\n", false},
  };
  for (const auto& c : cases) EXPECT_EQ(OutputMatcher().Matches(c.shown, c.came), c.same) << c.line;
}

}  // namespace
}  // namespace qx::testing
