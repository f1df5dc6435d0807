// What the thread-safety analysis has to refuse, line by line; compiled by a test with clang's own check of such lists.
#include "platform/critical_section.h"
#include "platform/mutex.h"

namespace platform {

class Counter {
 public:
  int Right() {
    MutexLock hold(m_lock);
    while (m_count == 0) m_changed.Wait(hold);
    hold.Unlock();
    hold.Lock();
    return Taken();
  }
  int WithoutTheLock() {
    return m_count;  // expected-warning {{reading variable 'm_count' requires holding mutex 'm_lock'}}
  }
  int BehindTheUnlocking() {
    MutexLock hold(m_lock);
    hold.Unlock();
    return m_count;  // expected-warning {{reading variable 'm_count' requires holding mutex 'm_lock'}}
  }
  int CallsWithoutTheLock() {
    return Taken();  // expected-warning {{calling function 'Taken' requires holding mutex 'm_lock' exclusively}}
  }
  void TakesItTwice() {
    const MutexLock hold(m_lock);   // expected-note {{mutex acquired here}}
    const MutexLock again(m_lock);  // expected-warning {{acquiring mutex 'm_lock' that is already held}}
  }
  void Section() {
    {
      const CriticalSectionGuard hold(m_section);
      ++m_inSection;
    }
    ++m_inSection;  // expected-warning {{writing variable 'm_inSection' requires holding mutex 'm_section'}}
  }
  void StaysInside() {
    m_section.Enter();  // expected-note {{mutex acquired here}}
    ++m_inSection;
  }  // expected-warning {{mutex 'm_section' is still held at the end of function}}

 private:
  int Taken() QX_REQUIRES(m_lock) { return m_count--; }

  Mutex m_lock;
  Condition m_changed;
  int m_count QX_GUARDED_BY(m_lock) = 0;
  CriticalSection m_section;
  int m_inSection QX_GUARDED_BY(m_section) = 0;
};

void Use(Counter& counter) {
  counter.TakesItTwice();
  counter.Section();
  counter.StaysInside();
  (void)(counter.Right() + counter.WithoutTheLock() + counter.BehindTheUnlocking() + counter.CallsWithoutTheLock());
}

}  // namespace platform
