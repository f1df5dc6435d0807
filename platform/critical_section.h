// platform/critical_section.h: the process-local lock that one thread may enter several times.
//
// Threads: that is what it is for. A section that a thread left more often than it entered, or that another thread
// entered, stays as it is.
#pragma once

#include <pthread.h>

#include <atomic>

#include "platform/thread_annotations.h"

namespace platform {

class QX_CAPABILITY("mutex") CriticalSection {  // a recursive lock
 public:
  CriticalSection();
  ~CriticalSection();
  CriticalSection(const CriticalSection&) = delete;
  CriticalSection& operator=(const CriticalSection&) = delete;

  // Waits until no other thread is inside.
  void Enter() QX_ACQUIRE();
  // True when the section was free or this thread's own, which has then entered it.
  [[nodiscard]] bool TryEnter() QX_TRY_ACQUIRE(true);
  // Takes back one Enter of this thread.
  void Leave() QX_RELEASE();

 private:
  void NoteEntry();

  pthread_mutex_t m_mutex;
  std::atomic<pthread_t> m_owner{};  // while m_depth isn't 0; asked by other threads too
  unsigned m_depth = 0;              // written by the owner only
};

// Enters on construction, leaves on destruction.
class QX_SCOPED_CAPABILITY CriticalSectionGuard {
 public:
  explicit CriticalSectionGuard(CriticalSection& section) QX_ACQUIRE(section) : m_section(section) { section.Enter(); }
  ~CriticalSectionGuard() QX_RELEASE() { m_section.Leave(); }
  CriticalSectionGuard(const CriticalSectionGuard&) = delete;
  CriticalSectionGuard& operator=(const CriticalSectionGuard&) = delete;

 private:
  CriticalSection& m_section;
};

}  // namespace platform
