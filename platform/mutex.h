// platform/mutex.h: the plain lock, its scope and its condition, in the form that the thread-safety analysis knows.
//
// Not recursive; platform/critical_section.h is. Nothing here fails.
// Threads: that is what they are for. A MutexLock belongs to the thread that made it.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "platform/thread_annotations.h"

namespace platform {

class QX_CAPABILITY("mutex") Mutex {
 public:
  constexpr Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

 private:
  friend class MutexLock;
  std::mutex m_mutex;
};

// Holds a lock for a scope, and may let go of it inside.
class QX_SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) QX_ACQUIRE(mutex) : m_lock(mutex.m_mutex) {}
  ~MutexLock() QX_RELEASE() = default;
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

  // Lets go, and takes it again; in turns.
  void Unlock() QX_RELEASE() { m_lock.unlock(); }
  void Lock() QX_ACQUIRE() { m_lock.lock(); }

 private:
  friend class Condition;
  std::unique_lock<std::mutex> m_lock;
};

// What a thread that holds a lock waits for. A wait lets go of the lock, holds it again at its end, and may end for no
// reason: it stands in a loop that asks for what is waited for.
class Condition {
 public:
  Condition() = default;
  Condition(const Condition&) = delete;
  Condition& operator=(const Condition&) = delete;

  void Wait(MutexLock& lock) { m_condition.wait(lock.m_lock); }
  //   returns  false when the moment has come
  [[nodiscard]] bool WaitUntil(MutexLock& lock, std::chrono::steady_clock::time_point moment) {
    return m_condition.wait_until(lock.m_lock, moment) == std::cv_status::no_timeout;
  }
  void NotifyOne() { m_condition.notify_one(); }
  void NotifyAll() { m_condition.notify_all(); }

 private:
  std::condition_variable m_condition;
};

}  // namespace platform
