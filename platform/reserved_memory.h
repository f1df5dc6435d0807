// platform/reserved_memory.h: memory that is set aside ahead of a change, so that what takes its first step takes its
// last one too.
//
// While a thread has some set aside, an allocation of C++ code on that thread for which the host has no memory gives it
// back first and is tried again (std::set_new_handler). What malloc() refuses is refused.
// Threads: an object belongs to one thread; each thread has its own.
#pragma once

#include <cstddef>
#include <new>

namespace platform {

inline constexpr std::size_t kReservedBytes = std::size_t{1} << 20;
// For how many copies there is room, of the bytes of a change's texts and of its old file. It makes about five of the
// texts and at most ten of the file, one behind the other.
inline constexpr std::size_t kCopiesOfATextInAChange = 16;

class ReservedMemory {
 public:
  // Sets kReservedBytes aside, or more where the copies of `textBytes` need it; inside of another one it does nothing.
  // Throws std::bad_alloc where they aren't there: nothing should be begun.
  explicit ReservedMemory(std::size_t textBytes = 0);
  // The same without an exception: what has to be done is begun anyway.
  explicit ReservedMemory(const std::nothrow_t&) noexcept;
  ~ReservedMemory();
  ReservedMemory(const ReservedMemory&) = delete;
  ReservedMemory& operator=(const ReservedMemory&) = delete;

  // Sets it aside anew where it was used, as far as the host has memory again.
  void Refill() noexcept;
  // Sets as much aside for the calling thread as its ReservedMemory would have for `textBytes`; nothing where it has
  // none, or as much already. Throws std::bad_alloc where that isn't there; what was set aside is then gone.
  static void Raise(std::size_t textBytes);

 private:
  void Begin(std::size_t bytes) noexcept;

  bool m_isOutermost = false;
};

}  // namespace platform
