#include "foundation/include/zfcxplat.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "platform/host.h"
#include "platform/testing/fault.h"

namespace ZepFoundation {
namespace {

TEST(XPlat, IsOfTheFamilyWithTheSecurityModel) {
  EXPECT_EQ(XPlat::GetOSID(), 2u);
  EXPECT_EQ(XPlat::GetOSID(), 2 - (platform::SystemVersion() >> 31));
}

TEST(XPlat, UserNameIsThePlatformsOrNull) {
  std::u16string name;
  if (platform::UserName(name) == platform::ERROR_SUCCESS && name.size() < 256) {
    ASSERT_NE(XPlat::UserName(), nullptr);
    EXPECT_EQ(std::u16string(XPlat::UserName()), name);
  } else {
    EXPECT_EQ(XPlat::UserName(), nullptr);
  }
}

// In a process of its own: the name is kept once it was told.
TEST(XPlatDeathTest, UserNameIsNullWhenThePlatformFailsAndIsAskedAgain) {
  std::u16string name;
  if (platform::UserName(name) != platform::ERROR_SUCCESS) GTEST_SKIP() << "the account has no name";
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        auto plan = platform::FaultPlan::FailCall(platform::Operation::kGetUserName, 1, platform::ERROR_IO_DEVICE);
        const bool failed = XPlat::UserName() == nullptr;
        plan.Remove();
        const char16_t* const told = XPlat::UserName();
        std::_Exit(failed && told != nullptr && name == told ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

TEST(XPlat, MachineNameIsEmptyWhereItDoesNotFit) {
  std::u16string name;
  ASSERT_EQ(platform::MachineName(name), platform::ERROR_SUCCESS);
  ASSERT_NE(XPlat::MachineName(), nullptr);
  EXPECT_EQ(std::u16string(XPlat::MachineName()), name.size() < 15 ? name : std::u16string());
}

TEST(XPlat, NamesLieInBuffersOfTheProcess) {
  EXPECT_EQ(XPlat::MachineName(), XPlat::MachineName());
  EXPECT_EQ(XPlat::UserName(), XPlat::UserName());
}

}  // namespace
}  // namespace ZepFoundation
