#include "platform/file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <sstream>
#include <string_view>

#include "platform/testing/fault.h"
#include "platform/testing/temporary_folder.h"

namespace platform {
namespace {

using Access = File::Access;
using Disposition = File::Disposition;

class Files : public testing::Test {
 protected:
  void SetUp() override {
    m_name = m_directory + "/a";
    SetStateDirectory(m_directory + "/state");
  }
  void TearDown() override {
    SetStateDirectory({});
  }
  static void Put(const std::string& name, const std::string& bytes) {
    std::ofstream(name, std::ios::binary | std::ios::trunc) << bytes;
  }
  static std::string Get(const std::string& name) {
    std::ifstream in(name, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
  }
  static mode_t Mode(const std::string& name) {
    struct stat info {};
    EXPECT_EQ(stat(name.c_str(), &info), 0) << name;
    return info.st_mode & 07777;
  }

  const TemporaryFolder m_temporary{"file"};
  const std::string m_directory = m_temporary.Path();
  std::string m_name;
};

struct NameCase {
  int line;
  std::u16string_view client;
  std::string kernel;  // "STATE" stands for the state directory
};
const NameCase kNames[] = {
    {__LINE__, u"/etc/jobs/a.xml", "/etc/jobs/a.xml"},
    {__LINE__, u"jobs\\a.xml", "jobs/a.xml"},
    {__LINE__, u"\\jobs/a.xml", "/jobs/a.xml"},
    {__LINE__, u"C:\\Jobs\\A.xml", "STATE/drives/c/Jobs/A.xml"},
    {__LINE__, u"z:/a", "STATE/drives/z/a"},
    {__LINE__, u"C:a.xml", "STATE/drives/c/a.xml"},
    {__LINE__, u"c:", "STATE/drives/c"},
    {__LINE__, u"1:\\a", "1:/a"},
    {__LINE__, u"\u0143:a", "\xC5\x83:a"},
    {__LINE__, u"ab:c", "ab:c"},
    {__LINE__, u"\\Documents and Settings\\All Users\\x.ini", "STATE/Documents and Settings/All Users/x.ini"},
    {__LINE__, u"/Documents and Settings/x", "STATE/Documents and Settings/x"},
    {__LINE__, u"\\Documents and Settings2\\x", "/Documents and Settings2/x"},
    {__LINE__, u"C:\\Documents and Settings\\x", "STATE/drives/c/Documents and Settings/x"},
    {__LINE__, u"/\u00E4/\u20AC/\U0001F600", "/\xC3\xA4/\xE2\x82\xAC/\xF0\x9F\x98\x80"},
    {__LINE__, u"/\xD800x\xDC00", "/\xED\xA0\x80x\xED\xB0\x80"},
    {__LINE__, u"", ""},
    {__LINE__, std::u16string_view(u"a\0b", 3), ""},
};

TEST_F(Files, HaveKernelNamesMadeOfTheClientsPaths) {
  for (const NameCase& c : kNames) {
    std::string expected = c.kernel;
    if (expected.starts_with("STATE")) expected.replace(0, 5, StateDirectory());
    EXPECT_EQ(NativePath(c.client), expected) << "line " << c.line;
  }
}

TEST_F(Files, LieUnderTheStateDirectoryWithoutItsLastSeparator) {
  SetStateDirectory("/srv/qx//");
  EXPECT_EQ(StateDirectory(), "/srv/qx");
  EXPECT_EQ(NativePath(u"D:\\x"), "/srv/qx/drives/d/x");
}

TEST_F(Files, HaveDirectories) {
  EXPECT_EQ(DirectoryOf("/a/b"), "/a");
  EXPECT_EQ(DirectoryOf("/a"), "/");
  EXPECT_EQ(DirectoryOf("a"), ".");
  EXPECT_EQ(DirectoryOf("a/b/"), "a/b");
}

TEST_F(Files, ExistApartFromDirectories) {
  Put(m_name, "x");
  EXPECT_TRUE(FileExists(m_name));
  EXPECT_FALSE(DirectoryExists(m_name));
  EXPECT_FALSE(FileExists(m_directory));
  EXPECT_TRUE(DirectoryExists(m_directory));
  EXPECT_FALSE(FileExists(m_name + "2"));
  EXPECT_FALSE(FileExists(""));
  EXPECT_FALSE(DirectoryExists(""));
}

struct OpenCase {
  int line;
  Disposition disposition;
  bool exists;
  ErrorCode result;
  const char* contents;  // after writing "12" at the beginning
};
const OpenCase kOpens[] = {
    {__LINE__, Disposition::kOpenExisting, true, ERROR_SUCCESS, "12cd"},
    {__LINE__, Disposition::kOpenExisting, false, ERROR_FILE_NOT_FOUND, ""},
    {__LINE__, Disposition::kOpenAlways, true, ERROR_SUCCESS, "12cd"},
    {__LINE__, Disposition::kOpenAlways, false, ERROR_SUCCESS, "12"},
    {__LINE__, Disposition::kCreateAlways, true, ERROR_SUCCESS, "12"},
    {__LINE__, Disposition::kCreateAlways, false, ERROR_SUCCESS, "12"},
    {__LINE__, Disposition::kCreateNew, true, ERROR_FILE_EXISTS, "abcd"},
    {__LINE__, Disposition::kCreateNew, false, ERROR_SUCCESS, "12"},
    {__LINE__, Disposition::kTruncateExisting, true, ERROR_SUCCESS, "12"},
    {__LINE__, Disposition::kTruncateExisting, false, ERROR_FILE_NOT_FOUND, ""},
};

TEST_F(Files, OpenByTheirDisposition) {
  for (const OpenCase& c : kOpens) {
    std::filesystem::remove(m_name);
    if (c.exists) Put(m_name, "abcd");
    File file;
    ASSERT_EQ(file.Open(m_name, Access::kWrite, c.disposition), c.result) << "line " << c.line;
    EXPECT_EQ(file.IsOpen(), c.result == ERROR_SUCCESS);
    if (file.IsOpen()) {
      EXPECT_EQ(file.WriteAll("12"), ERROR_SUCCESS);
    }
    EXPECT_EQ(Get(m_name), c.contents) << "line " << c.line;
    EXPECT_EQ(FileExists(m_name), c.exists || c.result == ERROR_SUCCESS) << "line " << c.line;
  }
}

TEST_F(Files, AreAppendedToAtTheirEndWhoeverWroteMeanwhile) {
  File file;
  ASSERT_EQ(file.Open(m_name, Access::kAppend, Disposition::kOpenAlways), ERROR_SUCCESS);
  EXPECT_EQ(file.WriteAll("ab"), ERROR_SUCCESS);
  File other;
  ASSERT_EQ(other.Open(m_name, Access::kAppend, Disposition::kOpenExisting), ERROR_SUCCESS);
  EXPECT_EQ(other.WriteAll("12"), ERROR_SUCCESS);
  EXPECT_EQ(file.WriteAll("cd"), ERROR_SUCCESS);
  EXPECT_EQ(other.SeekTo(0), ERROR_SUCCESS);
  EXPECT_EQ(other.WriteAll("34"), ERROR_SUCCESS);
  EXPECT_EQ(Get(m_name), "ab12cd34");
}

TEST_F(Files, ArePrivateWhenNew) {
  File file;
  ASSERT_EQ(file.Open(m_name, Access::kWrite, Disposition::kOpenAlways), ERROR_SUCCESS);
  EXPECT_EQ(Mode(m_name), 0600u);
  ASSERT_EQ(CreateDirectories(m_directory + "/d/e"), ERROR_SUCCESS);
  EXPECT_EQ(Mode(m_directory + "/d"), 0700u);
  EXPECT_EQ(Mode(m_directory + "/d/e"), 0700u);
}

TEST_F(Files, RefuseToOpenWhatIsNoFile) {
  File file;
  EXPECT_EQ(file.Open(m_directory, Access::kRead, Disposition::kOpenExisting), ERROR_ACCESS_DENIED);
  EXPECT_EQ(file.Open(m_directory, Access::kWrite, Disposition::kOpenAlways), ERROR_ACCESS_DENIED);
  ASSERT_EQ(mkfifo(m_name.c_str(), 0600), 0);
  EXPECT_EQ(file.Open(m_name, Access::kRead, Disposition::kOpenExisting), ERROR_ACCESS_DENIED);
  EXPECT_EQ(file.Open(m_name, Access::kWrite, Disposition::kOpenExisting), ERROR_ACCESS_DENIED);
  EXPECT_EQ(file.Open("/dev/null", Access::kRead, Disposition::kOpenExisting), ERROR_ACCESS_DENIED);
  EXPECT_EQ(file.Open("", Access::kRead, Disposition::kOpenExisting), ERROR_PATH_NOT_FOUND);
  EXPECT_EQ(file.Open(m_directory + "/none/a", Access::kWrite, Disposition::kOpenAlways), ERROR_PATH_NOT_FOUND);
  EXPECT_EQ(file.Open(m_directory + "/none/a", Access::kRead, Disposition::kOpenExisting), ERROR_PATH_NOT_FOUND);
  Put(m_directory + "/plain", "");
  EXPECT_EQ(file.Open(m_directory + "/plain/a", Access::kRead, Disposition::kOpenExisting), ERROR_PATH_NOT_FOUND);
  EXPECT_EQ(file.Open(m_directory + "/plain", Access::kRead, Disposition::kTruncateExisting), ERROR_INVALID_PARAMETER);
  EXPECT_FALSE(file.IsOpen());
}

TEST_F(Files, AppendReadSeekAndTellTheirSize) {
  Put(m_name, "abc");
  File file;
  ASSERT_EQ(file.Open(m_name, Access::kReadWrite, Disposition::kOpenAlways), ERROR_SUCCESS);
  EXPECT_EQ(file.SeekToEnd(), ERROR_SUCCESS);
  EXPECT_EQ(file.WriteAll("def"), ERROR_SUCCESS);
  EXPECT_EQ(file.Sync(), ERROR_SUCCESS);
  std::uint64_t size = 0;
  EXPECT_EQ(file.Size(size), ERROR_SUCCESS);
  EXPECT_EQ(size, 6u);
  EXPECT_EQ(file.SeekTo(1), ERROR_SUCCESS);
  char two[2];
  std::size_t count = 0;
  EXPECT_EQ(file.Read(two, count), ERROR_SUCCESS);
  EXPECT_EQ(std::string(two, count), "bc");
  std::string rest = "+";
  EXPECT_EQ(file.ReadAll(rest), ERROR_SUCCESS);
  EXPECT_EQ(rest, "+def");
  EXPECT_EQ(file.Read(two, count), ERROR_SUCCESS);
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(file.SeekTo(UINT64_MAX), ERROR_INVALID_PARAMETER);
}

TEST_F(Files, ReadWholeFilesOfAnySize) {
  for (const std::size_t size : {0u, 1u, 65535u, 65536u, 65537u, 1u << 20}) {
    const std::string bytes(size, 'x');
    Put(m_name, bytes);
    std::string contents = "before";
    EXPECT_EQ(ReadWholeFile(m_name, contents), ERROR_SUCCESS);
    EXPECT_EQ(contents, bytes);
  }
  std::string contents = "before";
  EXPECT_EQ(ReadWholeFile(m_name + "2", contents), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(contents, "before");
}

TEST_F(Files, AnswerInvalidHandleWhenNothingIsOpen) {
  File file;
  std::uint64_t size = 7;
  std::size_t count = 7;
  char byte[1];
  std::string bytes;
  EXPECT_EQ(file.Size(size), ERROR_INVALID_HANDLE);
  EXPECT_EQ(file.SeekToEnd(), ERROR_INVALID_HANDLE);
  EXPECT_EQ(file.CutBehind(0), ERROR_INVALID_HANDLE);
  EXPECT_EQ(file.SeekTo(0), ERROR_INVALID_HANDLE);
  EXPECT_EQ(file.WriteAll(""), ERROR_INVALID_HANDLE);
  EXPECT_EQ(file.Read(byte, count), ERROR_INVALID_HANDLE);
  EXPECT_EQ(file.ReadAll(bytes), ERROR_INVALID_HANDLE);
  EXPECT_EQ(file.Sync(), ERROR_INVALID_HANDLE);
  EXPECT_EQ(file.LockByte(0), ERROR_INVALID_HANDLE);
  EXPECT_EQ(file.TryLockByte(0), ERROR_INVALID_HANDLE);
  EXPECT_EQ(file.UnlockByte(0), ERROR_INVALID_HANDLE);
  EXPECT_EQ(size, 7u);
  EXPECT_EQ(count, 7u);
}

TEST_F(Files, MoveAndLeaveNothingBehind) {
  File file;
  ASSERT_EQ(file.Open(m_name, Access::kWrite, Disposition::kOpenAlways), ERROR_SUCCESS);
  File other(std::move(file));
  EXPECT_FALSE(file.IsOpen());
  EXPECT_EQ(other.WriteAll("x"), ERROR_SUCCESS);
  file = std::move(other);
  EXPECT_FALSE(other.IsOpen());
  EXPECT_EQ(file.WriteAll("y"), ERROR_SUCCESS);
  EXPECT_EQ(Get(m_name), "xy");
}

TEST_F(Files, LockOneByteAgainstAnotherOpening) {
  File first;
  File second;
  ASSERT_EQ(first.Open(m_name, Access::kWrite, Disposition::kOpenAlways), ERROR_SUCCESS);
  ASSERT_EQ(second.Open(m_name, Access::kWrite, Disposition::kOpenAlways), ERROR_SUCCESS);
  ASSERT_EQ(first.LockByte(0), ERROR_SUCCESS);
  EXPECT_EQ(second.TryLockByte(0), ERROR_LOCK_VIOLATION);
  EXPECT_EQ(second.TryLockByte(1), ERROR_SUCCESS) << "only that byte is locked";
  EXPECT_EQ(first.UnlockByte(0), ERROR_SUCCESS);
  EXPECT_EQ(second.TryLockByte(0), ERROR_SUCCESS);
  EXPECT_EQ(first.TryLockByte(UINT64_MAX), ERROR_INVALID_PARAMETER);
}

TEST_F(Files, WaitForALockUntilItsHolderCloses) {
  File holder;
  ASSERT_EQ(holder.Open(m_name, Access::kWrite, Disposition::kOpenAlways), ERROR_SUCCESS);
  ASSERT_EQ(holder.LockByte(0), ERROR_SUCCESS);
  std::promise<void> waits;
  const FaultPlan plan = FaultPlan::Ask([&](int, Operation operation, std::string_view detail) -> ErrorCode {
    if (operation == Operation::kLockFile && detail == "wait") waits.set_value();
    return ERROR_SUCCESS;
  });
  auto waiter = std::async(std::launch::async, [&] {
    File file;
    EXPECT_EQ(file.Open(m_name, Access::kWrite, Disposition::kOpenAlways), ERROR_SUCCESS);
    EXPECT_EQ(file.LockByte(0), ERROR_SUCCESS);
    return Get(m_name);
  });
  EXPECT_EQ(waits.get_future().wait_for(std::chrono::minutes(1)), std::future_status::ready);
  EXPECT_EQ(holder.WriteAll("done"), ERROR_SUCCESS);
  holder.Close();
  EXPECT_EQ(waiter.get(), "done");
}

TEST_F(Files, TellOfAWaitForALockThatFails) {
  File holder;
  File other;
  ASSERT_EQ(holder.Open(m_name, Access::kWrite, Disposition::kOpenAlways), ERROR_SUCCESS);
  ASSERT_EQ(other.Open(m_name, Access::kWrite, Disposition::kOpenAlways), ERROR_SUCCESS);
  const FaultPlan plan = FaultPlan::FailCall(Operation::kLockFile, 1, ERROR_IO_DEVICE, kOnce, "wait");
  ASSERT_EQ(holder.LockByte(0), ERROR_SUCCESS) << "nobody is waited for";
  EXPECT_EQ(other.LockByte(0), ERROR_IO_DEVICE);
  holder.Close();
  EXPECT_EQ(other.LockByte(0), ERROR_SUCCESS);
  EXPECT_EQ(plan.calls(), 1);
}

TEST_F(Files, AreDeletedAndRenamed) {
  Put(m_name, "x");
  Put(m_name + "2", "y");
  EXPECT_EQ(RenameFile(m_name, m_name + "2", Durable::kYes), ERROR_SUCCESS);
  EXPECT_EQ(Get(m_name + "2"), "x");
  EXPECT_EQ(RenameFile(m_name, m_name + "3"), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(RenameFile(m_name + "2", m_directory + "/none/a"), ERROR_PATH_NOT_FOUND);
  ASSERT_EQ(CreateDirectories(m_directory + "/d"), ERROR_SUCCESS);
  EXPECT_EQ(RenameFile(m_name + "2", m_directory + "/d/b", Durable::kYes), ERROR_SUCCESS);
  EXPECT_EQ(DeleteFile(m_directory + "/d/b", Durable::kYes), ERROR_SUCCESS);
  EXPECT_EQ(DeleteFile(m_directory + "/d/b"), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(DeleteFile(m_directory + "/none/b"), ERROR_PATH_NOT_FOUND);
  EXPECT_EQ(DeleteFile(m_directory + "/d"), ERROR_ACCESS_DENIED);
}

TEST_F(Files, AreRenamedToNewNamesOnly) {
  Put(m_name, "x");
  Put(m_name + "2", "y");
  EXPECT_EQ(RenameToNewFile(m_name, m_name + "2", Durable::kYes), ERROR_FILE_EXISTS);
  EXPECT_EQ(Get(m_name), "x");
  EXPECT_EQ(Get(m_name + "2"), "y");
  EXPECT_EQ(RenameToNewFile(m_name, m_name + "3", Durable::kYes), ERROR_SUCCESS);
  EXPECT_EQ(Get(m_name + "3"), "x");
  EXPECT_EQ(RenameToNewFile(m_name, m_name + "4"), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(RenameToNewFile(m_name + "2", m_directory + "/none/a"), ERROR_PATH_NOT_FOUND);
}

TEST_F(Files, AreDifferentUnlessTheirNamesLeadToOneFileOrNone) {
  Put(m_name, "x");
  Put(m_name + "2", "x");
  std::filesystem::create_symlink(m_name, m_name + "3");
  EXPECT_TRUE(AreDifferentFiles(m_name, m_name + "2"));
  EXPECT_TRUE(AreDifferentFiles(m_name, m_directory));
  EXPECT_FALSE(AreDifferentFiles(m_name, m_name));
  EXPECT_FALSE(AreDifferentFiles(m_name, m_name + "3"));
  EXPECT_FALSE(AreDifferentFiles(m_directory, m_directory + "//."));
  EXPECT_FALSE(AreDifferentFiles(m_name, m_name + "4"));
  EXPECT_FALSE(AreDifferentFiles(m_name + "4", m_name));
  const FaultPlan plan = FaultPlan::FailCall(Operation::kFileExists, 1, ERROR_IO_DEVICE);
  EXPECT_FALSE(AreDifferentFiles(m_name, m_name + "2"));
}

TEST_F(Files, GetTheirDirectoriesCreated) {
  const std::string deep = m_directory + "/x/y//z/";
  EXPECT_EQ(CreateDirectories(deep), ERROR_SUCCESS);
  EXPECT_EQ(CreateDirectories(deep), ERROR_SUCCESS);
  EXPECT_TRUE(DirectoryExists(deep));
  Put(m_name, "");
  EXPECT_EQ(CreateDirectories(m_name), ERROR_ALREADY_EXISTS);
  EXPECT_EQ(CreateDirectories(m_name + "/b"), ERROR_ALREADY_EXISTS);
  EXPECT_EQ(CreateDirectories(""), ERROR_PATH_NOT_FOUND);
  EXPECT_EQ(SyncDirectory(deep), ERROR_SUCCESS);
  EXPECT_EQ(SyncDirectory(m_directory + "/none"), ERROR_PATH_NOT_FOUND);
  EXPECT_EQ(SyncDirectory(m_name), ERROR_PATH_NOT_FOUND);
}

TEST_F(Files, AreReplacedAsAWhole) {
  EXPECT_EQ(ReplaceWholeFile(m_name, "one", Durable::kYes), ERROR_SUCCESS);
  EXPECT_EQ(Mode(m_name), 0600u);
  ASSERT_EQ(chmod(m_name.c_str(), 0640), 0);
  EXPECT_EQ(ReplaceWholeFile(m_name, "two", Durable::kNo), ERROR_SUCCESS);
  EXPECT_EQ(Get(m_name), "two");
  EXPECT_EQ(Mode(m_name), 0640u);
  ASSERT_EQ(chmod(m_name.c_str(), 0440), 0);
  EXPECT_EQ(ReplaceWholeFile(m_name, "three", Durable::kNo), ERROR_ACCESS_DENIED);
  EXPECT_EQ(Get(m_name), "two");
  EXPECT_EQ(ReplaceWholeFile(m_directory, "x", Durable::kNo), ERROR_ACCESS_DENIED);
  EXPECT_EQ(ReplaceWholeFile(m_directory + "/none/a", "x", Durable::kNo), ERROR_PATH_NOT_FOUND);
}

TEST_F(Files, DoNotWriteThroughALinkThatWasLeftInPlaceOfTheNewFile) {
  Put(m_directory + "/victim", "untouched");
  ASSERT_EQ(symlink("victim", (m_directory + "/.a.new").c_str()), 0);
  EXPECT_EQ(ReplaceWholeFile(m_name, "one", Durable::kYes), ERROR_SUCCESS);
  EXPECT_EQ(Get(m_directory + "/victim"), "untouched");
  EXPECT_EQ(Get(m_name), "one");
}

TEST_F(Files, AreReplacedInTwoSteps) {
  Put(m_name, "old");
  FileReplacement replacement;
  EXPECT_FALSE(replacement.IsBegun());
  replacement.HaveDiskBegin();
  EXPECT_EQ(replacement.Finish(), ERROR_INVALID_HANDLE);
  for (const Durable durable : {Durable::kYes, Durable::kNo}) {
    ASSERT_EQ(replacement.Begin(m_name, "lost", durable), ERROR_SUCCESS);
    replacement.Discard();
    replacement.Discard();
    EXPECT_FALSE(replacement.IsBegun());
    EXPECT_FALSE(FileExists(m_directory + "/.a.new"));
    ASSERT_EQ(replacement.Begin(m_name, "first", durable), ERROR_SUCCESS);
    ASSERT_EQ(replacement.Begin(m_name, "new", durable), ERROR_SUCCESS);
    replacement.HaveDiskBegin();
    EXPECT_TRUE(replacement.IsBegun());
    EXPECT_EQ(Get(m_name), "old");
    EXPECT_EQ(replacement.Finish(), ERROR_SUCCESS);
    EXPECT_EQ(Get(m_name), "new");
    EXPECT_FALSE(replacement.IsBegun());
    Put(m_name, "old");
  }
  { EXPECT_EQ(FileReplacement().Begin(m_directory + "/none/a", "x", Durable::kYes), ERROR_PATH_NOT_FOUND); }
  {
    FileReplacement dropped;
    ASSERT_EQ(dropped.Begin(m_name, "lost", Durable::kYes), ERROR_SUCCESS);
    Put(m_directory + "/other", "another's");
    ASSERT_EQ(RenameFile(m_directory + "/other", m_directory + "/.a.new"), ERROR_SUCCESS);
    EXPECT_FALSE(dropped.IsBegun());
  }
  EXPECT_EQ(Get(m_directory + "/.a.new"), "another's");
  EXPECT_EQ(Get(m_name), "old");
}

TEST_F(Files, AskTheFaultSeamForEveryCall) {
  Put(m_name, "x");
  File file;
  ASSERT_EQ(file.Open(m_name, Access::kReadWrite, Disposition::kOpenAlways), ERROR_SUCCESS);
  std::uint64_t size = 0;
  std::size_t count = 0;
  char byte[1];
  std::string bytes;
  File lock;
  struct Call {
    int line;
    Operation operation;
    std::function<ErrorCode()> run;
  };
  const Call calls[] = {
      {__LINE__, Operation::kGetFileSize, [&] { return file.Size(size); }},
      {__LINE__, Operation::kSetFilePointer, [&] { return file.SeekToEnd(); }},
      {__LINE__, Operation::kWriteFile, [&] { return file.CutBehind(0); }},
      {__LINE__, Operation::kSetFilePointer, [&] { return file.SeekTo(0); }},
      {__LINE__, Operation::kWriteFile, [&] { return file.WriteAll("y"); }},
      {__LINE__, Operation::kReadFile, [&] { return file.Read(byte, count); }},
      {__LINE__, Operation::kReadFile, [&] { return file.ReadAll(bytes); }},
      {__LINE__, Operation::kReadFile, [&] { return ReadWholeFile(m_name, bytes); }},
      {__LINE__, Operation::kSyncFile, [&] { return file.Sync(); }},
      {__LINE__, Operation::kLockFile, [&] { return file.LockByte(0); }},
      {__LINE__, Operation::kLockFile, [&] { return file.TryLockByte(0); }},
      {__LINE__, Operation::kCreateFile, [&] { return lock.Open(m_name, Access::kRead, Disposition::kOpenExisting); }},
      {__LINE__, Operation::kDeleteFile, [&] { return DeleteFile(m_name); }},
      {__LINE__, Operation::kRenameFile, [&] { return RenameFile(m_name, m_name + "2"); }},
      {__LINE__, Operation::kRenameFile, [&] { return RenameToNewFile(m_name, m_name + "2"); }},
      {__LINE__, Operation::kCreateDirectory, [&] { return CreateDirectories(m_directory + "/d"); }},
      {__LINE__, Operation::kSyncFile, [&] { return SyncDirectory(m_directory); }},
      {__LINE__, Operation::kCreateFile, [&] { return ReplaceWholeFile(m_name, "z", Durable::kYes); }},
      {__LINE__, Operation::kWriteFile, [&] { return ReplaceWholeFile(m_name, "z", Durable::kYes); }},
      {__LINE__, Operation::kSyncFile, [&] { return ReplaceWholeFile(m_name, "z", Durable::kYes); }},
      {__LINE__, Operation::kRenameFile, [&] { return ReplaceWholeFile(m_name, "z", Durable::kYes); }},
      {__LINE__, Operation::kCreateDirectory, [&] { return LockStateDirectory(lock); }},
      {__LINE__, Operation::kCreateFile, [&] { return LockStateDirectory(lock); }},
      {__LINE__, Operation::kLockFile, [&] { return LockStateDirectory(lock); }},
  };
  for (const Call& call : calls) {
    const FaultPlan plan = FaultPlan::FailCall(call.operation, 1, ERROR_IO_DEVICE);
    EXPECT_EQ(call.run(), ERROR_IO_DEVICE) << "line " << call.line;
    EXPECT_EQ(plan.hits(), 1) << "line " << call.line;
    EXPECT_EQ(Get(m_name), "x") << "line " << call.line;
  }
  EXPECT_FALSE(lock.IsOpen());
  EXPECT_FALSE(std::filesystem::exists(m_directory + "/.a.new"));
  {
    const FaultPlan plan = FaultPlan::FailCall(Operation::kFileExists, 1, ERROR_IO_DEVICE);
    EXPECT_FALSE(FileExists(m_name));
  }
  const FaultPlan plan = FaultPlan::FailCall(Operation::kDirectoryExists, 1, ERROR_IO_DEVICE);
  EXPECT_FALSE(DirectoryExists(m_directory));
}

TEST_F(Files, ReturnAFailedSyncOfTheDirectoryThoughTheChangeIsMade) {
  Put(m_name, "x");
  FaultPlan plan = FaultPlan::FailCall(Operation::kSyncFile, 1, ERROR_IO_DEVICE, kOnce, m_directory);
  EXPECT_EQ(ReplaceWholeFile(m_name, "y", Durable::kYes), ERROR_IO_DEVICE);
  plan.Remove();
  EXPECT_EQ(Get(m_name), "y");
}

TEST_F(Files, LetOnlyOneServiceHaveTheStateDirectory) {
  File first;
  File second;
  ASSERT_EQ(LockStateDirectory(first), ERROR_SUCCESS);
  EXPECT_EQ(Mode(StateDirectory()), 0700u);
  EXPECT_EQ(LockStateDirectory(second), ERROR_LOCK_VIOLATION);
  EXPECT_FALSE(second.IsOpen());
  first.Close();
  EXPECT_EQ(LockStateDirectory(second), ERROR_SUCCESS);
}

TEST_F(Files, AreCutBehindASizeAndNeverMadeLonger) {
  Put(m_name, "abcdef");
  File file;
  ASSERT_EQ(file.Open(m_name, File::Access::kAppend, File::Disposition::kOpenExisting), ERROR_SUCCESS);
  std::uint64_t end = 0;
  EXPECT_EQ(file.SeekToEnd(&end), ERROR_SUCCESS);
  EXPECT_EQ(end, 6u);
  for (const std::uint64_t size : {std::uint64_t{7}, UINT64_MAX}) {
    EXPECT_EQ(file.CutBehind(size), ERROR_SUCCESS);
    EXPECT_EQ(Get(m_name), "abcdef");
  }
  EXPECT_EQ(file.CutBehind(4), ERROR_SUCCESS);
  EXPECT_EQ(Get(m_name), "abcd");
  ASSERT_EQ(file.Open(m_name, File::Access::kRead, File::Disposition::kOpenExisting), ERROR_SUCCESS);
  EXPECT_NE(file.CutBehind(0), ERROR_SUCCESS);
  EXPECT_EQ(Get(m_name), "abcd");
}

TEST_F(Files, ListTheNamesInADirectoryInOrder) {
  const std::string directory = DirectoryOf(m_name) + "/listed";
  ASSERT_EQ(CreateDirectories(directory + "/c"), ERROR_SUCCESS);
  for (const char* name : {"/b", "/a", "/.hidden"}) {
    ASSERT_EQ(ReplaceWholeFile(directory + name, "", Durable::kNo), ERROR_SUCCESS);
  }
  std::vector<std::string> names = {"before"};
  EXPECT_EQ(ListDirectory(directory + "/none", names), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(ListDirectory("", names), ERROR_PATH_NOT_FOUND);
  EXPECT_EQ(names, std::vector<std::string>{"before"});
  ASSERT_EQ(ListDirectory(directory, names), ERROR_SUCCESS);
  EXPECT_EQ(names, (std::vector<std::string>{".hidden", "a", "b", "c"}));
}

TEST(AbsoluteName, PutsTheCurrentDirectoryInFrontAndTakesSeparatorsOffTheEnd) {
  const std::string here = std::filesystem::current_path().string();
  const std::pair<std::string, std::string> kCases[] = {
      {"/a/b", "/a/b"}, {"/a/b//", "/a/b"}, {"/", "/"}, {"a", here + "/a"}, {"a/b/", here + "/a/b"}};
  for (const auto& [given, expected] : kCases) {
    std::string name = given;
    EXPECT_EQ(AbsoluteName(name), ERROR_SUCCESS) << given;
    EXPECT_EQ(name, expected);
  }
  std::string empty;
  EXPECT_EQ(AbsoluteName(empty), ERROR_PATH_NOT_FOUND);
}

TEST(AbsoluteName, StaysAsItIsWithoutACurrentDirectory) {
  std::string relative = "a/b";
  std::string absolute = "/a/b/";
  const FaultPlan plan = FaultPlan::FailCall(Operation::kDirectoryExists, 1, ERROR_FILE_NOT_FOUND, kFromThenOn);
  EXPECT_EQ(AbsoluteName(relative), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(relative, "a/b");
  EXPECT_EQ(AbsoluteName(absolute), ERROR_SUCCESS);
  EXPECT_EQ(absolute, "/a/b");
}

}  // namespace
}  // namespace platform
