// Every platform call of a command fails, one after the other: once, and from then on. Nothing is half done, whoever
// gave the command is told why, and what a command takes away lies in a backup.
#include <cstdlib>
#include <optional>

#include "client/cli_record.h"
#include "client/history_store.h"
#include "client/tests/node_service.h"
#include "client/tests/online_fixture.h"
#include "platform/testing/fault_sweep.h"

namespace {

using platform::Operation;

constexpr platform::ErrorCode kCode = platform::ERROR_IO_DEVICE;
constexpr const char* kSentence = "The request could not be performed because of an I/O device error.";

std::string TextOf(const ScheduleGuid& id) { return platform::Utf8FromWide(platform::GuidText(id)); }

struct State {
  std::map<ScheduleGuid, SCHEDULE_OBJECT> schedules;
  std::map<std::string, std::string> files;  // but for the key store's
  std::string settings;                      // what the key store holds, where there is one
};

struct Command {
  std::string name;
  std::vector<std::string> words;  // "@" at the beginning stands for the test's directory
  bool takesAway = false;          // what it changes must be in a backup
  std::string input = {};
};

std::ostream& operator<<(std::ostream& out, const Command& command) { return out << command.name; }

constexpr const char* kSchedules = "HKLM\\SOFTWARE\\KORVANE\\QxSvc\\CurrentVersion\\Schedules";
constexpr const char* kRecord = "HKLM\\SYSTEM\\CurrentControlSet\\Services\\QxSchedService";
constexpr const char* kNewKey = "HKLM\\SOFTWARE\\KORVANE\\QxSvc\\CurrentVersion\\Schedules\\New\\Key";

const Command kCommands[] = {
    {"add", {"add", "@/new.toml"}},
    {"set", {"set", "daily", "job.parameters=-v two"}},
    {"skip", {"skip", "daily"}},
    {"run", {"run", "daily"}},
    {"edit", {"edit", "daily"}, true},
    {"rm", {"rm", "daily", "weekly"}, true},
    {"apply", {"apply", "@/files"}, true},
    {"diff", {"diff", "@/files"}},
    {"export", {"export", "daily"}},
    {"export_directory", {"export", "-o", "@/out"}},
    {"export_over", {"export", "-o", "@/old", "--force"}},
    {"restore", {"restore", "@/gone.toml"}},
    {"list", {"list"}},
    {"show", {"show", kIdA}},
    {"config_get", {"config", "get"}},
    {"config_set", {"config", "set", "port", "5000"}},
    {"config_trace", {"config", "trace", "--path", "@/t.log", "--filter", "warning"}},
    {"config_account", {"config", "set", "--destdir", "@/host", "account", "nobody"}},
    {"log", {"log"}},
    {"next", {"next", "@/new.toml"}},
    {"next_online", {"next", "--why", "daily"}},
    {"next_batch", {"next", "--batch"}, false, "{\"id\":1}\n"},
    {"check", {"check", "@/new.toml", "@/files/a.toml"}},
    {"calendar", {"calendar", "@/new.toml"}},
    {"calendar_online", {"calendar"}},
    {"calendar_page", {"calendar", "--html", "@/page.html", "@/new.toml"}},
    {"calendar_page_over", {"calendar", "--html", "@/old/daily.toml", "@/new.toml"}},
    {"status", {"status"}},
    {"refresh", {"refresh"}},
    {"completion", {"completion", "bash"}},
    {"history", {"history"}},
    {"nodes_keyfile", {"nodes", "keyfile", "--account", "CLUSTER\\qxsvc", "@/nodes.key"}},
    {"reg_list", {"reg", "list", kSchedules}},
    {"reg_get", {"reg", "get", kSchedules, "DefaultPort"}},
    {"reg_set", {"reg", "set", kSchedules, "One", "two"}},
    {"reg_set_new_key", {"reg", "set", kNewKey, "One", "two"}},
    {"reg_delete", {"reg", "delete", kSchedules, "DefaultPort"}},
    {"reg_delete_key", {"reg", "delete", kSchedules}},
};

// Not those that only look whether a file is there: what fails there counts as "no". Nor memory, which the rules tell
// of by a status of their own, nor the key store, whose library has the words.
bool HasSentence(Operation operation) {
  return operation != Operation::kFileExists && operation != Operation::kDirectoryExists &&
         operation != Operation::kAllocate && operation != Operation::kRegOpenStore;
}

// The arrays are those of the service, which is another process.
bool IsOfTheCommand(Operation operation) {
  return operation != Operation::kArrayCreate && operation != Operation::kArrayAccessData &&
         operation != Operation::kArrayUnaccessData && operation != Operation::kArrayDestroy;
}

class CliFaultSweep : public CliOnline, public ::testing::WithParamInterface<Command> {
 protected:
  ~CliFaultSweep() override { ::unsetenv("VISUAL"); }

