#include "platform/reserved_memory.h"

#include <gtest/gtest.h>

#include <new>
#include <thread>

#include "platform/testing/refused_memory.h"

namespace platform {
namespace {

// Whether the thread gets `bytes`.
bool Gets(std::size_t bytes) {
  try {
    ::operator delete(::operator new(bytes));
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

class Reserved : public ::testing::Test {
 protected:
  ~Reserved() override { AllowMemory(); }
};

TEST_F(Reserved, ServesWhereTheHostHasNoMemoryUntilItIsUsed) {
  const ReservedMemory memory;
  RefuseMemory(0, kFromThenOn);
  EXPECT_TRUE(Gets(kReservedBytes / 2));
  EXPECT_TRUE(Gets(kReservedBytes / 2));
  EXPECT_FALSE(Gets(4096));  // what is set aside ends with a page
}

TEST_F(Reserved, HasRoomForTheCopiesOfTheTextsOfAChange) {
  constexpr std::size_t kText = 300'000;
  const ReservedMemory memory(kText);
  RefuseMemory(0, kFromThenOn);
  for (std::size_t i = 0; i < kCopiesOfATextInAChange; ++i) EXPECT_TRUE(Gets(kText)) << i;
}

TEST_F(Reserved, IsRaisedWhereTheTextsTurnOutToBeLonger) {
  constexpr std::size_t kText = 300'000;
  const ReservedMemory memory(100);
  ReservedMemory::Raise(kText);
  RefuseMemory(0, kFromThenOn);
  for (std::size_t i = 0; i < kCopiesOfATextInAChange; ++i) EXPECT_TRUE(Gets(kText)) << i;
}

TEST_F(Reserved, IsNotRaisedWhereItSufficesAndWhereThereIsNone) {
  {
    const ReservedMemory memory(300'000);
    RefuseMemory(0, kFromThenOn);
    EXPECT_NO_THROW(ReservedMemory::Raise(300'000));
  }
  EXPECT_NO_THROW(ReservedMemory::Raise(300'000));
  EXPECT_FALSE(Gets(1));
}

TEST_F(Reserved, TellsWhereItCannotBeRaised) {
  const ReservedMemory memory;
  RefuseMemory(0, kFromThenOn);
  EXPECT_THROW(ReservedMemory::Raise(300'000), std::bad_alloc);
}

TEST_F(Reserved, EndsWithItsObject) {
  { const ReservedMemory memory; }
  RefuseMemory(0, kFromThenOn);
  EXPECT_FALSE(Gets(1));
}

TEST_F(Reserved, IsNotBegunWhereTheHostHasNoMemoryForIt) {
  RefuseMemory(0, kFromThenOn);
  EXPECT_THROW(ReservedMemory{}, std::bad_alloc);
  AllowMemory();
  EXPECT_NO_THROW(ReservedMemory{});
}

TEST_F(Reserved, IsFilledAgainWhereTheHostHasMemoryAgain) {
  RefuseMemory(0, kFromThenOn);
  ReservedMemory memory(std::nothrow);
  EXPECT_FALSE(Gets(1));
  memory.Refill();
  EXPECT_FALSE(Gets(1));
  AllowMemory();
  memory.Refill();
  RefuseMemory(0, kFromThenOn);
  EXPECT_TRUE(Gets(1));
}

TEST_F(Reserved, IsOneWithThoseInsideOfIt) {
  const ReservedMemory memory;
  {
    RefuseMemory(0, kFromThenOn);
    const ReservedMemory inner;
    AllowMemory();
  }
  RefuseMemory(0, kFromThenOn);
  EXPECT_TRUE(Gets(1));
}

TEST_F(Reserved, IsNotForOtherThreads) {
  const ReservedMemory memory;
  bool got = true;
  std::thread([&] {
    RefuseMemory(0, kFromThenOn);
    got = Gets(1);
    AllowMemory();
  }).join();
  EXPECT_FALSE(got);
}

}  // namespace
}  // namespace platform
