// The whole service in bad company: damaged stores, a second service, no bus, clients that don't listen.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

#include "platform/registry.h"
#include "tests/line_reader.h"
#include "tests/running_service.h"

namespace qx::testing {
namespace {

using platform::ERROR_SUCCESS;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;

class Reliability : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(service.Bus().Address().empty()) << "no dbus-daemon";
    service.Register();
    service.Start();
    service.Connect(client);
  }
  ScheduleGuid Add(const std::string& name) {
    ScheduleGuid id{};
    EXPECT_EQ(client.CreateSchedule(service.Job(name, FarStart()), id), 0u) << client.LastError().text;
    return id;
  }
  static std::int64_t FarStart() { return platform::NowSeconds() + 6 * 3600; }
  static std::string Text(const ScheduleGuid& id) { return platform::Utf8FromWide(platform::GuidText(id)); }
  std::string IniFile(const ScheduleGuid& id) const { return service.Jobs() + "/" + Text(id) + ".ini"; }
  std::string Store() const { return service.Root() + "/registry.db"; }
  std::map<std::string, ListRow> Rows() {
    std::vector<ListRow> rows;
    EXPECT_EQ(client.ListAll(rows), 0u) << client.LastError().text;
    std::map<std::string, ListRow> byId;
    for (const ListRow& row : rows) byId[platform::Utf8FromWide(row.id)] = row;
    return byId;
  }
  // Works on the key of a schedule while no service runs.
  void EditKey(const ScheduleGuid& id, const std::function<void(platform::RegistryKey& key)>& edit) {
    ASSERT_EQ(platform::OpenRegistryStore(Store()), ERROR_SUCCESS);
    platform::RegistryKey key;
    ASSERT_EQ(platform::OpenKey(platform::Hive::kLocalMachine,
                                u"SOFTWARE\\KORVANE\\QxSvc\\CurrentVersion\\Schedules\\" + platform::GuidText(id),
                                platform::KEY_ALL_ACCESS, key),
              ERROR_SUCCESS);
    edit(key);
    ASSERT_EQ(key.Close(), ERROR_SUCCESS);
    ASSERT_EQ(platform::CloseRegistryStore(), ERROR_SUCCESS);
  }
  static int Count(const std::string& text, const std::string& piece) {
    int count = 0;
    for (std::size_t at = text.find(piece); at != text.npos; at = text.find(piece, at + 1)) ++count;
    return count;
  }

  RunningService service;
  SchedulerClient client;
};

// --- the state directory ---

TEST_F(Reliability, ASecondServiceIsRefusedWhateverItsBusAndTheFirstGoesOn) {
  const ScheduleGuid before = Add("before");
  platform::PrivateBus other;
  Child second(test_paths::Programs() + "/QxSchedService",
               {"--root", service.Root(), "--bus=" + other.Address(), "--foreground"}, service.Directory() + "/second",
               service.Environment());
  EXPECT_EQ(second.Wait(), 1);
  EXPECT_THAT(RunningService::ReadFile(service.Directory() + "/second"),
              HasSubstr("Another service works on " + service.Root()));
  const ScheduleGuid after = Add("after");
  EXPECT_EQ(Rows().size(), 2u);
  EXPECT_EQ(client.DeleteSchedule(before), 0u);
  EXPECT_EQ(client.DeleteSchedule(after), 0u);
  // A service that was killed leaves no lock behind.
  service.Process().Signal(SIGKILL);
  ASSERT_EQ(service.Process().Wait(), 128 + SIGKILL);
  ASSERT_NO_FATAL_FAILURE(service.Start());
}

TEST_F(Reliability, ADamagedPageOfTheStoreIsNamedByItsPlaceAndNothingIsTouched) {
  for (int i = 0; i < 40; ++i) (void)Add("job" + std::to_string(i));
  ASSERT_EQ(service.Stop(), 0);
  ASSERT_EQ(platform::OpenRegistryStore(Store()), ERROR_SUCCESS);  // its log goes into the file
  ASSERT_EQ(platform::CloseRegistryStore(), ERROR_SUCCESS);
  const std::string whole = RunningService::ReadFile(Store());
  constexpr std::size_t kPage = 4096;
  ASSERT_GT(whole.size(), 8 * kPage);
  std::string damaged = whole;
  damaged.replace(5 * kPage, kPage, std::string(kPage, '\x5A'));
  std::ofstream(Store(), std::ios::binary | std::ios::trunc) << damaged;
  for (int attempt = 0; attempt < 2; ++attempt) {
    EXPECT_EQ(service.Run({"--foreground"}), 1);
    EXPECT_THAT(service.Output(), AllOf(HasSubstr("The registry " + Store() + " is damaged: "), HasSubstr("6"),
                                        HasSubstr("A copy was kept as " + Store() + ".damaged")));
    EXPECT_EQ(RunningService::ReadFile(Store()), damaged);
    EXPECT_EQ(RunningService::ReadFile(Store() + ".damaged"), damaged);
    EXPECT_FALSE(std::filesystem::exists(Store() + ".damaged.2"));  // the same damage is kept once
  }
  // With the file put right everything is there.
  std::ofstream(Store(), std::ios::binary | std::ios::trunc) << whole;
  ASSERT_NO_FATAL_FAILURE(service.Start());
  service.Connect(client);
  EXPECT_EQ(Rows().size(), 40u);
}

