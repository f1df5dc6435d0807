#include <stdexcept>

#include "foundation/include/zfcsync.h"
#include "foundation/include/zfcxplat.h"

namespace ZepFoundation {
namespace {

bool TryEnterSection(platform::CriticalSection& section) {
  return section.TryEnter();
}

}  // namespace

CCriticalSection::~CCriticalSection() {
  for (std::int32_t held = m_entryCount.load(); held > 0; --held) m_section.Leave();
  m_entryCount.store(0);
}

CSynchro::ESYNCH_ERROR CCriticalSection::Enter() {
  m_section.Enter();
  m_entryCount.fetch_add(1);
  return CSynchro::ESYNCH_SUCCESS;
}

CSynchro::ESYNCH_ERROR CCriticalSection::Leave() {
  if (m_entryCount.fetch_sub(1) - 1 < 0) {
    m_entryCount.fetch_add(1);
  } else {
    m_section.Leave();
  }
  return CSynchro::ESYNCH_SUCCESS;
}

ScopedEntry::ScopedEntry(CControlledObject* object) : m_object(object) {
  m_begun.fetch_add(1);
  m_object->Enter();
  m_completed.fetch_add(1);
}

ScopedEntry::~ScopedEntry() {
  while (m_completed.load() > 0) {
    m_begun.fetch_sub(1);
    m_object->Leave();
    m_completed.fetch_sub(1);
  }
}

CZepOSCriticalSection::~CZepOSCriticalSection() {
  if (m_initialized.load() != 0) (void)Destroy();
}

void CZepOSCriticalSection::Initialize() {
  if (m_initialized.load() != 0) return;
  m_section.emplace();
  m_kernelLibrary = nullptr;
  m_tryEnter = XPlat::GetOSID() == XPlat::OSID_NT ? &TryEnterSection : nullptr;
  m_initialized.store(1);
}

int CZepOSCriticalSection::Lock() {
  if (m_initialized.load() == 0) return -1;
  m_section->Enter();
  return 1;
}

int CZepOSCriticalSection::Unlock() {
  if (m_initialized.load() == 0) return -1;
  m_section->Leave();
  return 1;
}

int CZepOSCriticalSection::TryLock() {
  if (m_initialized.load() == 0) return -1;
  if (XPlat::GetOSID() != XPlat::OSID_NT) return -2;
  if (m_tryEnter == nullptr) return -1;
  return m_tryEnter(*m_section) ? 1 : 0;
}

int CZepOSCriticalSection::Destroy() {
  if (m_initialized.load() == 0) return -1;
  m_initialized.store(0);
  m_section.reset();
  m_kernelLibrary = nullptr;
  return 1;
}

CZepGateKeeper::CZepGateKeeper(CZepOSCriticalSection* section) : m_section(section) {
  if (m_section->Lock() != 1) throw std::runtime_error("CZepGateKeeper() - Unable to lock mutex!");
}

CZepGateKeeper::CZepGateKeeper(CZepOSCriticalSection& section) : CZepGateKeeper(&section) {}

CZepGateKeeper::~CZepGateKeeper() {
  (void)m_section->Unlock();
}

}  // namespace ZepFoundation
