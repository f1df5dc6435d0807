#include "platform/file_state.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "platform/file.h"
#include "platform/testing/fault.h"
#include "platform/testing/temporary_folder.h"

namespace platform {
namespace {

class FileStateTest : public testing::Test {
 protected:
  void SetUp() override {
    m_file = m_folder + "/a";
    Write("first");
  }
  void Write(const std::string& text) const { std::ofstream(m_file, std::ios::binary) << text; }

  const TemporaryFolder m_temporary{"qxstate"};
  const std::string m_folder = m_temporary.Path();
  std::string m_file;
};

TEST_F(FileStateTest, ReadsAFileAndKnowsItAgain) {
  std::string bytes = "more than there is in the file";
  FileState state;
  ASSERT_TRUE(ReadSmallFile(m_file, bytes, state));
  EXPECT_EQ(bytes, "first");
  EXPECT_EQ(state.size, 5);
  EXPECT_TRUE(IsFileInState(m_file, state));
  EXPECT_FALSE(IsFileInState(m_folder + "/none", state));
}

TEST_F(FileStateTest, KnowsAFileNoMoreThatWasReplacedByOneOfTheSameSize) {
  std::string bytes;
  FileState state;
  ASSERT_TRUE(ReadSmallFile(m_file, bytes, state));
  ASSERT_EQ(ReplaceWholeFile(m_file, "other", Durable::kNo), 0u);
  EXPECT_FALSE(IsFileInState(m_file, state));
}

TEST_F(FileStateTest, KnowsAFileOfAnyTime) {
  for (const time_t seconds : {time_t{-11644473600}, time_t{-1}, time_t{9223372036}, time_t{9223372037},
                               time_t{15032385535}, time_t{253402300799}}) {
    const timespec times[] = {{seconds, 0}, {seconds, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, m_file.c_str(), times, 0), 0) << seconds;
    std::string bytes;
    FileState state;
    ASSERT_TRUE(ReadSmallFile(m_file, bytes, state));
    EXPECT_TRUE(IsFileInState(m_file, state)) << seconds;
  }
}

TEST_F(FileStateTest, ReadsAnEmptyFileAndOneOfTheGreatestSize) {
  std::string bytes = "x";
  FileState state;
  Write("");
  ASSERT_TRUE(ReadSmallFile(m_file, bytes, state));
  EXPECT_EQ(bytes, "");
  Write(std::string(kSmallFileBytes, 'x'));
  ASSERT_TRUE(ReadSmallFile(m_file, bytes, state));
  EXPECT_EQ(bytes.size(), static_cast<std::size_t>(kSmallFileBytes));
  Write(std::string(kSmallFileBytes + 1, 'x'));
  EXPECT_FALSE(ReadSmallFile(m_file, bytes, state));
}

TEST_F(FileStateTest, ReadsNothingButAFile) {
  std::string bytes;
  FileState state;
  ASSERT_EQ(::mkfifo((m_folder + "/pipe").c_str(), 0600), 0);
  for (const std::string& name : {m_folder + "/none", m_folder, m_folder + "/pipe", std::string()}) {
    EXPECT_FALSE(ReadSmallFile(name, bytes, state)) << name;
  }
  const FaultPlan plan = FaultPlan::FailCall(Operation::kReadFile, 1, ERROR_IO_DEVICE);
  EXPECT_FALSE(ReadSmallFile(m_file, bytes, state));
}

TEST_F(FileStateTest, CountsWhatThisProcessDoesToNames) {
  std::uint64_t last = FileChanges();
  const auto grew = [&last] {
    const std::uint64_t before = last;
    last = FileChanges();
    return last >= before + 2;
  };
  EXPECT_EQ(ReplaceWholeFile(m_file, "other", Durable::kNo), 0u);
  EXPECT_TRUE(grew());
  EXPECT_EQ(RenameFile(m_file, m_folder + "/b"), 0u);
  EXPECT_TRUE(grew());
  EXPECT_EQ(RenameToNewFile(m_folder + "/b", m_file), 0u);
  EXPECT_TRUE(grew());
  EXPECT_EQ(DeleteFile(m_file), 0u);
  EXPECT_TRUE(grew());
  EXPECT_FALSE(FileExists(m_file));
  EXPECT_EQ(FileChanges(), last);
}

}  // namespace
}  // namespace platform
