// platform/profile_ahead.h: how the profile calls take a file that was read ahead (profile_read_ahead.h).
#pragma once

#include <string>

#include "platform/profile_text.h"

namespace platform::detail {

// The bytes of a file. A missing file is a text too: the empty one.
struct ProfileFile {
  std::string bytes;
  bool exists = false;
};

// Takes a file that was read ahead out of there, when it still is the one that was read.
//   name     its kernel name
//   file     its bytes
//   text     their meaning
//   returns  false: it is to be read now
[[nodiscard]] bool TakeReadAhead(const std::string& name, ProfileFile& file, ProfileText& text);

}  // namespace platform::detail
