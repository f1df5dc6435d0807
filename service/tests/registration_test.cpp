#include "service/service_registration.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

#include "platform/host.h"
#include "platform/service_record.h"
#include "service/tests/service_fixture.h"

namespace qx {
namespace {

using platform::ERROR_FILE_NOT_FOUND;
using platform::ERROR_SUCCESS;
using platform::Hive;

const std::u16string kServiceKey = u"SYSTEM\\CurrentControlSet\\Services\\QxSchedService";

// A state directory that nothing was registered in.
class Registration : public testing::ServiceFixture {
 protected:
  void SetUp() override {
    ServiceFixture::SetUp();
    for (const auto path : {kVolumeManagerKey, kProviderKey, kSchedulesKey}) {
      ASSERT_EQ(platform::DeleteKey(Hive::kLocalMachine, path), ERROR_SUCCESS);
    }
  }
  // A text value; nothing without one.
  static std::optional<std::u16string> Value(Hive hive, std::u16string_view keyPath, std::u16string_view name) {
    platform::RegistryKey key;
    std::u16string value;
    if (platform::OpenKey(hive, keyPath, platform::KEY_READ, key) != ERROR_SUCCESS) return std::nullopt;
    if (platform::ReadRegistryString(key, name, value) != ERROR_SUCCESS) return std::nullopt;
    return value;
  }
  static bool HasKey(Hive hive, std::u16string_view keyPath) {
    platform::RegistryKey key;
    return platform::OpenKey(hive, keyPath, platform::KEY_READ, key) == ERROR_SUCCESS;
  }
  // Runs `step` with what it writes to standard error.
  template <class Step>
  static std::string ErrorOutput(const Step& step) {
    ::testing::internal::CaptureStderr();
    step();
    return ::testing::internal::GetCapturedStderr();
  }
};

struct ValueCase {
  int line;
  Hive hive;
  std::u16string key;
  std::u16string name;
  std::u16string value;
};

TEST_F(Registration, WritesTheKeysOfTheSuiteAndTheClass) {
  ASSERT_EQ(RegisterServer(false), ERROR_SUCCESS);
  std::u16string program;
  ASSERT_EQ(platform::ProgramFilePath(program), ERROR_SUCCESS);
  const std::u16string application = u"{14334370-2F7E-45E1-91F1-683AC3056172}";
  const std::u16string classId = u"{99E6EA90-FFAE-46F2-B940-62519E6E0FD6}";
  const std::u16string library = u"{F1D593D8-0CEC-4569-8943-55C609CFD2F4}";
  const ValueCase kCases[] = {
      {__LINE__, Hive::kLocalMachine, u"SOFTWARE\\KORVANE\\QxSvc\\CurrentVersion\\VolumeManager", u"INSTALLDIR",
       testing::Wide(m_folder) + u"\\"},
      {__LINE__, Hive::kClassesRoot, u"AppID\\" + application, u"", u"QxSchedService"},
      {__LINE__, Hive::kClassesRoot, u"AppID\\QxSchedService.EXE", u"AppID", application},
      {__LINE__, Hive::kClassesRoot, u"QxSchedService.SchedulerService.1", u"", u"SchedulerService Class"},
      {__LINE__, Hive::kClassesRoot, u"QxSchedService.SchedulerService.1\\CLSID", u"", classId},
      {__LINE__, Hive::kClassesRoot, u"QxSchedService.SchedulerService", u"", u"SchedulerService Class"},
      {__LINE__, Hive::kClassesRoot, u"QxSchedService.SchedulerService\\CLSID", u"", classId},
      {__LINE__, Hive::kClassesRoot, u"QxSchedService.SchedulerService\\CurVer", u"",
       u"QxSchedService.SchedulerService.1"},
      {__LINE__, Hive::kClassesRoot, u"CLSID\\" + classId, u"", u"SchedulerService Class"},
      {__LINE__, Hive::kClassesRoot, u"CLSID\\" + classId, u"AppID", application},
      {__LINE__, Hive::kClassesRoot, u"CLSID\\" + classId + u"\\ProgID", u"", u"QxSchedService.SchedulerService.1"},
      {__LINE__, Hive::kClassesRoot, u"CLSID\\" + classId + u"\\VersionIndependentProgID", u"",
       u"QxSchedService.SchedulerService"},
      {__LINE__, Hive::kClassesRoot, u"CLSID\\" + classId + u"\\LocalServer32", u"", program},
      {__LINE__, Hive::kClassesRoot, u"CLSID\\" + classId + u"\\TypeLib", u"", library},
      {__LINE__, Hive::kClassesRoot, u"TypeLib\\" + library + u"\\1.0", u"", u"QXSCHEDSERVICELib"},
      {__LINE__, Hive::kClassesRoot, u"TypeLib\\" + library + u"\\1.0\\0\\win32", u"", program},
      {__LINE__, Hive::kClassesRoot, u"Interface\\{5D5A7ABD-0414-4C56-92F9-B33B7B48E1AC}", u"", u"ISchedulerService"},
      {__LINE__, Hive::kClassesRoot, u"Interface\\{B6F846B1-B6E7-4F33-A64B-5DAD103EA870}\\TypeLib", u"Version", u"1.0"},
  };
  for (const ValueCase& c : kCases) {
    EXPECT_TRUE(Value(c.hive, c.key, c.name) == c.value) << "line " << c.line;
  }
  EXPECT_TRUE(HasKey(Hive::kLocalMachine, kProviderKey));
  EXPECT_TRUE(HasKey(Hive::kLocalMachine, kSchedulesKey));
  EXPECT_FALSE(Value(Hive::kClassesRoot, ApplicationKey(), u"LocalService"));
  EXPECT_FALSE(HasKey(Hive::kLocalMachine, kServiceKey));
}

TEST_F(Registration, AsAServiceItWritesTheServicesRecordOnce) {
  ASSERT_EQ(RegisterServer(true), ERROR_SUCCESS);
  EXPECT_TRUE(Value(Hive::kClassesRoot, ApplicationKey(), u"LocalService") == u"Korvane Scheduler Service");
  EXPECT_TRUE(Value(Hive::kClassesRoot, ApplicationKey(), u"ServiceParameters") == u"-Service");
  EXPECT_TRUE(Value(Hive::kLocalMachine, kServiceKey, u"ObjectName") == u"LocalSystem");
  EXPECT_TRUE(Value(Hive::kLocalMachine, kServiceKey, u"Description") == u"Korvane Scheduler Service");
  EXPECT_TRUE(Value(Hive::kLocalMachine, kServiceKey, u"DisplayName") == u"Korvane Scheduler Service");
  std::u16string program;
  ASSERT_EQ(platform::ProgramFilePath(program), ERROR_SUCCESS);
  EXPECT_TRUE(Value(Hive::kLocalMachine, kServiceKey, u"ImagePath") == u"\"" + program + u"\"");
  EXPECT_TRUE(Value(Hive::kLocalMachine, kServiceKey, u"DependOnService") == u"RPCSS");
  platform::RegistryKey key;
  ASSERT_EQ(platform::OpenKey(Hive::kLocalMachine, kServiceKey, platform::KEY_ALL_ACCESS, key), ERROR_SUCCESS);
  for (const auto& [name, expected] :
       {std::pair(u"Type", 16u), std::pair(u"Start", 2u), std::pair(u"ErrorControl", 1u)}) {
    std::uint32_t value = 99;
    EXPECT_EQ(platform::ReadRegistryDword(key, name, value), ERROR_SUCCESS);
    EXPECT_EQ(value, expected) << testing::Narrow(name);
  }
  // Registered again, the record keeps what was configured.
  ASSERT_EQ(platform::SetString(key, u"ObjectName", u"operator"), ERROR_SUCCESS);
  ASSERT_EQ(key.Close(), ERROR_SUCCESS);
  ASSERT_EQ(RegisterServer(true), ERROR_SUCCESS);
  EXPECT_TRUE(Value(Hive::kLocalMachine, kServiceKey, u"ObjectName") == u"operator");
}

TEST_F(Registration, AsAPlainServerItIsNoServiceAnyMore) {
  ASSERT_EQ(RegisterServer(true), ERROR_SUCCESS);
  ASSERT_EQ(RegisterServer(false), ERROR_SUCCESS);
  EXPECT_FALSE(Value(Hive::kClassesRoot, ApplicationKey(), u"LocalService"));
}

TEST_F(Registration, UnregisteringRemovesTheEntriesAndKeepsTheSchedules) {
  ASSERT_EQ(RegisterServer(true), ERROR_SUCCESS);
  const ScheduleGuid id = Create(Daily());
  ASSERT_EQ(UnregisterServer(), ERROR_SUCCESS);
  for (const std::u16string_view path : {u"AppID", u"CLSID", u"TypeLib", u"Interface"}) {
    platform::RegistryKey key;
    platform::KeyInfo info;
    ASSERT_EQ(platform::OpenKey(Hive::kClassesRoot, path, platform::KEY_READ, key), ERROR_SUCCESS);
    ASSERT_EQ(platform::QueryInfoKey(key, info), ERROR_SUCCESS);
    EXPECT_EQ(info.subKeyCount, 0u) << testing::Narrow(path);
  }
  EXPECT_FALSE(HasKey(Hive::kClassesRoot, kProgId));
  EXPECT_FALSE(HasKey(Hive::kClassesRoot, kVersionIndependentProgId));
  EXPECT_FALSE(HasKey(Hive::kLocalMachine, kServiceKey));
  EXPECT_TRUE(ServiceFixture::HasKey(id));
  EXPECT_EQ(UnregisterServer(), ERROR_SUCCESS);  // a second time there is nothing to do
}

// --- the stop of an unregistration ---

// Blocks the stop control, so that it can be seen to have come.
class StopControlKept {
 public:
  StopControlKept() {
    sigemptyset(&m_stop);
    sigaddset(&m_stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &m_stop, &m_before);
  }
  ~StopControlKept() {
    (void)HasCome();
    pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
  }
  StopControlKept(const StopControlKept&) = delete;
  StopControlKept& operator=(const StopControlKept&) = delete;
  // To this process, since the last call.
  [[nodiscard]] bool HasCome() const {
    const timespec none = {};
    return sigtimedwait(&m_stop, nullptr, &none) == SIGTERM;
  }
  // To another process that was started meanwhile.
  [[nodiscard]] static bool HasComeTo(pid_t process) {
    std::ifstream status("/proc/" + std::to_string(process) + "/status");
    for (std::string line; std::getline(status, line);) {
      if (line.starts_with("ShdPnd:")) return line.find_first_not_of("ShdPnd:\t 0") != std::string::npos;
    }
    ADD_FAILURE() << "no process " << process;
    return false;
  }

