#include "platform/testing/kill_switch.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>

#include "platform/fault_point.h"

namespace platform {
namespace {

KillPage* MapPage(const char* file, int flags) {
  const int descriptor = ::open(file, flags | O_RDWR | O_CLOEXEC, 0600);
  if (descriptor < 0) return nullptr;
  void* page = MAP_FAILED;
  if (::ftruncate(descriptor, sizeof(KillPage)) == 0) {
    page = ::mmap(nullptr, sizeof(KillPage), PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
  }
  ::close(descriptor);
  return page == MAP_FAILED ? nullptr : static_cast<KillPage*>(page);
}

// The page of the test that started this program; null in all others.
KillPage* PageOfThisProgram() {
  const char* const file = std::getenv(kKillVariable);
  KillPage* const page = file == nullptr ? nullptr : MapPage(file, 0);
  // A child of this program is none of the test's business.
  ::unsetenv(kKillVariable);
  if (page != nullptr) detail::g_faultSeamArmed.store(true);
  return page;
}

KillPage* const g_page = PageOfThisProgram();

}  // namespace

void detail::CountForKillSwitch(std::uint16_t operation) {
  if (g_page == nullptr || g_page->armed.load() == 0) return;
  g_page->last.store(operation);
  const std::uint32_t call = g_page->calls.fetch_add(1) + 1;
  if (call != g_page->killAt.load()) return;
  (void)::kill(::getpid(), SIGKILL);
  while (true) ::pause();
}

KillSwitch::KillSwitch(const std::string& file) : m_file(file), m_page(MapPage(file.c_str(), O_CREAT | O_TRUNC)) {}

KillSwitch::~KillSwitch() {
  if (m_page != nullptr) (void)::munmap(m_page, sizeof(KillPage));
}

void KillSwitch::Arm(std::uint32_t killAt) {
  m_page->armed.store(0);
  m_page->killAt.store(killAt);
  m_page->calls.store(0);
  m_page->armed.store(1);
}

void KillSwitch::Disarm() {
  m_page->armed.store(0);
}

std::uint32_t KillSwitch::Calls() const {
  return m_page->calls.load();
}

std::string KillSwitch::LastOperation() const {
  return std::string(OperationName(static_cast<Operation>(m_page->last.load())));
}

}  // namespace platform
