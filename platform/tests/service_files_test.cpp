#include "platform/service_files.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>

#include "platform/file.h"
#include "platform/testing/fault.h"
#include "platform/testing/private_bus.h"
#include "platform/testing/temporary_folder.h"

namespace platform {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class ServiceFiles : public testing::Test {
 protected:
  void SetUp() override {
    m_installation.destination = m_folder;
    m_installation.service = "Sched";
    m_installation.description = "A scheduler";
    m_installation.command = {"/usr/bin/sched", "--root", "/var/lib/sched"};
    m_installation.stateDirectory = "/var/lib/sched";
    m_installation.busName = "com.example.Sched1";
    m_installation.group = "schedulers";
  }

  // All files below the folder, in order of names.
  std::vector<std::string> Names() const {
    std::vector<std::string> names;
    for (const auto& entry : fs::recursive_directory_iterator(m_folder)) {
      if (!entry.is_directory()) names.push_back(entry.path().string().substr(m_folder.size()));
    }
    std::sort(names.begin(), names.end());
    return names;
  }
  std::string Text(const std::string& name) const {
    std::string text;
    EXPECT_EQ(ReadWholeFile(m_folder + name, text), ERROR_SUCCESS) << name;
    return text;
  }
  static mode_t Mode(const std::string& name) {
    struct stat info {};
    EXPECT_EQ(stat(name.c_str(), &info), 0) << name;
    return info.st_mode & 07777;
  }
  const TemporaryFolder m_temporary{"qx-files"};
  const std::string m_folder = m_temporary.Path();
  ServerInstallation m_installation;
  std::string m_failed;
};

constexpr const char* kUnit = "/usr/lib/systemd/system/Sched.service";
constexpr const char* kActivation = "/usr/share/dbus-1/system-services/com.example.Sched1.service";
constexpr const char* kPolicy = "/usr/share/dbus-1/system.d/com.example.Sched1.conf";
constexpr const char* kGroup = "/usr/lib/sysusers.d/schedulers.conf";
constexpr const char* kAccountUnit = "/etc/systemd/system/Sched.service.d/account.conf";
constexpr const char* kAccountPolicy = "/etc/dbus-1/system.d/com.example.Sched1-account.conf";

TEST_F(ServiceFiles, AServiceHasAUnitAStartOnDemandAPolicyAndAGroup) {
  ASSERT_EQ(InstallFiles(m_installation, m_failed), ERROR_SUCCESS);
  EXPECT_THAT(Names(), ElementsAre(kUnit, kGroup, kActivation, kPolicy));
  for (const std::string& name : Names()) EXPECT_EQ(Mode(m_folder + name), 0644u) << name;
  EXPECT_EQ(Mode(m_folder + "/usr/lib/systemd/system"), 0755u);
  EXPECT_THAT(Text(kActivation), HasSubstr("SystemdService=Sched.service\n"));
}

TEST_F(ServiceFiles, AFencedPortIsADropInOfTheUnitAndGoesWithIt) {
  constexpr const char* kFence = "/usr/lib/systemd/system/Sched.service.d/10-node-channel-fence.conf";
  m_installation.fencedPort = 4888;
  ASSERT_EQ(InstallFiles(m_installation, m_failed), ERROR_SUCCESS);
  EXPECT_THAT(Names(), ElementsAre(kUnit, kFence, kGroup, kActivation, kPolicy));
  EXPECT_EQ(Text(kFence), "[Service]\nSocketBindDeny=tcp:4888\n");
  m_installation.asService = false;
  ASSERT_EQ(InstallFiles(m_installation, m_failed), ERROR_SUCCESS);
  EXPECT_THAT(Names(), ElementsAre(kGroup, kActivation, kPolicy));
  m_installation.asService = true;
  ASSERT_EQ(InstallFiles(m_installation, m_failed), ERROR_SUCCESS);
  ASSERT_EQ(RemoveFiles(m_installation, m_failed), ERROR_SUCCESS);
  EXPECT_THAT(Names(), IsEmpty());
  EXPECT_FALSE(fs::exists(m_folder + "/usr/lib/systemd/system/Sched.service.d"));
}

TEST_F(ServiceFiles, APlainServerHasNoUnitAndTakesAnEarlierOneAway) {
  ASSERT_EQ(InstallFiles(m_installation, m_failed), ERROR_SUCCESS);
  m_installation.asService = false;
  ASSERT_EQ(InstallFiles(m_installation, m_failed), ERROR_SUCCESS);
  EXPECT_THAT(Names(), ElementsAre(kGroup, kActivation, kPolicy));
  EXPECT_THAT(Text(kActivation), Not(HasSubstr("SystemdService")));
}

TEST_F(ServiceFiles, OthersReadTheFilesWhateverTheMaskOfTheInstallerIs) {
  const mode_t before = umask(077);
  EXPECT_EQ(InstallFiles(m_installation, m_failed), ERROR_SUCCESS);
  EXPECT_EQ(InstallAccount(m_installation, "daemon", m_failed), ERROR_SUCCESS);
  umask(before);
  for (const auto& entry : fs::recursive_directory_iterator(m_folder)) {
    EXPECT_EQ(Mode(entry.path().string()), entry.is_directory() ? 0755u : 0644u) << entry.path();
  }
}

// A bus daemon looks at a file as soon as it bears its name, and not again when its mode changes.
TEST_F(ServiceFiles, AFileCanBeReadByOthersBeforeItBearsItsName) {
  std::map<std::string, mode_t> modes;
  {
    const auto plan = FaultPlan::Ask([&](int, Operation operation, std::string_view) {
      if (operation == Operation::kRenameFile) {
        for (const std::string& name : Names()) {
          if (name.ends_with(".new")) modes[name] = Mode(m_folder + name);
        }
      }
      return ERROR_SUCCESS;
    });
    ASSERT_EQ(InstallFiles(m_installation, m_failed), ERROR_SUCCESS);
    ASSERT_EQ(InstallAccount(m_installation, "daemon", m_failed), ERROR_SUCCESS);
  }
  EXPECT_EQ(modes.size(), 6u);
  for (const auto& [name, mode] : modes) EXPECT_EQ(mode, 0644u) << name;
}

TEST_F(ServiceFiles, AFileThatOthersCannotReadIsReplaced) {
  ASSERT_EQ(InstallFiles(m_installation, m_failed), ERROR_SUCCESS);
  const std::string policy = m_folder + kPolicy;
  ASSERT_EQ(chmod(policy.c_str(), 0600), 0);
  struct stat before {}, after {};
  ASSERT_EQ(stat(policy.c_str(), &before), 0);
  const int held = open(policy.c_str(), O_RDONLY | O_CLOEXEC);  // so that its number isn't given again
  ASSERT_EQ(InstallFiles(m_installation, m_failed), ERROR_SUCCESS);
  ASSERT_EQ(stat(policy.c_str(), &after), 0);
  close(held);
  EXPECT_EQ(after.st_mode & 07777, 0644u);
  EXPECT_NE(after.st_ino, before.st_ino);
}

TEST_F(ServiceFiles, AFileWhoseModeCannotBeSetIsNotThere) {
  const std::string fresh = m_folder + "/usr/share/dbus-1/system.d/.com.example.Sched1.conf.new";
  {
    const auto plan = FaultPlan::FailCall(Operation::kWriteFile, 2, ERROR_IO_DEVICE, kOnce, fresh);
    EXPECT_EQ(InstallFiles(m_installation, m_failed), ERROR_IO_DEVICE);
    EXPECT_EQ(m_failed, m_folder + kPolicy);
  }
  EXPECT_FALSE(fs::exists(m_folder + kPolicy));
  EXPECT_FALSE(fs::exists(fresh));
  ASSERT_EQ(InstallFiles(m_installation, m_failed), ERROR_SUCCESS);
  EXPECT_EQ(Mode(m_folder + kPolicy), 0644u);
}

TEST_F(ServiceFiles, InstallingTheSameAgainTouchesNothing) {
  ASSERT_EQ(InstallFiles(m_installation, m_failed), ERROR_SUCCESS);
  const auto plan = FaultPlan::FailCall(Operation::kRenameFile, 1, ERROR_DISK_FULL, kFromThenOn);
  EXPECT_EQ(InstallFiles(m_installation, m_failed), ERROR_SUCCESS);
  EXPECT_EQ(plan.hits(), 0);
  m_installation.description = "Another";
  EXPECT_EQ(InstallFiles(m_installation, m_failed), ERROR_DISK_FULL);
  EXPECT_EQ(m_failed, m_folder + kUnit);
}

TEST_F(ServiceFiles, WhicheverCallFailsIsToldWithItsFile) {
  for (int n = 1;; ++n) {
    fs::remove_all(m_folder);
    m_failed.clear();
    auto plan = FaultPlan::FailAnyCall(n, ERROR_DISK_FULL);
    const ErrorCode rc = InstallFiles(m_installation, m_failed);
    plan.Remove();
    if (plan.hits() == 0) {
      EXPECT_EQ(rc, ERROR_SUCCESS);
      EXPECT_GT(n, 8);
      break;
    }
    if (rc == ERROR_SUCCESS) continue;  // a look at what isn't there yet
    EXPECT_EQ(rc, ERROR_DISK_FULL) << "call " << n;
    EXPECT_THAT(m_failed, testing::StartsWith(m_folder + "/usr/")) << "call " << n;
  }
}

TEST_F(ServiceFiles, RemovingTakesAllOfThemAndLeavesDropInsOfOthers) {
  ASSERT_EQ(InstallFiles(m_installation, m_failed), ERROR_SUCCESS);
  ASSERT_EQ(InstallAccount(m_installation, "daemon", m_failed), ERROR_SUCCESS);
  const std::string other = m_folder + "/etc/systemd/system/Sched.service.d/other.conf";
  std::ofstream(other) << "[Service]\n";
  ASSERT_EQ(RemoveFiles(m_installation, m_failed), ERROR_SUCCESS);
  EXPECT_THAT(Names(), ElementsAre("/etc/systemd/system/Sched.service.d/other.conf"));
  ASSERT_EQ(RemoveFiles(m_installation, m_failed), ERROR_SUCCESS);  // a second time there is nothing to do
}

TEST_F(ServiceFiles, ARemovalThatFailsIsToldAndTheOthersGoOn) {
  ASSERT_EQ(InstallFiles(m_installation, m_failed), ERROR_SUCCESS);
  const auto plan =
      FaultPlan::FailCall(Operation::kDeleteFile, 1, ERROR_ACCESS_DENIED, kOnce, m_folder + kActivation);
  EXPECT_EQ(RemoveFiles(m_installation, m_failed), ERROR_ACCESS_DENIED);
  EXPECT_EQ(m_failed, m_folder + kActivation);
  EXPECT_THAT(Names(), ElementsAre(kActivation));
}

TEST_F(ServiceFiles, TheWordsOfTheCommandStandInQuotationMarks) {
  m_installation.command = {"/opt/my prog", "50%$\"\\", "it's"};
  ASSERT_EQ(InstallFiles(m_installation, m_failed), ERROR_SUCCESS);
  EXPECT_THAT(Text(kUnit), HasSubstr("\nExecStart=\"/opt/my prog\" \"50%%$$\\\"\\\\\" \"it's\"\n"));
  EXPECT_THAT(Text(kActivation), HasSubstr("\nExec='/opt/my prog' '50%$\"\\\\' 'it'\\\\''s'\n"));
}

// The program fails, so that the daemon's refusal comes behind its end.
TEST_F(ServiceFiles, TheBusStartsTheCommandAsItStands) {
  const std::string written = m_folder + "/words";
  const std::vector<std::string> words = {"it's", "a\\b", "c\\", "\\n", "50%$HOME", "two\nlines\r", " \t"};
  m_installation.command = {"/bin/sh", "-c", "printf '[%s]' \"$@\" > '" + written + "'; exit 1", "sh"};
  m_installation.command.insert(m_installation.command.end(), words.begin(), words.end());
  ASSERT_EQ(InstallFiles(m_installation, m_failed), ERROR_SUCCESS);
  const std::string configuration = m_folder + "/bus.conf";
  std::ofstream(configuration)
      << "<busconfig><type>session</type><listen>unix:tmpdir=/tmp</listen><servicedir>" << m_folder
      << "/usr/share/dbus-1/system-services</servicedir><policy context=\"default\"><allow send_destination=\"*\"/>"
         "<allow receive_sender=\"*\"/><allow own=\"*\"/></policy></busconfig>\n";
  const PrivateBus bus(configuration);
  BusConnection connection;
  ASSERT_EQ(connection.Open(bus.ForClients()), ERROR_SUCCESS);
  MessageWriter call;
  ASSERT_EQ(connection.NewCall("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                               "StartServiceByName", call),
            ERROR_SUCCESS);
  call.AppendString(m_installation.busName);
  call.AppendUint32(0);
  MessageReader reply;
  BusError error;
  EXPECT_NE(connection.Call(std::move(call), reply, error), ERROR_SUCCESS);
  std::string expected;
  for (const std::string& word : words) expected += "[" + word + "]";
  std::string text;
  EXPECT_EQ(ReadWholeFile(written, text), ERROR_SUCCESS) << error.name << ": " << error.text;
  EXPECT_EQ(text, expected);
}

TEST_F(ServiceFiles, TheUnitOwnsAStateDirectoryOnlyInItsPlace) {
  ASSERT_EQ(InstallFiles(m_installation, m_failed), ERROR_SUCCESS);
  EXPECT_THAT(Text(kUnit), HasSubstr("StateDirectory=sched\nStateDirectoryMode=0700\n"));
  m_installation.stateDirectory = "/srv/sched";
  ASSERT_EQ(InstallFiles(m_installation, m_failed), ERROR_SUCCESS);
  EXPECT_THAT(Text(kUnit), Not(HasSubstr("StateDirectory")));
}

TEST_F(ServiceFiles, TheUnitTakesAnyNameAsItStands) {
  struct Case {
    std::string directory;
    std::string value;
  };
  const Case cases[] = {
      {"qx/a-b_c.d@1", "qx/a-b_c.d@1"},
      {"my state", "\"my state\""},
      {"50%", "\"50%%\""},
      {"a:b", "\"a\\:b\""},
      {"a\"b", "\"a\\x22b\""},
      {"it's", "\"it's\""},
      {"a\\", "\"a\\\\\""},
      {"$HOME", "\"$HOME\""},
      {"a\n[Service]\r", "\"a\\x0a[Service]\\x0d\""},
  };
  for (const Case& c : cases) {
    m_installation.stateDirectory = "/var/lib/" + c.directory;
    ASSERT_EQ(InstallFiles(m_installation, m_failed), ERROR_SUCCESS);
    EXPECT_THAT(Text(kUnit), HasSubstr("\nStateDirectory=" + c.value + "\n")) << c.directory;
  }
  m_installation.description = "50% of \"it\" \\ $HOME";
  m_installation.command = {"/opt/a\nUser=root"};
  ASSERT_EQ(InstallFiles(m_installation, m_failed), ERROR_SUCCESS);
  EXPECT_THAT(Text(kUnit), HasSubstr("\nDescription=50%% of \"it\" \\ $HOME\n"));
  EXPECT_THAT(Text(kUnit), HasSubstr("\nExecStart=\"/opt/a\\x0aUser=root\"\n"));
}

TEST_F(ServiceFiles, OnTheHostItselfAServiceStartsWithTheHost) {
  m_installation.destination.clear();
  const std::vector<InstalledFile> files = FilesOf(m_installation);
  EXPECT_EQ(files.back(), (InstalledFile{"/etc/systemd/system/multi-user.target.wants/Sched.service", "", kUnit}));
  m_installation.asService = false;
  for (const InstalledFile& file : FilesOf(m_installation)) EXPECT_EQ(file.linkTo, "") << file.name;
}

// A user's places, in the folder.
class UsersServiceFiles : public ServiceFiles {
 protected:
  void SetUp() override {
    ServiceFiles::SetUp();
    m_installation.destination.clear();
    m_installation.forUser = true;
    m_installation.serviceArguments = {"--foreground"};
    setenv("XDG_CONFIG_HOME", (m_folder + "/config").c_str(), 1);
    setenv("XDG_DATA_HOME", (m_folder + "/data").c_str(), 1);
  }
  void TearDown() override {
    unsetenv("XDG_CONFIG_HOME");
    unsetenv("XDG_DATA_HOME");
    ServiceFiles::TearDown();
  }
};

TEST_F(UsersServiceFiles, LieInTheUsersPlacesWithoutAPolicy) {
  ASSERT_EQ(InstallFiles(m_installation, m_failed), ERROR_SUCCESS);
  EXPECT_THAT(Names(), ElementsAre("/config/systemd/user/Sched.service",
                                   "/config/systemd/user/default.target.wants/Sched.service",
                                   "/data/dbus-1/services/com.example.Sched1.service"));
  EXPECT_EQ(fs::read_symlink(m_folder + "/config/systemd/user/default.target.wants/Sched.service"),
            m_folder + "/config/systemd/user/Sched.service");
  EXPECT_EQ(Text("/config/systemd/user/Sched.service"),
            "[Unit]\nDescription=A scheduler\nDocumentation=man:Sched(8)\n\n[Service]\nType=notify\n"
            "ExecStart=\"/usr/bin/sched\" \"--root\" \"/var/lib/sched\" \"--foreground\"\nKillMode=process\n"
            "TasksMax=infinity\nOOMPolicy=continue\nRestart=on-failure\n\n[Install]\nWantedBy=default.target\n");
  EXPECT_EQ(Text("/data/dbus-1/services/com.example.Sched1.service"),
            "[D-BUS Service]\nName=com.example.Sched1\nExec='/usr/bin/sched' '--root' '/var/lib/sched'\n"
            "SystemdService=Sched.service\n");
  ASSERT_EQ(InstallFiles(m_installation, m_failed), ERROR_SUCCESS);  // the link is there
  ASSERT_EQ(RemoveFiles(m_installation, m_failed), ERROR_SUCCESS);
  EXPECT_THAT(Names(), IsEmpty());
}

TEST_F(UsersServiceFiles, HaveNoAccount) {
  EXPECT_EQ(InstalledAccount(m_installation), "");
  EXPECT_EQ(InstallAccount(m_installation, "daemon", m_failed), ERROR_INVALID_PARAMETER);
  EXPECT_THAT(Names(), IsEmpty());
}

TEST_F(ServiceFiles, AnAccountIsADropInOfTheUnitAndMayOwnTheBusName) {
  ASSERT_EQ(InstallAccount(m_installation, "daemon", m_failed), ERROR_SUCCESS);
  EXPECT_THAT(Names(), ElementsAre(kAccountPolicy, kAccountUnit));
  EXPECT_EQ(Text(kAccountUnit), "[Service]\nUser=daemon\n");
  EXPECT_THAT(Text(kAccountPolicy),
              HasSubstr("  <policy user=\"daemon\">\n    <allow own=\"com.example.Sched1\"/>\n  </policy>\n"));
  ASSERT_EQ(InstallAccount(m_installation, "", m_failed), ERROR_SUCCESS);
  EXPECT_THAT(Names(), IsEmpty());
  EXPECT_FALSE(fs::exists(m_folder + "/etc/systemd/system/Sched.service.d"));
}

TEST_F(ServiceFiles, TheInstalledAccountIsTheOneOfTheDropInAsItWasWritten) {
  EXPECT_EQ(InstalledAccount(m_installation), "");
  ASSERT_EQ(InstallAccount(m_installation, "daemon", m_failed), ERROR_SUCCESS);
  EXPECT_EQ(InstalledAccount(m_installation), "daemon");
  std::ofstream(m_folder + kAccountUnit) << "[Service]\nNice=5\n";  // somebody's own file of that name
  EXPECT_EQ(InstalledAccount(m_installation), "");
}

TEST_F(ServiceFiles, WhatIsNoAccountIsRefusedAndChangesNothing) {
  for (const std::string account :
       {"no such account", "daemon\nExecStartPre=/bin/false", "daemon\"/><allow own=\"*", "-x", "nobody%i", "missing-q",
        "dae mon", "../daemon"}) {
    EXPECT_FALSE(IsAccount(account)) << account;
    EXPECT_EQ(InstallAccount(m_installation, account, m_failed), ERROR_INVALID_PARAMETER) << account;
  }
  EXPECT_FALSE(IsAccount(""));
  EXPECT_FALSE(IsAccount(std::string(100000, 'x')));
  EXPECT_THAT(Names(), IsEmpty());
}

TEST_F(ServiceFiles, AnAccountWhosePolicyCanNotBeWrittenGetsNoDropIn) {
  const auto plan = FaultPlan::FailCall(Operation::kRenameFile, 1, ERROR_DISK_FULL);
  EXPECT_EQ(InstallAccount(m_installation, "daemon", m_failed), ERROR_DISK_FULL);
  EXPECT_EQ(m_failed, m_folder + kAccountPolicy);
  EXPECT_THAT(Names(), IsEmpty());
}

}  // namespace
}  // namespace platform
