#include "service/service_module.h"

#include <filesystem>

#include "platform/testing/temporary_folder.h"
#include "platform/text.h"
#include "service/service_registration.h"
#include "service/tests/written_events.h"

namespace qx {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class ServiceModule : public testing::WrittenEvents {
 protected:
  std::uint32_t ProcessRef() {
    platform::RegistryKey key;
    std::uint32_t value = 0;
    EXPECT_EQ(platform::OpenKey(platform::Hive::kLocalMachine, kProviderKey, platform::KEY_READ, key), 0u);
    EXPECT_EQ(platform::ReadRegistryDword(key, u"ProcId", value), 0u);
    return value;
  }
};

TEST_F(ServiceModule, OnlyTheStopControlDoesAnythingAndUnknownOnesAreWrittenAsEvents) {
  struct Case {
    std::uint32_t control;
    bool quits;
    bool event;
  };
  const Case kCases[] = {
      {platform::kServiceControlPause, false, false},
      {platform::kServiceControlContinue, false, false},
      {platform::kServiceControlInterrogate, false, false},
      {platform::kServiceControlShutdown, false, false},
      {0, false, true},
      {6, false, true},
      {200, false, true},
  };
  CServiceModule module{ServiceOptions()};
  for (const Case& c : kCases) {
    m_written.clear();
    module.HandleControl(c.control);
    EXPECT_EQ(m_written.size(), c.event ? 1u : 0u) << c.control;
    if (c.event && !m_written.empty()) {
      EXPECT_EQ(m_written[0].number, 0xE8110003u);
      EXPECT_EQ(m_written[0].text, "");
      EXPECT_EQ(m_written[0].source, "Korvane Scheduler Service");
    }
    EXPECT_EQ(TakeEvent(), -1) << c.control;
  }
}

TEST_F(ServiceModule, ItsStatusTextNamesTheNextJobInLocalTime) {
  EXPECT_EQ(RunningText(kNoWakeUp), "running; no job is due");
  EXPECT_EQ(RunningText(0), "running; no job is due");
  EXPECT_EQ(RunningText(testing::kPresent), "running; next job at 2025-01-01 08:00:00");
  const platform::ScopedZone zone("Europe/Berlin");
  EXPECT_EQ(RunningText(testing::kPresent), "running; next job at 2025-01-01 09:00:00");
}

// The events of a module are made by its start; these stand for them.
TEST_F(ServiceModule, ASystemShutdownLeavesTheShutdownEventAndTheProcessReference) {
  CServiceModule::SetProcessRef(false);
  CServiceModule module{ServiceOptions()};
  module.HandleControl(platform::kServiceControlShutdown);
  EXPECT_EQ(TakeEvent(), -1);
  EXPECT_EQ(ProcessRef(), platform::CurrentProcessId());
}

TEST_F(ServiceModule, TheProcessReferenceIsSetAndReset) {
  CServiceModule::SetProcessRef(false);
  EXPECT_EQ(ProcessRef(), platform::CurrentProcessId());
  CServiceModule::SetProcessRef(true);
  EXPECT_EQ(ProcessRef(), 0u);
  EXPECT_THAT(m_log.texts(2),
              ElementsAre("CServiceModule::SetProcessRef , PID set", "CServiceModule::SetProcessRef , res = 0l",
                          "CServiceModule::SetProcessRef , PID reseted", "CServiceModule::SetProcessRef , res = 0l"));
}

TEST_F(ServiceModule, AMissingProviderKeyIsLoggedAndNotMade) {
  ASSERT_EQ(platform::DeleteKey(platform::Hive::kLocalMachine, kProviderKey), 0u);
  CServiceModule::SetProcessRef(false);
  EXPECT_THAT(m_log.texts(2), ElementsAre("CServiceModule::SetProcessRef , RegOpenKeyEx failed hr = 2l"));
  platform::RegistryKey key;
  EXPECT_EQ(platform::OpenKey(platform::Hive::kLocalMachine, kProviderKey, platform::KEY_READ, key),
            platform::ERROR_FILE_NOT_FOUND);
}

TEST_F(ServiceModule, ARefusedBufferLeavesTheProcessReference) {
  CServiceModule::SetProcessRef(false);
  m_log.Clear();
  const auto plan = platform::FaultPlan::FailCall(platform::Operation::kAllocate, 1, platform::ERROR_OUTOFMEMORY,
                                                  platform::kOnce, "SetProcessRef");
  CServiceModule::SetProcessRef(true);
  EXPECT_EQ(plan.hits(), 1);
  EXPECT_THAT(m_log.texts(2), ElementsAre("CServiceModule::SetProcessRef pBuff = NULL"));
  EXPECT_EQ(ProcessRef(), platform::CurrentProcessId());
}

// A state directory that modules register and start on by themselves.
class ServiceStart : public ::testing::Test {
 protected:
  void SetUp() override {
    platform::InstallEventSink([this](const platform::LoggedEvent& event) { m_written.push_back(event.number); });
  }
  void TearDown() override {
    platform::InstallEventSink(nullptr);
    (void)platform::CloseRegistryStore();
    platform::SetStateDirectory({});
  }
  ServiceOptions Options(std::string words = {}) const {
    ServiceOptions options;
    options.root = m_folder + "/state";
    options.foreground = true;
    options.words = std::move(words);
    return options;
  }
  ZepFoundation::CapturedServiceLog m_log;
  const platform::TemporaryFolder m_temporary{"qx-start"};
  const std::string m_folder = m_temporary.Path();
  std::vector<std::uint32_t> m_written;
};

TEST_F(ServiceStart, AControlHandlerThatCanNotBeInstalledEndsItWithAnEvent) {
  ASSERT_EQ(CServiceModule(Options("-RegServer")).Main(), 0);
  const auto plan = platform::FaultPlan::FailCall(platform::Operation::kRegisterServiceHandler, 1, 1063);
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(CServiceModule(Options()).Main(), 1);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "Korvane Scheduler Service: The control handler can't be installed\n");
  EXPECT_EQ(plan.hits(), 1);
  EXPECT_THAT(m_written, ElementsAre(0xE8110001u));  // neither started nor stopped
}

