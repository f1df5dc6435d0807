// foundation/include/zfcxplat.h: small questions to the platform.
//
// Threads: any. A name is asked until the platform has told one that fits; the buffers live to the end of the process.
#pragma once

#include <cstdint>

#include "foundation/include/zfcexport.h"

namespace ZepFoundation ZEP_FOUNDATION_API {

class XPlat {  // what differs between hosts
 public:
  enum OSID : std::uint32_t {
    OSID_WITHOUT_SECURITY = 1,  // the family without the security model
    OSID_NT = 2,                // the family with it
  };

  // 2 minus the top bit of the system's version number.
  [[nodiscard]] static OSID GetOSID();
  // The account's name; null when the platform doesn't tell one that fits in 255 characters.
  [[nodiscard]] static const char16_t* UserName();
  // The machine's name, never null; one of more than 14 characters doesn't fit and reads as empty.
  [[nodiscard]] static const char16_t* MachineName();

  XPlat() = delete;
};

}  // namespace ZepFoundation