  // The service and the directory as they are ahead of each run.
  void Prepare() {
    for (const auto& entry : std::filesystem::directory_iterator(m_directory)) std::filesystem::remove_all(entry);
    service.schedules.clear();
    service.events.clear();
    service.nextId = 0xAB120000;
    Have(Id(0xAAAA1111), u"daily", kTonight);
    Have(Id(0xBBBB1111), u"weekly", kTonight + 3600);
    const std::string exported = Ask({"export", kIdA}).out;
    const auto put = [&](const std::string& file, const std::string& name, const std::string& parameters) {
      std::string text = exported;
      text.replace(text.find("\"daily\""), 7, "\"" + name + "\"");
      text.replace(text.find("-v one"), 6, parameters);
      Write(file, text);
    };
    std::filesystem::create_directory(Path("files"));
    std::filesystem::create_directory(Path("old"));
    std::filesystem::create_directory(Path("logs"));
    put("files/a.toml", "daily", "-v two");
    put("files/b.toml", "fresh", "-v three");
    put("files/c.toml", "weekly", "-v four");
    put("new.toml", "new", "-v five");
    put("gone.toml", "gone", "-v six");
    std::string gone = Read("gone.toml");
    Write("gone.toml", gone.replace(gone.find("AAAA1111"), 8, "DDDD1111"));
    Write("old/daily.toml", "# the export of an earlier day\n");
    Write("logs/SchedService0.log", "Mon Nov 30 01:00:00 2026 (PID:   41, TID:   42): a line\r\n");
    if (GetParam().name == "history") {
      qx::HistoryStore store;
      std::string aside;
      ASSERT_EQ(store.OpenForWriting(Path("history.db"), {}, aside), 0u);
      ASSERT_EQ(store.Append({{.at = 1796040000, .kind = qx::HistoryKind::kLaunch, .schedule = kIdA, .name = "daily"}}, {}),
                0u);
    }
    const std::string editor = Write("editor.sh", "#!/bin/sh\nsed -i 's/-v one/-v two/' \"$1\"\n");
    std::filesystem::permissions(editor, std::filesystem::perms::owner_all);
    ::setenv("VISUAL", editor.c_str(), 1);
    if (UsesStore()) {
      ASSERT_EQ(Ask({"reg", "set", kSchedules, "DefaultPort", "4999", "--type", "REG_DWORD"}).exit, 0);
      ASSERT_EQ(Ask({"reg", "set", kRecord, "ObjectName", "LocalSystem"}).exit, 0);
    }
  }
  std::string Read(const std::string& name) const {
    std::ifstream in(Path(name), std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
  }
  static bool UsesStore() { return GetParam().name.starts_with("config") || GetParam().name.starts_with("reg"); }

  State Now() {
    State state;
    state.schedules = service.schedules;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(m_directory)) {
      const std::string name = std::filesystem::relative(entry.path(), m_directory);
      if (!entry.is_regular_file() || name.starts_with("registry.db") || name.starts_with("history.db")) continue;
      state.files[name] = Read(name);
    }
    if (UsesStore()) {
      // A new key that its value didn't come into stays, empty.
      std::string keys = Ask({"reg", "list", kSchedules}).out;
      if (const auto at = keys.find("New\\\n"); at != std::string::npos) keys.erase(at, 5);
      state.settings = Ask({"config", "get"}).out + keys + Ask({"reg", "list", kNewKey}).out;
    }
    return state;
  }