TEST_F(ServiceStart, AnApplicationKeyThatCanNotBeOpenedEndsItWithTheSystemsCode) {
  ASSERT_EQ(CServiceModule(Options("-RegServer")).Main(), 0);
  const auto plan = platform::FaultPlan::FailCall(platform::Operation::kRegOpenKey, 1, platform::ERROR_ACCESS_DENIED,
                                                  platform::kOnce, platform::Utf8FromWide(ApplicationKey()));
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(CServiceModule(Options()).Main(), static_cast<int>(platform::ERROR_ACCESS_DENIED));
  EXPECT_THAT(::testing::internal::GetCapturedStderr(), ::testing::HasSubstr("(error 5)"));
  EXPECT_THAT(m_written, IsEmpty());
}

TEST_F(ServiceStart, AStateDirectoryWhoseNameIsNoTextIsRefused) {
  for (const char* words : {"", "-RegServer"}) {
    ServiceOptions options = Options(words);
    options.root = m_folder + "/st\xE4te";
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(CServiceModule(std::move(options)).Main(), 1);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              "Korvane Scheduler Service: The state directory " + m_folder +
                  "/st\xEF\xBF\xBDte can't be used: its name isn't valid UTF-8\n");
    EXPECT_TRUE(std::filesystem::is_empty(m_folder));
  }
}

TEST_F(ServiceStart, AStateDirectoryOfAnotherAccountIsToldAsSuch) {
  ASSERT_EQ(CServiceModule(Options("-RegServer")).Main(), 0);
  const std::string directory = m_folder + "/state";
  const auto plan = platform::FaultPlan::Ask([&](int, platform::Operation operation, std::string_view detail) {
    const bool isThere = (operation == platform::Operation::kFileExists && detail == directory + "/registry.db") ||
                         (operation == platform::Operation::kDirectoryExists && detail == directory);
    return isThere ? platform::ERROR_ACCESS_DENIED : platform::ERROR_SUCCESS;
  });
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(CServiceModule(Options()).Main(), 1);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "Korvane Scheduler Service: The state directory " + directory + " can't be looked into by this account\n");
}

struct RefusedStore {
  std::uint32_t code;
  bool isDamaged;
};

TEST_F(ServiceStart, AStoreThatOnlyCanNotBeOpenedIsNotCalledDamaged) {
  ASSERT_EQ(CServiceModule(Options("-RegServer")).Main(), 0);
  const std::string store = m_folder + "/state/registry.db";
  const RefusedStore kCases[] = {{platform::ERROR_NOT_SUPPORTED, false},  // of a newer version
                                 {platform::ERROR_BUSY, false},
                                 {platform::ERROR_ACCESS_DENIED, false},
                                 {platform::ERROR_NOT_ENOUGH_MEMORY, false},
                                 {platform::ERROR_REGISTRY_IO_FAILED, false},
                                 {platform::ERROR_REGISTRY_CORRUPT, true}};
  for (const RefusedStore& c : kCases) {
    const auto plan =
        platform::FaultPlan::FailCall(platform::Operation::kRegOpenStore, 1, c.code, platform::kFromThenOn, store);
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(CServiceModule(Options()).Main(), 1);
    const std::string told = ::testing::internal::GetCapturedStderr();
    EXPECT_THAT(told, ::testing::HasSubstr(store + (c.isDamaged ? " is damaged" : " can't be opened, error " +
                                                                                      std::to_string(c.code))));
    EXPECT_EQ(told.find("remove it") != std::string::npos, c.isDamaged) << told;
    EXPECT_EQ(platform::FileExists(store + ".damaged"), c.isDamaged) << c.code;
  }
  EXPECT_THAT(m_written, IsEmpty());
}

}  // namespace
}  // namespace qx
