#include "platform/credentials_stamp.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "platform/clock.h"
#include "platform/testing/temporary_folder.h"
#include "platform/testing/virtual_clock.h"

namespace platform {
namespace {

// Files of its own for every place; the clock stands years off the files' times unless a test moves it.
class CredentialsStampTest : public ::testing::Test {
 protected:
  static constexpr const char* kVariables[] = {"NTLM_USER_FILE", "KRB5_CONFIG", "KRB5_KTNAME", "KRB5_CLIENT_KTNAME",
                                               "KRB5CCNAME"};
  void SetUp() override {
    for (const char* variable : kVariables) {
      std::ofstream(File(variable)) << "first";
      setenv(variable, File(variable).c_str(), 1);
    }
  }
  void TearDown() override {
    for (const char* variable : kVariables) unsetenv(variable);
  }
  [[nodiscard]] std::string File(const std::string& variable) const { return m_folder + "/" + variable; }
  // Of a file's last change, in 100 ns since 1970.
  [[nodiscard]] std::int64_t ChangedAt(const std::string& file) const {
    struct stat info {};
    EXPECT_EQ(stat(file.c_str(), &info), 0);
    return info.st_ctim.tv_sec * kTicksPerSecond + info.st_ctim.tv_nsec / 100;
  }
  const TemporaryFolder m_temporary{"qxstamp"};
  const std::string m_folder = m_temporary.Path();
};

TEST_F(CredentialsStampTest, OfUnchangedFilesIsTheSame) {
  EXPECT_EQ(CredentialsStamp::Take(), CredentialsStamp::Take());
}

TEST_F(CredentialsStampTest, TakesFilesOfAnyTime) {
  CredentialsStamp before = CredentialsStamp::Take();
  for (const time_t seconds : {time_t{-11644473600}, time_t{9223372037}, time_t{15032385535}}) {
    const timespec times[] = {{seconds, 0}, {seconds, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, File("KRB5_CONFIG").c_str(), times, 0), 0) << seconds;
    const CredentialsStamp now = CredentialsStamp::Take();
    EXPECT_FALSE(now == before) << seconds;
    before = now;
  }
}

TEST_F(CredentialsStampTest, ShowsEachChangeOfEachFile) {
  for (const char* variable : kVariables) {
    const std::string file = File(variable);
    CredentialsStamp before = CredentialsStamp::Take();
    const auto changed = [&](const char* how) {
      const CredentialsStamp now = CredentialsStamp::Take();
      EXPECT_FALSE(now == before) << variable << ": " << how;
      before = now;
    };
    std::ofstream(file, std::ios::app) << "longer";
    changed("its size");
    // The times that a copy brings along: the second change of the same size bears the first one's time of writing.
    const timespec times[] = {{1000, 0}, {1000, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
    changed("its time");
    std::ofstream(file + ".new") << "firstlonger";
    ASSERT_EQ(utimensat(AT_FDCWD, (file + ".new").c_str(), times, 0), 0);
    std::filesystem::rename(file + ".new", file);
    changed("another file in its place");
    std::filesystem::remove(file);
    changed("its end");
    setenv(variable, (file + "2").c_str(), 1);
    changed("its name");
    unsetenv(variable);
    changed("its place");
    setenv(variable, file.c_str(), 1);
    std::ofstream(file) << "again";
    changed("its return");
  }
}

TEST_F(CredentialsStampTest, OfAFileChangedJustNowIsNotSettled) {
  const std::int64_t changed = ChangedAt(File("KRB5CCNAME"));  // the last of them
  const struct {
    std::int64_t milliseconds;  // behind the change
    bool settled;
  } kCases[] = {{0, false}, {49, false}, {-49, false}, {-3000, true}, {60000, true}};
  for (const auto& c : kCases) {
    const std::int64_t now = changed + c.milliseconds * kTicksPerMillisecond;
    VirtualClock clock(now / kTicksPerSecond, now % kTicksPerSecond / kTicksPerMillisecond);
    EXPECT_EQ(CredentialsStamp::Take().IsSettled(), c.settled) << c.milliseconds;
  }
}

TEST_F(CredentialsStampTest, LooksBehindTheKindOfAName) {
  VirtualClock clock(1000);
  setenv("KRB5CCNAME", ("FILE:" + File("KRB5CCNAME")).c_str(), 1);
  const CredentialsStamp before = CredentialsStamp::Take();
  EXPECT_TRUE(before.IsSettled());
  std::ofstream(File("KRB5CCNAME"), std::ios::app) << "longer";
  EXPECT_FALSE(CredentialsStamp::Take() == before);
  setenv("KRB5CCNAME", "MEMORY:mine", 1);
  EXPECT_TRUE(CredentialsStamp::Take().IsSettled());
  // What can't be looked at never is.
  setenv("KRB5CCNAME", "KEYRING:persistent:0", 1);
  EXPECT_FALSE(CredentialsStamp::Take().IsSettled());
}

}  // namespace
}  // namespace platform