TEST_F(Reliability, EachKindOfDamageCostsOnlyItsOwnSchedule) {
  using Edit = std::function<void(platform::RegistryKey&)>;
  struct FileDamage {
    const char* name;
    std::function<void(const std::string& file)> make;
  };
  const auto write = [](std::string text) {
    return [text = std::move(text)](const std::string& file) {
      std::ofstream(file, std::ios::binary | std::ios::trunc) << text;
    };
  };
  const std::vector<FileDamage> files = {
      {"missing", [](const std::string& file) { std::filesystem::remove(file); }},
      {"empty", write("")},
      {"cut", [](const std::string& file) { std::filesystem::resize_file(file, 20); }},
      {"zeros", write(std::string(700, '\0'))},
      {"noise", write(std::string("\xff\xfe[Gen\x01\x02\n=\n[[[[]", 15))},
      {"longline", write("[General]\r\nObject Type=" + std::string(1'000'000, 'x'))},
      {"directory",
       [](const std::string& file) {
         std::filesystem::remove(file);
         std::filesystem::create_directory(file);
       }},
  };
  const auto raw = [](const char16_t* name, std::uint32_t type, std::string bytes) {
    return [=](platform::RegistryKey& key) {
      EXPECT_EQ(platform::SetRawValue(key, name, type, std::as_bytes(std::span(bytes.data(), bytes.size()))),
                ERROR_SUCCESS);
    };
  };
  const auto gone = [](const char16_t* name) {
    return [=](platform::RegistryKey& key) { EXPECT_EQ(platform::DeleteValue(key, name), ERROR_SUCCESS); };
  };
  const std::vector<std::pair<const char*, Edit>> keys = {
      {"nowrapper", gone(u"WrapperBinary")},
      {"noxml", gone(u"XMLFilePathName")},
      {"oddbytes", raw(u"Parameters", platform::REG_SZ, "abc")},
      {"unterminated", raw(u"PreScript", platform::REG_SZ, "ab")},
      {"numberastext", raw(u"UseGUID", platform::REG_SZ, std::string("1\0\0\0", 4))},
      {"textasnumber", raw(u"WrapperBinary", platform::REG_DWORD, std::string("\1\0\0\0", 4))},
      {"shortnumber", raw(u"UseGUID", platform::REG_DWORD, "1")},
  };
  std::map<std::string, ScheduleGuid> ids;
  for (const FileDamage& damage : files) ids[damage.name] = Add(damage.name);
  for (const auto& [name, edit] : keys) ids[name] = Add(name);
  const ScheduleGuid first = Add("good1");
  const ScheduleGuid second = Add("good2");
  ASSERT_EQ(service.Stop(), 0);
  for (const FileDamage& damage : files) damage.make(IniFile(ids[damage.name]));
  for (const auto& [name, edit] : keys) ASSERT_NO_FATAL_FAILURE(EditKey(ids[name], edit)) << name;

  ASSERT_NO_FATAL_FAILURE(service.Start());
  service.Connect(client);
  const auto rows = Rows();
  EXPECT_EQ(rows.size(), ids.size() + 2);
  for (const ScheduleGuid& id : {first, second}) {
    EXPECT_GT(rows.at(Text(id)).nextWindow, platform::NowSeconds());
    ScheduleInfo info;
    EXPECT_EQ(client.GetScheduleInfo(id, info), 0u);
  }
  for (const FileDamage& damage : files)
    EXPECT_EQ(rows.at(Text(ids[damage.name])).nextWindow, kNoWindow) << damage.name;
  for (const auto& [name, edit] : keys) EXPECT_EQ(rows.at(Text(ids[name])).nextWindow, kDamagedKey) << name;
  // Each can be deleted, and so the list is put right; one whose XML path is gone can't be found any more.
  for (const auto& [name, id] : ids) {
    EXPECT_EQ(client.DeleteSchedule(id), name == "noxml" ? kStatusNotFoundForDelete : 0u) << name;
  }
  EXPECT_EQ(Rows().size(), 3u);
  EXPECT_EQ(service.Stop(), 0);
}

