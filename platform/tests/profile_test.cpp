#include "platform/profile.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <sstream>
#include <thread>
#include <vector>

#include "platform/file.h"
#include "platform/testing/fault.h"
#include "platform/testing/temporary_folder.h"
#include "platform/text.h"

namespace platform {
namespace {

using testing::AnyOf;
using testing::ElementsAre;
using testing::Eq;
using testing::UnorderedElementsAre;

const char kOldText[] = "[S]\r\na=1\r\nb=2\r\n";
const char kNewText[] = "[S]\r\na=9\r\nc=3\r\n[T]\r\nd=4\r\n";

class ProfileFile : public testing::Test {
 protected:
  void SetUp() override {
    m_file = m_directory + "/rules.ini";
    m_path = WideFromUtf8(m_file);
  }
  void TearDown() override {
    m_batch.reset();
  }

  void Put(const std::string& bytes) const { std::ofstream(m_file, std::ios::binary | std::ios::trunc) << bytes; }
  [[nodiscard]] std::optional<std::string> Get() const {
    std::ifstream in(m_file, std::ios::binary);
    if (!in) return std::nullopt;
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
  }
  [[nodiscard]] std::vector<std::string> Names() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(m_directory)) names.push_back(entry.path().filename());
    return names;
  }
  ErrorCode Write(std::u16string_view section, std::u16string_view key, const char16_t* value) const {
    return WriteProfileString(m_path, section, key, value);
  }
  [[nodiscard]] std::u16string Read(std::u16string_view section, std::u16string_view key) const {
    std::u16string buffer(1000, u'#');
    std::uint32_t length = 0;
    (void)GetProfileString(m_path, section, key, u"(none)", buffer, length);
    return buffer.substr(0, length);
  }

  // The file as it was, and a batch of this thread with one change to it.
  [[nodiscard]] ProfileBatch& BeginChange() {
    m_batch.reset();
    Put(kOldText);
    m_batch.emplace(m_path, ProfileBatch::kSave);
    EXPECT_EQ(Write(u"S", u"a", u"9"), ERROR_SUCCESS);
    return *m_batch;
  }

  const TemporaryFolder m_temporary{"profile"};
  const std::string m_directory = m_temporary.Path();
  std::string m_file;
  std::u16string m_path;
  std::optional<ProfileBatch> m_batch;
};

ErrorCode SaveNewText(std::u16string_view path) {
  ProfileBatch batch(path, ProfileBatch::kSave);
  (void)WriteProfileString(path, u"S", u"a", u"9");
  (void)WriteProfileString(path, u"S", u"b", nullptr);
  (void)WriteProfileStringNarrow(SystemFromWide(path), "S", "c", "3");
  (void)WriteProfileString(path, u"T", u"d", u"4");
  return batch.Commit();
}

// A file that somebody made so large would be read for minutes, and fill the memory.
TEST_F(ProfileFile, AFileThatNoCallCanHaveWrittenIsRefused) {
  Put(kOldText);
  std::filesystem::resize_file(m_file, kMostProfileBytes + 1);
  std::u16string buffer(10, u'#');
  std::uint32_t length = 9;
  EXPECT_EQ(GetProfileString(m_path, u"S", u"a", u"def", buffer, length), ERROR_FILE_TOO_LARGE);
  EXPECT_EQ(length, 3u);
  EXPECT_EQ(Write(u"S", u"a", u"9"), ERROR_FILE_TOO_LARGE);
  EXPECT_EQ(std::filesystem::file_size(m_file), kMostProfileBytes + 1) << "left as it is";
}

TEST_F(ProfileFile, HoldsTheOldTextOrTheNewWhicheverPlatformCallFails) {
  for (const FaultMode mode : {kOnce, kFromThenOn}) {
    for (int n = 1;; ++n) {  // ends when the whole save runs without meeting the fault
      Put(kOldText);
      FaultPlan plan = FaultPlan::FailAnyCall(n, ERROR_DISK_FULL, mode);
      const ErrorCode rc = SaveNewText(m_path);
      plan.Remove();
      ASSERT_THAT(Get(), AnyOf(Eq(kOldText), Eq(kNewText))) << "call " << n;
      EXPECT_THAT(Names(), ElementsAre("rules.ini")) << "call " << n;
      EXPECT_EQ(rc, plan.hits() == 0 ? ERROR_SUCCESS : ERROR_DISK_FULL) << "call " << n;
      if (rc == ERROR_SUCCESS) {
        EXPECT_EQ(Get(), kNewText);
      }
      if (plan.hits() == 0) break;
      ASSERT_LT(n, 100);
    }
  }
}

