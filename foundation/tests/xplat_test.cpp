#include "foundation/include/zfcxplat.h"

#include <gtest/gtest.h>

#include <string>

#include "platform/host.h"

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
