#include "platform/testing/refused_memory.h"

#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace platform {
namespace {

struct Refusal {
  bool armed;
  FaultMode mode;
  long ahead;
  std::size_t left;  // bytes that the host got back meanwhile
  bool isGivenBack;  // what is freed just now counts for `left`
};
thread_local constinit Refusal t_refusal = {};
std::atomic<long> g_refused{0};

bool IsRefused(std::size_t size) {
  if (!t_refusal.armed || t_refusal.ahead-- > 0) return false;
  if (t_refusal.left >= size) {
    t_refusal.left -= size;
    return false;
  }
  t_refusal.armed = t_refusal.mode == kFromThenOn;
  t_refusal.ahead = 0;
  ++g_refused;
  return true;
}

// While it lives, what is freed is there again.
struct GivingBack {
  GivingBack() { t_refusal.isGivenBack = true; }
  ~GivingBack() { t_refusal.isGivenBack = false; }
};

void Free(void* memory) noexcept {
  if (t_refusal.isGivenBack) t_refusal.left += malloc_usable_size(memory);
  std::free(memory);
}

void* Allocate(std::size_t size) {
  while (IsRefused(size)) {
    const std::new_handler handler = std::get_new_handler();
    if (handler == nullptr) throw std::bad_alloc();
    const GivingBack counts;
    handler();
  }
  void* const memory = std::malloc(size != 0 ? size : 1);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

}  // namespace

void RefuseMemory(long ahead, FaultMode mode) { t_refusal = {true, mode, ahead, 0, false}; }
void AllowMemory() { t_refusal = {}; }
long TakeRefusedCount() { return g_refused.exchange(0); }

}  // namespace platform

void* operator new(std::size_t size) { return platform::Allocate(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  try {
    return platform::Allocate(size);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}
void operator delete(void* memory) noexcept { platform::Free(memory); }
void operator delete(void* memory, std::size_t) noexcept { platform::Free(memory); }
