#include "platform/guid.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <set>

#include "platform/testing/fault.h"

namespace platform {
namespace {

constexpr GUID kSample = GuidConstant(u"{1A2B3C4D-5E6F-7A8B-9C0D-E1F2000102ab}");

TEST(Guid, ConstantsAreMadeFromTheirText) {
  static_assert(kSample.Data1 == 0x1A2B3C4D && kSample.Data2 == 0x5E6F && kSample.Data3 == 0x7A8B);
  static_assert(kSample.Data4[0] == 0x9C && kSample.Data4[1] == 0x0D && kSample.Data4[7] == 0xAB);
  EXPECT_EQ(GuidText(kSample), u"{1A2B3C4D-5E6F-7A8B-9C0D-E1F2000102AB}");
}

TEST(Guid, TextAndValueAreTheSameThing) {
  for (int i = 0; i < 100; ++i) {
    GUID made;
    ASSERT_EQ(CreateGuid(made), ERROR_SUCCESS);
    GUID read;
    ASSERT_EQ(ClsidFromString(GuidText(made), read), 0u);
    EXPECT_EQ(read, made);
  }
}

TEST(Guid, NewIdentifiersDiffer) {
  std::set<GUID> seen;
  for (int i = 0; i < 1000; ++i) {
    GUID made;
    ASSERT_EQ(CreateGuid(made), ERROR_SUCCESS);
    EXPECT_TRUE(seen.insert(made).second);
  }
}

TEST(Guid, AForkDoesNotMakeTheIdentifiersOfItsParent) {
  GUID first;
  ASSERT_EQ(CreateGuid(first), ERROR_SUCCESS);
  int ends[2] = {};
  ASSERT_EQ(::pipe(ends), 0);
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    GUID made;
    const bool good = CreateGuid(made) == ERROR_SUCCESS && ::write(ends[1], &made, sizeof made) == sizeof made;
    ::_exit(good ? 0 : 1);
  }
  GUID own, ofChild;
  EXPECT_EQ(CreateGuid(own), ERROR_SUCCESS);
  EXPECT_EQ(::read(ends[0], &ofChild, sizeof ofChild), static_cast<ssize_t>(sizeof ofChild));
  EXPECT_NE(own, ofChild);
  int status = -1;
  EXPECT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  ::close(ends[0]);
  ::close(ends[1]);
}

TEST(Guid, OrderIsThatOfTheBytesInMemory) {
  GUID low;
  low.Data1 = 0x02000001;  // bytes 01 00 00 02
  GUID high;
  high.Data1 = 0x01000002;  // bytes 02 00 00 01
  EXPECT_LT(low, high);
  GUID last;
  last.Data4[7] = 0xFF;
  EXPECT_LT(GUID(), last);
  EXPECT_LT(last, low);
}

TEST(Guid, AFailedCreationLeavesTheValueAlone) {
  GUID value = kSample;
  const FaultPlan plan = FaultPlan::FailCall(Operation::kCreateGuid, 1, ERROR_NOT_ENOUGH_MEMORY);
  EXPECT_EQ(CreateGuid(value), ERROR_NOT_ENOUGH_MEMORY);
  EXPECT_EQ(value, kSample);
}

}  // namespace
}  // namespace platform
