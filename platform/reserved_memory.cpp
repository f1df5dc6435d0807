#include "platform/reserved_memory.h"

#include <algorithm>

namespace platform {
namespace {

// Of the calling thread.
struct Reserve {
  bool isOpen;
  std::size_t size;
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

void Fill() noexcept {
  if (t_reserve.bytes == nullptr) t_reserve.bytes = ::operator new(t_reserve.size, std::nothrow);
}

constexpr std::size_t BytesFor(std::size_t textBytes) {
  return std::max(kReservedBytes, kReservedBytes / 2 + kCopiesOfATextInAChange * textBytes);
}

}  // namespace

ReservedMemory::ReservedMemory(std::size_t textBytes) {
  Begin(BytesFor(textBytes));
  if (!m_isOutermost || t_reserve.bytes != nullptr) return;
  t_reserve.isOpen = false;
  throw std::bad_alloc();
}

ReservedMemory::ReservedMemory(const std::nothrow_t&) noexcept { Begin(BytesFor(0)); }

ReservedMemory::~ReservedMemory() {
  if (!m_isOutermost) return;
  GiveBack();
  t_reserve.isOpen = false;
}

void ReservedMemory::Begin(std::size_t bytes) noexcept {
  [[maybe_unused]] static const std::new_handler before = std::set_new_handler(WhereMemoryRanOut);
  if (t_reserve.isOpen) return;
  m_isOutermost = t_reserve.isOpen = true;
  t_reserve.size = bytes;
  Fill();
}

void ReservedMemory::Refill() noexcept {
  if (m_isOutermost) Fill();
}

void ReservedMemory::Raise(std::size_t textBytes) {
  if (!t_reserve.isOpen || BytesFor(textBytes) <= t_reserve.size) return;
  GiveBack();
  t_reserve.size = BytesFor(textBytes);
  Fill();
  if (t_reserve.bytes == nullptr) throw std::bad_alloc();
}

}  // namespace platform