 private:
  sigset_t m_stop{};
  sigset_t m_before{};
};

void StoreProcess(pid_t process) {
  platform::RegistryKey key;
  ASSERT_EQ(platform::CreateKey(Hive::kLocalMachine, kProviderKey, platform::KEY_ALL_ACCESS, key), ERROR_SUCCESS);
  ASSERT_EQ(platform::SetDword(key, u"ProcId", static_cast<std::uint32_t>(process)), ERROR_SUCCESS);
  ASSERT_EQ(key.Close(), ERROR_SUCCESS);
}

TEST_F(Registration, UnregisteringStopsTheServiceThatWorksOnTheStateDirectory) {
  const StopControlKept stop;
  ASSERT_EQ(RegisterServer(true), ERROR_SUCCESS);
  ASSERT_NO_FATAL_FAILURE(StoreProcess(getpid()));
  ASSERT_EQ(UnregisterServer(), ERROR_SUCCESS);
  EXPECT_FALSE(stop.HasCome()) << "nobody works on it";
  platform::File lock;
  ASSERT_EQ(platform::LockStateDirectory(lock), ERROR_SUCCESS);
  ASSERT_EQ(RegisterServer(true), ERROR_SUCCESS);
  ASSERT_EQ(UnregisterServer(), ERROR_SUCCESS);
  EXPECT_TRUE(stop.HasCome());
}

// A service that was killed leaves its number in the store, where it stands until the next one has loaded its
// schedules.
TEST_F(Registration, UnregisteringStopsNoProcessThatGotAnEarlierServicesNumber) {
  const StopControlKept stop;
  ASSERT_EQ(RegisterServer(true), ERROR_SUCCESS);
  const pid_t stranger = fork();
  if (stranger == 0) {
    for (;;) pause();
  }
  ASSERT_GT(stranger, 0);
  platform::File lock;  // of a service that starts
  ASSERT_EQ(platform::LockStateDirectory(lock), ERROR_SUCCESS);
  ASSERT_NO_FATAL_FAILURE(StoreProcess(stranger));
  EXPECT_EQ(UnregisterServer(), ERROR_SUCCESS);
  EXPECT_FALSE(StopControlKept::HasComeTo(stranger));
  EXPECT_FALSE(stop.HasCome());
  ASSERT_EQ(kill(stranger, SIGKILL), 0);
  EXPECT_EQ(waitpid(stranger, nullptr, 0), stranger);
}

struct MessageCase {
  int line;
  platform::Operation operation;
  int call;
  bool registers;
  const char* text;
};

TEST_F(Registration, FailuresOfTheServiceManagerAreToldUnderTheServicesName) {
  using platform::Operation;
  const MessageCase kCases[] = {
      {__LINE__, Operation::kOpenServiceManager, 1, true, "Korvane Scheduler Service: Couldn't open service manager\n"},
      {__LINE__, Operation::kCreateService, 1, true, "Korvane Scheduler Service: Couldn't create service\n"},
      {__LINE__, Operation::kOpenServiceManager, 1, false,
       "Korvane Scheduler Service: Couldn't open service manager\n"},
      {__LINE__, Operation::kOpenService, 1, false, "Korvane Scheduler Service: Couldn't open service\n"},
      {__LINE__, Operation::kDeleteService, 1, false, "Korvane Scheduler Service: Service could not be deleted\n"},
  };
  for (const MessageCase& c : kCases) {
    if (!c.registers) {
      ASSERT_EQ(RegisterServer(true), ERROR_SUCCESS);
    }
    const auto plan = platform::FaultPlan::FailCall(c.operation, c.call, platform::ERROR_ACCESS_DENIED);
    platform::ErrorCode code = ERROR_SUCCESS;
    EXPECT_EQ(ErrorOutput([&] { code = c.registers ? RegisterServer(true) : UnregisterServer(); }), c.text)
        << "line " << c.line;
    EXPECT_EQ(code, platform::ERROR_ACCESS_DENIED) << "line " << c.line;
    // The entries are made or removed all the same.
    EXPECT_EQ(HasKey(Hive::kClassesRoot, kProgId), c.registers) << "line " << c.line;
  }
}

TEST_F(Registration, AStoreThatTakesNothingIsToldOf) {
  const auto plan = platform::FaultPlan::FailCall(platform::Operation::kRegSetValue, 1, platform::ERROR_DISK_FULL,
                                                  platform::kFromThenOn);
  platform::ErrorCode code = ERROR_SUCCESS;
  EXPECT_EQ(ErrorOutput([&] { code = RegisterServer(false); }),
            "Korvane Scheduler Service: Couldn't write the registry\n");
  EXPECT_EQ(code, platform::ERROR_DISK_FULL);
}

TEST_F(Registration, MakesTheFoldersThatAreMissing) {
  ASSERT_EQ(CreateStateFolders(), ERROR_SUCCESS);
  for (const char* name :
       {"/logs", "/drives", "/Documents and Settings/All Users/Application Data/KORVANE/QxSnapExchangeBackup"}) {
    EXPECT_TRUE(std::filesystem::is_directory(m_folder + name)) << name;
  }
  const auto plan = platform::FaultPlan::FailCall(platform::Operation::kCreateDirectory, 2, platform::ERROR_DISK_FULL);
  EXPECT_EQ(CreateStateFolders(), platform::ERROR_DISK_FULL);
}

TEST_F(Registration, TheAccountOfAServiceIsInItsRecord) {
  std::u16string account;
  EXPECT_EQ(platform::QueryServiceAccount(kServiceName, account), ERROR_FILE_NOT_FOUND);
  ASSERT_EQ(RegisterServer(true), ERROR_SUCCESS);
  EXPECT_EQ(platform::QueryServiceAccount(kServiceName, account), ERROR_SUCCESS);
  EXPECT_EQ(account, u"LocalSystem");
  EXPECT_EQ(platform::CreateServiceRecord(kServiceName, {}), platform::ERROR_ALREADY_EXISTS);
}

}  // namespace
}  // namespace qx
