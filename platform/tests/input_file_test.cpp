#include "platform/input_file.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "platform/testing/fault.h"
#include "platform/testing/temporary_folder.h"

namespace platform {
namespace {

class InputFile : public ::testing::Test {
 protected:
  std::string Named(const char* name) const { return m_folder + "/" + name; }

  const TemporaryFolder m_temporary{"qx-input"};
  const std::string m_folder = m_temporary.Path();
  std::string m_contents = "before";
};

TEST_F(InputFile, ReadsAFileAsFarAsIsAllowed) {
  std::ofstream(Named("a")) << "some text";
  EXPECT_EQ(ReadInput(Named("a"), 100, m_contents), ERROR_SUCCESS);
  EXPECT_EQ(m_contents, "some text");
  EXPECT_EQ(ReadInput(Named("a"), 4, m_contents), ERROR_SUCCESS);
  EXPECT_EQ(m_contents, "some");
}

TEST_F(InputFile, ReadsAPipeToTheEndOfItsWriter) {
  ASSERT_EQ(mkfifo(Named("pipe").c_str(), 0600), 0);
  const std::string text(100'000, 'x');  // more than a pipe holds
  std::thread writer([&] { std::ofstream(Named("pipe")) << text; });
  EXPECT_EQ(ReadInput(Named("pipe"), text.size() + 1, m_contents), ERROR_SUCCESS);
  writer.join();
  EXPECT_EQ(m_contents, text);
}

TEST_F(InputFile, ReadsADeviceAsFarAsIsAllowed) {
  EXPECT_EQ(ReadInput("/dev/null", 10, m_contents), ERROR_SUCCESS);
  EXPECT_EQ(m_contents, "");
  EXPECT_EQ(ReadInput("/dev/zero", 5000, m_contents), ERROR_SUCCESS);
  EXPECT_EQ(m_contents, std::string(5000, '\0'));
}

TEST_F(InputFile, TellsWhatCantBeRead) {
  const std::pair<std::string, ErrorCode> cases[] = {
      {m_folder, ERROR_DIRECTORY},
      {Named("nothing"), ERROR_FILE_NOT_FOUND},
      {Named("nothing/at/all"), ERROR_PATH_NOT_FOUND},
      {"", ERROR_PATH_NOT_FOUND},
  };
  for (const auto& [name, code] : cases) EXPECT_EQ(ReadInput(name, 10, m_contents), code) << name;
  EXPECT_EQ(m_contents, "before");
}

TEST_F(InputFile, EachFailedCallIsToldAndLeavesTheContents) {
  std::ofstream(Named("a")) << "some text";
  for (const std::string& name : {Named("a"), std::string("/dev/null")}) {
    for (const Operation operation : {Operation::kCreateFile, Operation::kReadFile}) {
      const FaultPlan plan = FaultPlan::FailCall(operation, 1, ERROR_IO_DEVICE);
      EXPECT_EQ(ReadInput(name, 10, m_contents), ERROR_IO_DEVICE) << name;
      EXPECT_EQ(m_contents, "before");
    }
  }
}

}  // namespace
}  // namespace platform
