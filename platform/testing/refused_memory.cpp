#include "platform/testing/refused_memory.h"

#include <atomic>
#include <cstdlib>
#include <new>

#include "platform/reserved_memory.h"

namespace platform {
namespace {

struct Refusal {
  bool armed;
  FaultMode mode;
  long ahead;
  std::size_t left;  // bytes that the host got back meanwhile
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

void* Allocate(std::size_t size) {
  while (IsRefused(size)) {
    const std::new_handler handler = std::get_new_handler();
    if (handler == nullptr) throw std::bad_alloc();
    handler();
    t_refusal.left += kReservedBytes;
  }
  void* const memory = std::malloc(size != 0 ? size : 1);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

}  // namespace

void RefuseMemory(long ahead, FaultMode mode) { t_refusal = {true, mode, ahead, 0}; }
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
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
