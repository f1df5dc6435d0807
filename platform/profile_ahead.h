// platform/profile_ahead.h: how the profile calls take a file that was read ahead (profile_read_ahead.h).
#pragma once

#include <string>

#include "platform/profile_text.h"

namespace platform::detail {

// Takes a file that was read ahead out of there, when it still is the one that was read.
//   name     its kernel name
//   text     its meaning
//   returns  false: it is to be read now
[[nodiscard]] bool TakeReadAhead(const std::string& name, ProfileText& text);

}  // namespace platform::detail
