// The whole service: the real program over a bus of its own, used through the client library.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <algorithm>
#include <regex>
#include <set>

#include "platform/file.h"
#include "platform/registry.h"
#include "tests/running_service.h"

namespace qx::testing {
namespace {

using platform::BusError;
using platform::BusValue;
using platform::ERROR_SUCCESS;
using platform::MessageReader;
using platform::MessageWriter;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

constexpr std::int64_t kDay = 86400;
constexpr std::int64_t kAnHour = 3600;

class Service : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_FALSE(service.Bus().Address().empty()) << "no dbus-daemon"; }
  void StartAll() {
    ASSERT_NO_FATAL_FAILURE(service.Register());
    ASSERT_NO_FATAL_FAILURE(service.Start());
    ASSERT_NO_FATAL_FAILURE(service.Connect(client));
  }
  // The record as the service gives it back.
  SCHEDULE_OBJECT Read(const ScheduleGuid& id) {
    ScheduleInfo info;
    EXPECT_EQ(client.GetScheduleInfo(id, info), 0u) << client.LastError().text;
    return info.size() == 1 ? info.records()[0] : SCHEDULE_OBJECT();
  }
  std::uint32_t Count() {
    std::uint32_t count = 99;
    ScheduleList list;
    EXPECT_EQ(client.ListSchedule(count, list), 0u) << client.LastError().text;
    EXPECT_EQ(list.size(), count);
    return count;
  }

  RunningService service;
  SchedulerClient client;
};

// A start of a daily window well away from the present.
std::int64_t FarStart() {
  return platform::NowSeconds() + 6 * kAnHour;
}

// The same time of day on the present day of UTC, as the service gives times of day back.
std::int64_t OnThisDay(std::int64_t seconds) {
  constexpr std::int64_t kADay = 24 * kAnHour;
  return platform::NowSeconds() / kADay * kADay + seconds % kADay;
}

// --- start and end ---

TEST_F(Service, AStartWithClosedStandardStreamsGivesTheirNumbersToNobodyElse) {
  ASSERT_NO_FATAL_FAILURE(service.Register());
  service.SetLauncher({"/bin/sh", "-c", "exec \"$@\" <&- >&- 2>&-", "sh"});
  ASSERT_NO_FATAL_FAILURE(service.Start());
  const std::string descriptors = "/proc/" + std::to_string(service.Process().Id()) + "/fd/";
  for (const char* number : {"0", "1", "2"}) {
    EXPECT_EQ(std::filesystem::read_symlink(descriptors + number).string(), "/dev/null") << number;
  }
}

TEST_F(Service, ALimitOfTheSizeOfItsFilesDoesNotEndIt) {
  ASSERT_NO_FATAL_FAILURE(service.Register());
  // Less than the room that the key store's log is given at the start, in blocks of 512 bytes.
  service.SetLauncher({"/bin/sh", "-c", "ulimit -f 2000; exec \"$@\"", "sh"});
  ASSERT_NO_FATAL_FAILURE(service.Start());
  ASSERT_NO_FATAL_FAILURE(service.Connect(client));
  ScheduleGuid id;
  ASSERT_EQ(client.CreateSchedule(service.Job("small", FarStart()), id), 0u) << client.LastError().text;
  EXPECT_EQ(Count(), 1u);
  EXPECT_EQ(service.Stop(), 0);
}

