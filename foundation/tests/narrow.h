// foundation/tests/narrow.h: the library's wide texts beside plain literals.
#pragma once

#include <string>

#include "foundation/include/zfcstring.h"

namespace ZepFoundation {

inline std::string Narrow(const wcstring& text) {
  return text.ascii();
}

}  // namespace ZepFoundation
