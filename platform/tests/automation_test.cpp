#include "platform/automation.h"

#include <gtest/gtest.h>

#include <string>

#include "platform/testing/fault.h"

namespace platform {
namespace {

struct Record {
  std::string name;
  int number = 0;
};

TEST(RecordArray, HoldsValueInitialisedRecords) {
  RecordArray<Record> array;
  EXPECT_FALSE(array);
  ASSERT_EQ(array.Create(2, "records"), 0u);
  EXPECT_EQ(array.size(), 2u);
  Record* data = nullptr;
  ASSERT_EQ(array.AccessData(data, "records"), 0u);
  EXPECT_EQ(data[1].number, 0);
  data[1].name = "second";
  EXPECT_EQ(array.UnaccessData("records"), 0u);
  EXPECT_EQ(array.records()[1].name, "second");
  EXPECT_EQ(array.Destroy("records"), 0u);
  EXPECT_FALSE(array);
  EXPECT_EQ(array.size(), 0u);
}

TEST(RecordArray, MayHaveNoRecords) {
  RecordArray<Record> array;
  ASSERT_EQ(array.Create(0, "records"), 0u);
  EXPECT_TRUE(array);
  EXPECT_EQ(array.size(), 0u);
}

TEST(RecordArray, IsNotDestroyedWhileAccessed) {
  RecordArray<int> array;
  ASSERT_EQ(array.Create(1, "numbers"), 0u);
  int* data = nullptr;
  ASSERT_EQ(array.AccessData(data, "numbers"), 0u);
  EXPECT_EQ(array.Destroy("numbers"), kArrayLocked);
  EXPECT_EQ(array.Create(5, "numbers"), kArrayLocked);
  EXPECT_EQ(array.size(), 1u);
  EXPECT_EQ(array.UnaccessData("numbers"), 0u);
  EXPECT_EQ(array.UnaccessData("numbers"), kArrayUnexpected);
  EXPECT_EQ(array.Destroy("numbers"), 0u);
}

TEST(RecordArray, RefusesWhatItDoesNotHave) {
  RecordArray<int> array;
  int* data = nullptr;
  EXPECT_EQ(array.AccessData(data, "numbers"), kArrayInvalidArgument);
  EXPECT_EQ(data, nullptr);
  EXPECT_EQ(array.Create(SIZE_MAX / 2, "numbers"), ERROR_OUTOFMEMORY);
  EXPECT_FALSE(array);
}

TEST(RecordArray, EachCallFailsByItsName) {
  RecordArray<int> array;
  int* data = nullptr;
  {
    const FaultPlan plan = FaultPlan::FailCall(Operation::kArrayCreate, 1, ERROR_OUTOFMEMORY, kOnce, "list");
    EXPECT_EQ(array.Create(1, "list"), ERROR_OUTOFMEMORY);
    EXPECT_FALSE(array);
  }
  ASSERT_EQ(array.Create(1, "list"), 0u);
  {
    const FaultPlan plan = FaultPlan::FailCall(Operation::kArrayAccessData, 1, 5, kOnce, "list");
    EXPECT_EQ(array.AccessData(data, "list"), 5u);
    EXPECT_EQ(data, nullptr);
  }
  ASSERT_EQ(array.AccessData(data, "list"), 0u);
  {
    const FaultPlan plan = FaultPlan::FailCall(Operation::kArrayUnaccessData, 1, 5, kOnce, "list");
    EXPECT_EQ(array.UnaccessData("list"), 5u);
  }
  ASSERT_EQ(array.UnaccessData("list"), 0u);
  {
    const FaultPlan plan = FaultPlan::FailCall(Operation::kArrayDestroy, 1, 5, kOnce, "list");
    EXPECT_EQ(array.Destroy("list"), 5u);
    EXPECT_TRUE(array);
  }
}

TEST(RecordInfo, IsKnownUnlessToldOtherwise) {
  EXPECT_EQ(GetRecordInfo("SCHEDULE_OBJECT"), 0u);
  const FaultPlan plan = FaultPlan::FailCall(Operation::kGetRecordInfo, 1, 0x8002802B, kOnce, "SCHEDULE_OBJECT");
  EXPECT_EQ(GetRecordInfo("SCHEDULE_OBJECT_EX"), 0u);
  EXPECT_EQ(GetRecordInfo("SCHEDULE_OBJECT"), 0x8002802Bu);
}

}  // namespace
}  // namespace platform
