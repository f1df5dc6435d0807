// platform/environment_copy.h: the environment of this process, as a child may have it.
//
// For the files that start children alone. Threads: any.
#pragma once

#include <string>
#include <vector>

namespace platform {

// Every variable as "NAME=value". Waits while a zone is read: TZ then says what the C library is to read, for as long as
// that takes.
[[nodiscard]] std::vector<std::string> CopyEnvironment();

}  // namespace platform
