#include "common/service_install.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>

#include "platform/file.h"
#include "platform/host.h"
#include "platform/registry.h"
#include "platform/service_record.h"
#include "platform/state_home.h"
#include "platform/testing/fault.h"
#include "platform/testing/temporary_folder.h"

namespace qx {
namespace {

namespace fs = std::filesystem;
using platform::ERROR_FILE_NOT_FOUND;
using platform::ERROR_INVALID_PARAMETER;
using platform::ERROR_SUCCESS;
using ::testing::ElementsAre;

TEST(ServiceInstall, ConcernsTheHostForItsOwnStateDirectoryAndForAnyDestination) {
  EXPECT_TRUE(ConcernsHost("", platform::HostStateDirectory()));
  EXPECT_FALSE(ConcernsHost("", "/srv/state"));
  EXPECT_TRUE(ConcernsHost("/package", "/srv/state"));
}

TEST(ServiceInstall, AProgramBelowTheDestinationIsNamedWithoutIt) {
  EXPECT_THAT(Installation("/package", "/package/usr/bin/QxSchedService", "/var/lib/qxsvc", true).command,
              ElementsAre("/usr/bin/QxSchedService", "--root", "/var/lib/qxsvc", "--bus", "system"));
  EXPECT_EQ(Installation("/package", "/packages/QxSchedService", "/s", true).command[0], "/packages/QxSchedService");
  EXPECT_FALSE(Installation("/package", "/p", "/s", true).forUser);
}

TEST(ServiceInstall, WithoutADestinationItIsTheCallersOwn) {
  const platform::ServerInstallation installation = Installation("", "/p", "/s", true);
  EXPECT_EQ(installation.forUser, !platform::RunsAsRoot());
  EXPECT_EQ(installation.command.back(), platform::RunsAsRoot() ? "system" : "session");
}

// A store with an installed service, and a destination for files.
class ServiceAccountConfiguration : public ::testing::Test {
 protected:
  void SetUp() override {
    platform::SetStateDirectory(m_folder);
    ASSERT_EQ(platform::OpenRegistryStore(m_folder + "/registry.db"), ERROR_SUCCESS);
  }
  void TearDown() override {
    (void)platform::CloseRegistryStore();
    platform::SetStateDirectory({});
  }
  static std::u16string Account() {
    std::u16string account;
    EXPECT_EQ(platform::QueryServiceAccount(kServiceName, account), ERROR_SUCCESS);
    return account;
  }
  bool HasDropIn() const {
    return fs::exists(m_folder + "/host/etc/systemd/system/QxSchedService.service.d/account.conf") &&
           fs::exists(m_folder + "/host/etc/dbus-1/system.d/com.korvane.QxSched1-account.conf");
  }
  platform::ErrorCode Configure(std::string_view account) {
    return ConfigureServiceAccount(account, m_folder + "/host", m_problem);
  }
  const platform::TemporaryFolder m_temporary{"qx-account"};
  const std::string m_folder = m_temporary.Path();
  std::string m_problem;
};

TEST_F(ServiceAccountConfiguration, NeedsAnInstalledService) {
  EXPECT_EQ(Configure("daemon"), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(m_problem, "no service is installed; install it with: QxSchedService -Service");
  EXPECT_FALSE(HasDropIn());
}

TEST_F(ServiceAccountConfiguration, GoesToTheRecordAndFromThereToTheHostsFiles) {
  ASSERT_EQ(platform::CreateServiceRecord(kServiceName, {}), ERROR_SUCCESS);
  EXPECT_EQ(Configure("daemon"), ERROR_SUCCESS) << m_problem;
  EXPECT_EQ(Account(), u"daemon");
  EXPECT_TRUE(HasDropIn());
  EXPECT_EQ(Configure("LOCALsystem"), ERROR_SUCCESS) << m_problem;
  EXPECT_EQ(Account(), u"LocalSystem");
  EXPECT_FALSE(HasDropIn());
}

TEST_F(ServiceAccountConfiguration, OfAStateDirectoryOfOnesOwnIsInTheRecordAlone) {
  ASSERT_EQ(platform::CreateServiceRecord(kServiceName, {}), ERROR_SUCCESS);
  EXPECT_EQ(ConfigureServiceAccount("daemon", "", m_problem), ERROR_SUCCESS) << m_problem;
  EXPECT_EQ(Account(), u"daemon");
}

TEST_F(ServiceAccountConfiguration, ThatIsNoAccountChangesNothing) {
  ASSERT_EQ(platform::CreateServiceRecord(kServiceName, {}), ERROR_SUCCESS);
  EXPECT_EQ(Configure("no such account"), ERROR_INVALID_PARAMETER);
  EXPECT_EQ(m_problem, "\"no such account\" is no account of this host");
  EXPECT_EQ(Account(), u"LocalSystem");
  EXPECT_FALSE(HasDropIn());
}

TEST_F(ServiceAccountConfiguration, TellsWhatFailed) {
  ASSERT_EQ(platform::CreateServiceRecord(kServiceName, {}), ERROR_SUCCESS);
  using platform::Operation;
  struct Case {
    Operation operation;
    int call;
    std::string problem;
    const char16_t* account;
  };
  const std::string policy = m_folder + "/host/etc/dbus-1/system.d/com.korvane.QxSched1-account.conf can't be written";
  const Case kCases[] = {
      {Operation::kOpenService, 1, "the service's record can't be opened", u"LocalSystem"},
      {Operation::kChangeServiceConfig, 1, "the service's record can't be written", u"LocalSystem"},
      {Operation::kRegSetValue, 1, "the service's record can't be written", u"LocalSystem"},
      {Operation::kRegCloseKey, 2, "the service's record can't be written", u"LocalSystem"},
      {Operation::kCreateDirectory, 1, policy, u"daemon"},  // the record is what counts
  };
  for (const Case& c : kCases) {
    const auto plan = platform::FaultPlan::FailCall(c.operation, c.call, platform::ERROR_DISK_FULL);
    EXPECT_EQ(Configure("daemon"), platform::ERROR_DISK_FULL) << platform::OperationName(c.operation);
    EXPECT_EQ(m_problem, c.problem) << platform::OperationName(c.operation);
    EXPECT_EQ(Account(), c.account) << platform::OperationName(c.operation);
    EXPECT_FALSE(HasDropIn());
  }
}

}  // namespace
}  // namespace qx