TEST_F(ProfileFile, KeepsTheOldTextWhicheverCallOfALoneWriteFails) {
  for (const FaultMode mode : {kOnce, kFromThenOn}) {
    for (int n = 1;; ++n) {
      Put(kOldText);
      FaultPlan plan = FaultPlan::FailAnyCall(n, ERROR_DISK_FULL, mode);
      const ErrorCode rc = Write(u"S", u"a", u"9");
      plan.Remove();
      if (plan.hits() == 0) {
        EXPECT_EQ(rc, ERROR_SUCCESS);
        EXPECT_GE(n, 5) << "the write, the read and the steps of the replacement are all asked";
        break;
      }
      EXPECT_EQ(rc, ERROR_DISK_FULL) << "call " << n;
      EXPECT_EQ(Get(), kOldText) << "call " << n;
      EXPECT_THAT(Names(), ElementsAre("rules.ini")) << "call " << n;
    }
  }
}

TEST_F(ProfileFile, LeavesNoFileWhereANewOneCouldNotBeWritten) {
  for (const Operation operation : {Operation::kCreateFile, Operation::kWriteFile, Operation::kRenameFile}) {
    FaultPlan plan = FaultPlan::FailCall(operation, operation == Operation::kCreateFile ? 2 : 1, ERROR_DISK_FULL);
    EXPECT_EQ(Write(u"S", u"a", u"1"), ERROR_DISK_FULL);
    plan.Remove();
    EXPECT_THAT(Names(), ElementsAre());
  }
}

TEST_F(ProfileFile, ReturnsTheDefaultWhenARefusedReadFails) {
  Put("[S]\r\na=5\r\n");
  std::int32_t value = 0;
  std::u16string buffer(20, u'#');
  std::uint32_t length = 0;
  ProfileSectionText text{7, 7};
  for (const Operation inner : {Operation::kCreateFile, Operation::kReadFile}) {
    FaultPlan plan = FaultPlan::FailCall(inner, 1, ERROR_IO_DEVICE, kFromThenOn);
    EXPECT_EQ(GetProfileInt(m_path, u"S", u"a", 77, value), ERROR_IO_DEVICE);
    EXPECT_EQ(value, 77);
    EXPECT_EQ(GetProfileString(m_path, u"S", u"a", u"def", buffer, length), ERROR_IO_DEVICE);
    EXPECT_EQ(buffer.substr(0, length), u"def");
    EXPECT_EQ(GetProfileSection(m_path, u"S", buffer, text), ERROR_IO_DEVICE);
    EXPECT_EQ(text.length, 0u);
    EXPECT_EQ(text.completeLines, 0u);
  }
}

TEST_F(ProfileFile, AsksTheFaultSeamForEachReadByItsOwnName) {
  Put("[S]\r\na=5\r\n");
  std::int32_t value = 0;
  std::u16string buffer(20, u'#');
  std::uint32_t length = 0;
  ProfileSectionText text;
  {
    const FaultPlan plan = FaultPlan::FailCall(Operation::kGetProfileInt, 1, ERROR_ACCESS_DENIED, kOnce, "a");
    EXPECT_EQ(GetProfileInt(m_path, u"S", u"a", 77, value), ERROR_ACCESS_DENIED);
    EXPECT_EQ(value, 77);
  }
  {
    const FaultPlan plan = FaultPlan::FailCall(Operation::kGetProfileString, 1, ERROR_ACCESS_DENIED);
    EXPECT_EQ(GetProfileString(m_path, u"S", u"a", u"def", buffer, length), ERROR_ACCESS_DENIED);
    EXPECT_EQ(buffer.substr(0, length), u"def");
  }
  {
    const FaultPlan plan = FaultPlan::FailCall(Operation::kGetProfileSection, 1, ERROR_ACCESS_DENIED);
    EXPECT_EQ(GetProfileSection(m_path, u"S", buffer, text), ERROR_ACCESS_DENIED);
    EXPECT_EQ(text.length, 0u);
  }
}

