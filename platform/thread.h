// platform/thread.h: threads, and the numbers of this process and thread.
//
// A thread's function lets nothing escape: an exception that leaves it ends the process. A thread takes no stop control
// and no interrupt (SIGTERM, SIGINT): these are left to the thread that the program started with.
// Threads: every function may be called from any thread; one Thread object by one thread at a time.
#pragma once

#include <cstdint>
#include <functional>
#include <string_view>
#include <thread>

#include "platform/error_codes.h"

namespace platform {

// A thread that somebody waits for: empty by default, joined at its end.
class Thread {
 public:
  Thread() = default;
  ~Thread() { Join(); }
  Thread(Thread&&) noexcept = default;
  Thread& operator=(Thread&& other) noexcept;
  Thread(const Thread&) = delete;
  Thread& operator=(const Thread&) = delete;

  // Starts `function` on a new thread.
  //   name     for the host's tools, which show the first 15 bytes; also what a test fails the start by
  //   out      untouched on failure, else what it held is joined first
  //   returns  0; ERROR_NO_PROC_SLOTS (89) when the host has no room for another thread; ERROR_NOT_ENOUGH_MEMORY (8)
  [[nodiscard]] static ErrorCode Start(std::string_view name, std::function<void()> function, Thread& out);

  // Waits for the end; nothing on an empty object. Never called on the thread itself.
  void Join();
  // Lets it run on by itself and leaves the object empty.
  void Detach();
  [[nodiscard]] bool joinable() const { return m_thread.joinable(); }

 private:
  std::thread m_thread;
};

// Starts a thread that nobody waits for; as Thread::Start.
[[nodiscard]] ErrorCode StartThread(std::string_view name, std::function<void()> function);

// Lets the calling thread rest, or a test's clock run on.
void PauseThread(std::uint32_t milliseconds);

// The numbers that the host gives to this process and to the calling thread.
[[nodiscard]] std::uint32_t CurrentProcessId();
[[nodiscard]] std::uint32_t CurrentThreadId();

}  // namespace platform
