// qxsched as people use it: in a terminal, on the real service; and its changes and completions there.
#include <gmock/gmock.h>

#include "tests/qxsched_program.h"
#include "tests/terminal.h"

namespace {

using nlohmann::json;
using qx::testing::Child;
using qx::testing::RunningService;
using qx::testing::Terminal;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

class InATerminal : public qx::testing::ProgramFixture {
 protected:
  InATerminal()
      : ProgramFixture({"TZ=UTC", "PATH=" + test_paths::Programs() + ":/usr/bin:/bin", "HOME=/nonexistent", "TERM=xterm",
                        "LC_ALL=C.UTF-8"}) {}
  static std::string Text(const std::string& name, const std::string& parameters = "-v") {
    return "name = \"" + name + "\"\napplication = \"app\"\ntask_code = 7\n[job]\nwrapper = \"/bin/true\"\nparameters = \"" +
           parameters +
           "\"\n[window]\nstart = \"22:00\"\nend = \"23:00\"\n"
           "[days]\nevery = [\"sun\", \"mon\", \"tue\", \"wed\", \"thu\", \"fri\", \"sat\"]\n";
  }
  std::string Add(const std::string& name) { return AskJson({"add", Write("add.toml", Text(name))}).value("id", ""); }
};

// --- what a terminal changes ---

TEST_F(InATerminal, ColoursAreThereOnlyOnATerminalAndNeverWithNoColor) {
  (void)Add("daily");
  Terminal coloured(kProgram, Words({"--no-pager", "list"}), Environment());
  EXPECT_EQ(coloured.Wait(), 0);
  EXPECT_THAT(coloured.Shown(), HasSubstr("\033[1mNEXT"));
  Terminal plain(kProgram, Words({"--no-pager", "list"}), Environment({"NO_COLOR=1"}));
  EXPECT_EQ(plain.Wait(), 0);
  EXPECT_THAT(plain.Shown(), AllOf(HasSubstr("NEXT"), Not(HasSubstr("\033"))));
  EXPECT_THAT(Ask({"list"}).out, AllOf(HasSubstr("NEXT"), Not(HasSubstr("\033"))));
  Terminal error(kProgram, Words({"show", "nobody"}), Environment());
  EXPECT_EQ(error.Wait(), 3);
  EXPECT_THAT(error.Shown(), HasSubstr("\033[31mqxsched:\033[0m nobody: no such schedule"));
}

TEST_F(InATerminal, LinesKeepToTheWidth) {
  (void)Add("a name that is far too long for any narrow terminal");
  for (const unsigned short columns : {60, 70, 100}) {
    Terminal narrow(kProgram, Words({"--no-pager", "list"}), Environment({"NO_COLOR=1"}), columns);
    EXPECT_EQ(narrow.Wait(), 0);
    std::istringstream lines(narrow.Shown());
    for (std::string line; std::getline(lines, line);) {
      const auto width = std::count_if(line.begin(), line.end(), [](char c) {
        return c != '\r' && (static_cast<unsigned char>(c) & 0xC0) != 0x80;
      });
      EXPECT_LE(width, columns) << line;
    }
  }
}

TEST_F(InATerminal, ADeletionIsAskedFor) {
  const std::string id = Add("daily");
  Terminal no(kProgram, Words({"rm", "daily"}), Environment());
  ASSERT_TRUE(no.WaitFor("Delete this schedule? [y/N] "));
  no.Type("n\n");
  EXPECT_EQ(no.Wait(), 1);
  EXPECT_THAT(no.Shown(), HasSubstr("nothing is deleted"));
  EXPECT_EQ(AskJson({"list"}).size(), 1u);
  Terminal interrupted(kProgram, Words({"rm", "daily"}), Environment());
  ASSERT_TRUE(interrupted.WaitFor("[y/N] "));
  interrupted.Type(Terminal::kCtrlC);
  EXPECT_EQ(interrupted.Wait(), 128 + SIGINT);
  EXPECT_EQ(AskJson({"list"}).size(), 1u);
  Terminal yes(kProgram, Words({"rm", id}), Environment());
  ASSERT_TRUE(yes.WaitFor("[y/N] "));
  yes.Type("y\n");
  EXPECT_EQ(yes.Wait(), 0);
  EXPECT_EQ(AskJson({"list"}), json::array());
}

TEST_F(InATerminal, CtrlCEndsWhatGoesOnForever) {
  Terminal monitor(kProgram, Words({"monitor"}), Environment());
  ASSERT_TRUE(monitor.WaitFor("waiting for events, Ctrl-C ends"));
  monitor.Type(Terminal::kCtrlC);
  EXPECT_EQ(monitor.Wait(), 0);
  Terminal log(kProgram, Words({"log", "-f", "-n", "1000"}), Environment());
  ASSERT_TRUE(log.WaitFor("Port Value set is")) << log.Shown();
  const std::string id = Add("daily");
  EXPECT_TRUE(log.WaitFor("Successful Schedule Creation: " + id)) << log.Shown();
  log.Type(Terminal::kCtrlC);
  EXPECT_EQ(log.Wait(), 0);
}

TEST_F(InATerminal, LongTextsGoThroughThePager) {
  (void)Add("daily");
  const std::string pager = "PAGER=" + Write("pager.sh", "#!/bin/sh\necho PAGED\ncat\n");
  Terminal paged(kProgram, Words({"list"}), Environment({pager}));
  EXPECT_EQ(paged.Wait(), 0);
  EXPECT_THAT(paged.Shown(), AllOf(HasSubstr("PAGED"), HasSubstr("\033[1mNEXT"), HasSubstr("1 schedule")));
  for (const char* word : {"--no-pager", "--json"}) {
    Terminal straight(kProgram, Words({word, "list"}), Environment({pager}));
    EXPECT_EQ(straight.Wait(), 0);
    EXPECT_THAT(straight.Shown(), Not(HasSubstr("PAGED"))) << word;
  }
  EXPECT_THAT(Ask({"list"}, {pager}).out, Not(HasSubstr("PAGED"))) << "no terminal";
  Terminal failed(kProgram, Words({"show", "nobody"}), Environment({pager}));
  EXPECT_EQ(failed.Wait(), 3);
  EXPECT_THAT(failed.Shown(), Not(HasSubstr("PAGED")));
  // A pager that is left early has shown enough; one that isn't there is done without.
  Terminal left(kProgram, Words({"log"}), Environment({"PAGER=head -n 1"}));
  EXPECT_EQ(left.Wait(), 0);
  Terminal none(kProgram, Words({"list"}), Environment({"PAGER=/nonexistent/pager"}));
  EXPECT_EQ(none.Wait(), 0);
  EXPECT_THAT(none.Shown(), HasSubstr("1 schedule"));
}

TEST_F(InATerminal, TheEditorHasTheTerminalAndATextWithErrorsIsOpenedAgain) {
  (void)Add("daily");
  const std::string editor = Write("editor.sh",
                                   "#!/bin/sh\ntest -t 0 || exit 9\necho EDITING\nread -r answer\n"
                                   "sed -i \"s/^start = .*/start = \\\"$answer\\\"/\" \"$1\"\n");
  Terminal edit(kProgram, Words({"edit", "daily"}), Environment({"EDITOR=" + editor}));
  ASSERT_TRUE(edit.WaitFor("EDITING")) << edit.Shown();
  edit.Type("25:00\n");
  ASSERT_TRUE(edit.WaitFor("Edit again? [Y/n] ")) << edit.Shown();
  EXPECT_THAT(edit.Shown(), HasSubstr("window.start"));
  edit.Type("\n");
  ASSERT_TRUE(edit.WaitFor("EDITING"));
  edit.Type("21:30\n");
  EXPECT_EQ(edit.Wait(), 0);
  EXPECT_THAT(edit.Shown(), AllOf(HasSubstr("backup: "), HasSubstr("changed: ")));
  EXPECT_THAT(Ask({"show", "daily"}).out, HasSubstr("start = \"21:30\""));
}

TEST_F(InATerminal, CtrlCInTheEditorIsTheEditors) {
  (void)Add("daily");
  const std::string editor = Write("editor.sh", "#!/bin/sh\ntrap 'echo CAUGHT; exit 0' INT\necho EDITING\nread -r answer\n");
  Terminal edit(kProgram, Words({"edit", "daily"}), Environment({"EDITOR=" + editor}));
  ASSERT_TRUE(edit.WaitFor("EDITING"));
  edit.Type(Terminal::kCtrlC);
  ASSERT_TRUE(edit.WaitFor("CAUGHT")) << edit.Shown();
  EXPECT_TRUE(edit.WaitFor("nothing to change"));
  EXPECT_EQ(edit.Wait(), 0);
}

// --- changes on the real service ---

TEST_F(InATerminal, ChangesAreReadBackFromTheService) {
  (void)Add("daily");
  EXPECT_EQ(AskJson({"set", "daily", "window.start=21:00", "days.exclude+=2036-01-01"})["changes"].size(), 2u);
  EXPECT_THAT(Ask({"show", "daily"}).out, AllOf(HasSubstr("start = \"21:00\""), HasSubstr("exclude = [2036-01-01]")));
  const std::string day = AskJson({"skip", "daily"})["skipped"];
  EXPECT_THAT(Ask({"show", "daily"}).out, HasSubstr("exclude = [" + day + ", 2036-01-01]"));
  EXPECT_EQ(AskJson({"skip", "--undo", "daily"})["restored"], day);
  const Result same = Ask({"set", "daily", "window.start=21:00"});
  EXPECT_EQ(same.exit, 0);
  EXPECT_THAT(same.out, HasSubstr("nothing to change"));
  EXPECT_EQ(Ask({"set", "daily", "application=other"}).exit, 1);
  EXPECT_EQ(Ask({"set", "daily", "job.xml=/nonexistent/x.xml"}).exit, 1);
}

TEST_F(InATerminal, AJobIsStartedAtOnce) {
  const std::string mark = m_service.Jobs() + "/ran";
  ASSERT_EQ(mkfifo(mark.c_str(), 0600), 0);
  std::string text = Text("daily", "");
  const std::string script = Write("job.sh", "#!/bin/sh\necho ran > '" + mark + "'\n");
  text.replace(text.find("/bin/true"), 9, script);
  ASSERT_EQ(Ask({"add", Write("job.toml", text)}).exit, 0);
  EXPECT_EQ(Ask({"run", "daily"}).exit, 0);
  std::ifstream ran(mark);
  std::string line;
  std::getline(ran, line);
  EXPECT_EQ(line, "ran");
}

TEST_F(InATerminal, ADirectoryOfFilesIsAppliedAndExportedAgain) {
  const std::string files = m_service.Jobs() + "/files";
  std::filesystem::create_directory(files);
  (void)Write("files/a.toml", Text("a"));
  (void)Write("files/b.toml", Text("b"));
  EXPECT_EQ(AskJson({"apply", files}).size(), 2u);
  (void)Write("files/b.toml", Text("b", "-vv"));
  const json applied = AskJson({"apply", files});
  EXPECT_EQ(applied[0]["result"], "unchanged");
  EXPECT_EQ(applied[1]["result"], "changed");
  EXPECT_TRUE(std::filesystem::exists(applied[1]["backup"].get<std::string>()));
  EXPECT_EQ(Ask({"diff", "--exit-code", files}).exit, 0);
  const std::string out = m_service.Jobs() + "/out";
  EXPECT_EQ(AskJson({"export", "-o", out}).size(), 2u);
  EXPECT_EQ(Ask({"diff", "--exit-code", out}).exit, 0);
  // What a kill of the service leaves is said, and applying again completes it.
  (void)Write("files/a.toml", Text("a", "-vv"));
  ASSERT_EQ(m_service.Stop(), 0);
  EXPECT_EQ(Ask({"apply", files}).exit, 6);
}

TEST_F(InATerminal, ADeletedScheduleIsRestoredUnderANewId) {
  const std::string id = Add("daily");
  const std::string backup = AskJson({"rm", "-y", "daily"})[0]["backup"];
  const json restored = AskJson({"restore", backup});
  EXPECT_EQ(restored["was"], id);
  EXPECT_NE(restored["id"], id);
  EXPECT_EQ(Ask({"restore", backup}).exit, 0) << "the old ID isn't there";
}

// --- completion in the shells ---

class InAShell : public InATerminal {
 protected:
  // Finds the service without words of the command line.
  std::vector<std::string> ShellEnvironment() {
    return Environment({"QXSVC_ROOT=" + m_service.Root(), "DBUS_SESSION_BUS_ADDRESS=" + m_service.Bus().Address(),
                        "PS1=READY ", "PAGER=cat", "INPUTRC=/dev/null", "HISTFILE=/dev/null"});
  }
  // Completes the name of a schedule, which a shell would run, expand or end a word at, behind each quotation mark.
  //   load  has the shell load its completion
  void ExpectOneWordInAnyQuotes(const std::string& program, const std::vector<std::string>& arguments,
                                const std::string& load) {
    const std::string mark = m_service.Jobs() + "/mark";
    const std::string name = "pay $(touch " + mark + ") `touch " + mark + R"(` $HOME !! \"d\" 's' \\w \\\\ &;|*)";
    (void)Add(name);
    Terminal shell(program, arguments, ShellEnvironment(), 1000);
    shell.Type(load + "; echo LOA''DED\n");
    ASSERT_TRUE(shell.WaitFor("LOADED")) << shell.Shown();
    for (const std::string open : {"", "\"", "'"}) {
      shell.Type("qxsched --bus session show " + open + "pa\t\necho SHO''WN\n");
      EXPECT_TRUE(shell.WaitFor("name = \"" + name + "\"")) << open << shell.Shown();
      ASSERT_TRUE(shell.WaitFor("SHOWN")) << open << shell.Shown();
      ASSERT_FALSE(std::filesystem::exists(mark)) << open << shell.Shown();
    }
  }
  static constexpr const char* kLoadInBash =
      "bind 'set bell-style none'; bind 'set enable-bracketed-paste off'; source <(qxsched completion bash)";
  static constexpr const char* kLoadInZsh =
      "unsetopt beep prompt_sp; autoload -U compinit; compinit -u -D; source <(qxsched completion zsh)";
};

TEST_F(InAShell, BashCompletesCommandsOptionsAndNames) {
  (void)Add("nightly backup");
  Terminal bash("/bin/bash", {"--norc", "--noprofile", "-i"}, ShellEnvironment(), 200);
  bash.Type(std::string(kLoadInBash) + "; echo LOA''DED\n");
  ASSERT_TRUE(bash.WaitFor("LOADED")) << bash.Shown();
  bash.Type("echo qx; qxsched --bus session sho\t");
  ASSERT_TRUE(bash.WaitFor("session show ")) << bash.Shown();
  bash.Type("nigh\t");
  ASSERT_TRUE(bash.WaitFor("nightly\\ backup ")) << bash.Shown();
  bash.Type("--no-le\t");
  ASSERT_TRUE(bash.WaitFor("--no-legend ")) << bash.Shown();
  bash.Type("\n");
  ASSERT_TRUE(bash.WaitFor("name = \"nightly backup\"")) << bash.Shown();
  bash.Type("qxsched --bus session set \"nigh\t");
  ASSERT_TRUE(bash.WaitFor("\"nightly backup\"")) << bash.Shown();
  bash.Type("window.st\t");
  ASSERT_TRUE(bash.WaitFor("window.start=")) << bash.Shown();
}

TEST_F(InAShell, BashTakesANameForAWordHoweverItWasQuoted) {
  ExpectOneWordInAnyQuotes("/bin/bash", {"--norc", "--noprofile", "-i"}, kLoadInBash);
}

TEST_F(InAShell, ZshTakesANameForAWordHoweverItWasQuoted) {
  ASSERT_TRUE(std::filesystem::exists("/usr/bin/zsh")) << "zsh isn't installed";
  ExpectOneWordInAnyQuotes("/usr/bin/zsh", {"-f", "-i"}, kLoadInZsh);
}

TEST_F(InAShell, ZshCompletesCommandsAndNames) {
  ASSERT_TRUE(std::filesystem::exists("/usr/bin/zsh")) << "zsh isn't installed";
  (void)Add("nightly backup");
  Terminal zsh("/usr/bin/zsh", {"-f", "-i"}, ShellEnvironment(), 200);
  zsh.Type(std::string(kLoadInZsh) + "; echo LOA''DED\n");
  ASSERT_TRUE(zsh.WaitFor("LOADED")) << zsh.Shown();
  zsh.Type("qxsched --bus session sho\t");
  ASSERT_TRUE(zsh.WaitFor("session show")) << zsh.Shown();
  zsh.Type("nigh\t");
  ASSERT_TRUE(zsh.WaitFor("tly\\ backup")) << zsh.Shown();
  zsh.Type("\n");
  ASSERT_TRUE(zsh.WaitFor("name = \"nightly backup\"")) << zsh.Shown();
}

TEST_F(InAShell, FishCompletesCommandsOptionsAndNames) {
  ASSERT_TRUE(std::filesystem::exists("/usr/bin/fish")) << "fish isn't installed";
  (void)Add("nightly backup");
  const auto complete = [&](const std::string& line) {
    const std::string output = m_service.Jobs() + "/fish.out";
    auto environment = ShellEnvironment();
    for (std::string& variable : environment) {
      if (variable.starts_with("HOME=")) variable = "HOME=" + m_service.Jobs();
    }
    Child fish("/usr/bin/fish", {"--no-config", "-c", "qxsched completion fish | source; complete -C '" + line + "'"},
               output, environment);
    EXPECT_EQ(fish.Wait(), 0);
    return RunningService::ReadFile(output);
  };
  EXPECT_THAT(complete("qxsched --bus session sho"), HasSubstr("show\tShow a schedule"));
  EXPECT_THAT(complete("qxsched --bus session show nigh"), HasSubstr("nightly backup\t/bin/true"));
  EXPECT_THAT(complete("qxsched list --no-le"), HasSubstr("--no-legend"));
  EXPECT_THAT(complete("qxsched --bus session show \"nigh"), HasSubstr("nightly backup"));
  EXPECT_THAT(complete("qxsched --bus session show nightly\\ ba"), HasSubstr("nightly backup"));
}

}  // namespace
