#include "platform/public_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "platform/file.h"
#include "platform/testing/temporary_folder.h"

namespace {

TEST(PublicFile, CanBeReadByEverybodyUntilSomebodySaysOtherwise) {
  const platform::TemporaryFolder folder("qx-public");
  const std::string& directory = folder.Path();
  const std::string name = directory + "/file";
  const auto mode = [&] {
    struct stat status {};
    EXPECT_EQ(::stat(name.c_str(), &status), 0);
    return status.st_mode & 0777;
  };
  EXPECT_EQ(platform::ReplacePublicFile(name, "one"), 0u);
  EXPECT_EQ(mode(), 0644u);
  ASSERT_EQ(::chmod(name.c_str(), 0640), 0);
  EXPECT_EQ(platform::ReplacePublicFile(name, "two"), 0u);
  EXPECT_EQ(mode(), 0640u);
  std::string contents;
  EXPECT_EQ(platform::ReadWholeFile(name, contents), 0u);
  EXPECT_EQ(contents, "two");
  EXPECT_EQ(platform::ReplacePublicFile(directory + "/none/file", "x"), platform::ERROR_PATH_NOT_FOUND);
}

}  // namespace
