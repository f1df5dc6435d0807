// What trace_instructions_test.cpp has valgrind count: each CountX() below is one measured stretch.
//
// Each stretch does the same number of rounds, so that two of them can be subtracted.
#include <cstdio>

#include "common/Schedule.h"
#include "foundation/include/zfcdbg.h"
#include "platform/clock.h"

namespace {

using ZepFoundation::kTraceDebug;
using ZepFoundation::kTraceError;

constexpr int kRounds = 1000;
constexpr ZepTime kNoon = 1704906000;  // 2024-01-10

// Takes every record and keeps none.
class Swallow final : public ZepFoundation::DebugTraceSink {
 public:
  void Write(std::uint16_t, std::string_view) override { ++taken; }
  int taken = 0;
};

// Holds the compiler to one round after the other.
inline void Barrier(int& round) { asm volatile("" : "+r"(round) : : "memory"); }

CSchedule* g_schedule = nullptr;
int g_answers = 0;

ZepTime Reference(int round) { return kNoon + round * ZepTime{104729}; }

}  // namespace

extern "C" {

[[gnu::noinline]] void CountNothing() {
  for (int i = 0; i < kRounds; ++i) Barrier(i);
}

[[gnu::noinline]] void CountSuppressed() {
  for (int i = 0; i < kRounds; ++i) {
    Barrier(i);
    QX_TRACE(kTraceError, "round " << i);
  }
}

[[gnu::noinline]] void CountEnabled() {
  for (int i = 0; i < kRounds; ++i) {
    Barrier(i);
    QX_TRACE(kTraceError, "round " << i);
  }
}

[[gnu::noinline]] void CountWindow() {
  for (int i = 0; i < kRounds; ++i) {
    ZepTime start = 0, end = 0;
    zepByte last = 0;
    g_answers += g_schedule->GetNextTimeWindow(0, 0, Reference(i), &start, &end, &last) == ZEP_S_OK;
  }
}

// This question asks for a window and has four trace statements on its way.
[[gnu::noinline]] void CountInWindowSuppressed() {
  for (int i = 0; i < kRounds; ++i) g_answers += g_schedule->IsScheduleInTimeWindow(Reference(i));
}

[[gnu::noinline]] void CountInWindowEnabled() {
  for (int i = 0; i < kRounds; ++i) g_answers += g_schedule->IsScheduleInTimeWindow(Reference(i));
}
}

int main() {
  (void)platform::PutEnvironment("TZ=EST5EDT,M3.2.0,M11.1.0");
  platform::TzSet();
  g_schedule = new CSchedule;  // runs on every day
  g_schedule->AddRef();
  g_schedule->put_StartTime(kNoon);
  g_schedule->put_EndTime(kNoon + 3600);
  g_answers += g_schedule->IsScheduleInTimeWindow(kNoon + 1);  // what is made once is made now

  CountNothing();
  CountSuppressed();
  CountWindow();
  CountInWindowSuppressed();
  Swallow sink;
  ZepFoundation::SetDebugTraceSink(&sink);
  QX_TRACE(kTraceDebug, "the thread's stream is made now");
  CountEnabled();
  CountInWindowEnabled();
  ZepFoundation::SetDebugTraceSink(nullptr);
  g_schedule->Release();
  std::printf("%d rounds, %d records\n", kRounds, sink.taken - 1);
  return g_answers > 0 ? 0 : 1;
}