  Result Carry() {
    std::vector<std::string> words = GetParam().words;
    for (std::string& word : words) {
      if (word.starts_with('@')) word = m_directory + word.substr(1);
    }
    return Ask(words, GetParam().input);
  }

  // Records of the schedules that weren't there before.
  static std::vector<SCHEDULE_OBJECT> Added(const State& before, const State& after) {
    std::vector<SCHEDULE_OBJECT> added;
    for (const auto& [id, record] : after.schedules) {
      if (!before.schedules.contains(id)) added.push_back(record);
    }
    return added;
  }
  static bool Holds(const std::vector<SCHEDULE_OBJECT>& records, const SCHEDULE_OBJECT& record) {
    return std::find(records.begin(), records.end(), record) != records.end();
  }

  void ExpectNothingHalfDone(const State& before, const State& done, const State& now, const Result& result) {
    for (const auto& [id, record] : before.schedules) {
      const auto present = now.schedules.find(id);
      if (present != now.schedules.end() && present->second == record) continue;
      const auto wanted = done.schedules.find(id);
      const bool whole = present == now.schedules.end()
                             ? wanted == done.schedules.end()
                             : wanted != done.schedules.end() && wanted->second == present->second;
      EXPECT_TRUE(whole) << TextOf(id) << " is neither as it was nor as it was asked for";
      if (!GetParam().takesAway) continue;
      const std::string digits = TextOf(id).substr(1, 36);
      bool kept = false;
      for (const auto& [name, text] : now.files) {
        if (!name.starts_with("backups/" + digits)) continue;
        kept = kept || (done.files.contains(name) && done.files.at(name) == text);
      }
      EXPECT_TRUE(kept) << digits << " has no backup";
    }
    const auto wanted = Added(before, done);
    for (const SCHEDULE_OBJECT& record : Added(before, now)) EXPECT_TRUE(Holds(wanted, record)) << "half a schedule";
    for (const auto& [name, text] : now.files) {
      const bool asBefore = before.files.contains(name) && before.files.at(name) == text;
      const bool asDone = done.files.contains(name) && done.files.at(name) == text;
      // What bears such a name is taken for no backup.
      const bool told = name.starts_with("backups/edit-") ? result.err.find(name) != std::string::npos
                                                          : result.exit != 0 && name.ends_with(".part");
      EXPECT_TRUE(asBefore || asDone || told) << "half a file: " << name << "\n" << text;
    }
    for (const auto& [name, text] : before.files) {
      EXPECT_TRUE(now.files.contains(name) || !done.files.contains(name)) << "lost: " << name;
    }
    EXPECT_TRUE(now.settings == before.settings || now.settings == done.settings) << now.settings;
  }
};

TEST_P(CliFaultSweep, NothingIsHalfDoneAndTheCauseIsTold) {
  std::optional<State> before, done;
  Result clean, result;
  bool isPlain = true;  // the cause has the system's own sentence
  platform::RunSweep({
      .name = "qxsched " + GetParam().name,
      .prepare =
          [&] {
            Prepare();
            if (!before) before = Now();
            isPlain = true;
          },
      .operation = [&] { result = Carry(); },
      .judge =
          [&](const platform::SweptFault* fault) {
            const State now = Now();
            if (fault == nullptr) {
              ASSERT_EQ(result.exit, 0) << result.err;
              clean = result;
              done = now;
              return;
            }
            // Where later calls fail too, any of them may be the cause.
            isPlain = isPlain && HasSentence(fault->operation);
            ExpectNothingHalfDone(*before, *done, now, result);
            if (result.exit == 0) {  // the call wasn't needed
              if (isPlain) {
                EXPECT_EQ(result.out, clean.out);
              }
              std::map<std::string, std::string> files = now.files;
              files.erase("backups/edit-AAAA1111.toml");  // of the editor, and told where it is left
              EXPECT_EQ(files, done->files);
              EXPECT_EQ(Added(*before, now).size(), Added(*before, *done).size());
              EXPECT_EQ(now.settings, done->settings);
            } else if (!isPlain) {
              EXPECT_NE(result.err, "");
            } else {
              EXPECT_THAT(result.err, testing::AnyOf(testing::HasSubstr(kSentence), testing::HasSubstr("error 1117")));
            }
          },
      .codes =
          [&](Operation operation) {
            isPlain = isPlain && HasSentence(operation);
            return operation == Operation::kConvertText ? std::vector<platform::ErrorCode>() : std::vector{kCode};
          },
      .isOwn = IsOfTheCommand,
      .callsNothing = GetParam().name == "next_batch" || GetParam().name == "completion",
      .explain = [&] { return result.Told(); },
  });
}

INSTANTIATE_TEST_SUITE_P(Commands, CliFaultSweep, ::testing::ValuesIn(kCommands),
                         [](const auto& instance) { return instance.param.name; });

class RecordSweep : public CliOnline {};

TEST_F(RecordSweep, AnEntryIsKeptWholeOrTheFailureIsTold) {
  platform::SetStateDirectory(m_directory);
  service.whenQuiet = [] { return true; };
  const ScheduleGuid id = Id(0xAAAA1111);
  Result result;
  const auto record = [&] {
    std::istringstream in;
    std::ostringstream out, err;
    qx::CliContext context{in, out, err, {}};
    qx::RecordArguments arguments;
    arguments.file = Path("history.db");
    arguments.metrics = Path("metrics.prom");
    int turn = 0;
    arguments.stop = [&] {
      if (++turn == 2) {
        service.schedules[id].lNextTimeWindow = kTonight + 86400;
        service.Tell([id](ISchedulerServiceEvents& sink) { sink.NextTimeWindow_Modify(id, kTonight + 86400); });
      }
      return turn >= 5;
    };
    const int exit = qx::RunRecord(context, settings, arguments);
    result = {exit, out.str(), err.str()};
  };
  const auto entries = [&](std::vector<qx::HistoryEntry>& found) {
    qx::HistoryStore store;
    const platform::ErrorCode code = store.OpenForReading(Path("history.db"));
    return code == platform::ERROR_SUCCESS ? store.Entries({}, found) : code;
  };
  std::vector<qx::HistoryEntry> done;
  (void)platform::RunSweep({
      .name = "qxsched record: a launch, and counts",
      .prepare =
          [&] {
            for (const auto& entry : std::filesystem::directory_iterator(m_directory)) {
              std::filesystem::remove_all(entry);
            }
            service.schedules.clear();
            service.events.clear();
            Have(id, u"daily", kTonight);
          },
      .operation = record,
      .judge =
          [&](const platform::SweptFault* fault) {
            std::vector<qx::HistoryEntry> found;
            const platform::ErrorCode code = entries(found);
            if (fault == nullptr) {
              ASSERT_EQ(result.exit, 0) << result.err;
              ASSERT_EQ(code, platform::ERROR_SUCCESS);
              done = found;
              EXPECT_GE(done.size(), 3u);
            } else if (result.exit != 0) {
              EXPECT_NE(result.err, "");
              for (const qx::HistoryEntry& entry : found) EXPECT_THAT(done, testing::Contains(entry));
            } else {
              EXPECT_EQ(code, platform::ERROR_SUCCESS);
              EXPECT_TRUE(found == done || result.err != "") << "lost unheard";
            }
            // The next one records.
            record();
            EXPECT_EQ(result.exit, 0) << result.err;
            EXPECT_EQ(entries(found = {}), platform::ERROR_SUCCESS);
            EXPECT_GE(found.size(), 2u);
          },
      .isOwn = IsOfTheCommand,
      .explain = [&] { return result.Told(); },
  });
}

class MonitorSweep : public CliOnline {};

TEST_F(MonitorSweep, EveryEventIsShownOrTheFailureIsTold) {
  const ScheduleGuid id = Id(0xAAAA1111);
  Result clean, result;
  platform::RunSweep({
      .name = "qxsched monitor",
      .prepare =
          [&] {
            service.events.clear();
            service.Tell([id](ISchedulerServiceEvents& sink) { sink.Schedule_Add(id); });
            service.Tell([id](ISchedulerServiceEvents& sink) { sink.NextTimeWindow_Modify(id, kTonight); });
            service.Tell([id](ISchedulerServiceEvents& sink) {
              sink.SystemTime_Change(1, {platform::GuidText(id)}, {kTonight});
            });
          },
      .operation =
          [&] {
            std::istringstream in;
            std::ostringstream out, err;
            // Whoever reads the events goes away behind the last one.
            service.whenQuiet = [&out] {
              out.setstate(std::ios::badbit);
              return true;
            };
            const int exit = RunWith({"monitor"}, in, out, err);
            result = {exit, out.str(), err.str()};
          },
      .judge =
          [&](const platform::SweptFault* fault) {
            if (fault == nullptr) {
              ASSERT_THAT(result.err, testing::HasSubstr("the output can't be written"));
              ASSERT_THAT(result.out, testing::AllOf(testing::HasSubstr("Schedule_Add"),
                                                     testing::HasSubstr("NextTimeWindow_Modify"),
                                                     testing::HasSubstr("SystemTime_Change")));
              clean = result;
            } else if (result.out != "") {
              EXPECT_EQ(result.out, clean.out);
              EXPECT_EQ(result.err, clean.err);
            } else {
              EXPECT_NE(result.exit, 0);
              EXPECT_NE(result.err, "");
            }
          },
      .isOwn = IsOfTheCommand,
      .explain = [&] { return result.Told(); },
  });
}

class NodesExecSweep : public CliOnline {
 protected:
  NodesExecSweep() {
    settings.connect = [this](const platform::BusAddress&, std::unique_ptr<qx::ServiceLink>& link) {
      link = std::make_unique<FakeLink>(m_nodes);
      return platform::ErrorCode{platform::ERROR_SUCCESS};
    };
  }
  NodeService m_nodes;
};

TEST_F(NodesExecSweep, TheCommandIsCarriedOnceAndEachNodeIsTold) {
  Result clean, result;
  platform::RunSweep({
      .name = "qxsched nodes exec",
      .prepare =
          [&] {
            m_nodes.carried.clear();
            m_nodes.answers[u"c"] = 5;
          },
      .operation = [&] { result = Ask({"nodes", "exec", "--nodes", "b,c", "/bin/true"}); },
      .judge =
          [&](const platform::SweptFault* fault) {
            if (fault == nullptr) {
              clean = result;
              ASSERT_THAT(result.err, testing::AllOf(testing::HasSubstr("b: done"), testing::HasSubstr("c: ")));
            }
            EXPECT_NE(result.exit, 0);  // the one node has refused
            if (!m_nodes.carried.empty()) {
              EXPECT_THAT(m_nodes.carried, testing::ElementsAre("perform localhost,b,c"));
              EXPECT_EQ(m_nodes.command, "/bin/true");
              EXPECT_EQ(result.err, clean.err);
              EXPECT_EQ(result.exit, clean.exit);
            } else {
              EXPECT_NE(result.err, "");
            }
          },
      .isOwn = IsOfTheCommand,
      .explain = [&] { return result.Told(); },
  });
}

}  // namespace
