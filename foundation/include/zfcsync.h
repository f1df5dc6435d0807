// foundation/include/zfcsync.h: the locks: CControlledObject, CCriticalSection, ScopedEntry, CZepOSCriticalSection and
// the scoped lock CZepGateKeeper.
//
// All are reentrant within one thread. Locks report by return value; only CZepGateKeeper throws.
// Threads: every operation may be called from any thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <optional>

#include "foundation/include/zfcexport.h"
#include "platform/critical_section.h"
#include "platform/thread_annotations.h"

namespace ZepFoundation ZEP_FOUNDATION_API {

// What synchronisation objects have in common.
class CSynchro {
 public:
  enum ESYNCH_ERROR : std::int32_t {
    ESYNCH_SUCCESS = 0,
    ESYNCH_NOT_AVAILABLE = 5,  // the object has no such operation
  };

  virtual ~CSynchro() = default;
  // Always 0.
  virtual ESYNCH_ERROR Release() { return ESYNCH_SUCCESS; }
};

// A lock.
class QX_CAPABILITY("mutex") CControlledObject {
 public:
  virtual CSynchro::ESYNCH_ERROR Enter() QX_ACQUIRE() = 0;
  virtual CSynchro::ESYNCH_ERROR Leave() QX_RELEASE() = 0;

 protected:
  ~CControlledObject() = default;
};

// A lock that counts its entries.
class QX_CAPABILITY("mutex") CCriticalSection final : public CControlledObject {
 public:
  CCriticalSection() = default;
  // Leaves the section as often as it was entered, so that a holder that went away doesn't block its end.
  ~CCriticalSection();
  CCriticalSection(const CCriticalSection&) = delete;
  CCriticalSection& operator=(const CCriticalSection&) = delete;

  // Always 0.
  CSynchro::ESYNCH_ERROR Enter() QX_ACQUIRE() override;
  // Always 0; without an entry before it nothing happens. For the thread that entered: another one's call takes an
  // entry off the count, and the section stays entered.
  CSynchro::ESYNCH_ERROR Leave() QX_RELEASE() override;
  // Deliberate: does nothing and answers ESYNCH_NOT_AVAILABLE, also where the platform could.
  CSynchro::ESYNCH_ERROR TryEnter() { return CSynchro::ESYNCH_NOT_AVAILABLE; }

  // Always 0: nobody counts references.
  [[nodiscard]] std::int32_t GetRefCount() const { return m_refCount; }
  // Entries now held, of all threads.
  [[nodiscard]] std::int32_t GetEntryCount() const { return m_entryCount.load(); }

 private:
  std::int32_t m_refCount = 0;
  std::atomic<std::int32_t> m_entryCount{0};
  platform::CriticalSection m_section;
};

// Enters a lock for a scope; what was begun and what was completed is counted, so that the end leaves exactly what was
// entered.
struct QX_SCOPED_CAPABILITY ScopedEntry {
  explicit ScopedEntry(CControlledObject* object) QX_ACQUIRE(object);
  ~ScopedEntry() QX_RELEASE();
  ScopedEntry(const ScopedEntry&) = delete;
  ScopedEntry& operator=(const ScopedEntry&) = delete;

  CControlledObject* m_object;
  std::atomic<std::int32_t> m_begun{0};
  std::atomic<std::int32_t> m_completed{0};
};

// The plain lock of the library and the service.
class QX_CAPABILITY("mutex") CZepOSCriticalSection {
 public:
  CZepOSCriticalSection() { Initialize(); }
  ~CZepOSCriticalSection();
  CZepOSCriticalSection(const CZepOSCriticalSection&) = delete;
  CZepOSCriticalSection& operator=(const CZepOSCriticalSection&) = delete;

  // Makes the section unless it is there already; also after Destroy(). Not for a lock that others use meanwhile.
  void Initialize();
  // 1, or -1 when not initialised.
  int Lock() QX_ACQUIRE();
  int Unlock() QX_RELEASE();
  // 1: entered; 0: another thread is inside; -1: not initialised or the platform can't; -2: not on this system.
  int TryLock() QX_TRY_ACQUIRE(1);
  // Deletes the section: 1, or -1 when not initialised. Not for a lock that is held.
  int Destroy();

 private:
  using TryEnterFunction = bool (*)(platform::CriticalSection&);

  std::optional<platform::CriticalSection> m_section;
  std::atomic<std::int32_t> m_initialized{0};
  void* m_kernelLibrary = nullptr;  // always null: the platform's own function is linked in
  TryEnterFunction m_tryEnter = nullptr;
};

// Locks for a scope.
class QX_SCOPED_CAPABILITY CZepGateKeeper {
 public:
  // Throws std::runtime_error "CZepGateKeeper() - Unable to lock mutex!" when Lock() doesn't return 1.
  explicit CZepGateKeeper(CZepOSCriticalSection* section) QX_ACQUIRE(section);
  explicit CZepGateKeeper(CZepOSCriticalSection& section) QX_ACQUIRE(section);
  ~CZepGateKeeper() QX_RELEASE();
  CZepGateKeeper(const CZepGateKeeper&) = delete;
  CZepGateKeeper& operator=(const CZepGateKeeper&) = delete;

 private:
  CZepOSCriticalSection* m_section;
};

}  // namespace ZepFoundation
