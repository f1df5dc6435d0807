#include "platform/reserved_memory.h"

namespace platform {
namespace {

// Of the calling thread.
struct Reserve {
  bool isOpen;
  void* bytes;  // null where it was used
};
thread_local constinit Reserve t_reserve = {};

void GiveBack() noexcept {
  ::operator delete(t_reserve.bytes);
  t_reserve.bytes = nullptr;
}

void WhereMemoryRanOut() {
  if (t_reserve.bytes == nullptr) throw std::bad_alloc();
  GiveBack();
}

}  // namespace

ReservedMemory::ReservedMemory() {
  Begin();
  if (!m_isOutermost || t_reserve.bytes != nullptr) return;
  t_reserve.isOpen = false;
  throw std::bad_alloc();
}

ReservedMemory::ReservedMemory(const std::nothrow_t&) noexcept { Begin(); }

ReservedMemory::~ReservedMemory() {
  if (!m_isOutermost) return;
  GiveBack();
  t_reserve.isOpen = false;
}

void ReservedMemory::Begin() noexcept {
  [[maybe_unused]] static const std::new_handler before = std::set_new_handler(WhereMemoryRanOut);
  if (t_reserve.isOpen) return;
  m_isOutermost = t_reserve.isOpen = true;
  Refill();
}

void ReservedMemory::Refill() noexcept {
  if (m_isOutermost && t_reserve.bytes == nullptr) t_reserve.bytes = ::operator new(kReservedBytes, std::nothrow);
}

}  // namespace platform
