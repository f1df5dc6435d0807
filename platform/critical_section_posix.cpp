#include "platform/critical_section.h"

namespace platform {

// A recursive mutex of the C library, since that one answers a wrong unlock with a code where the standard library's
// has no defined behaviour; the answers of the other calls can't be failures on a mutex that was made.
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

void CriticalSection::Enter() QX_NO_THREAD_SAFETY_ANALYSIS {
  pthread_mutex_lock(&m_mutex);
}

bool CriticalSection::TryEnter() QX_NO_THREAD_SAFETY_ANALYSIS {
  return pthread_mutex_trylock(&m_mutex) == 0;
}

void CriticalSection::Leave() QX_NO_THREAD_SAFETY_ANALYSIS {
  pthread_mutex_unlock(&m_mutex);
}

}  // namespace platform
