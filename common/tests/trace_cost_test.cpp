// What a trace statement costs that nobody asked for. Every allocation and every lock of this program is counted.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <string>

#include "common/Schedule.h"
#include "foundation/include/zfcdbg.h"
#include "foundation/testing/captured_trace.h"
#include "platform/testing/virtual_clock.h"

namespace {

std::atomic<std::size_t> g_allocations{0};
std::atomic<std::size_t> g_locks{0};

template <class Function>
Function Next(const char* name) {
  return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

void* Allocate(std::size_t size) {
  g_allocations.fetch_add(1, std::memory_order_relaxed);
  return std::malloc(size == 0 ? 1 : size);
}

// Kept a call: inlined, the compiler takes the pair of operators for a mismatch.
[[gnu::noinline]] void Free(void* memory) {
  std::free(memory);
}

}  // namespace

void* operator new(std::size_t size) {
  void* const memory = Allocate(size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return Allocate(size);
}
void operator delete(void* memory) noexcept {
  Free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  Free(memory);
}

extern "C" int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
  static const auto next = Next<int (*)(pthread_mutex_t*)>("pthread_mutex_lock");
  g_locks.fetch_add(1, std::memory_order_relaxed);
  return next(mutex);
}
extern "C" int pthread_rwlock_rdlock(pthread_rwlock_t* lock) noexcept {
  static const auto next = Next<int (*)(pthread_rwlock_t*)>("pthread_rwlock_rdlock");
  g_locks.fetch_add(1, std::memory_order_relaxed);
  return next(lock);
}

namespace {

using ZepFoundation::kTraceDebug;
using ZepFoundation::kTraceError;

constexpr ZepTime kNoon = 1704906000;  // 2024-01-10

struct Cost {
  std::size_t allocations;
  std::size_t locks;
};
template <class Work>
Cost CostOf(const Work& work) {
  const std::size_t allocations = g_allocations;
  const std::size_t locks = g_locks;
  work();
  return {g_allocations - allocations, g_locks - locks};
}

class TraceCost : public testing::Test {
 protected:
  TraceCost() : m_schedule(new CSchedule) {
    ZepFoundation::ResetDebugTrace();
    m_schedule->AddRef();
    m_schedule->Reset();
    m_schedule->put_StartTime(kNoon);
    m_schedule->put_EndTime(kNoon + 3600);
    m_schedule->put_UseRestartInterval(1);
    m_schedule->put_RestartInterval(600000);
    m_schedule->SetDayOfWeek(5, 4);
    m_schedule->SetDayOfMonth(30);
    for (int i = 0; i < 20; ++i) {
      m_schedule->SetSpecificDate(ZEP_SPECIFIC_EXCLUDE, kNoon + i * 7 * ZepTime{86400});
      m_schedule->SetSpecificDate(ZEP_SPECIFIC_INCLUDE, kNoon + (i * 7 + 3) * ZepTime{86400});
    }
  }
  ~TraceCost() override { m_schedule->Release(); }

  // A hundred references over three years, each with the window behind it and the question whether it lies in one.
  void Query() {
    for (int i = 0; i < 100; ++i) {
      const ZepTime reference = kNoon + i * ZepTime{1000000};
      found += m_schedule->GetNextTimeWindow(0, 0, reference, &start, &end, &last) == ZEP_S_OK;
      inside += m_schedule->IsScheduleInTimeWindow(start + 1);
    }
  }

  platform::ScopedZone m_zone{"EST5EDT,M3.2.0,M11.1.0"};
  platform::VirtualClock m_clock{kNoon};
  CSchedule* m_schedule;
  ZepTime start = 0, end = 0;
  zepByte last = 0;
  int found = 0, inside = 0;
};

TEST_F(TraceCost, IsNothingForASuppressedStatement) {
  int evaluated = 0;
  const auto text = [&] {
    ++evaluated;
    return std::string(100, 'x');
  };
  const Cost cost = CostOf([&] {
    for (int i = 0; i < 100; ++i) QX_TRACE(kTraceError, "text " << text() << i);
  });
  EXPECT_EQ(evaluated, 0);
  EXPECT_EQ(cost.allocations, 0u);
  EXPECT_EQ(cost.locks, 0u);
}

TEST_F(TraceCost, IsSeenByTheCountersWhereAStatementIsEnabled) {
  const ZepFoundation::CapturedTrace capture;
  int evaluated = 0;
  const Cost cost = CostOf([&] { QX_TRACE(kTraceDebug, std::string(100, 'x') << ++evaluated); });
  EXPECT_EQ(evaluated, 1);
  EXPECT_GT(cost.allocations, 0u);
  EXPECT_GT(cost.locks, 0u);
}

TEST_F(TraceCost, IsNeitherMemoryNorALockOnTheWayOfAWindowQuery) {
  Query();  // what is made once is made now
  const int foundBefore = found;
  const Cost cost = CostOf([&] { Query(); });
  EXPECT_EQ(found - foundBefore, 100);
  EXPECT_GT(inside, 0);
  EXPECT_EQ(cost.allocations, 0u);
  EXPECT_EQ(cost.locks, 0u);
}

TEST_F(TraceCost, ComesBackWithTheTrace) {
  Query();
  const ZepFoundation::CapturedTrace capture;
  const Cost cost = CostOf([&] { Query(); });
  EXPECT_GT(cost.allocations, 100u);
  EXPECT_GT(cost.locks, 100u);
  EXPECT_EQ(capture.records().size(), 400u);  // four statements each
}

}  // namespace
