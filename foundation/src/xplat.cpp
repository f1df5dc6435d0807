#include "foundation/include/zfcxplat.h"

#include <algorithm>
#include <string>

#include "platform/host.h"

namespace ZepFoundation {
namespace {

constexpr std::size_t kUserNameBuffer = 256;    // characters, with the terminator
constexpr std::size_t kMachineNameBuffer = 15;  // the size that is passed for the machine's name

// A process-wide buffer, filled once; a name that doesn't fit leaves it empty.
template <std::size_t N>
struct NameBuffer {
  explicit NameBuffer(platform::ErrorCode (*ask)(std::u16string&)) {
    std::u16string name;
    filled = ask(name) == platform::ERROR_SUCCESS && name.size() < N;
    if (filled) std::copy(name.begin(), name.end(), text);
  }
  char16_t text[N] = {};
  bool filled = false;
};

}  // namespace

XPlat::OSID XPlat::GetOSID() {
  return static_cast<OSID>(2 - (platform::SystemVersion() >> 31));
}

const char16_t* XPlat::UserName() {
  static const NameBuffer<kUserNameBuffer> buffer(&platform::UserName);
  return buffer.filled ? buffer.text : nullptr;
}

const char16_t* XPlat::MachineName() {
  static const NameBuffer<kMachineNameBuffer> buffer(&platform::MachineName);
  return buffer.text;
}

}  // namespace ZepFoundation