TEST_F(ProfileFile, TellsAMissingFileFromAMissingDirectory) {
  std::int32_t value = 0;
  EXPECT_EQ(GetProfileInt(m_path, u"S", u"a", 5, value), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(value, 5);
  EXPECT_EQ(GetProfileInt(m_path + u"/none/x.ini", u"S", u"a", 5, value), ERROR_PATH_NOT_FOUND);
  EXPECT_EQ(GetProfileInt(u"", u"S", u"a", 5, value), ERROR_ACCESS_DENIED);
  EXPECT_EQ(GetProfileInt(WideFromUtf8(m_directory), u"S", u"a", 5, value), ERROR_ACCESS_DENIED);
}

TEST_F(ProfileFile, RefusesAPathWithANul) {
  EXPECT_EQ(WriteProfileString(m_path + u'\0' + u"x", u"S", u"a", u"1"), ERROR_ACCESS_DENIED);
  EXPECT_THAT(Names(), ElementsAre());
}

TEST_F(ProfileFile, EndsNamesAtTheirFirstNul) {
  using namespace std::string_view_literals;
  EXPECT_EQ(Write(u"S\0x"sv, u"a\0y"sv, u"1"), ERROR_SUCCESS);
  EXPECT_EQ(Get(), "[S]\r\na=1\r\n");
}

TEST_F(ProfileFile, KeepsANulByteOfTheFileAndReadsTheValueUpToIt) {
  Put(std::string("[S]\r\na=1\0b\r\n", 12));
  EXPECT_EQ(Read(u"S", u"a"), u"1");
  EXPECT_EQ(Write(u"S", u"k", u"v"), ERROR_SUCCESS);
  EXPECT_EQ(Get(), std::string("[S]\r\na=1\0b\r\nk=v\r\n", 17));
}

TEST_F(ProfileFile, RefusesEmptySectionsAndKeys) {
  Put(kOldText);
  EXPECT_EQ(Write(u"", u"a", u"1"), ERROR_INVALID_PARAMETER);
  EXPECT_EQ(Write({}, u"a", u"1"), ERROR_INVALID_PARAMETER);
  EXPECT_EQ(Write(u"S", u"", u"1"), ERROR_INVALID_PARAMETER);
  EXPECT_EQ(Get(), kOldText);
}

TEST_F(ProfileFile, FollowsASymbolicLinkAndLeavesItALink) {
  const std::string target = m_directory + "/target.ini";
  ASSERT_EQ(symlink("target.ini", m_file.c_str()), 0);
  EXPECT_EQ(Write(u"S", u"a", u"1"), ERROR_SUCCESS) << "the link's target is created";
  EXPECT_EQ(Write(u"S", u"b", u"2"), ERROR_SUCCESS);
  EXPECT_TRUE(std::filesystem::is_symlink(m_file));
  EXPECT_TRUE(std::filesystem::is_regular_file(std::filesystem::symlink_status(target)));
  EXPECT_EQ(Get(), "[S]\r\na=1\r\nb=2\r\n");
}

TEST_F(ProfileFile, RefusesARingOfLinks) {
  ASSERT_EQ(symlink("rules.ini", m_file.c_str()), 0);
  EXPECT_EQ(Write(u"S", u"a", u"1"), ERROR_PATH_NOT_FOUND);
}

TEST_F(ProfileFile, KeepsTheModeOfTheFileAndMakesNewOnesPrivate) {
  const auto mode = [&] {
    struct stat info {};
    EXPECT_EQ(stat(m_file.c_str(), &info), 0);
    return info.st_mode & 07777;
  };
  ASSERT_EQ(Write(u"S", u"a", u"1"), ERROR_SUCCESS);
  EXPECT_EQ(mode(), 0600u);
  ASSERT_EQ(chmod(m_file.c_str(), 0664), 0);
  ASSERT_EQ(Write(u"S", u"a", u"2"), ERROR_SUCCESS);
  EXPECT_EQ(mode(), 0664u);
}

TEST_F(ProfileFile, OverwritesALeftoverOfAnEarlierSave) {
  std::ofstream(m_directory + "/.rules.ini.new") << "half a te";
  EXPECT_EQ(Write(u"S", u"a", u"1"), ERROR_SUCCESS);
  EXPECT_EQ(Get(), "[S]\r\na=1\r\n");
  EXPECT_THAT(Names(), ElementsAre("rules.ini"));
}

TEST_F(ProfileFile, DoesNotTouchAFileThatAWriteDoesNotChange) {
  Put(" [S] \n a = 1 \n\n");
  EXPECT_EQ(Write(u"s", u"A", u"1"), ERROR_SUCCESS);
  EXPECT_EQ(Write(u"S", u"none", nullptr), ERROR_SUCCESS);
  EXPECT_EQ(Write(u"T", {}, nullptr), ERROR_SUCCESS);
  EXPECT_EQ(Get(), " [S] \n a = 1 \n\n");
}

TEST_F(ProfileFile, KeepsBytesThatTheCodePageDoesNotKnow) {
  Put("[S]\r\na=\xE9\xFF\r\n");
  EXPECT_EQ(Write(u"S", u"b", u"\u00E9"), ERROR_SUCCESS);
  EXPECT_EQ(Get(), "[S]\r\na=\xE9\xFF\r\nb=\xC3\xA9\r\n");
}

TEST_F(ProfileFile, OfBytesStaysOneWhenTheMarkOfAWideFileComesToItsBeginning) {
  Put(" \xFF\xFEtail\r\n[S]\r\na=1\r\n");
  EXPECT_EQ(Write(u"S", u"b", u"2"), ERROR_SUCCESS);
  EXPECT_EQ(Get(), " \xFF\xFEtail\r\n[S]\r\na=1\r\nb=2\r\n");
  EXPECT_EQ(Read(u"S", u"a"), u"1");
}

TEST_F(ProfileFile, ComparesLettersBeyondAsciiWithoutRegardToCase) {
  Put("[S]\r\nStra\xC3\x9F" "e \xC3\x84=1\r\n\xC4\xB1=2\r\n");
  EXPECT_EQ(Read(u"S", u"STRA\u00DFE \u00E4"), u"1");
  EXPECT_EQ(Read(u"S", u"I"), u"(none)") << "the dotless i is a letter of its own";
}

TEST_F(ProfileFile, KeepsTextBehindAHeaderAndComments) {
  Put("; about = this\r\n[S] ; mine\r\n;k = v\r\na=1\r\n");
  EXPECT_EQ(Write(u"S", u"a", u"2"), ERROR_SUCCESS);
  EXPECT_EQ(Get(), "; about = this\r\n[S] ; mine\r\n;k = v\r\na=2\r\n");
}

TEST_F(ProfileFile, LetsTheSecondOfDuplicatesCountOnceTheFirstIsGone) {
  Put("[S]\r\na=1\r\na=2\r\n[T]\r\nx=1\r\n[T]\r\nx=2\r\n");
  EXPECT_EQ(Write(u"S", u"a", nullptr), ERROR_SUCCESS);
  EXPECT_EQ(Read(u"S", u"a"), u"2");
  EXPECT_EQ(Write(u"T", {}, nullptr), ERROR_SUCCESS);
  EXPECT_EQ(Read(u"T", u"x"), u"2");
  EXPECT_EQ(Get(), "[S]\r\na=2\r\n[T]\r\nx=2\r\n");
}

TEST_F(ProfileFile, CountsTheCompleteLinesOfACutSection) {
  Put("[S]\r\na=11\r\nb\r\nc=33\r\n");
  std::u16string buffer(100, u'#');
  ProfileSectionText text;
  EXPECT_EQ(GetProfileSection(m_path, u"S", buffer, text), ERROR_SUCCESS);
  EXPECT_EQ(text.completeLines, 3u);
  EXPECT_EQ(buffer.substr(0, text.length), std::u16string_view(u"a=11\0b\0c=33\0", 12));
  EXPECT_EQ(GetProfileSection(m_path, u"S", std::span(buffer).first(12), text), ERROR_SUCCESS);
  EXPECT_EQ(text.length, 10u);
  EXPECT_EQ(text.completeLines, 2u);
}

TEST_F(ProfileFile, TakesAHugeFileAndAHugeBatch) {
  ProfileBatch batch(m_path, ProfileBatch::kSave);
  constexpr int kItems = 65535;
  for (int i = 0; i < kItems; ++i) {
    const std::u16string key = u"Item" + WideFromUtf8(std::to_string(i));
    ASSERT_EQ(Write(u"Run Day Rules", key, u"1234567"), ERROR_SUCCESS);
  }
  ASSERT_EQ(batch.Commit(), ERROR_SUCCESS);
  EXPECT_GT(std::filesystem::file_size(m_file), 1'000'000u);
  EXPECT_EQ(Read(u"Run Day Rules", u"item65534"), u"1234567");
  std::u16string buffer(1024, u'#');
  ProfileSectionText text;
  EXPECT_EQ(GetProfileSection(m_path, u"Run Day Rules", buffer, text), ERROR_SUCCESS);
  EXPECT_EQ(text.length, 1022u);
}

TEST_F(ProfileFile, TakesALineOfAMegabyte) {
  const std::u16string value(1 << 20, u'v');
  EXPECT_EQ(Write(u"S", u"a", value.c_str()), ERROR_SUCCESS);
  EXPECT_EQ(std::filesystem::file_size(m_file), (1u << 20) + 9);
  EXPECT_EQ(Read(u"S", u"a").size(), 999u);
}

TEST_F(ProfileFile, LosesNoKeyWhenTwoThreadsWrite) {
  const auto writer = [&](char16_t letter) {
    for (int i = 0; i < 50; ++i) {
      const std::u16string key = letter + WideFromUtf8(std::to_string(i));
      EXPECT_EQ(Write(u"S", key, u"1"), ERROR_SUCCESS);
    }
  };
  std::thread other(writer, u'a');
  writer(u'b');
  other.join();
  const std::string text = Get().value_or("");
  EXPECT_EQ(std::count(text.begin(), text.end(), '='), 100);
}

TEST_F(ProfileFile, KeepsAWideFileWide) {
  const std::u16string pair = u"\U0001F600\xD800";
  std::string wide = "\xFF\xFE";
  for (const char16_t c : u"[S]\r\na=" + pair + u"\r\n") {
    wide += static_cast<char>(c & 0xFF);
    wide += static_cast<char>(c >> 8);
  }
  Put(wide);
  EXPECT_EQ(Read(u"S", u"a"), pair);
  EXPECT_EQ(Write(u"S", u"a", u"x"), ERROR_SUCCESS);
  EXPECT_EQ(Write(u"S", u"a", pair.c_str()), ERROR_SUCCESS);
  EXPECT_EQ(Get(), wide);
}

// --- batches ---

TEST_F(ProfileFile, StaysAsItWasUntilTheBatchIsCommitted) {
  ProfileBatch& batch = BeginChange();
  EXPECT_EQ(Get(), kOldText);
  EXPECT_EQ(Read(u"S", u"a"), u"9") << "the batch's own thread sees its writes";
  std::u16string seenByOthers;
  std::thread([&] { seenByOthers = Read(u"S", u"a"); }).join();
  EXPECT_EQ(seenByOthers, u"1");
  EXPECT_EQ(batch.Commit(), ERROR_SUCCESS);
  EXPECT_EQ(Get(), "[S]\r\na=9\r\nb=2\r\n");
}

TEST_F(ProfileFile, IsNotWrittenByABatchThatIsDropped) {
  (void)BeginChange();
  m_batch.reset();
  EXPECT_EQ(Get(), kOldText);
  EXPECT_EQ(Read(u"S", u"a"), u"1");
}

TEST_F(ProfileFile, GetsTheWritesOfABatchOnTopOfWhatOthersWroteMeanwhile) {
  ProfileBatch& batch = BeginChange();
  EXPECT_EQ(Write(u"S", u"b", nullptr), ERROR_SUCCESS);
  std::thread([&] { EXPECT_EQ(Write(u"T", u"other", u"5"), ERROR_SUCCESS); }).join();
  EXPECT_EQ(batch.Commit(), ERROR_SUCCESS);
  EXPECT_EQ(Get(), "[S]\r\na=9\r\n[T]\r\nother=5\r\n");
}

TEST_F(ProfileFile, ComesBackWhenItWasDeletedUnderABatch) {
  Put(kOldText);
  ProfileBatch batch(m_path, ProfileBatch::kSave);
  EXPECT_EQ(Write(u"S", u"a", u"1"), ERROR_SUCCESS) << "no change to the file as it was";
  std::filesystem::remove(m_file);
  EXPECT_EQ(batch.Commit(), ERROR_SUCCESS);
  EXPECT_EQ(Get(), "[S]\r\na=1\r\n");
}

TEST_F(ProfileFile, TakesSeveralCommitsOfOneBatch) {
  ProfileBatch batch(m_path, ProfileBatch::kSave);
  EXPECT_EQ(Write(u"S", u"a", u"1"), ERROR_SUCCESS);
  EXPECT_EQ(CommitProfiles(), ERROR_SUCCESS);
  EXPECT_EQ(Write(u"S", u"b", u"2"), ERROR_SUCCESS);
  EXPECT_EQ(batch.Commit(), ERROR_SUCCESS);
  EXPECT_EQ(batch.Commit(), ERROR_SUCCESS);
  EXPECT_EQ(Get(), kOldText);
}

TEST_F(ProfileFile, KeepsTheWritesOfABatchWhoseCommitFailed) {
  ProfileBatch& batch = BeginChange();
  {
    const FaultPlan plan = FaultPlan::FailCall(Operation::kCommitProfiles, 1, ERROR_DISK_FULL);
    EXPECT_EQ(batch.Commit(), ERROR_DISK_FULL);
  }
  EXPECT_EQ(Get(), kOldText);
  EXPECT_EQ(batch.Commit(), ERROR_SUCCESS);
  EXPECT_EQ(Get(), "[S]\r\na=9\r\nb=2\r\n");
}

// --- a new file that is written ahead of the commit ---

constexpr char kAheadText[] = "[S]\r\na=9\r\nb=2\r\n";

// The text is there, but not yet safe from a power cut.
TEST_F(ProfileFile, IsNotTakenForSafeByTheNextCommitWhereTheSyncOfItsDirectoryFailed) {
  ProfileBatch& batch = BeginChange();
  {
    const FaultPlan plan = FaultPlan::FailCall(Operation::kSyncFile, 2, ERROR_IO_DEVICE, kFromThenOn);
    EXPECT_EQ(batch.Commit(), ERROR_IO_DEVICE);
    EXPECT_EQ(batch.Commit(), ERROR_IO_DEVICE);
  }
  int syncs = 0;
  const FaultPlan plan = FaultPlan::Ask([&](int, Operation operation, std::string_view) {
    syncs += operation == Operation::kSyncFile ? 1 : 0;
    return ErrorCode{ERROR_SUCCESS};
  });
  EXPECT_EQ(batch.Commit(), 0u);
  EXPECT_EQ(syncs, 2) << "the file and its directory";
  EXPECT_EQ(batch.Commit(), 0u);
  EXPECT_EQ(syncs, 2) << "nothing is left to do";
}

TEST_F(ProfileFile, StaysAsItWasWhileTheNewFileLiesBesideIt) {
  ProfileBatch& batch = BeginChange();
  batch.Prepare();
  EXPECT_EQ(Get(), kOldText);
  EXPECT_THAT(Names(), UnorderedElementsAre("rules.ini", ".rules.ini.new"));
  {
    const FaultPlan plan = FaultPlan::FailCall(Operation::kWriteFile, 1, ERROR_DISK_FULL);  // nothing more is written
    EXPECT_EQ(batch.Commit(), ERROR_SUCCESS);
  }
  EXPECT_EQ(Get(), kAheadText);
  EXPECT_THAT(Names(), ElementsAre("rules.ini"));
  EXPECT_EQ(Write(u"S", u"a", u"10"), ERROR_SUCCESS);
  EXPECT_EQ(batch.Commit(), ERROR_SUCCESS);
  EXPECT_EQ(Get(), "[S]\r\na=10\r\nb=2\r\n");
}

TEST_F(ProfileFile, LosesTheNewFileBesideItWithTheBatch) {
  BeginChange().Prepare();
  m_batch.reset();
  EXPECT_EQ(Get(), kOldText);
  EXPECT_THAT(Names(), ElementsAre("rules.ini"));
}

TEST_F(ProfileFile, GetsWhatCameBehindTheNewFileToo) {
  struct Case {
    int line;
    std::function<void()> meanwhile;
    const char* after;
  };
  const Case cases[] = {
      {__LINE__, [&] { EXPECT_EQ(Write(u"S", u"c", u"3"), ERROR_SUCCESS); }, "[S]\r\na=9\r\nb=2\r\nc=3\r\n"},
      // Another writer, whose own new file bears the same name, and one who is no writer of this process.
      {__LINE__, [&] { std::thread([&] { EXPECT_EQ(Write(u"S", u"b", u"7"), ERROR_SUCCESS); }).join(); },
       "[S]\r\na=9\r\nb=7\r\n"},
      {__LINE__, [&] { std::filesystem::remove(m_file); }, "[S]\r\na=9\r\n"},
      {__LINE__, [&] { std::filesystem::remove(m_directory + "/.rules.ini.new"); }, kAheadText},
      {__LINE__,
       [&] {
         std::filesystem::remove(m_directory + "/.rules.ini.new");
         std::ofstream(m_directory + "/.rules.ini.new") << "another's";
       },
       kAheadText},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE("line " + std::to_string(c.line));
    ProfileBatch& batch = BeginChange();
    batch.Prepare();
    c.meanwhile();
    EXPECT_EQ(batch.Commit(), ERROR_SUCCESS);
    EXPECT_EQ(Get(), c.after);
    EXPECT_THAT(Names(), ElementsAre("rules.ini"));
  }
}

TEST_F(ProfileFile, TellsAtTheCommitThatTheNewFileCouldNotBeWritten) {
  for (const Operation operation : {Operation::kCreateFile, Operation::kWriteFile}) {
    ProfileBatch& batch = BeginChange();
    {
      const FaultPlan plan = FaultPlan::FailCall(operation, 1, ERROR_DISK_FULL);
      batch.Prepare();
    }
    EXPECT_EQ(batch.Commit(), ERROR_DISK_FULL);
    EXPECT_EQ(Get(), kOldText);
    EXPECT_THAT(Names(), ElementsAre("rules.ini"));
    EXPECT_EQ(batch.Commit(), ERROR_SUCCESS);
    EXPECT_EQ(Get(), kAheadText);
  }
}

TEST_F(ProfileFile, GetsNoNewFileBesideItWhereNothingIsToBeWritten) {
  Put(kOldText);
  ProfileBatch batch(m_path, ProfileBatch::kSave);
  batch.Prepare();
  EXPECT_EQ(Write(u"S", u"a", u"1"), ERROR_SUCCESS);
  batch.Prepare();
  ProfileBatch loading(m_path, ProfileBatch::kLoad);
  loading.Prepare();
  EXPECT_THAT(Names(), ElementsAre("rules.ini"));
}

TEST_F(ProfileFile, IsNotWrittenByABatchThatMissesAWrite) {
  ProfileBatch& batch = BeginChange();
  {
    const FaultPlan plan = FaultPlan::FailCall(Operation::kWriteProfileString, 1, ERROR_IO_DEVICE);
    EXPECT_EQ(Write(u"S", u"b", u"9"), ERROR_IO_DEVICE);
  }
  EXPECT_EQ(Write(u"S", u"c", u"9"), ERROR_SUCCESS);
  EXPECT_EQ(batch.Commit(), ERROR_IO_DEVICE);
  EXPECT_EQ(batch.Commit(), ERROR_IO_DEVICE);
  EXPECT_EQ(Get(), kOldText);
}

TEST_F(ProfileFile, IsReadOnceByABatchForLoading) {
  Put(kOldText);
  ProfileBatch batch(m_path, ProfileBatch::kLoad);
  const FaultPlan plan = FaultPlan::FailCall(Operation::kReadFile, 2, ERROR_IO_DEVICE, kFromThenOn);
  EXPECT_EQ(Read(u"S", u"a"), u"1");
  Put("[S]\r\na=changed\r\n");
  EXPECT_EQ(Read(u"S", u"a"), u"1");
  EXPECT_EQ(Read(u"S", u"b"), u"2");
  EXPECT_EQ(plan.hits(), 0);
  EXPECT_EQ(plan.calls(), 1);
}

TEST_F(ProfileFile, GivesTheBytesThatABatchHasRead) {
  Put("[S]\na = 1 ; x\n");
  ProfileBatch batch(m_path, ProfileBatch::kLoad);
  EXPECT_EQ(batch.Bytes(), "");
  ASSERT_EQ(batch.Read(), ERROR_SUCCESS);
  Put(kOldText);
  EXPECT_EQ(batch.Bytes(), "[S]\na = 1 ; x\n");
  EXPECT_EQ(Read(u"S", u"a"), u"1 ; x");  // of the same bytes
  EXPECT_EQ(batch.Bytes(), "[S]\na = 1 ; x\n");
}

TEST_F(ProfileFile, AnswersAsMissingToAWholeBatchForLoading) {
  ProfileBatch batch(m_path, ProfileBatch::kLoad);
  std::int32_t value = 0;
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(GetProfileInt(m_path, u"S", u"a", 5, value), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(value, 5);
    Put(kOldText);
  }
}

TEST_F(ProfileFile, TellsByItsBatchThatItCouldNotBeRead) {
  Put(kOldText);
  const FaultPlan plan = FaultPlan::FailCall(Operation::kReadFile, 1, ERROR_IO_DEVICE);
  ProfileBatch batch(m_path, ProfileBatch::kLoad);
  EXPECT_EQ(Read(u"S", u"a"), u"(none)");  // the default
  EXPECT_EQ(Read(u"S", u"a"), u"1");
  EXPECT_EQ(batch.FirstFailure(), ERROR_IO_DEVICE);
}

TEST_F(ProfileFile, IsReadByItsBatchAheadOfTheFirstCall) {
  {
    ProfileBatch batch(m_path, ProfileBatch::kLoad);
    EXPECT_EQ(batch.Read(), ERROR_SUCCESS);  // missing: an empty one
    EXPECT_EQ(Read(u"S", u"a"), u"(none)");
    EXPECT_EQ(batch.FirstFailure(), ERROR_SUCCESS);
  }
  Put(kOldText);
  ProfileBatch batch(m_path, ProfileBatch::kLoad);
  EXPECT_EQ(batch.Read(), ERROR_SUCCESS);
  Put("[S]\r\na=changed\r\n");
  EXPECT_EQ(Read(u"S", u"a"), u"1");
}

TEST_F(ProfileFile, IsNotWrittenThroughABatchForLoading) {
  Put(kOldText);
  ProfileBatch batch(m_path, ProfileBatch::kLoad);
  EXPECT_EQ(Write(u"S", u"a", u"9"), ERROR_ACCESS_DENIED);
  EXPECT_EQ(batch.Commit(), ERROR_INVALID_FUNCTION);
  EXPECT_EQ(CommitProfiles(), ERROR_INVALID_FUNCTION);
  EXPECT_EQ(Get(), kOldText);
}

TEST_F(ProfileFile, IsMetByABatchUnderAnyClientPathOfTheSameName) {
  ProfileBatch batch(m_path, ProfileBatch::kSave);
  std::u16string other = m_path;
  std::replace(other.begin(), other.end(), u'/', u'\\');
  EXPECT_EQ(WriteProfileString(other, u"S", u"a", u"1"), ERROR_SUCCESS);
  EXPECT_EQ(WriteProfileString(m_path + u"2", u"S", u"a", u"1"), ERROR_SUCCESS);
  EXPECT_THAT(Names(), ElementsAre("rules.ini2")) << "a batch gathers the writes on its own path only";
  EXPECT_EQ(batch.Commit(), ERROR_SUCCESS);
  EXPECT_EQ(Get(), "[S]\r\na=1\r\n");
}

struct WriteStep {
  std::u16string section;
  std::optional<std::u16string> key;
  std::optional<std::u16string> value;
};
// Texts that a reader of the file understands in another way than they were given.
const std::vector<WriteStep> kAwkwardWrites[] = {
    {{u"S", u"a", u"x\r\ny=z"}, {u"S", u"y", u"2"}},
    {{u"S", u"a", u"v  "}, {u"S", u"b", u"2"}},
    {{u"S", u"a", u"v  "}, {u"S", u"none", std::nullopt}},
    {{u"S", u"a", u"v  "}, {u"S", u"a", u"v"}},
    {{u"S", u"a", u"v  "}, {u"S", u"a", u"v  "}},
    {{u"S", u"a=b", u"1"}, {u"S", u"a=b", u"2"}, {u"S", u"a", u"3"}},
    {{u"S", u"[T]", u"1"}, {u"S", u"b", u"2"}},
    {{u"S", u"[T", u"1]"}, {u"S", u"b", u"2"}},
    {{u"S]x", u"a", u"1"}, {u"S]x", u"b", u"2"}},
    {{u"S\nT", u"a", u"1"}, {u"T", u"b", u"2"}},
    {{u"S", u";k", u"1"}, {u"S", u";k", u"2"}},
    {{u"S", u"a", u"1"}, {u"S", std::nullopt, std::nullopt}, {u"S", u"b", u"1"}},
    {{u"S", u"a", u"\"quoted\""}, {u"S", u"a", u"quoted"}},
};

TEST_F(ProfileFile, HoldsTheSameBytesAfterABatchAndAfterSingleCalls) {
  const std::string starts[] = {"", "[S]\r\na=1\r\na=2\r\n[T]\r\ny=1\r\n", "[S] ;x\n\n a = 1\n;k = c\n"};
  for (const std::string& start : starts) {
    for (const std::vector<WriteStep>& steps : kAwkwardWrites) {
      const auto run = [&] {
        for (const WriteStep& step : steps) {
          const std::u16string_view key = step.key ? std::u16string_view(*step.key) : std::u16string_view();
          EXPECT_EQ(Write(step.section, key, step.value ? step.value->c_str() : nullptr), ERROR_SUCCESS);
        }
      };
      Put(start);
      run();
      const std::optional<std::string> single = Get();
      Put(start);
      {
        ProfileBatch batch(m_path, ProfileBatch::kSave);
        run();
        EXPECT_EQ(batch.Commit(), ERROR_SUCCESS);
      }
      EXPECT_EQ(Get(), single) << "steps " << &steps - kAwkwardWrites << " on " << start;
    }
  }
}

}  // namespace
}  // namespace platform
