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
  const bool hasName = platform::UserName(name) == platform::ERROR_SUCCESS && name.size() < 256;
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        auto plan = platform::FaultPlan::FailCall(platform::Operation::kGetUserName, 1, platform::ERROR_IO_DEVICE);
        const bool failed = XPlat::UserName() == nullptr;
        plan.Remove();
        const char16_t* const told = XPlat::UserName();
        const bool rightly = hasName ? told != nullptr && name == told : told == nullptr;
        std::_Exit(failed && rightly ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

TEST(XPlatDeathTest, UserNameOfAnAccountWithoutANameIsNullAndAskedForEachTime) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        const auto plan = platform::FaultPlan::FailCall(platform::Operation::kGetUserName, 1,
                                                        platform::ERROR_FILE_NOT_FOUND, platform::kFromThenOn);
        const bool none = XPlat::UserName() == nullptr && XPlat::UserName() == nullptr;
        std::_Exit(none && plan.hits() == 2 ? 0 : 1);
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