TEST_F(Service, AReaderOfItsOutputThatGoesDoesNotEndIt) {
  ASSERT_NO_FATAL_FAILURE(service.Register());
  const std::string pipe = service.Directory() + "/pipe";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  const int reader = open(pipe.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  ASSERT_GE(reader, 0);
  service.SetLauncher({"/bin/sh", "-c", "exec \"$@\" >\"$0\"", pipe});
  ASSERT_NO_FATAL_FAILURE(service.Start());
  close(reader);
  // Each line of the log that can't be written is told on the output.
  std::filesystem::rename(service.Root() + "/logs", service.Root() + "/old-logs");
  EXPECT_EQ(service.Stop(), 0);
}

TEST_F(Service, AnUnregisteredStartEndsWithCode2AndSaysHowToRegister) {
  EXPECT_EQ(service.Run({"--foreground"}), 2);
  EXPECT_THAT(service.Output(), HasSubstr("Korvane Scheduler Service: "));
  EXPECT_THAT(service.Output(), HasSubstr("QxSchedService --root=" + service.Root() + " -RegServer"));
  EXPECT_FALSE(std::filesystem::exists(service.Root()));
}

TEST_F(Service, RegisteringMakesAPrivateStateDirectoryWithItsFolders) {
  ASSERT_NO_FATAL_FAILURE(service.Register());
  struct stat info {};
  ASSERT_EQ(stat(service.Root().c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0700u);
  for (const char* name : {"registry.db", "logs", "drives",
                           "Documents and Settings/All Users/Application Data/KORVANE/QxSnapExchangeBackup"}) {
    EXPECT_TRUE(std::filesystem::exists(service.Root() + "/" + name)) << name;
  }
}

TEST_F(Service, AnUnregisteredApplicationKeyEndsAStartWithCode2) {
  ASSERT_NO_FATAL_FAILURE(service.Register());
  ASSERT_EQ(service.Run({"-UnregServer"}), 0) << service.Output();
  EXPECT_EQ(service.Run({"--foreground"}), 2);
  EXPECT_THAT(service.Output(), HasSubstr("QxSchedService --root=" + service.Root() + " -RegServer"));
}

TEST_F(Service, TheStopControlEndsItAndResetsTheProcessReference) {
  ASSERT_NO_FATAL_FAILURE(StartAll());
  EXPECT_EQ(Count(), 0u);
  const auto storedProcess = [&] {
    std::uint32_t process = 99;
    platform::RegistryKey key;
    EXPECT_EQ(platform::OpenRegistryStore(service.Root() + "/registry.db"), ERROR_SUCCESS);
    EXPECT_EQ(
        platform::OpenKey(platform::Hive::kLocalMachine,
                          u"SOFTWARE\\KORVANE\\QxSvc\\CurrentVersion\\Providers\\scheduler", platform::KEY_READ, key),
        ERROR_SUCCESS);
    EXPECT_EQ(platform::ReadRegistryDword(key, u"ProcId", process), ERROR_SUCCESS);
    (void)key.Close();
    EXPECT_EQ(platform::CloseRegistryStore(), ERROR_SUCCESS);
    return process;
  };
  EXPECT_EQ(storedProcess(), static_cast<std::uint32_t>(service.Process().Id()));
  EXPECT_EQ(service.Stop(), 0) << service.Output();
  EXPECT_EQ(storedProcess(), 0u);
}

TEST_F(Service, ASecondServiceOnOneStateDirectoryIsRefused) {
  ASSERT_NO_FATAL_FAILURE(StartAll());
  EXPECT_EQ(service.Run({"--foreground"}), 1);
  EXPECT_THAT(service.Output(), HasSubstr("Another service works on " + service.Root()));
  EXPECT_EQ(Count(), 0u);
}

TEST_F(Service, ADamagedStoreIsNamedAndCopiedAndEndsTheStart) {
  ASSERT_NO_FATAL_FAILURE(service.Register());
  const std::string file = service.Root() + "/registry.db";
  std::filesystem::remove(file + "-wal");
  std::filesystem::remove(file + "-shm");
  std::ofstream(file, std::ios::trunc) << "this is no store";
  EXPECT_EQ(service.Run({"--foreground"}), 1);
  EXPECT_THAT(service.Output(), HasSubstr("The registry " + file + " is damaged"));
  EXPECT_THAT(service.Output(), HasSubstr(file + ".damaged"));
  EXPECT_EQ(RunningService::ReadFile(file + ".damaged"), "this is no store");
  EXPECT_EQ(RunningService::ReadFile(file), "this is no store");
}

TEST_F(Service, StartedByHandItEndsWithItsLastClient) {
  ASSERT_NO_FATAL_FAILURE(service.Register("-Service"));
  ASSERT_NO_FATAL_FAILURE(service.Start({}));
  SchedulerClient listener;
  auto events = std::make_shared<EventLog>();
  std::uint32_t cookie = 0;
  ASSERT_NO_FATAL_FAILURE(service.Connect(listener));
  ASSERT_EQ(listener.Advise(events, cookie), 0u);
  ASSERT_NO_FATAL_FAILURE(service.Connect(client));
  EXPECT_EQ(Count(), 0u);
  client.Disconnect();
  std::uint32_t count = 99;
  ScheduleList list;
  EXPECT_EQ(listener.ListSchedule(count, list), 0u);  // it stays while one is there
  listener.Disconnect();
  EXPECT_EQ(service.Process().Wait(), 0) << service.Output();
}

TEST_F(Service, StartedByTheBusItWaitsForTheOneThatJustLeaves) {
  ASSERT_NO_FATAL_FAILURE(service.Register());
  platform::SetStateDirectory(service.Root());
  platform::File leaving;
  ASSERT_EQ(platform::LockStateDirectory(leaving), ERROR_SUCCESS);
  service.Launch({});
  const std::string told = "Waiting for the service that works on " + service.Root();
  const std::uint32_t begun = platform::TickCount();
  while (service.Output().find(told) == std::string::npos && platform::TickCount() - begun < qx::testing::kPatience) {
    ASSERT_FALSE(service.Process().HasEnded()) << service.Output();
  }
  leaving.Close();
  platform::SetStateDirectory({});
  EXPECT_TRUE(service.WaitForName()) << service.Output();
}

TEST_F(Service, AClientThatOnlyListensKeepsAPlainServer) {
  ASSERT_NO_FATAL_FAILURE(service.Register());
  ASSERT_NO_FATAL_FAILURE(service.Start({}));
  SchedulerClient listener;
  std::uint32_t cookie = 0;
  ASSERT_NO_FATAL_FAILURE(service.Connect(listener));
  ASSERT_EQ(listener.Advise(std::make_shared<EventLog>(), cookie), 0u);
  ASSERT_NO_FATAL_FAILURE(service.Connect(client));
  EXPECT_EQ(client.Refresh(), 0u);
  client.Disconnect();
  EXPECT_EQ(listener.Refresh(), 0u);
  listener.Disconnect();
  EXPECT_EQ(service.Process().Wait(), 0) << service.Output();
}

TEST_F(Service, UnregisteringStopsARunningService) {
  ASSERT_NO_FATAL_FAILURE(service.Register("-Service"));
  ASSERT_NO_FATAL_FAILURE(service.Start());
  ASSERT_NO_FATAL_FAILURE(service.Connect(client));
  ASSERT_EQ(client.Refresh(), 0u);  // answered once the start is over and the process reference is set
  EXPECT_EQ(service.Run({"/unregserver"}), 0) << service.Output();
  EXPECT_EQ(service.Process().Wait(), 0);
}

// The datagrams of a service to its manager.
class Manager {
 public:
  explicit Manager(const std::string& path) : m_socket(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(bind(m_socket, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  }
  Manager(const Manager&) = delete;
  Manager& operator=(const Manager&) = delete;
  ~Manager() { close(m_socket); }
  std::string Next() {
    pollfd readable = {m_socket, POLLIN, 0};
    if (poll(&readable, 1, static_cast<int>(kPatience)) != 1) return "nothing came";
    char text[4096] = {};
    const ssize_t size = recv(m_socket, text, sizeof text, 0);
    return std::string(text, size > 0 ? static_cast<std::size_t>(size) : 0);
  }

 private:
  int m_socket;
};

// A bus whose daemon admits nobody.
class SilentBus {
 public:
  explicit SilentBus(const std::string& path)
      : m_path(path), m_listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(bind(m_listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(listen(m_listener, 1), 0);
  }
  SilentBus(const SilentBus&) = delete;
  SilentBus& operator=(const SilentBus&) = delete;
  ~SilentBus() { HangUp(); }
  [[nodiscard]] std::string Address() const { return "unix:path=" + m_path; }
  bool TakeCaller() {
    pollfd called = {m_listener, POLLIN, 0};
    if (poll(&called, 1, static_cast<int>(kPatience)) != 1) return false;
    m_caller = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
    return m_caller >= 0;
  }
  // From now on it is no bus any more.
  void HangUp() {
    for (int* const descriptor : {&m_listener, &m_caller}) {
      if (*descriptor >= 0) close(*descriptor);
      *descriptor = -1;
    }
  }

 private:
  std::string m_path;
  int m_listener;
  int m_caller = -1;
};

TEST_F(Service, UnderAManagerItTellsItsStatesAndStays) {
  ASSERT_NO_FATAL_FAILURE(service.Register("-Service"));
  const std::string path = service.Jobs() + "/notify";
  Manager manager(path);
  service.AddVariable("NOTIFY_SOCKET=" + path);
  ASSERT_NO_FATAL_FAILURE(service.Start({}));
  EXPECT_EQ(manager.Next(), "STATUS=starting");
  EXPECT_EQ(manager.Next(), "READY=1\nSTATUS=running");
  EXPECT_EQ(manager.Next(), "STATUS=running; no job is due");
  ASSERT_NO_FATAL_FAILURE(service.Connect(client));
  EXPECT_EQ(client.Refresh(), 0u);
  client.Disconnect();
  ASSERT_NO_FATAL_FAILURE(service.Connect(client));
  EXPECT_EQ(client.Refresh(), 0u);  // its last client is no reason to leave
  EXPECT_EQ(service.Stop(), 0);
  EXPECT_EQ(manager.Next(), "STOPPING=1\nSTATUS=stopping");
  EXPECT_EQ(manager.Next(), "STATUS=stopped");
}

TEST_F(Service, ItsStatusTellsTheNextWakeUp) {
  ASSERT_NO_FATAL_FAILURE(service.Register("-Service"));
  const std::string path = service.Jobs() + "/notify";
  Manager manager(path);
  service.AddVariable("NOTIFY_SOCKET=" + path);
  ASSERT_NO_FATAL_FAILURE(service.Start({}));
  ASSERT_NO_FATAL_FAILURE(service.Connect(client));
  const auto expectNext = [&](const std::string& text) { EXPECT_EQ(manager.Next(), text) << service.Log(); };
  expectNext("STATUS=starting");
  expectNext("READY=1\nSTATUS=running");
  expectNext("STATUS=running; no job is due");
  const auto textOf = [](std::int64_t window) {  // the service's zone is UTC
    const std::time_t seconds = window;
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char text[64];
    std::strftime(text, sizeof text, "STATUS=running; next job at %Y-%m-%d %H:%M:%S", &utc);
    return std::string(text);
  };
  const std::int64_t late = FarStart() + 60;
  const std::int64_t early = FarStart();
  ScheduleGuid lateId, earlyId;
  ASSERT_EQ(client.CreateSchedule(service.Job("late", late), lateId), 0u);
  expectNext(textOf(late));
  ASSERT_EQ(client.CreateSchedule(service.Job("early", early), earlyId), 0u);
  expectNext(textOf(early));
  ASSERT_EQ(client.DeleteSchedule(earlyId), 0u);
  expectNext(textOf(late));
  ASSERT_EQ(client.Refresh(), 0u);  // the same again isn't told again
  ASSERT_EQ(client.DeleteSchedule(lateId), 0u);
  expectNext("STATUS=running; no job is due");
  EXPECT_EQ(service.Stop(), 0);
  expectNext("STOPPING=1\nSTATUS=stopping");
  expectNext("STATUS=stopped");
}

TEST_F(Service, TheStopControlDuringTheStartEndsItInOrder) {
  ASSERT_NO_FATAL_FAILURE(service.Register("-Service"));
  const std::string path = service.Jobs() + "/notify";
  Manager manager(path);
  service.AddVariable("NOTIFY_SOCKET=" + path);
  // The start ends with a value in the registry, and there somebody else is writing.
  ASSERT_EQ(platform::OpenRegistryStore(service.Root() + "/registry.db"), ERROR_SUCCESS);
  platform::RegistryKey key;
  ASSERT_EQ(platform::CreateKey(platform::Hive::kLocalMachine, u"SOFTWARE\\busy", platform::KEY_ALL_ACCESS, key),
            ERROR_SUCCESS);
  service.Launch({});
  EXPECT_EQ(manager.Next(), "STATUS=starting");
  EXPECT_EQ(manager.Next(), "READY=1\nSTATUS=running");
  service.Process().Signal(SIGTERM);
  EXPECT_EQ(manager.Next(), "STOPPING=1\nSTATUS=stopping");
  ASSERT_EQ(key.Close(), ERROR_SUCCESS);
  EXPECT_EQ(service.Process().Wait(), 0) << service.Output();
  EXPECT_EQ(manager.Next(), "STATUS=stopped");
  std::uint32_t process = 99;
  ASSERT_EQ(platform::OpenKey(platform::Hive::kLocalMachine,
                              u"SOFTWARE\\KORVANE\\QxSvc\\CurrentVersion\\Providers\\scheduler",
                              platform::KEY_READ, key),
            ERROR_SUCCESS);
  EXPECT_EQ(platform::ReadRegistryDword(key, u"ProcId", process), ERROR_SUCCESS);
  EXPECT_EQ(process, 0u);
  ASSERT_EQ(key.Close(), ERROR_SUCCESS);
  ASSERT_EQ(platform::CloseRegistryStore(), ERROR_SUCCESS);
}

TEST_F(Service, TheStopControlDuringAWaitForTheBusIsItsLastStateButTheEnd) {
  ASSERT_NO_FATAL_FAILURE(service.Register("-Service"));
  const std::string path = service.Jobs() + "/notify";
  Manager manager(path);
  service.AddVariable("NOTIFY_SOCKET=" + path);
  SilentBus bus(service.Jobs() + "/bus");
  service.Launch({"--bus", bus.Address()});
  EXPECT_EQ(manager.Next(), "STATUS=starting");
  ASSERT_TRUE(bus.TakeCaller());
  service.Process().Signal(SIGTERM);
  EXPECT_EQ(manager.Next(), "STOPPING=1\nSTATUS=stopping");
  bus.HangUp();
  EXPECT_EQ(service.Process().Wait(), 0) << service.Output();
  EXPECT_EQ(manager.Next(), "STATUS=stopped");
}

struct PortCase {
  std::optional<std::uint32_t> stored;
  std::uint16_t port;
};

TEST_F(Service, ThePortIsTheLow16BitsOfTheSettingOr4888) {
  ASSERT_NO_FATAL_FAILURE(service.Register());
  for (const PortCase& c : {PortCase{std::nullopt, 4888}, PortCase{70000, 4464}, PortCase{5000, 5000}}) {
    if (c.stored) {
      platform::RegistryKey key;
      ASSERT_EQ(platform::OpenRegistryStore(service.Root() + "/registry.db"), ERROR_SUCCESS);
      ASSERT_EQ(platform::OpenKey(platform::Hive::kLocalMachine, u"SOFTWARE\\KORVANE\\QxSvc\\CurrentVersion\\Schedules",
                                  platform::KEY_ALL_ACCESS, key),
                ERROR_SUCCESS);
      ASSERT_EQ(platform::SetDword(key, u"DefaultPort", *c.stored), ERROR_SUCCESS);
      ASSERT_EQ(key.Close(), ERROR_SUCCESS);
      ASSERT_EQ(platform::CloseRegistryStore(), ERROR_SUCCESS);
    }
    ASSERT_NO_FATAL_FAILURE(service.Start());
    ASSERT_NO_FATAL_FAILURE(service.Connect(client));
    ServiceProperties properties;
    ASSERT_EQ(client.Properties(properties), 0u) << client.LastError().text;
    EXPECT_EQ(properties.port, c.port);
    ASSERT_EQ(service.Stop(), 0);
  }
}

// --- the interface ---

TEST_F(Service, IntrospectionNamesEveryArgumentAndTellsTheMethodsInOrder) {
  ASSERT_NO_FATAL_FAILURE(StartAll());
  platform::BusConnection connection;
  ASSERT_EQ(connection.Open(service.Bus().ForClients()), ERROR_SUCCESS);
  MessageWriter call;
  MessageReader reply;
  BusError error;
  ASSERT_EQ(connection.NewCall(kBusName, kBusPath, "org.freedesktop.DBus.Introspectable", "Introspect", call),
            ERROR_SUCCESS);
  ASSERT_EQ(connection.Call(std::move(call), reply, error), ERROR_SUCCESS) << error.text;
  std::string_view view;
  ASSERT_EQ(reply.ReadString(view), ERROR_SUCCESS);
  const std::string xml(view);
  const auto section = [&](std::string_view name) {
    const std::size_t begin = xml.find("<interface name=\"" + std::string(name) + "\"");
    EXPECT_NE(begin, std::string::npos) << name;
    return xml.substr(begin, xml.find("</interface>", begin) - begin);
  };
  const auto names = [](const std::string& text, const std::string& element) {
    std::vector<std::string> found;
    const std::regex pattern("<" + element + " name=\"([^\"]*)\"");
    for (std::sregex_iterator at(text.begin(), text.end(), pattern), end; at != end; ++at) found.push_back((*at)[1]);
    return found;
  };
  const std::string methods = section(kBusServiceInterface);
  EXPECT_THAT(
      names(methods, "method"),
      ElementsAre("CreateSchedule", "DeleteSchedule", "ModifySchedule", "ListSchedule", "GetScheduleInfo",
                  "CreateScheduleOnNodes", "DeleteScheduleOnNodes", "ModifyScheduleOnNodes", "Refresh",
                  "Notify_NextTimeWindow_Modify", "Notify_SystemTime_Change", "UpdateList", "PerformOperationOnNodes"));
  EXPECT_THAT(
      names(section(kBusEventsInterface), "signal"),
      ElementsAre("Schedule_Add", "Schedule_Modify", "Schedule_Delete", "NextTimeWindow_Modify", "SystemTime_Change"));
  EXPECT_THAT(names(section(kBusManagerInterface), "property"),
              ElementsAre("Version", "Zone", "Port", "TraceLevel", "NextWakeUp", "StateDirectory"));
  // Each argument has a name, and the first one out of each method is the status.
  for (const std::string_view interface : {kBusServiceInterface, kBusEventsInterface, kBusManagerInterface}) {
    const std::string text = section(interface);
    const std::regex argument("<arg [^>]*>");
    std::size_t count = 0;
    for (std::sregex_iterator at(text.begin(), text.end(), argument), end; at != end; ++at, ++count) {
      EXPECT_TRUE(std::regex_search(at->str(), std::regex("name=\"[a-z_]+\""))) << at->str();
    }
    EXPECT_GT(count, 0u) << interface;
  }
  const std::regex method("<method name=\"([^\"]*)\">([^]*?)</method>");
  const std::regex firstOut("<arg [^>]*direction=\"out\"[^>]*>");
  std::size_t methodCount = 0;
  for (std::sregex_iterator at(methods.begin(), methods.end(), method), end; at != end; ++at, ++methodCount) {
    const std::string body = (*at)[2];
    std::smatch out;
    ASSERT_TRUE(std::regex_search(body, out, firstOut)) << (*at)[1];
    EXPECT_THAT(out.str(), HasSubstr("type=\"i\"")) << (*at)[1];
    EXPECT_THAT(out.str(), HasSubstr("name=\"status\"")) << (*at)[1];
  }
  EXPECT_EQ(methodCount, 13u);
}

TEST_F(Service, CreatesListsReadsAndDeletesAScheduleAndTellsOfIt) {
  ASSERT_NO_FATAL_FAILURE(StartAll());
  auto events = std::make_shared<EventLog>();
  std::uint32_t cookie = 0;
  ASSERT_EQ(client.Advise(events, cookie), 0u) << client.LastError().text;
  const SCHEDULE_OBJECT schedule = service.Job("nightly", FarStart());
  ScheduleGuid id;
  ASSERT_EQ(client.CreateSchedule(schedule, id), 0u) << client.LastError().text;
  const auto added = RunningService::WaitFor(client, *events, "Schedule_Add");
  ASSERT_TRUE(added);
  EXPECT_TRUE(added->id == id);

  std::uint32_t count = 0;
  ScheduleList list;
  ASSERT_EQ(client.ListSchedule(count, list), 0u);
  ASSERT_EQ(count, 1u);
  ASSERT_EQ(list.size(), 1u);
  SCHEDULE_OBJECT_EX expected;
  expected.dwTaskOpCode = 4;
  expected.bstrScheduleID = platform::GuidText(id);
  expected.bstrApplication = u"test";
  expected.bstrObjectID = u"object-1";
  expected.bstrWrapperBinaryName = u"/bin/sh";
  expected.bstrXMLFilePathName = schedule.bstrXMLFilePathName;
  expected.bstrParameters = u"-v";
  expected.bstrPreScript = u"";
  expected.bstrPostScript = u"";
  EXPECT_TRUE(list.records()[0] == expected);

  const SCHEDULE_OBJECT read = Read(id);
  EXPECT_TRUE(read.bstrName == u"nightly");
  EXPECT_TRUE(read.bstrDescription == u"made by a test");
  EXPECT_EQ(read.stScheduleRules.adwDaysOfMonth, schedule.stScheduleRules.adwDaysOfMonth);
  EXPECT_EQ(read.stScheduleRules.dwTimeDuration, 60000u);
  EXPECT_EQ(read.lNextTimeWindow, schedule.stScheduleRules.lStartTime);

  std::vector<ListRow> rows;
  ASSERT_EQ(client.ListAll(rows), 0u) << client.LastError().text;
  ASSERT_EQ(rows.size(), 1u);
  const ListRow row = {
      platform::GuidText(id),        u"nightly", u"test", u"object-1", 4, u"/bin/sh",
      *schedule.bstrXMLFilePathName, u"-v",      u"",     u"",         0, schedule.stScheduleRules.lStartTime};
  EXPECT_TRUE(rows[0] == row);

  ServiceProperties properties;
  ASSERT_EQ(client.Properties(properties), 0u) << client.LastError().text;
  EXPECT_EQ(properties.nextWakeUp, schedule.stScheduleRules.lStartTime);
  EXPECT_EQ(properties.zone, "UTC");
  EXPECT_EQ(properties.port, 4888);
  EXPECT_EQ(properties.traceLevel, 3u);
  EXPECT_EQ(properties.stateDirectory, service.Root());
  EXPECT_FALSE(properties.version.empty());

  ASSERT_EQ(client.DeleteSchedule(id), 0u);
  const auto deleted = RunningService::WaitFor(client, *events, "Schedule_Delete");
  ASSERT_TRUE(deleted);
  EXPECT_TRUE(deleted->id == id);
  EXPECT_EQ(Count(), 0u);
  EXPECT_EQ(client.DeleteSchedule(id), kStatusNotFoundForDelete);
  EXPECT_EQ(client.LastError().name, "");
}

TEST_F(Service, AListOfNoSchedulesIsEmptyAndStatus0) {
  ASSERT_NO_FATAL_FAILURE(StartAll());
  std::uint32_t count = 99;
  ScheduleList list;
  EXPECT_EQ(client.ListSchedule(count, list), 0u);
  EXPECT_EQ(count, 0u);
  EXPECT_FALSE(list);
  std::vector<ListRow> rows;
  EXPECT_EQ(client.ListAll(rows), 0u);
  EXPECT_TRUE(rows.empty());
  ServiceProperties properties;
  ASSERT_EQ(client.Properties(properties), 0u);
  EXPECT_EQ(properties.nextWakeUp, -1);
}

// IDs of schedules whose keys alone are put into the store, in order.
std::vector<std::u16string> PutKeys(RunningService& service, std::uint32_t count) {
  std::vector<std::u16string> ids;
  std::vector<platform::RegistryKey> open;  // one commit for all
  EXPECT_EQ(platform::OpenRegistryStore(service.Root() + "/registry.db"), ERROR_SUCCESS);
  for (std::uint32_t i = 0; i < count; ++i) {
    ScheduleGuid id;
    id.Data1 = i * 0x9E3779B9u;
    id.Data2 = static_cast<std::uint16_t>(i);
    ids.push_back(platform::GuidText(id));
    const std::u16string path = u"SOFTWARE\\KORVANE\\QxSvc\\CurrentVersion\\Schedules\\" + ids.back();
    platform::RegistryKey key;
    EXPECT_EQ(platform::CreateKey(platform::Hive::kLocalMachine, path, platform::KEY_ALL_ACCESS, key), ERROR_SUCCESS);
    EXPECT_EQ(platform::SetString(key, u"Parameters", ids.back()), ERROR_SUCCESS);
    open.push_back(std::move(key));
  }
  open.clear();
  EXPECT_EQ(platform::CloseRegistryStore(), ERROR_SUCCESS);
  std::sort(ids.begin(), ids.end());
  return ids;
}

TEST_F(Service, ALongListComesWholeAndInOrderAndEventsThatCameMeanwhileComeBehindIt) {
  ASSERT_NO_FATAL_FAILURE(service.Register());
  std::vector<std::u16string> ids = PutKeys(service, 3333);  // more than one page in each half
  ASSERT_NO_FATAL_FAILURE(service.Start());
  ASSERT_NO_FATAL_FAILURE(service.Connect(client));
  auto events = std::make_shared<EventLog>();
  std::uint32_t cookie = 0;
  ASSERT_EQ(client.Advise(events, cookie), 0u) << client.LastError().text;
  SchedulerClient other;
  ASSERT_NO_FATAL_FAILURE(service.Connect(other));
  ScheduleGuid id;
  ASSERT_EQ(other.CreateSchedule(service.Job("nightly", FarStart()), id), 0u);  // told ahead of its answer
  ids.push_back(platform::GuidText(id));
  std::sort(ids.begin(), ids.end());

  std::vector<ListRow> rows(1);
  ASSERT_EQ(client.ListAll(rows), 0u) << client.LastError().text;
  EXPECT_TRUE(events->events.empty());
  ASSERT_EQ(rows.size(), 1 + ids.size());  // appended
  for (std::size_t i = 0; i < ids.size(); ++i) ASSERT_EQ(rows[i + 1].id, ids[i]) << i;
  const auto added = RunningService::WaitFor(client, *events, "Schedule_Add");
  ASSERT_TRUE(added);
  EXPECT_TRUE(added->id == id);

  // From within an event as well.
  class Lister : public EventLog {
   public:
    explicit Lister(SchedulerClient& client) : m_client(client) {}
    void Schedule_Delete(const ScheduleGuid& gone) override {
      EXPECT_EQ(m_client.ListAll(rows), 0u);
      EventLog::Schedule_Delete(gone);
    }
    std::vector<ListRow> rows;

   private:
    SchedulerClient& m_client;
  };
  auto lister = std::make_shared<Lister>(client);
  ASSERT_EQ(client.Advise(lister, cookie), 0u);
  ASSERT_EQ(other.DeleteSchedule(id), 0u);
  ASSERT_TRUE(RunningService::WaitFor(client, *lister, "Schedule_Delete"));
  EXPECT_EQ(lister->rows.size(), ids.size() - 1);

  // And a service that is gone ends it.
  service.Process().Signal(SIGKILL);
  ASSERT_EQ(service.Process().Wait(), 128 + SIGKILL);
  rows.clear();
  EXPECT_NE(client.ListAll(rows), 0u);
  EXPECT_TRUE(client.LastError().IsSet());
  EXPECT_TRUE(rows.empty());
}

TEST_F(Service, ThePagedListGoesOnBehindAnyIdOfEitherCase) {
  ASSERT_NO_FATAL_FAILURE(StartAll());
  std::set<std::u16string> ids;
  for (int i = 0; i < 7; ++i) {
    ScheduleGuid id;
    ASSERT_EQ(client.CreateSchedule(service.Job("job" + std::to_string(i), FarStart()), id), 0u);
    ids.insert(platform::GuidText(id));
  }
  std::vector<std::u16string> seen;
  std::u16string last;
  while (true) {
    std::vector<ListRow> page;
    ASSERT_EQ(client.ListInfo(last, 3, page), 0u);
    if (page.empty()) break;
    EXPECT_LE(page.size(), 3u);
    for (const ListRow& row : page) seen.push_back(row.id);
    last = page.back().id;
  }
  EXPECT_EQ(seen, std::vector<std::u16string>(ids.begin(), ids.end()));
  // Behind the fourth, in a place that the service didn't just give, and written in small letters.
  std::string behind = platform::Utf8FromWide(seen[3]);
  for (char& c : behind) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  std::vector<ListRow> page;
  ASSERT_EQ(client.ListInfo(platform::WideFromUtf8(behind), 1, page), 0u);
  ASSERT_EQ(page.size(), 1u);
  EXPECT_EQ(page[0].id, seen[4]);
  EXPECT_EQ(client.ListInfo(u"no id", 1, page), 0x80070057u);
  EXPECT_EQ(client.LastError().text, "key 'after_id' is no identifier in braces");
}

TEST_F(Service, AJobRunsOnItsSecondAndItsNextWindowIsTold) {
  ASSERT_NO_FATAL_FAILURE(StartAll());
  const std::string pipe = service.Jobs() + "/ran";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  const int reader = open(pipe.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  ASSERT_GE(reader, 0);
  auto events = std::make_shared<EventLog>();
  std::uint32_t cookie = 0;
  ASSERT_EQ(client.Advise(events, cookie), 0u);
  const std::int64_t start = platform::NowSeconds() + 3;
  SCHEDULE_OBJECT schedule = service.Job("soon", start, "echo \"$1\" > " + pipe);
  schedule.bUseGUID = 0;
  ScheduleGuid id;
  ASSERT_EQ(client.CreateSchedule(schedule, id), 0u) << client.LastError().text;

  const auto event = RunningService::WaitFor(client, *events, "NextTimeWindow_Modify");
  ASSERT_TRUE(event) << service.Log();
  EXPECT_TRUE(event->id == id);
  EXPECT_EQ(event->window, start + kDay);
  EXPECT_GE(platform::NowSeconds(), start);
  pollfd written = {reader, POLLIN, 0};
  ASSERT_EQ(poll(&written, 1, static_cast<int>(kPatience)), 1) << service.Log();
  char text[16] = {};
  EXPECT_EQ(read(reader, text, sizeof text - 1), 3);
  EXPECT_STREQ(text, "-v\n");
  close(reader);
  EXPECT_EQ(Read(id).lNextTimeWindow, start + kDay);
}

TEST_F(Service, ARestartBringsEverySchedulesBackWithItsWindow) {
  ASSERT_NO_FATAL_FAILURE(StartAll());
  ScheduleGuid id;
  ASSERT_EQ(client.CreateSchedule(service.Job("kept", FarStart()), id), 0u);
  const SCHEDULE_OBJECT before = Read(id);
  service.Process().Signal(SIGKILL);
  ASSERT_EQ(service.Process().Wait(), 128 + SIGKILL);
  ASSERT_NO_FATAL_FAILURE(service.Start());
  const SCHEDULE_OBJECT after = Read(id);
  EXPECT_TRUE(after == before);
  EXPECT_EQ(Count(), 1u);
}

TEST_F(Service, DamagedSchedulesAreSkippedWhileTheOthersRun) {
  ASSERT_NO_FATAL_FAILURE(StartAll());
  ScheduleGuid whole, noFile, badKey;
  ASSERT_EQ(client.CreateSchedule(service.Job("whole", FarStart()), whole), 0u);
  ASSERT_EQ(client.CreateSchedule(service.Job("nofile", FarStart()), noFile), 0u);
  ASSERT_EQ(client.CreateSchedule(service.Job("badkey", FarStart()), badKey), 0u);
  ASSERT_EQ(service.Stop(), 0);
  const std::string iniFile = service.Jobs() + "/" + platform::Utf8FromWide(platform::GuidText(noFile)) + ".ini";
  ASSERT_TRUE(std::filesystem::exists(iniFile));
  std::ofstream(iniFile, std::ios::trunc) << "[Gen\xff\xfe\nnonsense";
  ASSERT_EQ(platform::OpenRegistryStore(service.Root() + "/registry.db"), ERROR_SUCCESS);
  platform::RegistryKey key;
  ASSERT_EQ(platform::OpenKey(platform::Hive::kLocalMachine,
                              u"SOFTWARE\\KORVANE\\QxSvc\\CurrentVersion\\Schedules\\" + platform::GuidText(badKey),
                              platform::KEY_ALL_ACCESS, key),
            ERROR_SUCCESS);
  ASSERT_EQ(platform::DeleteValue(key, u"WrapperBinary"), ERROR_SUCCESS);
  ASSERT_EQ(key.Close(), ERROR_SUCCESS);
  ASSERT_EQ(platform::CloseRegistryStore(), ERROR_SUCCESS);

  ASSERT_NO_FATAL_FAILURE(service.Start());
  EXPECT_TRUE(Read(whole).bstrName == u"whole");
  std::vector<ListRow> rows;
  ASSERT_EQ(client.ListAll(rows), 0u);
  ASSERT_EQ(rows.size(), 3u);
  for (const ListRow& row : rows) {
    if (row.id == platform::GuidText(badKey)) {
      EXPECT_EQ(row.nextWindow, kDamagedKey);
      EXPECT_EQ(row.wrapper, u"");
    } else if (row.id == platform::GuidText(noFile)) {
      EXPECT_EQ(row.nextWindow, kNoWindow);
      EXPECT_EQ(row.wrapper, u"/bin/sh");
    } else {
      EXPECT_GT(row.nextWindow, platform::NowSeconds());
      EXPECT_EQ(row.name, u"whole");
    }
  }
  // As long as a key can't be read the plain list fails as a whole.
  std::uint32_t count = 0;
  ScheduleList list;
  EXPECT_EQ(client.ListSchedule(count, list), kStatusList);
}

// --- refusals ---

// Calls a method of the service with one argument tree each.
BusError RawCall(RunningService& service, std::string_view member, const std::vector<BusValue>& arguments) {
  platform::BusConnection connection;
  EXPECT_EQ(connection.Open(service.Bus().ForClients()), ERROR_SUCCESS);
  MessageWriter call;
  EXPECT_EQ(connection.NewCall(kBusName, kBusPath, kBusServiceInterface, member, call), ERROR_SUCCESS);
  for (const BusValue& argument : arguments) call.AppendValue(argument);
  MessageReader reply;
  BusError error;
  (void)connection.Call(std::move(call), reply, error);
  return error;
}

TEST_F(Service, MalformedCallsAreRefusedNamingTheKeyAndChangeNothing) {
  ASSERT_NO_FATAL_FAILURE(StartAll());
  struct Case {
    int line;
    const char* member;
    std::vector<BusValue> arguments;
    const char* text;
  };
  const auto dict = [](std::vector<std::pair<std::string, BusValue>> entries) {
    return BusValue::Dict(std::move(entries));
  };
  const BusValue noId = BusValue::String("{00000000}");
  const Case kCases[] = {
      {__LINE__, "CreateSchedule", {dict({{"bstrNam", BusValue::String("x")}})}, "unknown key 'bstrNam'"},
      {__LINE__,
       "CreateSchedule",
       {dict({{"stScheduleRules", dict({{"foo", BusValue::Uint32(1)}})}})},
       "unknown key 'stScheduleRules.foo'"},
      {__LINE__,
       "CreateSchedule",
       {dict({{"bRunNow", BusValue::String("yes")}})},
       "wrong type of key 'bRunNow': expected 'u', got 's'"},
      {__LINE__,
       "CreateSchedule",
       {dict({{"bstrName", BusValue::String("a\n[General]")}})},
       "a line end in key 'bstrName'"},
      {__LINE__, "DeleteSchedule", {noId}, "key 'schedule_id' is no identifier in braces"},
      {__LINE__, "GetScheduleInfo", {noId}, "key 'schedule_id' is no identifier in braces"},
      {__LINE__, "ModifySchedule", {noId, dict({})}, "key 'schedule_id' is no identifier in braces"},
      {__LINE__,
       "Notify_NextTimeWindow_Modify",
       {noId, BusValue::Int32(1)},
       "key 'schedule_id' is no identifier in braces"},
      {__LINE__, "UpdateList", {BusValue::Int32(1), BusValue::String("a\rb")}, "a line end in key 'parameter_value'"},
  };
  for (const Case& c : kCases) {
    const BusError error = RawCall(service, c.member, c.arguments);
    EXPECT_EQ(error.name, platform::kBusErrorInvalidArgs) << "line " << c.line;
    EXPECT_EQ(error.text, c.text) << "line " << c.line;
  }
  // Another number or type of arguments never reaches the service.
  EXPECT_EQ(RawCall(service, "DeleteSchedule", {BusValue::Int32(1)}).name, platform::kBusErrorInvalidArgs);
  EXPECT_EQ(RawCall(service, "Refresh", {BusValue::Int32(1)}).name, platform::kBusErrorInvalidArgs);
  EXPECT_EQ(Count(), 0u);
  EXPECT_TRUE(std::filesystem::is_empty(service.Jobs()));
}

TEST_F(Service, AScheduleThatTheServiceRefusesKeepsItsStatus) {
  ASSERT_NO_FATAL_FAILURE(StartAll());
  ScheduleGuid id;
  SCHEDULE_OBJECT schedule = service.Job("refused", FarStart());
  schedule.bstrWrapperBinaryName.reset();
  EXPECT_EQ(client.CreateSchedule(schedule, id), 1u);
  schedule = service.Job("refused", FarStart());
  schedule.bstrXMLFilePathName.reset();
  EXPECT_EQ(client.CreateSchedule(schedule, id), kStatusNoDirectory);
  schedule = service.Job("refused", FarStart());
  schedule.stScheduleRules.adwDaysOfMonth.fill(0);
  EXPECT_EQ(client.CreateSchedule(schedule, id), kStatusNoRunDay);
  EXPECT_EQ(client.LastError().name, "");
  EXPECT_EQ(Count(), 0u);
}

// --- modifying ---

TEST_F(Service, AModificationChangesEverythingButWhatIsFixedAndTellsOfIt) {
  ASSERT_NO_FATAL_FAILURE(StartAll());
  auto events = std::make_shared<EventLog>();
  std::uint32_t cookie = 0;
  ASSERT_EQ(client.Advise(events, cookie), 0u) << client.LastError().text;
  ScheduleGuid id;
  const std::int64_t start = FarStart();
  ASSERT_EQ(client.CreateSchedule(service.Job("nightly", start), id), 0u) << client.LastError().text;
  SCHEDULE_OBJECT changed = Read(id);
  changed.bstrName = u"hourly";
  changed.bstrDescription = u"changed by a test";
  changed.bstrWrapperBinaryName = u"/bin/true";
  changed.bstrParameters = u"-q";
  changed.bstrPreScript = u"before";
  changed.bstrPostScript = u"after";
  changed.stScheduleRules.lStartTime = static_cast<std::int32_t>(OnThisDay(start + kAnHour));
  changed.stScheduleRules.lEndTime = static_cast<std::int32_t>(OnThisDay(start + kAnHour + 120));
  changed.stScheduleRules.dwTimeDuration = 120000;
  ASSERT_EQ(client.ModifySchedule(id, changed), 0u) << client.LastError().text;
  const auto modified = RunningService::WaitFor(client, *events, "Schedule_Modify");
  ASSERT_TRUE(modified);
  EXPECT_TRUE(modified->id == id);
  changed.lNextTimeWindow = static_cast<std::int32_t>(start + kAnHour);
  EXPECT_TRUE(Read(id) == changed);
  EXPECT_EQ(Count(), 1u);

  // What is read back is what the service finds after a restart.
  ASSERT_EQ(service.Stop(), 0);
  ASSERT_NO_FATAL_FAILURE(service.Start());
  ASSERT_NO_FATAL_FAILURE(service.Connect(client));
  EXPECT_TRUE(Read(id) == changed);
}

TEST_F(Service, ARefusedModificationKeepsItsStatusAndARolledBackOneHasNoEvent) {
  ASSERT_NO_FATAL_FAILURE(StartAll());
  auto events = std::make_shared<EventLog>();
  std::uint32_t cookie = 0;
  ASSERT_EQ(client.Advise(events, cookie), 0u) << client.LastError().text;
  ScheduleGuid id;
  ASSERT_EQ(client.CreateSchedule(service.Job("nightly", FarStart()), id), 0u) << client.LastError().text;
  const SCHEDULE_OBJECT before = Read(id);
  EXPECT_EQ(client.ModifySchedule(CLSID_SchedulerService, before), kStatusNoSuchKey);
  SCHEDULE_OBJECT changed = before;
  changed.stScheduleRules.adwDaysOfMonth.fill(0);
  EXPECT_EQ(client.ModifySchedule(id, changed), kStatusNoRunDay);
  changed = before;
  changed.bstrName = u"other";
  changed.bstrApplication = u"other";
  EXPECT_EQ(client.ModifySchedule(id, changed), 0u);
  EXPECT_TRUE(Read(id) == before);
  EXPECT_THAT(service.Log(), HasSubstr("Trying to modify the Application Name"));
  // The next event is that of the deletion.
  ASSERT_EQ(client.DeleteSchedule(id), 0u);
  ASSERT_TRUE(RunningService::WaitFor(client, *events, "Schedule_Delete"));
  for (const Event& event : events->events) EXPECT_NE(event.name, "Schedule_Modify");
}

TEST_F(Service, AModifiedJobStartsInItsNewWindow) {
  ASSERT_NO_FATAL_FAILURE(StartAll());
  ScheduleGuid id;
  ASSERT_EQ(client.CreateSchedule(service.Job("later", FarStart()), id), 0u) << client.LastError().text;
  const std::string pipe = service.Jobs() + "/ran";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  const int reader = open(pipe.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  ASSERT_GE(reader, 0);
  const std::int64_t start = platform::NowSeconds() + 3;
  ASSERT_EQ(client.ModifySchedule(id, service.Job("soon", start, "echo ran > " + pipe)), 0u) << client.LastError().text;
  pollfd written = {reader, POLLIN, 0};
  EXPECT_EQ(poll(&written, 1, static_cast<int>(kPatience)), 1) << service.Log();
  close(reader);
}

TEST_F(Service, OperationsOnNodesDoTheirLocalStepAndNoneOfAMachinesOwnAccountLeaves) {
  ASSERT_NO_FATAL_FAILURE(StartAll());
  NodeResults results = {7};
  ScheduleGuid id;
  const NodeNames here = {u"localhost"};
  EXPECT_EQ(client.CreateScheduleOnNodes(service.Job("n", FarStart()), id, 1, here, results), 0u);
  EXPECT_THAT(results, ElementsAre(0));
  EXPECT_EQ(Count(), 1u);
  EXPECT_EQ(client.ModifyScheduleOnNodes(id, service.Job("n", FarStart()), 1, here, results), 0u);
  EXPECT_EQ(client.PerformOperationOnNodes(u"/bin/true", 1, here, results), 0u);
  EXPECT_THAT(results, ElementsAre(1));  // no local step
  results = {7, 7};
  EXPECT_EQ(client.DeleteScheduleOnNodes(id, 2, {u"127.0.0.2", u"localhost"}, results), 1u);
  EXPECT_THAT(results, ElementsAre(1, 0));
  EXPECT_EQ(Count(), 0u);
  EXPECT_THAT(service.Log(), HasSubstr("Scheduler service is running in the localsystem account."));
  EXPECT_EQ(client.DeleteScheduleOnNodes(id, 0, {}, results), 0x80040211u);
  EXPECT_EQ(client.DeleteScheduleOnNodes(id, 1, {u"LOCALHOST"}, results), 0x80040212u);
}

TEST_F(Service, UpdateListTakesTheKnownTypesAndLeavesTheOutputs) {
  ASSERT_NO_FATAL_FAILURE(StartAll());
  std::uint32_t count = 42;
  std::vector<std::u16string> ids = {u"x"};
  for (const std::int32_t type : {0, 1, 2}) EXPECT_EQ(client.UpdateList(type, u"value", count, ids), 0u) << type;
  EXPECT_EQ(client.UpdateList(3, u"value", count, ids), 1u);
  EXPECT_EQ(count, 42u);
  EXPECT_THAT(ids, ElementsAre(u"x"));
}

TEST_F(Service, AnybodysNotificationsReachTheSubscribers) {
  ASSERT_NO_FATAL_FAILURE(StartAll());
  auto events = std::make_shared<EventLog>();
  std::uint32_t cookie = 0;
  ASSERT_EQ(client.Advise(events, cookie), 0u);
  EXPECT_EQ(client.Notify_NextTimeWindow_Modify(CLSID_SchedulerService, -1), 0u);
  const auto window = RunningService::WaitFor(client, *events, "NextTimeWindow_Modify");
  ASSERT_TRUE(window);
  EXPECT_TRUE(window->id == CLSID_SchedulerService);
  EXPECT_EQ(window->window, -1);
  EXPECT_EQ(client.Notify_SystemTime_Change(2, {u"a", u"b"}, {1, -1}), 0u);
  const auto change = RunningService::WaitFor(client, *events, "SystemTime_Change");
  ASSERT_TRUE(change);
  EXPECT_EQ(change->window, 2);
}

// --- the bus ---

TEST_F(Service, ALostBusIsComeBackToAndJobsGoOnMeanwhile) {
  ASSERT_NO_FATAL_FAILURE(StartAll());
  ScheduleGuid id;
  const std::string pipe = service.Jobs() + "/ran";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  const int reader = open(pipe.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  ASSERT_GE(reader, 0);
  const std::int64_t start = platform::NowSeconds() + 3;
  ASSERT_EQ(client.CreateSchedule(service.Job("soon", start, "echo ran > " + pipe), id), 0u);
  service.Bus().Kill();
  pollfd written = {reader, POLLIN, 0};
  ASSERT_EQ(poll(&written, 1, static_cast<int>(kPatience)), 1) << service.Log();
  close(reader);
  std::uint32_t count = 0;
  ScheduleList list;
  EXPECT_NE(client.ListSchedule(count, list), 0u);
  EXPECT_EQ(client.LastError().name, platform::kBusErrorDisconnected);

  service.Bus().Restart();
  ASSERT_TRUE(service.WaitForName()) << service.Log();
  ASSERT_NO_FATAL_FAILURE(service.Connect(client));
  EXPECT_EQ(Read(id).lNextTimeWindow, start + kDay);
  EXPECT_THAT(service.Log(), HasSubstr("Bus: connected again"));
}

TEST_F(Service, StartedBeforeItsBusItComesToItLater) {
  ASSERT_NO_FATAL_FAILURE(service.Register());
  service.Bus().Kill();
  service.Launch({"--foreground"});
  service.Bus().Restart();
  ASSERT_TRUE(service.WaitForName()) << service.Output();
  ASSERT_NO_FATAL_FAILURE(service.Connect(client));
  EXPECT_EQ(Count(), 0u);
}

TEST_F(Service, WithoutTheServiceACallSaysSo) {
  ASSERT_NO_FATAL_FAILURE(service.Connect(client));
  EXPECT_EQ(client.Refresh(), 0x800708CAu);
  EXPECT_EQ(client.LastError().name, platform::kBusErrorServiceUnknown);
  EXPECT_NE(client.LastError().text, "");
}

TEST_F(Service, WithoutABusAClientIsNotConnected) {
  EXPECT_NE(client.Connect(platform::BusAddress::Explicit("unix:path=/nonexistent/bus")), 0u);
  EXPECT_NE(client.LastError().text, "");
  EXPECT_FALSE(client.IsConnected());
  EXPECT_NE(client.Refresh(), 0u);
  EXPECT_EQ(client.LastError().name, platform::kBusErrorDisconnected);
}

TEST_F(Service, SinksOfAClientHaveCookiesAndSlotsOfTheirOwn) {
  ASSERT_NO_FATAL_FAILURE(StartAll());
  auto first = std::make_shared<EventLog>();
  auto second = std::make_shared<EventLog>();
  std::uint32_t firstCookie = 0;
  std::uint32_t secondCookie = 0;
  EXPECT_EQ(client.Advise(nullptr, firstCookie), kStatusNoSink);
  EXPECT_EQ(client.Unadvise(1), kStatusNoSuchSubscription);
  ASSERT_EQ(client.Advise(first, firstCookie), 0u);
  ASSERT_EQ(client.Advise(second, secondCookie), 0u);
  EXPECT_NE(firstCookie, secondCookie);
  ASSERT_EQ(client.Unadvise(firstCookie), 0u);
  EXPECT_EQ(client.Unadvise(firstCookie), kStatusNoSuchSubscription);
  EXPECT_EQ(client.Notify_NextTimeWindow_Modify(CLSID_SchedulerService, 5), 0u);
  ASSERT_TRUE(RunningService::WaitFor(client, *second, "NextTimeWindow_Modify"));
  EXPECT_TRUE(first->events.empty());
}

}  // namespace
}  // namespace qx::testing
