#include <gmock/gmock.h>

#include <fstream>
#include <iterator>

#include "client/tests/cli_fixture.h"
#include "foundation/include/zfcdbg.h"
#include "platform/registry.h"

namespace {

using testing::EndsWith;
using testing::HasSubstr;

class ConfigTrace : public CliTest {
 protected:
  Result Trace(std::vector<std::string> words) {
    words.insert(words.begin(), {"--root", m_directory, "config", "trace"});
    return Run(words);
  }
};

TEST_F(ConfigTrace, SetsAndShowsTheThreeValues) {
  const Result set = Trace({"--path", "/var/log/qx/trace.log", "--filter", "error,debug,short", "--size", "64"});
  EXPECT_EQ(set.exit, 0) << set.err;
  EXPECT_EQ(set.out, "");
  EXPECT_EQ(Trace({}).out, "path\t/var/log/qx/trace.log\nfilter\terror,debug,short\nsize\t64\n");
  EXPECT_EQ(
      Trace({"--json"}).out,
      "{\"path\":\"/var/log/qx/trace.log\",\"filter\":[\"error\",\"debug\",\"short\"],\"flags\":19,\"size_kib\":64}\n");
  EXPECT_EQ(
      Run({"--root", m_directory, "reg", "list", "HKLM\\Software\\brelmont\\debugstream\\debugstream"}).out,
      "logFileFilterFlag\tREG_DWORD\t19\nlogFilePath\tREG_SZ\t/var/log/qx/trace.log\nLogFileSize\tREG_DWORD\t64\n");
  EXPECT_FALSE(platform::IsRegistryStoreOpen());
}

TEST_F(ConfigTrace, GivesEachWordItsBit) {
  const struct {
    const char* filter;
    const char* flags;
  } rows[] = {{"error", "2"},  {"warning", "4"},       {"inform", "8"},
              {"debug", "16"}, {"short,warning", "5"}, {"debug,inform,warning,error", "30"}};
  for (const auto& row : rows) {
    ASSERT_EQ(Trace({"--path", "/t", "--filter", row.filter}).exit, 0) << row.filter;
    EXPECT_THAT(Trace({"--json"}).out, HasSubstr(std::string("\"flags\":") + row.flags + ",")) << row.filter;
  }
}

TEST_F(ConfigTrace, LeavesWhatIsNotNamedAsItIs) {
  ASSERT_EQ(Trace({"--path", "/a", "--filter", "error", "--size", "8"}).exit, 0);
  ASSERT_EQ(Trace({"--size", "0"}).exit, 0);
  EXPECT_EQ(Trace({}).out, "path\t/a\nfilter\terror\nsize\t0\n");
  ASSERT_EQ(Trace({"--off"}).exit, 0);
  EXPECT_EQ(Trace({}).out, "path\t/a\nfilter\t\nsize\t0\n");
}

TEST_F(ConfigTrace, ShowsAnEmptyStoreAsNothingSet) {
  ASSERT_EQ(Run({"--root", m_directory, "reg", "set", "HKLM\\SOFTWARE\\A", "x", "y"}).exit, 0);
  EXPECT_EQ(Trace({"--json"}).out, "{\"path\":\"\",\"filter\":[],\"flags\":0,\"size_kib\":0}\n");
}

TEST_F(ConfigTrace, MakesNoStoreForALook) {
  EXPECT_EQ(Trace({}).exit, 3);
  EXPECT_FALSE(std::filesystem::exists(Path("registry.db")));
}

TEST_F(ConfigTrace, RefusesWhatCannotBeUsedAndChangesNothing) {
  ASSERT_EQ(Trace({"--path", "/a", "--filter", "error", "--size", "8"}).exit, 0);
  const std::vector<std::vector<std::string>> refused = {{"--filter", "errors"},
                                                         {"--filter", ""},
                                                         {"--filter", "error,"},
                                                         {"--filter", "short"},
                                                         {"--path", "trace.log"},
                                                         {"--path", ""},
                                                         {"--path", "/a\nb"},
                                                         {"--path", "/\xff"},
                                                         {"--size", "-1"},
                                                         {"--size", "4194304"},
                                                         {"--size", "x"},
                                                         {"--off", "--size", "1"},
                                                         {"--off", "--path", "/b"},
                                                         {"--off", "--filter", "debug"},
                                                         {"--size", "9", "--path", "b"},
                                                         {"extra"}};
  for (const std::vector<std::string>& words : refused) {
    const Result result = Trace(words);
    EXPECT_EQ(result.exit, 2) << testing::PrintToString(words);
    EXPECT_NE(result.err, "") << testing::PrintToString(words);
  }
  EXPECT_EQ(Trace({}).out, "path\t/a\nfilter\terror\nsize\t8\n");
  EXPECT_EQ(Trace({"--size", "4194303"}).exit, 0);
  EXPECT_THAT(Trace({"--filter", "warn"}).err, HasSubstr("allowed: error, warning, inform, debug, short"));
}

TEST_F(ConfigTrace, SaysThatAFilterAloneTracesNothing) {
  EXPECT_THAT(Trace({"--filter", "error"}).err, HasSubstr("no trace file is named"));
  EXPECT_EQ(Trace({"--path", "/t"}).err, "");
}

TEST_F(ConfigTrace, SwitchesTheDebugstreamOfTheNextStart) {
  ASSERT_EQ(Trace({"--path", Path("t.log"), "--filter", "warning,short", "--size", "8"}).exit, 0);
  ASSERT_EQ(platform::OpenRegistryStore(Path("registry.db")), 0u);
  ZepFoundation::ResetDebugTrace();
  ZepFoundation::ConfigureDebugTrace();
  EXPECT_TRUE(ZepFoundation::DebugTraceEnabled(ZepFoundation::kTraceWarning));
  EXPECT_FALSE(ZepFoundation::DebugTraceEnabled(ZepFoundation::kTraceError));
  QX_TRACE(ZepFoundation::kTraceWarning, "from here on");
  ZepFoundation::ResetDebugTrace();
  EXPECT_EQ(platform::CloseRegistryStore(), 0u);
  std::ifstream in(Path("t.log"));
  EXPECT_THAT(std::string(std::istreambuf_iterator<char>(in), {}), EndsWith(" : [WARNING] SS from here on\n"));
}

// --- settings by name ---

class Config : public CliTest {
 protected:
  Config() {
    EXPECT_EQ(Reg({"set", kSchedules, "Other", "x"}).exit, 0);  // makes the store
  }
  Result Reg(std::vector<std::string> words) {
    words.insert(words.begin(), {"--root", m_directory, "reg"});
    return Run(words);
  }
  Result Ask(std::vector<std::string> words) {
    words.insert(words.begin(), {"--root", m_directory, "config"});
    return Run(words);
  }
  // The record that installing the service makes.
  void Install() { ASSERT_EQ(Reg({"set", kRecord, "ObjectName", "LocalSystem"}).exit, 0); }
  [[nodiscard]] std::string DropIn() const {
    std::ifstream in(Path("host/etc/systemd/system/QxSchedService.service.d/account.conf"));
    return {std::istreambuf_iterator<char>(in), {}};
  }
  const std::string kSchedules = "HKLM\\SOFTWARE\\KORVANE\\QxSvc\\CurrentVersion\\Schedules";
  const std::string kRecord = "HKLM\\SYSTEM\\CurrentControlSet\\Services\\QxSchedService";
};

TEST_F(Config, ShowsEverySettingWithItsDefault) {
  EXPECT_EQ(Ask({"get"}).out,
            "account            LocalSystem\nport               4888\nlog-level          3\ninstall-directory  -\n"
            "trace-path         -\ntrace-filter       0\ntrace-size         0\n");
  EXPECT_THAT(Ask({"--json", "get"}).out, HasSubstr("\"account\":\"LocalSystem\",\"port\":4888,\"log-level\":3"));
  EXPECT_EQ(Ask({"get", "port"}).out, "4888\n");
  EXPECT_EQ(Ask({"--json", "get", "port"}).out, "4888\n");
  EXPECT_EQ(Ask({"get", "nothing"}).exit, 2);
}

TEST_F(Config, SetsNumbersWhereTheServiceReadsThem) {
  EXPECT_EQ(Ask({"set", "port", "5000"}).exit, 0);
  EXPECT_EQ(Ask({"set", "log-level", "6"}).exit, 0);
  EXPECT_EQ(Reg({"get", kSchedules, "DefaultPort"}).out, "5000\n");
  EXPECT_EQ(Reg({"get", kSchedules, "TraceLevel"}).out, "6\n");
  EXPECT_EQ(Ask({"get", "port"}).out, "5000\n");
}

TEST_F(Config, ShowsThePortThatTheServiceMakesOfATooGreatOne) {
  ASSERT_EQ(Reg({"set", kSchedules, "DefaultPort", "70000", "--type", "REG_DWORD"}).exit, 0);
  EXPECT_EQ(Ask({"get", "port"}).out, "4464\n");
}

TEST_F(Config, RefusesWhatCantBeSet) {
  Install();
  const std::vector<std::vector<std::string>> cases = {
      {"port", "0"},        {"port", "65536"},  {"port", "12x"},       {"log-level", "7"},    {"account", "a b"},
      {"account", "x\ny"},  {"account", ""},    {"account", "DOM\\u"}, {"trace-path", "/x"},  {"install-directory", "/x"},
      {"nothing", "1"},     {"account", "--"},
  };
  for (const auto& words : cases) {
    const Result result = Ask({"set", words[0], words[1]});
    EXPECT_EQ(result.exit, 2) << words[0] << "=" << words[1] << result.err;
  }
  EXPECT_EQ(Ask({"get", "account"}).out, "LocalSystem\n");
  EXPECT_EQ(Ask({"get", "port"}).out, "4888\n");
}

TEST_F(Config, PutsTheAccountIntoTheRecordAndTheUnitsDropIn) {
  Install();
  const Result set = Ask({"set", "account", "backup", "--destdir", Path("host")});
  EXPECT_EQ(set.exit, 0) << set.err;
  EXPECT_THAT(set.err, HasSubstr("systemctl daemon-reload"));
  EXPECT_EQ(Reg({"get", kRecord, "ObjectName"}).out, "backup\n");
  EXPECT_EQ(DropIn(), "[Service]\nUser=backup\n");
  EXPECT_EQ(Ask({"set", "account", "localsystem", "--destdir", Path("host")}).exit, 0);
  EXPECT_EQ(Reg({"get", kRecord, "ObjectName"}).out, "LocalSystem\n");
  EXPECT_EQ(DropIn(), "");
}

TEST_F(Config, TakesNoAccountThatThisHostDoesntHave) {
  Install();
  const Result set = Ask({"set", "account", "nosuchaccount", "--destdir", Path("host")});
  EXPECT_EQ(set.exit, 2);
  EXPECT_THAT(set.err, HasSubstr("\"nosuchaccount\" is no account of this host; nothing is changed"));
  EXPECT_EQ(Reg({"get", kRecord, "ObjectName"}).out, "LocalSystem\n");
  EXPECT_EQ(DropIn(), "");
}

TEST_F(Config, SaysWhenTheDropInCantBeWritten) {
  Install();
  Write("host", "a file, no directory");
  const Result set = Ask({"set", "account", "backup", "--destdir", Path("host")});
  EXPECT_EQ(set.exit, 1);
  EXPECT_THAT(set.err, HasSubstr("the record is changed, but not the unit: "));
  EXPECT_EQ(Reg({"get", kRecord, "ObjectName"}).out, "backup\n");
}

TEST_F(Config, HasNoAccountWithoutAnInstalledService) {
  const Result set = Ask({"set", "account", "backup"});
  EXPECT_EQ(set.exit, 3);
  EXPECT_THAT(set.err, HasSubstr("hint: install it with: QxSchedService -Service"));
}

TEST_F(Config, LeavesTheUnitOfAnotherStateDirectoryAlone) {
  Install();
  const Result set = Ask({"set", "account", "backup"});
  EXPECT_EQ(set.exit, 0);
  EXPECT_THAT(set.err, HasSubstr("account is backup from the service's next start on"));
}

TEST_F(Config, EndsWith3WithoutAStore) {
  EXPECT_EQ(Run({"--root", Path("none"), "config", "get"}).exit, 3);
  EXPECT_EQ(Run({"--root", Path("none"), "config", "set", "port", "5000"}).exit, 3);
}

}  // namespace
