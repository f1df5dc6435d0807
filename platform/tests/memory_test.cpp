#include "platform/memory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>

#include "platform/testing/fault.h"

namespace platform {
namespace {

TEST(Memory, GivesZeroedBytes) {
  auto* bytes = static_cast<unsigned char*>(Allocate(100, "bytes"));
  ASSERT_NE(bytes, nullptr);
  EXPECT_TRUE(std::all_of(bytes, bytes + 100, [](unsigned char b) { return b == 0; }));
  Free(bytes);
  void* nothing = Allocate(0, "nothing");
  EXPECT_NE(nothing, nullptr);
  Free(nothing);
  Free(nullptr);
}

TEST(Memory, TheNamedAllocationFails) {
  const FaultPlan plan = FaultPlan::FailCall(Operation::kAllocate, 1, ERROR_OUTOFMEMORY, kOnce, "second");
  void* first = Allocate(1, "first");
  EXPECT_NE(first, nullptr);
  EXPECT_EQ(Allocate(1, "second"), nullptr);
  Free(first);
}

TEST(NamedBuffer, OwnsZeroedElements) {
  NamedBuffer<std::uint32_t> buffer(3, "numbers");
  ASSERT_TRUE(buffer);
  EXPECT_EQ(buffer.size(), 3u);
  EXPECT_EQ(buffer[2], 0u);
  buffer[2] = 7;
  NamedBuffer<std::uint32_t> moved(std::move(buffer));
  EXPECT_FALSE(buffer);  // NOLINT: the moved-from state is part of the contract
  EXPECT_EQ(moved.span()[2], 7u);
  std::uint32_t* released = moved.release();
  EXPECT_FALSE(moved);
  Free(released);
}

TEST(NamedBuffer, IsEmptyWhenMemoryIsRefused) {
  const FaultPlan plan = FaultPlan::FailCall(Operation::kAllocate, 1, ERROR_OUTOFMEMORY);
  const NamedBuffer<char> refused(8, "refused");
  EXPECT_FALSE(refused);
  EXPECT_EQ(refused.size(), 0u);
  const NamedBuffer<std::uint64_t> uncountable(SIZE_MAX / 4, "uncountable");
  EXPECT_FALSE(uncountable);
}

}  // namespace
}  // namespace platform
