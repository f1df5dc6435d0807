#include "platform/host.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "platform/text.h"

namespace platform {
namespace {

TEST(Host, TellsTheNameOfTheEffectiveAccount) {
  std::u16string name;
  const passwd* entry = getpwuid(geteuid());
  if (entry == nullptr) {
    EXPECT_EQ(UserName(name), ERROR_FILE_NOT_FOUND);
  } else {
    EXPECT_EQ(UserName(name), ERROR_SUCCESS);
    EXPECT_EQ(name, WideFromUtf8(entry->pw_name));
  }
}

TEST(Host, TellsTheMachineWithoutItsDomain) {
  char host[256] = {};
  ASSERT_EQ(gethostname(host, sizeof host - 1), 0);
  const std::string expected = std::string(host).substr(0, std::string(host).find('.'));
  std::u16string name;
  EXPECT_EQ(MachineName(name), ERROR_SUCCESS);
  EXPECT_EQ(name, WideFromUtf8(expected));
}

TEST(Host, TellsTheProgramFile) {
  std::u16string path;
  EXPECT_EQ(ProgramFilePath(path), ERROR_SUCCESS);
  EXPECT_TRUE(path.starts_with(u"/"));
  EXPECT_TRUE(path.ends_with(u"/platform_tests"));
}

TEST(Host, LooksUpTheEnvironment) {
  ASSERT_EQ(setenv("QX_HOST_TEST", "caf\xC3\xA9", 1), 0);
  EXPECT_EQ(EnvironmentVariable(u"QX_HOST_TEST"), u"caf\u00E9");
  ASSERT_EQ(setenv("QX_HOST_TEST", "", 1), 0);
  EXPECT_EQ(EnvironmentVariable(u"QX_HOST_TEST"), u"");
  ASSERT_EQ(unsetenv("QX_HOST_TEST"), 0);
  EXPECT_EQ(EnvironmentVariable(u"QX_HOST_TEST"), std::nullopt);
  EXPECT_EQ(EnvironmentVariable(u""), std::nullopt);
  EXPECT_EQ(EnvironmentVariable(u"PATH=x"), std::nullopt);
  EXPECT_EQ(EnvironmentVariable(std::u16string_view(u"PATH\0x", 6)), std::nullopt);
}

TEST(Host, DebuggerOutputIsSilentUnlessAskedFor) {
  testing::internal::CaptureStderr();
  const bool wanted = std::getenv("QX_DEBUG_OUTPUT") != nullptr;
  DebuggerOutput(u"caf\u00E9\n");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), wanted ? "caf\xC3\xA9\n" : "");
}

TEST(Host, KnowsTheSystemsSentences) {
  EXPECT_EQ(SystemErrorText(ERROR_FILE_NOT_FOUND), u"The system cannot find the file specified.");
  EXPECT_EQ(SystemErrorText(ERROR_DISK_FULL), u"There is not enough space on the disk.");
  EXPECT_EQ(SystemErrorText(0xDEADBEEF), u"");
}

TEST(Host, CountsAsTheFamilyWithTheSecurityModel) {
  EXPECT_EQ(SystemVersion() >> 31, 0u);
}

}  // namespace
}  // namespace platform
