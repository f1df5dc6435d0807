#include "service/service_account.h"

#include "platform/service_record.h"
#include "service/service_registration.h"
#include "service/tests/written_events.h"

namespace qx {
namespace {

using platform::ERROR_SUCCESS;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

const std::string kText =
    "Scheduler service is running in the localsystem account. Please configure the service with any user account which "
    "is valid on all the nodes of the cluster. The user should have privileges to change the registry on the current "
    "node.";

class ServiceAccount : public testing::WrittenEvents {
 protected:
  static void Install(std::u16string account) {
    (void)platform::DeleteServiceRecord(kServiceName);
    platform::ServiceRecord record;
    record.account = std::move(account);
    ASSERT_EQ(platform::CreateServiceRecord(kServiceName, record), ERROR_SUCCESS);
  }
  // Asks once, and expects the answer with all that it tells.
  void ExpectLocalSystem(bool expected, const std::string& trace) {
    m_log.Clear();
    m_written.clear();
    EXPECT_EQ(CheckIfRunningAsLocalSystem(), expected) << trace;
    if (!expected) {
      EXPECT_THAT(m_written, IsEmpty()) << trace;
      return;
    }
    EXPECT_THAT(m_log.texts(0), ElementsAre(kText)) << trace;
    ASSERT_EQ(m_written.size(), 1u) << trace;
    EXPECT_EQ(m_written[0].source, "Korvane Scheduler Service");
    EXPECT_EQ(m_written[0].kind, platform::EventKind::kError);
    EXPECT_EQ(m_written[0].text, kText);
  }
};

TEST_F(ServiceAccount, LocalSystemIsMeantInAnyCaseOfLetters) {
  for (const char16_t* account : {u"LocalSystem", u"LOCALSYSTEM", u"localsystem", u""}) {  // none means it too
    Install(account);
    ExpectLocalSystem(true, testing::Narrow(account));
  }
  for (const char16_t* account : {u"scheduler", u"LocalSystems", u"Local", u".\\LocalSystem"}) {
    Install(account);
    ExpectLocalSystem(false, testing::Narrow(account));
    EXPECT_THAT(m_log.lines(), IsEmpty()) << testing::Narrow(account);
  }
}

TEST_F(ServiceAccount, AFreshInstallationFailsTheCheckUntilAnAccountIsConfigured) {
  ASSERT_EQ(RegisterServer(true), ERROR_SUCCESS);
  ExpectLocalSystem(true, "fresh");
}

TEST_F(ServiceAccount, WhatCanNotBeReadCountsAsLocalSystem) {
  ExpectLocalSystem(true, "no service");
  Install(u"scheduler");
  using platform::Operation;
  for (const Operation operation :
       {Operation::kOpenServiceManager, Operation::kOpenService, Operation::kQueryServiceConfig}) {
    const auto plan = platform::FaultPlan::FailCall(operation, 1, platform::ERROR_ACCESS_DENIED);
    ExpectLocalSystem(true, std::string(platform::OperationName(operation)));
    EXPECT_EQ(plan.hits(), 1) << platform::OperationName(operation);
  }
}

TEST_F(ServiceAccount, WithoutMemoryItCanNotBeCheckedAndPasses) {
  Install(u"LocalSystem");
  const auto plan = platform::FaultPlan::FailCall(platform::Operation::kAllocate, 1, platform::ERROR_OUTOFMEMORY,
                                                  platform::kOnce, "CheckIfRunningAsLocalSystem");
  ExpectLocalSystem(false, "no memory");
  EXPECT_EQ(plan.hits(), 1);
  EXPECT_THAT(m_log.texts(0), ElementsAre("CheckIfRunningAsLocalSystem: memory allocation using new failed.",
                                          "Unable to check the system account"));
}

}  // namespace
}  // namespace qx
