#include "platform/library.h"

#include <gtest/gtest.h>

#include "platform/testing/fault.h"

namespace platform {
namespace {

TEST(Library, FindsAnEntryOfALoadedLibrary) {
  Library math;
  ASSERT_EQ(Library::Load(u"libm.so.6", math), ERROR_SUCCESS);
  EXPECT_TRUE(math);
  double (*cosine)(double) = nullptr;
  ASSERT_EQ(math.FindFunction("cos", cosine), ERROR_SUCCESS);
  EXPECT_EQ(cosine(0.0), 1.0);
}

TEST(Library, FindsTheProgramsOwnEntries) {
  Library program;
  ASSERT_EQ(Library::OpenProgram(program), ERROR_SUCCESS);
  void* entry = nullptr;
  EXPECT_EQ(program.Find("malloc", entry), ERROR_SUCCESS);
  EXPECT_NE(entry, nullptr);
}

TEST(Library, RefusesWhatIsNoLibrary) {
  Library library;
  EXPECT_EQ(Library::Load(u"/no/such/library.so", library), ERROR_MOD_NOT_FOUND);
  EXPECT_EQ(Library::Load(u"\\no\\such\\library.so", library), ERROR_MOD_NOT_FOUND);
  EXPECT_EQ(Library::Load(u"/etc/passwd", library), ERROR_BAD_EXE_FORMAT);
  EXPECT_EQ(Library::Load(u"/tmp", library), ERROR_BAD_EXE_FORMAT);
  EXPECT_EQ(Library::Load(u"", library), ERROR_INVALID_NAME);
  EXPECT_EQ(Library::Load(std::u16string_view(u"libm.so.6\0x", 11), library), ERROR_INVALID_NAME);
  EXPECT_FALSE(library);
}

TEST(Library, AMissingEntryLeavesTheOutputAlone) {
  Library program;
  ASSERT_EQ(Library::OpenProgram(program), ERROR_SUCCESS);
  void* entry = &program;
  EXPECT_EQ(program.Find("NoSuchEntryAnywhere", entry), ERROR_PROC_NOT_FOUND);
  EXPECT_EQ(program.Find({"malloc\0x", 8}, entry), ERROR_PROC_NOT_FOUND);
  EXPECT_EQ(Library().Find("malloc", entry), ERROR_INVALID_HANDLE);
  EXPECT_EQ(entry, &program);
}

TEST(Library, MovesItsHandle) {
  Library a;
  ASSERT_EQ(Library::OpenProgram(a), ERROR_SUCCESS);
  Library b(std::move(a));
  EXPECT_FALSE(a);  // NOLINT: the moved-from state is part of the contract
  EXPECT_TRUE(b);
  a = std::move(b);
  EXPECT_TRUE(a);
}

TEST(Library, FailsAtTheFaultSeam) {
  Library library;
  {
    const FaultPlan plan = FaultPlan::FailCall(Operation::kLoadLibrary, 1, ERROR_ACCESS_DENIED, kOnce, "libm.so.6");
    EXPECT_EQ(Library::Load(u"libm.so.6", library), ERROR_ACCESS_DENIED);
    EXPECT_FALSE(library);
  }
  {
    const FaultPlan plan = FaultPlan::FailCall(Operation::kLoadLibrary, 1, ERROR_ACCESS_DENIED);
    EXPECT_EQ(Library::OpenProgram(library), ERROR_ACCESS_DENIED);
  }
  ASSERT_EQ(Library::OpenProgram(library), ERROR_SUCCESS);
  const FaultPlan plan = FaultPlan::FailCall(Operation::kGetProcAddress, 1, ERROR_PROC_NOT_FOUND, kOnce, "malloc");
  void* entry = nullptr;
  EXPECT_EQ(library.Find("malloc", entry), ERROR_PROC_NOT_FOUND);
}

}  // namespace
}  // namespace platform
