#include "foundation/include/zfcxplat.h"

#include <algorithm>
#include <string>

#include "foundation/include/zfcsync.h"
#include "platform/host.h"

namespace ZepFoundation {
namespace {

constexpr std::size_t kUserNameBuffer = 256;    // characters, with the terminator
constexpr std::size_t kMachineNameBuffer = 15;  // the size that is passed for the machine's name

// A process-wide buffer. Filled once, so that who holds its address may read it without a lock.
template <std::size_t N>
class NameBuffer {
 public:
  // Asks unless it is filled; a name that doesn't fit counts as none. True when it is filled.
  bool Fill(platform::ErrorCode (*ask)(std::u16string&)) {
    const CZepGateKeeper hold(m_lock);
    std::u16string name;
    if (m_filled || ask(name) != platform::ERROR_SUCCESS || name.size() >= N) return m_filled;
    std::copy(name.begin(), name.end(), m_text);
    return m_filled = true;
  }
  [[nodiscard]] const char16_t* Text() const { return m_text; }

 private:
  CZepOSCriticalSection m_lock;
  bool m_filled QX_GUARDED_BY(m_lock) = false;
  char16_t m_text[N] = {};
};

}  // namespace

XPlat::OSID XPlat::GetOSID() {
  return static_cast<OSID>(2 - (platform::SystemVersion() >> 31));
}

const char16_t* XPlat::UserName() {
  static auto* const buffer = new NameBuffer<kUserNameBuffer>;
  return buffer->Fill(&platform::UserName) ? buffer->Text() : nullptr;
}

const char16_t* XPlat::MachineName() {
  static auto* const buffer = new NameBuffer<kMachineNameBuffer>;
  (void)buffer->Fill(&platform::MachineName);  // the buffer is given whatever came of it
  return buffer->Text();
}

}  // namespace ZepFoundation
