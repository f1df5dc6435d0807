#include "platform/profile_read_ahead.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "platform/profile.h"
#include "platform/testing/fault.h"
#include "platform/text.h"

namespace platform {
namespace {

constexpr int kFiles = 50;
constexpr std::size_t kReaders = 3;

class ProfileReadAheadTest : public testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = testing::TempDir() + "read_ahead_XXXXXX";
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    m_directory = pattern;
    for (int i = 0; i < kFiles; ++i) Put(i, std::to_string(i));
  }
  void TearDown() override { std::filesystem::remove_all(m_directory); }

  [[nodiscard]] std::string File(int i) const { return m_directory + "/" + std::to_string(i) + ".ini"; }
  void Put(int i, const std::string& value) const {
    std::ofstream(File(i), std::ios::binary | std::ios::trunc) << "[S]\r\nNumber=" << value << "\r\n";
  }
  void WantAll(ProfileReadAhead& ahead) const {
    for (int i = 0; i < kFiles; ++i) ahead.Want(WideFromUtf8(File(i)));
  }
  // As a loader does.
  [[nodiscard]] std::int32_t Load(int i, ErrorCode* code = nullptr) const {
    const std::u16string path = WideFromUtf8(File(i));
    const ProfileBatch batch(path, ProfileBatch::kLoad);
    std::int32_t number = -1;
    const ErrorCode rc = GetProfileInt(path, u"S", u"Number", -2, number);
    if (code != nullptr) *code = rc;
    return number;
  }

  std::string m_directory;
};

TEST_F(ProfileReadAheadTest, GivesLoadingBatchesWhatWasRead) {
  ProfileReadAhead ahead(kReaders);
  WantAll(ahead);
  ahead.WaitUntilRead();
  for (int i = 0; i < kFiles; ++i) EXPECT_EQ(Load(i), i);
  EXPECT_EQ(ahead.Taken(), std::size_t{kFiles});
}

TEST_F(ProfileReadAheadTest, IsRightHoweverFarTheReadersAre) {
  ProfileReadAhead ahead(kReaders);
  WantAll(ahead);
  for (int i = 0; i < kFiles; ++i) EXPECT_EQ(Load(i), i);
}

TEST_F(ProfileReadAheadTest, ReadsAFileThatChangedSinceAnew) {
  ProfileReadAhead ahead(kReaders);
  WantAll(ahead);
  ahead.WaitUntilRead();
  Put(1, "12345");
  EXPECT_EQ(Load(1), 12345);
  EXPECT_EQ(ahead.Taken(), 0u);
}

TEST_F(ProfileReadAheadTest, ReadsAFileThatAnotherOfTheSameSizeReplacedAnew) {
  ProfileReadAhead ahead(kReaders);
  WantAll(ahead);
  ahead.WaitUntilRead();
  std::filesystem::rename(File(2), File(1));
  EXPECT_EQ(Load(1), 2);
  EXPECT_EQ(ahead.Taken(), 0u);
}

TEST_F(ProfileReadAheadTest, TellsOfAFileThatWentSince) {
  ProfileReadAhead ahead(kReaders);
  WantAll(ahead);
  ahead.WaitUntilRead();
  std::filesystem::remove(File(1));
  ErrorCode code = 0;
  EXPECT_EQ(Load(1, &code), -2);
  EXPECT_EQ(code, ERROR_FILE_NOT_FOUND);
}

TEST_F(ProfileReadAheadTest, SeesAFileThatCameSince) {
  std::filesystem::remove(File(1));
  ProfileReadAhead ahead(kReaders);
  WantAll(ahead);
  ahead.WaitUntilRead();
  Put(1, "77");
  EXPECT_EQ(Load(1), 77);
}

TEST_F(ProfileReadAheadTest, GivesAFileOnce) {
  ProfileReadAhead ahead(kReaders);
  WantAll(ahead);
  ahead.WaitUntilRead();
  EXPECT_EQ(Load(1), 1);
  EXPECT_EQ(Load(1), 1);
  EXPECT_EQ(ahead.Taken(), 1u);
}

TEST_F(ProfileReadAheadTest, LeavesSavingBatchesAndSingleCallsAlone) {
  ProfileReadAhead ahead(kReaders);
  WantAll(ahead);
  ahead.WaitUntilRead();
  const std::u16string path = WideFromUtf8(File(1));
  std::int32_t number = 0;
  EXPECT_EQ(GetProfileInt(path, u"S", u"Number", -2, number), ERROR_SUCCESS);
  EXPECT_EQ(number, 1);
  {
    ProfileBatch batch(path, ProfileBatch::kSave);
    ASSERT_EQ(WriteProfileString(path, u"S", u"Number", u"8"), ERROR_SUCCESS);
    ASSERT_EQ(batch.Commit(), ERROR_SUCCESS);
  }
  EXPECT_EQ(Load(1), 8);
  EXPECT_EQ(ahead.Taken(), 0u);
}

TEST_F(ProfileReadAheadTest, ReadsNothingAheadWithoutAThread) {
  FaultPlan plan = FaultPlan::FailCall(Operation::kCreateThread, 1, ERROR_NO_PROC_SLOTS, kFromThenOn, "profile-ahead");
  ProfileReadAhead ahead(kReaders);
  plan.Remove();
  WantAll(ahead);
  ahead.WaitUntilRead();
  for (int i = 0; i < kFiles; ++i) EXPECT_EQ(Load(i), i);
  EXPECT_EQ(ahead.Taken(), 0u);
}

TEST_F(ProfileReadAheadTest, GoesOnWithTheThreadsThatStarted) {
  FaultPlan plan = FaultPlan::FailCall(Operation::kCreateThread, 2, ERROR_NO_PROC_SLOTS, kFromThenOn, "profile-ahead");
  ProfileReadAhead ahead(kReaders);
  plan.Remove();
  WantAll(ahead);
  ahead.WaitUntilRead();
  for (int i = 0; i < kFiles; ++i) EXPECT_EQ(Load(i), i);
  EXPECT_EQ(ahead.Taken(), std::size_t{kFiles});
}

TEST_F(ProfileReadAheadTest, LetsTheReadingOfALoaderFail) {
  ProfileReadAhead ahead(kReaders);
  WantAll(ahead);
  ahead.WaitUntilRead();
  const FaultPlan plan = FaultPlan::FailCall(Operation::kReadFile, 1, ERROR_DISK_FULL);
  ErrorCode code = 0;
  EXPECT_EQ(Load(1, &code), -2);
  EXPECT_EQ(code, ERROR_DISK_FULL);
}

TEST_F(ProfileReadAheadTest, DropsWhatNobodyTakes) {
  ProfileReadAhead ahead(kReaders);
  ahead.Want(WideFromUtf8(File(1)));
  for (std::size_t i = 0; i < ProfileReadAhead::kMostKept; ++i) ahead.Want(WideFromUtf8(m_directory + "/none" + std::to_string(i)));
  ahead.WaitUntilRead();
  EXPECT_EQ(Load(1), 1);
  EXPECT_EQ(ahead.Taken(), 0u);
}

TEST_F(ProfileReadAheadTest, IsOneAtATime) {
  ProfileReadAhead first(kReaders);
  {
    ProfileReadAhead second(kReaders);
    WantAll(second);
    second.WaitUntilRead();
    EXPECT_EQ(Load(1), 1);
    EXPECT_EQ(second.Taken(), 0u);
  }
  WantAll(first);
  first.WaitUntilRead();
  EXPECT_EQ(Load(1), 1);
  EXPECT_EQ(first.Taken(), 1u);
}

}  // namespace
}  // namespace platform
