// platform/interrupt.h: Ctrl-C while a program waits, and a word when the wait gets long.
//
// Threads: made and destroyed on the thread that waits; the callbacks run on a thread of the watch's own.
#pragma once

#include <cstdint>
#include <functional>

#include "platform/thread.h"

namespace platform {

// While it lives, an interrupt from the keyboard (SIGINT) calls back instead of ending the process. A process that was
// started with the signal ignored goes on ignoring it. One that arrives after the last callback has its usual effect.
// Where the host refuses what the watch needs, everything stays as it is without one.
class InterruptWatch {
 public:
  static constexpr std::uint32_t kNever = UINT32_MAX;

  //   lateMs       milliseconds after which `late` is called, once; kNever for not at all
  //   late         may be empty
  //   interrupted  called for each interrupt; may end the process
  InterruptWatch(std::uint32_t lateMs, std::function<void()> late, std::function<void()> interrupted);
  InterruptWatch(const InterruptWatch&) = delete;
  InterruptWatch& operator=(const InterruptWatch&) = delete;
  ~InterruptWatch();  // waits for a callback that runs

 private:
  void Watch();
  void PutBack();

  std::uint32_t m_lateMs;
  std::function<void()> m_late;
  std::function<void()> m_interrupted;
  int m_signals = -1;  // descriptor that reads the signal; none where it is ignored
  int m_end = -1;      // descriptor that ends the thread
  bool m_blocked = false;
  Thread m_thread;
};

// Ends the process as an interrupt that nobody watches does, so that a shell sees why.
[[noreturn]] void EndByInterrupt();

}  // namespace platform