// --- the bus ---

TEST_F(Reliability, ABusThatGoesAndComesIsToldOnceEachWay) {
  for (int round = 1; round <= 2; ++round) {
    service.Bus().Kill();
    service.Bus().Restart();
    ASSERT_TRUE(service.WaitForName()) << service.Log();
    ASSERT_NO_FATAL_FAILURE(service.Connect(client));
    (void)Add("round" + std::to_string(round));  // answered: the lines before stand in the log
    EXPECT_EQ(Count(service.Log(), "Bus: not connected, error = "), round);
    EXPECT_EQ(Count(service.Log(), "Bus: connected again"), round);
  }
  EXPECT_EQ(Rows().size(), 2u);
}

TEST_F(Reliability, WithoutABusAtItsStartItSaysSoAndRunsJobs) {
  LineReader lines(service.Jobs() + "/lines");
  ScheduleGuid id{};
  const std::int64_t start = platform::NowSeconds() + 10;
  ASSERT_EQ(client.CreateSchedule(service.Job("soon", start, "echo ran > " + lines.Name()), id), 0u);
  ASSERT_EQ(service.Stop(), 0);
  service.Bus().Kill();
  service.Launch({"--foreground"});
  EXPECT_EQ(lines.WaitFor("ran"), "ran") << service.Log();
  EXPECT_GE(platform::NowSeconds(), start);
  EXPECT_THAT(service.Output(), AllOf(HasSubstr("No connection to the bus, error "), HasSubstr("jobs run without it")));
  EXPECT_EQ(service.Stop(), 0) << service.Output();
}

// --- events while busy ---

TEST_F(Reliability, AStoppedSubscriberAndAClientThatNeverReadsDelayNobodysJob) {
  constexpr int kEvents = 2000;
  LineReader jobs(service.Jobs() + "/lines");
  LineReader events(service.Jobs() + "/events");
  Child stopped(test_paths::Programs() + "/qxsched",
                {"--root", service.Root(), "--bus", service.Bus().Address(), "monitor", "--json"}, events.Name(),
                service.Environment());
  ASSERT_NE(events.WaitFor("waiting for events"), "");
  stopped.Signal(SIGSTOP);

  const std::int64_t start = platform::NowSeconds() + 6;
  ScheduleGuid id{};
  ASSERT_EQ(client.CreateSchedule(service.Job("due", start, "date +%s > " + jobs.Name()), id), 0u);
  // A hundred times the answer that nobody fetches, before and behind the events that nobody takes.
  platform::BusConnection deaf;
  ASSERT_EQ(deaf.Open(service.Bus().ForClients()), ERROR_SUCCESS);
  const auto ask = [&] {
    for (int i = 0; i < 100; ++i) {
      platform::MessageWriter call;
      ASSERT_EQ(deaf.NewCall(kBusName, kBusPath, "org.freedesktop.DBus.Introspectable", "Introspect", call),
                ERROR_SUCCESS);
      ASSERT_EQ(deaf.CallAsync(std::move(call), [](platform::MessageReader&, const platform::BusError&) {}),
                ERROR_SUCCESS);
    }
  };
  ask();
  for (std::int32_t i = 1; i <= kEvents; ++i) ASSERT_EQ(client.Notify_NextTimeWindow_Modify(id, i), 0u);
  ask();
  const std::string line = jobs.WaitFor("");
  ASSERT_NE(line, "") << service.Log();
  const std::int64_t ran = std::stoll(line);
  EXPECT_GE(ran, start);
  EXPECT_LE(ran, start + 5);  // its second, and what a machine under load takes to start a shell
  // Others are answered all the while.
  EXPECT_EQ(Rows().size(), 1u);
  EXPECT_EQ(client.Refresh(), 0u);
  // Set free, the subscriber gets all that it missed, in order.
  stopped.Signal(SIGCONT);
  ASSERT_NE(events.WaitFor("Schedule_Add"), "");
  std::int64_t last = 0;
  for (int told = 0; told < kEvents;) {
    const std::string event = events.WaitFor("NextTimeWindow_Modify");
    ASSERT_NE(event, "") << told << " events came";
    const std::size_t number = event.find("\"next_window\":");
    ASSERT_NE(number, event.npos) << event;
    const std::int64_t window = std::stoll(event.substr(number + 14));
    if (window > kEvents) continue;  // the job's own
    ASSERT_EQ(window, last + 1);
    last = window;
    ++told;
  }
  stopped.Signal(SIGINT);
  EXPECT_EQ(stopped.Wait(), 0);
  EXPECT_EQ(service.Stop(), 0);
}

}  // namespace
}  // namespace qx::testing
