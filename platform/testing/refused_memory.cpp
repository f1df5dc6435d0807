#include "platform/testing/refused_memory.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace platform {
namespace {

struct Refusal {
  bool armed;
  FaultMode mode;
  long ahead;
};
thread_local constinit Refusal t_refusal = {};
std::atomic<long> g_refused{0};

bool IsRefused() {
  if (!t_refusal.armed || t_refusal.ahead-- > 0) return false;
  t_refusal = {t_refusal.mode == kFromThenOn, t_refusal.mode, 0};
  ++g_refused;
  return true;
}

}  // namespace

void RefuseMemory(long ahead, FaultMode mode) { t_refusal = {true, mode, ahead}; }
void AllowMemory() { t_refusal = {}; }
long TakeRefusedCount() { return g_refused.exchange(0); }

}  // namespace platform

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return platform::IsRefused() ? nullptr : std::malloc(size != 0 ? size : 1);
}
void* operator new(std::size_t size) {
  void* const memory = operator new(size, std::nothrow);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
